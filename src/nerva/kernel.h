#pragma once

#include <memory>
#include <string>

namespace nerva {

// A prepared operator invocation of one platform.
class IKernelImpl {
 public:
  virtual std::string name() const = 0;
  virtual bool Verify() const = 0;
  virtual ~IKernelImpl() = default;
};

// What every operator front-end returns; passed to Queue::Enqueue.
class Kernel {
 public:
  Kernel() = default;
  Kernel(std::shared_ptr<IKernelImpl> impl) : impl_(std::move(impl)) {}

  std::string name() const { return impl_->name(); }
  const std::shared_ptr<IKernelImpl>& impl() const { return impl_; }
  IKernelImpl* get() const { return impl_.get(); }
  explicit operator bool() const { return impl_ != nullptr; }

 private:
  std::shared_ptr<IKernelImpl> impl_;
};

}  // namespace nerva
