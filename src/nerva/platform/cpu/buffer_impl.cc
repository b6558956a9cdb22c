#include "nerva/platform/cpu/buffer_impl.h"

#include <stdexcept>
#include <utility>

#include "nerva/util.h"

namespace nerva::cpu {

std::shared_ptr<IStorage> Storage::View(long offset, long size) {
  return std::make_shared<StorageView>(shared_from_this(), offset, size);
}

const void* StorageView::data() const {
  return static_cast<const uint8_t*>(std::as_const(*root_).data()) + offset_;
}

void* StorageView::data() {
  return static_cast<uint8_t*>(root_->data()) + offset_;
}

std::shared_ptr<IStorage> StorageView::View(long offset, long size) {
  return std::make_shared<StorageView>(root_, offset_ + offset, size);
}

Buffer BufferImpl::View(long offset, long size, unsigned long /*flags*/) const {
  if (offset < 0 || size < 0) {
    throw std::invalid_argument(
        StrCat("Create CPU view fail, invalid offset ", offset, " or size ", size));
  }
  if (offset > this->size() - size) {
    throw std::invalid_argument(StrCat("Create CPU view fail, the offset + size > total size: ",
                                       offset, " + ", size, " > ", this->size()));
  }
  return MakeBuffer<BufferImpl>(storage_->View(offset, size));
}

}  // namespace nerva::cpu
