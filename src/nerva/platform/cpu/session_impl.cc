#include "nerva/platform/cpu/session_impl.h"

#include <stdexcept>

#include "nerva/platform/cpu/module.h"
#include "nerva/platform/cpu/queue_impl.h"

namespace nerva::cpu {

Queue SessionImpl::MakeQueue() {
  return Queue(std::make_shared<QueueImpl>(weak_from_this()));
}

Queue SessionImpl::WrapQueue(void* /*native_queue*/) {
  throw std::runtime_error("Cpu backend doesn't support WrapQueue.");
}

Buffer SessionImpl::WrapBuffer(void* /*native_buffer*/) {
  throw std::runtime_error("Cpu backend doesn't support WrapBuffer.");
}

Buffer SessionImpl::MakeBufferImpl(const std::string& name, FunctionParameters& params) {
  const auto* allocator = CpuModule::singleton().FindAllocator(name);
  if (allocator == nullptr) throw std::runtime_error("CPU not support Allocator: " + name);
  return allocator->Call(params);
}

std::shared_ptr<EncodedCoef> SessionImpl::EncodeCoefImpl(const std::string& /*name*/,
                                                         FunctionParameters& /*params*/) {
  throw std::runtime_error("CPU not support CoefEncoder");
}

void SessionImpl::SetRandomSeed(unsigned long seed, unsigned long offset) {
  seed_ = seed;
  offset_ = offset;
}

bool SessionImpl::GetInfo(PlatformInfo info, unsigned long /*param_size*/, void* /*param*/,
                          unsigned long* /*ret_size*/) const {
  return info == kPlatformInfoSupportType;
}

std::shared_ptr<ISessionImpl> MakeSession(int device) {
  return std::make_shared<SessionImpl>(device);
}

namespace {
NERVA_STATIC_REGISTER {
  RegisterSessionFactory("cpu", &MakeSession);
};
}  // namespace

}  // namespace nerva::cpu
