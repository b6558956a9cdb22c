#pragma once

#include <memory>
#include <string>

#include "nerva/array_ref.h"
#include "nerva/buffer.h"
#include "nerva/encoded_coef.h"
#include "nerva/function_wrapper.h"
#include "nerva/queue.h"
#include "nerva/tensor.h"

namespace nerva {

// Keys of Session::GetInfo.
enum PlatformInfo : int32_t {
  kPlatformInfoNone = 0,
  // Is an element type supported? The value is the 32-bit DataType code.
  kPlatformInfoSupportType = 1,
};

// One platform on one device: makes queues and buffers, encodes coefficients.
class ISessionImpl {
 public:
  virtual ~ISessionImpl() = default;
  virtual Queue MakeQueue() = 0;
  // Adopts a native queue made by the host program.
  virtual Queue WrapQueue(void* native_queue) = 0;
  virtual Buffer WrapBuffer(void* native_buffer) = 0;
  virtual Buffer MakeBufferImpl(const std::string& name, FunctionParameters& params) = 0;
  virtual std::shared_ptr<EncodedCoef> EncodeCoefImpl(const std::string& name,
                                                      FunctionParameters& params) = 0;
  virtual void SetRandomSeed(unsigned long seed, unsigned long offset) = 0;
  virtual bool GetInfo(PlatformInfo info, unsigned long param_size, void* param,
                       unsigned long* ret_size) const = 0;

  // Allocation through the allocator registered under `name`.
  template <typename... Args>
  Buffer MakeBuffer(const std::string& name, Args&&... args) {
    FunctionParameters params(std::forward<Args>(args)...);
    return MakeBufferImpl(name, params);
  }

  // Coefficient encoding through the encoder registered under `name`.
  template <typename... Args>
  std::shared_ptr<EncodedCoef> EncodeCoef(const std::string& name, Args&&... args) {
    FunctionParameters params(std::forward<Args>(args)...);
    return EncodeCoefImpl(name, params);
  }
};

// The platform used by Session(device_id): always "opencl".
const std::string& GetDefautPlatform();

// Opens a session of the named platform ("opencl" or "cpu").
std::shared_ptr<ISessionImpl> MakeSession(const std::string& platform, int device_id);

// Signature of a platform's session factory.
using SessionFactory = std::shared_ptr<ISessionImpl> (*)(int device_id);
// Platforms install their factory at load time; an empty slot means the
// platform is not built into this library.
void RegisterSessionFactory(const std::string& platform, SessionFactory factory);
// The OpenCL platform installs the factory that adopts a caller's context and device.
using NativeSessionFactory = std::shared_ptr<ISessionImpl> (*)(void* context, void* device);
void RegisterNativeSessionFactory(NativeSessionFactory factory);

class Session {
 public:
  explicit Session(int device_id = 0);
  Session(const std::string& platform, int device_id);
  // Adopts an existing OpenCL context and device; only for "opencl".
  Session(const std::string& platform, void* context, void* device);
  Session(std::shared_ptr<ISessionImpl> impl) : impl_(std::move(impl)) {}

  Buffer MakeBuffer(MemoryFlags flags, long size, void* host_ptr = nullptr);
  Buffer WrapBuffer(void* native_buffer) { return impl_->WrapBuffer(native_buffer); }
  Queue MakeQueue() { return impl_->MakeQueue(); }
  Queue WrapQueue(void* native_queue) { return impl_->WrapQueue(native_queue); }
  void SetRandomSeed(unsigned long seed, unsigned long offset) {
    impl_->SetRandomSeed(seed, offset);
  }
  bool GetInfo(PlatformInfo info, unsigned long param_size, void* param,
               unsigned long* ret_size) const {
    return impl_->GetInfo(info, param_size, param, ret_size);
  }
  bool SupportType(DataType type) const;
  // A contiguous tensor over a new buffer; its byte size must be positive.
  Tensor MakeTensor(ArrayRef<long> sizes, DataType dtype, MemoryFlags flags = kMemReadWrite,
                    void* host_ptr = nullptr);

  const std::shared_ptr<ISessionImpl>& impl() const { return impl_; }
  ISessionImpl* get() const { return impl_.get(); }
  operator const std::shared_ptr<ISessionImpl>&() const { return impl_; }

 private:
  std::shared_ptr<ISessionImpl> impl_;
};

}  // namespace nerva
