#pragma once

#include <memory>

namespace nerva {

// Completion of enqueued work; platforms add their own wait and profiling.
class IEventImpl {
 public:
  virtual ~IEventImpl() = default;
};

class Event {
 public:
  Event() = default;
  Event(std::shared_ptr<IEventImpl> impl) : impl_(std::move(impl)) {}

  const std::shared_ptr<IEventImpl>& impl() const { return impl_; }
  IEventImpl* get() const { return impl_.get(); }
  explicit operator bool() const { return impl_ != nullptr; }

 private:
  std::shared_ptr<IEventImpl> impl_;
};

template <typename Impl, typename... Args>
Event MakeEvent(Args&&... args) {
  return Event(std::make_shared<Impl>(std::forward<Args>(args)...));
}

}  // namespace nerva
