#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/session.h"

namespace nerva {
namespace cl {

class Program;
class BuildOption;

// One OpenCL device and its context: makes queues and buffers and keeps the
// programs built for this device, keyed by name and build options.
class SessionImpl : public ISessionImpl, public std::enable_shared_from_this<SessionImpl> {
 public:
  // Opens device `device_id` among the GPUs of the first platform that has any,
  // or among all devices of the first platform when no platform has a GPU.
  SessionImpl(int device_id, const std::string& platform);
  // Adopts (and retains) a caller's context and device.
  SessionImpl(cl_context context, cl_device_id device, const std::string& platform);
  ~SessionImpl() override;

  Queue MakeQueue() override;
  Queue WrapQueue(void* native_queue) override;
  Buffer WrapBuffer(void* native_buffer) override;
  Buffer MakeBufferImpl(const std::string& name, FunctionParameters& params) override;
  std::shared_ptr<EncodedCoef> EncodeCoefImpl(const std::string& name,
                                              FunctionParameters& params) override;
  void SetRandomSeed(unsigned long seed, unsigned long offset) override;
  bool GetInfo(PlatformInfo info, unsigned long param_size, void* param,
               unsigned long* ret_size) const override;

  void InitDeviceInfo();
  bool dev_supports_extension(const char* name) const;
  // " -DNERVA_OPENCL_BFLOAT16_ENABLED" and/or " -DNERVA_OPENCL_FP8_ENABLED", as supported.
  std::string BuildExtensionOptions() const;
  // The flags a program is built with: `options`, then BuildExtensionOptions().
  std::string BuildFlags(const std::string& options) const;

  // Test hook: builds this session's programs against stand-ins of the device
  // compiler's tensor-core headers found in `include_dir` (added with -I), reports
  // the cl_nrv_tensorcore extension, and drops the device compiler's own
  // "-cl-nrv-inline-all-func" option, which other compilers reject.
  void EmulateTensorCoreForTesting(const std::string& include_dir);
  // Test hook: makes programs that choose their layout by device class take
  // their GPU variants (true) or the device's own choice again (false).
  void TreatAsGpuForTesting(bool gpu) { treat_as_gpu_ = gpu; }
  // Test hook: outputs of at least `bytes` take streaming stores (0: the
  // device's own threshold again).
  void StreamStoresFromForTesting(uint64_t bytes) { stream_from_testing_ = bytes; }

  // Program cache (see program.h for LoadOrBuildProgram).
  std::shared_ptr<Program> TryLoadCachedProgram(const std::string& key) const;
  template <typename ProgramType>
  std::shared_ptr<Program> LoadOrBuildProgram(const std::string& key,
                                              const std::vector<std::string>& sources,
                                              const BuildOption& options);
  std::string GetBuildLog(cl_program program) const;

  const std::string& platform() const { return platform_; }
  const ::cl::Context& context() const { return context_; }
  const ::cl::Device& device() const { return device_; }
  size_t max_work_group_size() const { return max_work_group_size_; }
  uint64_t local_mem_size() const { return local_mem_size_; }
  uint32_t compute_units() const { return compute_units_; }
  // True where the device compiler targets the host processor (PoCL's CPU device):
  // programs then favour long sequential loops per item over many small groups.
  bool host_cpu() const { return host_cpu_ && !treat_as_gpu_; }
  uint64_t available_local_mem() const { return available_local_mem_; }
  // Whether a program writing `bytes` of output once should store it past the
  // caches (host-CPU devices, outputs of at least half the device's cache):
  // such an output would only evict its own inputs, and its old contents
  // need not be read first. Streaming stores need aligned vectors: `vector`
  // bytes must divide the buffers' base alignment and every byte offset or
  // stride in `steps` that places a streamed vector.
  bool StreamStores(uint64_t bytes, uint64_t vector, const std::vector<uint64_t>& steps) const;
  bool bfloat16_supported() const { return bfloat16_supported_; }
  bool fp8_supported() const { return fp8_supported_; }
  uint64_t random_seed() const { return random_seed_; }
  uint64_t random_offset() const { return random_offset_; }
  size_t program_count() const { return programs_.size(); }

 private:
  std::string platform_;
  ::cl::Context context_;
  ::cl::Device device_;
  std::vector<Queue> queues_;
  std::map<std::string, std::shared_ptr<Program>> programs_;
  size_t max_work_group_size_ = 0;
  uint64_t local_mem_size_ = 0;
  uint32_t compute_units_ = 0;
  bool host_cpu_ = false;
  bool treat_as_gpu_ = false;  // test hook
  uint64_t cache_size_ = 0;
  uint64_t base_align_ = 0;           // bytes
  uint64_t stream_from_testing_ = 0;  // test hook
  uint64_t available_local_mem_ = 0;
  bool bfloat16_supported_ = false;
  bool fp8_supported_ = false;
  uint64_t random_seed_ = 0;
  uint64_t random_offset_ = 0;
  std::string tensorcore_emulation_dir_;  // test hook; empty in normal use
};

std::shared_ptr<ISessionImpl> MakeSession(int device_id);
std::shared_ptr<ISessionImpl> MakeSession(void* context, void* device);

}  // namespace cl
}  // namespace nerva
