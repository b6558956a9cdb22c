#include "nerva/platform/cl/session_impl.h"

#include <stdexcept>

#include "nerva/module.h"
#include "nerva/platform/cl/buffer_impl.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/queue_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// GPUs of the first platform that has any; otherwise every device of the first platform.
std::vector<::cl::Device> ListSessionDevices() {
  std::vector<::cl::Platform> platforms;
  ::cl::Platform::get(&platforms);
  if (platforms.empty()) throw std::runtime_error("No valid CL device.");
  for (const auto& platform : platforms) {
    std::vector<::cl::Device> gpus;
    if (platform.getDevices(CL_DEVICE_TYPE_GPU, &gpus) == CL_SUCCESS && !gpus.empty()) return gpus;
  }
  std::vector<::cl::Device> devices;
  platforms.front().getDevices(CL_DEVICE_TYPE_ALL, &devices);
  return devices;
}

}  // namespace

SessionImpl::SessionImpl(int device_id, const std::string& platform) : platform_(platform) {
  std::vector<::cl::Device> devices = ListSessionDevices();
  if (device_id < 0 || static_cast<size_t>(device_id) >= devices.size()) {
    throw std::out_of_range(
        StrCat("Device id ", device_id, " not found, valid device num is ", devices.size(), "."));
  }
  device_ = devices[device_id];
  cl_int status = CL_SUCCESS;
  context_ = ::cl::Context(device_, nullptr, nullptr, nullptr, &status);
  CheckStatus(status, "Create context fail, reason: ");
  InitDeviceInfo();
}

SessionImpl::SessionImpl(cl_context context, cl_device_id device, const std::string& platform)
    : platform_(platform), context_(context, true), device_(device, true) {
  InitDeviceInfo();
}

SessionImpl::~SessionImpl() {
  queues_.clear();
  programs_.clear();
}

void SessionImpl::InitDeviceInfo() {
  max_work_group_size_ = device_.getInfo<CL_DEVICE_MAX_WORK_GROUP_SIZE>();
  local_mem_size_ = device_.getInfo<CL_DEVICE_LOCAL_MEM_SIZE>();
  compute_units_ = device_.getInfo<CL_DEVICE_MAX_COMPUTE_UNITS>();
  host_cpu_ = (device_.getInfo<CL_DEVICE_TYPE>() & CL_DEVICE_TYPE_CPU) != 0;
  cache_size_ = device_.getInfo<CL_DEVICE_GLOBAL_MEM_CACHE_SIZE>();
  base_align_ = device_.getInfo<CL_DEVICE_MEM_BASE_ADDR_ALIGN>() / 8;
  available_local_mem_ = local_mem_size_;
  bfloat16_supported_ = dev_supports_extension("cl_nrv_bhalf");
  fp8_supported_ = dev_supports_extension("cl_nrv_fp8");
}

bool SessionImpl::StreamStores(uint64_t bytes, uint64_t vector,
                               const std::vector<uint64_t>& steps) const {
  if (!host_cpu() || vector == 0 || base_align_ % vector != 0) return false;
  for (uint64_t step : steps) {
    if (step % vector != 0) return false;
  }
  if (stream_from_testing_ != 0) return bytes >= stream_from_testing_;
  return cache_size_ != 0 && bytes >= cache_size_ / 2;
}

bool SessionImpl::dev_supports_extension(const char* name) const {
  if (!tensorcore_emulation_dir_.empty() && std::string(name) == "cl_nrv_tensorcore") return true;
  return device_.getInfo<CL_DEVICE_EXTENSIONS>().find(name) != std::string::npos;
}

void SessionImpl::EmulateTensorCoreForTesting(const std::string& include_dir) {
  tensorcore_emulation_dir_ = include_dir;
}

std::string SessionImpl::BuildFlags(const std::string& options) const {
  std::string flags = options + BuildExtensionOptions();
  if (tensorcore_emulation_dir_.empty()) return flags;
  const std::string own = " -cl-nrv-inline-all-func ";
  for (size_t at = flags.find(own); at != std::string::npos; at = flags.find(own)) {
    flags.erase(at, own.size());
  }
  return flags + " -I" + tensorcore_emulation_dir_;
}

std::string SessionImpl::BuildExtensionOptions() const {
  std::string options;
  if (bfloat16_supported_) options += " -DNERVA_OPENCL_BFLOAT16_ENABLED";
  if (fp8_supported_) options += " -DNERVA_OPENCL_FP8_ENABLED";
  return options;
}

