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

namespace {

void RequireZeroOffsets(const IQueueImpl& queue, long dst_offset, long src_offset) {
  if (dst_offset != 0 || src_offset != 0) {
    throw std::runtime_error(queue.GetPlatform() + " queue does not copy at byte offsets");
  }
}

}  // namespace

Event IQueueImpl::CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) {
  RequireZeroOffsets(*this, 0, src_offset);
  return CopyDeviceToHost(dst, src, size);
}

Event IQueueImpl::CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) {
  RequireZeroOffsets(*this, dst_offset, 0);
  return CopyHostToDevice(std::move(dst), src, size);
}

Event IQueueImpl::CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src,
                                     long src_offset, long size) {
  RequireZeroOffsets(*this, dst_offset, src_offset);
  return CopyDeviceToDevice(std::move(dst), src, size);
}

Event Queue::CopyDeviceToHost(void* dst, const Buffer& src, long src_offset, long size) {
  if (dst == nullptr)
    throw std::invalid_argument("Copy device to host fail, unexpected null dest buffer!");
  if (!src) throw std::invalid_argument("Copy device to host fail, unexpected null src buffer!");
  return impl_->CopyDeviceToHost(dst, src, src_offset, size);
}

Event Queue::CopyHostToDevice(Buffer dst, long dst_offset, const void* src, long size) {
  if (!dst) throw std::invalid_argument("Copy host to device fail, unexpected null dest buffer!");
  if (src == nullptr)
    throw std::invalid_argument("Copy host to device fail, unexpected null src buffer!");
  return impl_->CopyHostToDevice(std::move(dst), dst_offset, src, size);
}

Event Queue::CopyDeviceToDevice(Buffer dst, long dst_offset, const Buffer& src, long src_offset,
                                long size) {
  if (!dst) throw std::invalid_argument("Copy device to device fail, unexpected null dest buffer!");
  if (!src) throw std::invalid_argument("Copy device to host fail, unexpected null src buffer!");
  return impl_->CopyDeviceToDevice(std::move(dst), dst_offset, src, src_offset, size);
}

}  // namespace nerva
