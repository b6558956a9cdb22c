#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "nerva/array_ref.h"
#include "nerva/buffer.h"
#include "nerva/tensor_option.h"

namespace nerva {

// Shared state of a tensor: descriptor, storage, byte offset and contiguity.
class TensorImpl {
 public:
  TensorImpl(const TensorOption& option, const Buffer& storage, long storage_offset);

  const TensorOption& option() const { return option_; }
  const Buffer& storage() const { return storage_; }
  Buffer& storage() { return storage_; }
  long storage_offset() const { return storage_offset_; }
  bool is_contiguous() const { return is_contiguous_; }

  // The offset must lie inside the storage.
  void set_storage_offset(long offset);
  void set_sizes_and_strides(ArrayRef<long> sizes, ArrayRef<long> strides);
  // Replaces the shape without touching the contiguity flag (used by Reshape).
  void set_shape(const Shape& shape) { option_.shape = shape; }

 private:
  void RefreshContiguous();

  TensorOption option_;
  Buffer storage_;
  long storage_offset_ = 0;
  bool is_contiguous_ = true;
};

// A typed view on a Buffer. Copies share one TensorImpl; view operations
// without a trailing underscore return a new tensor and leave this one as is.
class Tensor {
 public:
  Tensor() = default;
  Tensor(const TensorOption& option, const Buffer& storage, long storage_offset);

  const TensorOption& option() const { return impl_->option(); }
  const Buffer& storage() const { return impl_->storage(); }
  Buffer& storage() { return impl_->storage(); }
  long storage_offset() const { return impl_->storage_offset(); }
  std::vector<long> strides_in_bytes() const { return option().GetStrideInBytes(); }
  bool is_contiguous() const { return impl_->is_contiguous(); }
  long size(long axis) const { return option().shape[static_cast<int>(axis)]; }
  DataType dtype() const { return option().dtype; }
  const Shape& shape() const { return option().shape; }
  bool defined() const;
  const std::shared_ptr<TensorImpl>& impl() const { return impl_; }

  Tensor Reshape(ArrayRef<long> sizes) const;
  Tensor& Reshape_(ArrayRef<long> sizes);
  Tensor AsStrided(ArrayRef<long> sizes, ArrayRef<long> strides, long storage_offset) const;
  Tensor& AsStrided_(ArrayRef<long> sizes, ArrayRef<long> strides, long storage_offset);
  Tensor Transpose(ArrayRef<long> order) const;
  Tensor& Transpose_(ArrayRef<long> order);
  Tensor BroadcastTo(ArrayRef<long> sizes) const;
  Tensor& BroadcastTo_(ArrayRef<long> sizes);
  Tensor Slice(ArrayRef<long> starts, ArrayRef<long> ends,
               std::optional<ArrayRef<long>> steps = std::nullopt) const;
  Tensor& Slice_(ArrayRef<long> starts, ArrayRef<long> ends,
                 std::optional<ArrayRef<long>> steps = std::nullopt);
  std::vector<Tensor> Split(ArrayRef<long> split_sizes, long dim) const;

 private:
  explicit Tensor(std::shared_ptr<TensorImpl> impl) : impl_(std::move(impl)) {}
  Tensor Copy() const { return Tensor(std::make_shared<TensorImpl>(*impl_)); }

  std::shared_ptr<TensorImpl> impl_;
};

}  // namespace nerva