Queue SessionImpl::MakeQueue() {
  Queue queue(std::make_shared<QueueImpl>(std::weak_ptr<SessionImpl>(shared_from_this())));
  queues_.push_back(queue);
  return queue;
}

Queue SessionImpl::WrapQueue(void* native_queue) {
  if (native_queue == nullptr) throw std::runtime_error("WrapQueue fail, external queue is NULL.");
  return Queue(
      std::make_shared<QueueImpl>(weak_from_this(), static_cast<cl_command_queue>(native_queue)));
}

Buffer SessionImpl::WrapBuffer(void* native_buffer) {
  if (native_buffer == nullptr) {
    throw std::runtime_error("WrapBuffer fail, external buffer is NULL.");
  }
  ::cl::Buffer mem(static_cast<cl_mem>(native_buffer), true);
  size_t size = 0;
  CheckStatus(mem.getInfo(CL_MEM_SIZE, &size), "Get CL buffer size fail, reason :");
  return nerva::MakeBuffer<BufferImpl>(weak_from_this(), mem, static_cast<long>(size));
}

Buffer SessionImpl::MakeBufferImpl(const std::string& name, FunctionParameters& params) {
  const auto* allocator = ClModule::singleton().FindAllocator(name);
  if (allocator == nullptr) throw std::runtime_error("CL not support Allocator: " + name);
  return allocator->Call(params);
}

std::shared_ptr<EncodedCoef> SessionImpl::EncodeCoefImpl(const std::string& name,
                                                         FunctionParameters& params) {
  const auto* encoder = ClModule::singleton().FindCoefEncoder(name);
  if (encoder == nullptr) throw std::runtime_error("CL not support CoefEncoder: " + name);
  return encoder->Call(params);
}

void SessionImpl::SetRandomSeed(unsigned long seed, unsigned long offset) {
  random_seed_ = seed;
  random_offset_ = offset;
}

bool SessionImpl::GetInfo(PlatformInfo info, unsigned long param_size, void* param,
                          unsigned long* /*ret_size*/) const {
  if (info == kPlatformInfoNone) return false;
  if (info != kPlatformInfoSupportType) {
    throw std::invalid_argument(
        StrCat("GetInfo fail, unknonw platofrm info ", static_cast<int>(info)));
  }
  if (param_size != 4) {
    throw std::runtime_error(StrCat("Get type info fail, value size error: ", param_size));
  }
  switch (*static_cast<const int32_t*>(param)) {
    case kHalf:
    case kFloat:
    case kInt8:
    case kInt16:
    case kInt32:
    case kInt64:
    case kUInt8:
    case kUInt16:
    case kUInt32:
    case kUInt64:
      return true;
    case kBFloat:
      return bfloat16_supported_;
    case kFloat8_e4m3fn:
    case kFloat8_e5m2:
      return fp8_supported_;
    default:  // double on purpose, bool and unknown codes
      return false;
  }
}

std::shared_ptr<Program> SessionImpl::TryLoadCachedProgram(const std::string& key) const {
  auto it = programs_.find(key);
  return it == programs_.end() ? nullptr : it->second;
}

std::string SessionImpl::GetBuildLog(cl_program program) const {
  cl_device_id device = device_();
  size_t size = 0;
  cl_int status = clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, 0, nullptr, &size);
  CheckStatus(status, "Get program compile log fail, reason: ");
  std::string log(size, '\0');
  status = clGetProgramBuildInfo(program, device, CL_PROGRAM_BUILD_LOG, size, log.data(), nullptr);
  CheckStatus(status, "Get program compile log fail, reason: ");
  while (!log.empty() && log.back() == '\0') log.pop_back();
  return log;
}

std::shared_ptr<ISessionImpl> MakeSession(int device_id) {
  return std::make_shared<SessionImpl>(device_id, "opencl");
}

std::shared_ptr<ISessionImpl> MakeSession(void* context, void* device) {
  if (context == nullptr) throw std::runtime_error("Make CL session fail, ctx is NULL.");
  if (device == nullptr) throw std::runtime_error("Make CL session fail, device is NULL.");
  return std::make_shared<SessionImpl>(static_cast<cl_context>(context),
                                       static_cast<cl_device_id>(device), "opencl");
}

namespace {
std::shared_ptr<ISessionImpl> MakeSessionById(int device_id) {
  return MakeSession(device_id);
}
std::shared_ptr<ISessionImpl> MakeSessionFromNative(void* context, void* device) {
  return MakeSession(context, device);
}
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterSessionFactory("opencl", &MakeSessionById);
  RegisterNativeSessionFactory(&MakeSessionFromNative);
};

}  // namespace cl
}  // namespace nerva
