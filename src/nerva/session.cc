#include "nerva/session.h"

#include <map>
#include <stdexcept>

#include "nerva/util.h"

namespace nerva {
namespace {

std::map<std::string, SessionFactory>& SessionFactories() {
  static std::map<std::string, SessionFactory> factories;
  return factories;
}

NativeSessionFactory& NativeFactory() {
  static NativeSessionFactory factory = nullptr;
  return factory;
}

[[noreturn]] void ThrowNotBuilt(const std::string& platform) {
  throw std::runtime_error("Platform \"" + platform + "\" is not available in this build");
}

}  // namespace

const std::string& GetDefautPlatform() {
  static const std::string platform = "opencl";
  return platform;
}

void RegisterSessionFactory(const std::string& platform, SessionFactory factory) {
  SessionFactories()[platform] = factory;
}

void RegisterNativeSessionFactory(NativeSessionFactory factory) {
  NativeFactory() = factory;
}

std::shared_ptr<ISessionImpl> MakeSession(const std::string& platform, int device_id) {
  if (platform != "cpu" && platform != "opencl") {
    throw std::invalid_argument("Unsupport platform \"" + platform + "\"");
  }
  auto it = SessionFactories().find(platform);
  if (it == SessionFactories().end() || it->second == nullptr) ThrowNotBuilt(platform);
  return it->second(device_id);
}

Session::Session(int device_id) : impl_(MakeSession(GetDefautPlatform(), device_id)) {}

Session::Session(const std::string& platform, int device_id)
    : impl_(MakeSession(platform, device_id)) {}

Session::Session(const std::string& platform, void* context, void* device) {
  if (platform != "opencl") {
    throw std::invalid_argument(
        "Only support create session from ctx and device for opencl platform, got " + platform);
  }
  if (NativeFactory() == nullptr) ThrowNotBuilt(platform);
  impl_ = NativeFactory()(context, device);
}

Buffer Session::MakeBuffer(MemoryFlags flags, long size, void* host_ptr) {
  // The allocator is registered for exactly these lvalue types.
  std::shared_ptr<ISessionImpl> session = impl_;
  return impl_->MakeBuffer("MakeBuffer", session, flags, size, host_ptr);
}

bool Session::SupportType(DataType type) const {
  int32_t code = type;
  return impl_->GetInfo(kPlatformInfoSupportType, sizeof(code), &code, nullptr);
}

Tensor Session::MakeTensor(ArrayRef<long> sizes, DataType dtype, MemoryFlags flags,
                           void* host_ptr) {
  TensorOption option{Shape(sizes), dtype};
  if (option.bytes() <= 0) {
    throw std::runtime_error(StrCat("Make tensor fail with size ", sizes, " and dtype ", dtype));
  }
  return Tensor(option, MakeBuffer(flags, option.bytes(), host_ptr), 0);
}

}  // namespace nerva
