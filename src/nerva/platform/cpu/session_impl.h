#pragma once

#include <memory>
#include <string>

#include "nerva/session.h"

namespace nerva::cpu {

// A session on host memory. It has no coefficient encoders and adopts no
// foreign handles; the random seed is kept but no CPU kernel reads it.
class SessionImpl : public ISessionImpl, public std::enable_shared_from_this<SessionImpl> {
 public:
  explicit SessionImpl(int device) : device_(device) {}

  Queue MakeQueue() override;
  Queue WrapQueue(void* native_queue) override;
  Buffer WrapBuffer(void* native_buffer) override;
  Buffer MakeBufferImpl(const std::string& name, FunctionParameters& params) override;
  std::shared_ptr<EncodedCoef> EncodeCoefImpl(const std::string& name,
                                              FunctionParameters& params) override;
  void SetRandomSeed(unsigned long seed, unsigned long offset) override;
  // Answers true for the supported-type query only and writes nothing.
  bool GetInfo(PlatformInfo info, unsigned long param_size, void* param,
               unsigned long* ret_size) const override;

  int device() const { return device_; }
  const std::string& platform() const { return platform_; }
  unsigned long seed() const { return seed_; }
  unsigned long offset() const { return offset_; }

 private:
  int device_;
  std::string platform_ = "cpu";
  unsigned long seed_ = 0;
  unsigned long offset_ = 0;
};

// The "cpu" platform's session factory.
std::shared_ptr<ISessionImpl> MakeSession(int device);

}  // namespace nerva::cpu
