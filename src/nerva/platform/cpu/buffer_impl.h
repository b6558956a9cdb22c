#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"

namespace nerva::cpu {

// A block of host bytes.
class IStorage {
 public:
  virtual ~IStorage() = default;
  // Size in bytes.
  virtual long size() const = 0;
  virtual const void* data() const = 0;
  virtual void* data() = 0;
  // A storage sharing [offset, offset + size) of this one.
  virtual std::shared_ptr<IStorage> View(long offset, long size) = 0;
};

// Owned, zero-filled bytes. Views hold the storage through shared_from_this,
// so a Storage must itself be owned by a shared pointer.
class Storage : public IStorage, public std::enable_shared_from_this<Storage> {
 public:
  explicit Storage(long size) : bytes_(static_cast<size_t>(size)) {}

  long size() const override { return static_cast<long>(bytes_.size()); }
  const void* data() const override { return bytes_.data(); }
  void* data() override { return bytes_.data(); }
  std::shared_ptr<IStorage> View(long offset, long size) override;

 private:
  std::vector<uint8_t> bytes_;
};

// A window on a root Storage. A view of a view refers to the same root with
// the offsets added, so views never chain.
class StorageView : public IStorage {
 public:
  StorageView(std::shared_ptr<Storage> root, long offset, long size)
      : root_(std::move(root)), offset_(offset), size_(size) {}

  long size() const override { return size_; }
  const void* data() const override;
  void* data() override;
  std::shared_ptr<IStorage> View(long offset, long size) override;

 private:
  std::shared_ptr<Storage> root_;
  long offset_;
  long size_;
};

// Host memory of the CPU platform; UnsafeGetPtr() is the host pointer.
class BufferImpl : public IBufferImpl {
 public:
  explicit BufferImpl(std::shared_ptr<IStorage> storage) : storage_(std::move(storage)) {}

  long size() const override { return storage_->size(); }
  void* UnsafeGetPtr() const override { return storage_->data(); }
  // The flags have no meaning on the host; offset + size must fit the buffer.
  Buffer View(long offset, long size, unsigned long flags) const override;

  const std::shared_ptr<IStorage>& storage() const { return storage_; }

 private:
  std::shared_ptr<IStorage> storage_;
};

}  // namespace nerva::cpu
