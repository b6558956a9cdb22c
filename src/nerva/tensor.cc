#include "nerva/tensor.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

#include "nerva/util.h"

namespace nerva {
namespace {

// Offsets and strides of views are products of non-negative values that a
// descriptor does not bound (an empty or single-element dimension may carry
// any stride). They saturate at LONG_MAX, which every bounds check refuses.
long SaturatingMul(long a, long b) {
  long r;
  return __builtin_mul_overflow(a, b, &r) ? std::numeric_limits<long>::max() : r;
}
long SaturatingAdd(long a, long b) {
  long r;
  return __builtin_add_overflow(a, b, &r) ? std::numeric_limits<long>::max() : r;
}

// Each listed dimension needs a positive step and 0 <= start <= end <= size,
// so that a slice never reaches outside the dimension it cuts.
void CheckSliceRanges(const std::vector<long>& sizes, ArrayRef<long> starts, ArrayRef<long> ends,
                      const std::vector<long>& steps) {
  if (starts.size() > sizes.size()) {
    throw std::runtime_error(StrCat("Slice tensor fail, ", starts.size(),
                                    " starts for a tensor of rank ", sizes.size()));
  }
  for (size_t i = 0; i < starts.size(); ++i) {
    if (steps[i] <= 0) {
      throw std::runtime_error(
          StrCat("Slice tensor fail, step ", steps[i], " of dim ", i, " must be positive"));
    }
    if (starts[i] < 0 || starts[i] > ends[i] || ends[i] > sizes[i]) {
      throw std::runtime_error(StrCat("Slice tensor fail, range [", starts[i], ", ", ends[i],
                                      ") out of dim ", i, " of size ", sizes[i]));
    }
  }
}

}  // namespace

TensorImpl::TensorImpl(const TensorOption& option, const Buffer& storage, long storage_offset)
    : option_(option), storage_(storage), storage_offset_(storage_offset) {
  RefreshContiguous();
}

void TensorImpl::set_storage_offset(long offset) {
  const long size = storage_ ? storage_.size() : 0;
  if (offset < 0) throw std::runtime_error(StrCat("Cannot set the negative offset ", offset));
  if (offset >= size) {
    throw std::runtime_error(
        StrCat("Cannot set the offset ", offset, " over the storage size ", size));
  }
  storage_offset_ = offset;
}

void TensorImpl::set_sizes_and_strides(ArrayRef<long> sizes, ArrayRef<long> strides) {
  option_.shape = Shape(sizes, strides);
  RefreshContiguous();
}

void TensorImpl::RefreshContiguous() {
  const Shape& shape = option_.shape;
  is_contiguous_ = true;
  if (shape.size() == 0 || shape.ndim() == 0) return;
  long expected = 1;
  for (size_t i = shape.ndim(); i-- > 0;) {
    if (shape.sizes()[i] == 1) continue;
    if (shape.strides()[i] != expected) {
      is_contiguous_ = false;
      return;
    }
    expected *= shape.sizes()[i];
  }
}

Tensor::Tensor(const TensorOption& option, const Buffer& storage, long storage_offset)
    : impl_(std::make_shared<TensorImpl>(option, storage, storage_offset)) {}

bool Tensor::defined() const {
  return impl_ && option().dtype != -1 && option().bytes() != 0 && static_cast<bool>(storage());
}

Tensor Tensor::Reshape(ArrayRef<long> sizes) const {
  return Copy().Reshape_(sizes);
}

Tensor& Tensor::Reshape_(ArrayRef<long> sizes) {
  impl_->set_shape(option().shape.Reshape(sizes));
  return *this;
}

Tensor Tensor::AsStrided(ArrayRef<long> sizes, ArrayRef<long> strides, long offset) const {
  return Copy().AsStrided_(sizes, strides, offset);
}

Tensor& Tensor::AsStrided_(ArrayRef<long> sizes, ArrayRef<long> strides, long offset) {
  if (sizes.size() != strides.size()) {
    throw std::runtime_error(StrCat("AsStrided size of sizes and strides mismatch ", sizes.size(),
                                    " vs ", strides.size()));
  }
  impl_->set_storage_offset(offset);
  impl_->set_sizes_and_strides(sizes, strides);
  return *this;
}

Tensor Tensor::Transpose(ArrayRef<long> order) const {
  return Copy().Transpose_(order);
}

Tensor& Tensor::Transpose_(ArrayRef<long> order) {
  const Shape& shape = option().shape;
  if (order.size() != shape.ndim()) throw std::runtime_error("Invalid order ");
  std::vector<long> sizes(order.size()), strides(order.size());
  for (size_t i = 0; i < order.size(); ++i) {
    const int source = GetRealAxis(static_cast<int>(order[i]), shape.ndim());
    sizes[i] = shape.sizes()[source];
    strides[i] = shape.strides()[source];
  }
  return AsStrided_(sizes, strides, storage_offset());
}

Tensor Tensor::BroadcastTo(ArrayRef<long> sizes) const {
  return Copy().BroadcastTo_(sizes);
}

Tensor& Tensor::BroadcastTo_(ArrayRef<long> sizes) {
  const Shape& shape = option().shape;
  if (!CanBroadcast(shape.sizes(), sizes)) {
    throw std::runtime_error(StrCat("Cannot broadcast ", shape.sizes(), " to ", sizes.vec()));
  }
  const std::vector<long> target = BroadcastSizes(shape.sizes(), sizes);
  // Leading ones keep the source strides of the expanded shape (contiguous).
  Shape expanded = shape.ExpandTo(0, target.size());
  std::vector<long> strides = expanded.strides();
  const size_t lead = target.size() - shape.ndim();
  for (size_t i = lead; i < target.size(); ++i) strides[i] = shape.strides()[i - lead];
  for (size_t i = 0; i < target.size(); ++i) {
    if (expanded.sizes()[i] == 1 && target[i] != 1) strides[i] = 0;
  }
  return AsStrided_(target, strides, 0);
}

Tensor Tensor::Slice(ArrayRef<long> starts, ArrayRef<long> ends,
                     std::optional<ArrayRef<long>> steps) const {
  return Copy().Slice_(starts, ends, steps);
}

Tensor& Tensor::Slice_(ArrayRef<long> starts, ArrayRef<long> ends,
                       std::optional<ArrayRef<long>> steps) {
  if (starts.size() != ends.size()) {
    throw std::runtime_error(StrCat("Slice tensor fail, starts and ends size mismatch, ",
                                    starts.size(), " vs ", ends.size()));
  }
  std::vector<long> step_list(starts.size(), 1);
  if (steps) {
    if (steps->size() != starts.size()) {
      throw std::runtime_error(StrCat("Slice tensor fail, starts and steps size mismatch, ",
                                      starts.size(), " vs ", steps->size()));
    }
    step_list = steps->vec();
  }
  std::vector<long> sizes = option().shape.sizes();
  std::vector<long> strides = option().shape.strides();
  CheckSliceRanges(sizes, starts, ends, step_list);
  const std::vector<long> byte_strides = strides_in_bytes();
  long offset = storage_offset();
  for (size_t i = 0; i < starts.size(); ++i) {
    const long length = ends[i] - starts[i];
    sizes[i] = length == 0 ? 0 : (length - 1) / step_list[i] + 1;
    strides[i] = SaturatingMul(strides[i], step_list[i]);
    offset = SaturatingAdd(offset, SaturatingMul(starts[i], byte_strides[i]));
  }
  // An empty view reaches nothing; it keeps an offset inside the storage.
  if (std::find(sizes.begin(), sizes.end(), 0L) != sizes.end()) offset = storage_offset();
  return AsStrided_(sizes, strides, offset);
}

std::vector<Tensor> Tensor::Split(ArrayRef<long> split_sizes, long dim) const {
  const Shape& shape = option().shape;
  const int axis = GetRealAxis(static_cast<int>(dim), shape.ndim());
  const long extent = shape.sizes()[axis];
  std::vector<long> pieces;
  // A single step size must be positive; it cuts the dimension into chunks.
  const bool bad_step = split_sizes.size() == 1 && split_sizes[0] <= 0;
  if (split_sizes.size() == 1 && !bad_step) {
    for (long done = 0; done < extent; done += split_sizes[0])
      pieces.push_back(std::min(split_sizes[0], extent - done));
  } else if (split_sizes.size() != 1) {
    pieces = split_sizes.vec();
  }
  long total = 0;
  for (long p : pieces) total += std::clamp(p, 0L, extent + 1);  // no overflow, any excess shows
  const bool bad_piece =
      std::any_of(pieces.begin(), pieces.end(), [&](long p) { return p < 0 || p > extent; });
  if (bad_step || bad_piece || total != extent) {
    throw std::runtime_error(
        StrCat("Cannot split dim ", axis, " size ", extent, " to ", split_sizes.vec()));
  }
  const long byte_stride = strides_in_bytes()[axis];
  std::vector<Tensor> result;
  long start = 0;
  // An empty tensor may carry any stride, so offsets along it are not formed.
  const bool empty = shape.size() == 0;
  for (long piece : pieces) {
    std::vector<long> sizes = shape.sizes();
    sizes[axis] = piece;
    // An empty piece holds no element: it keeps the source offset, which may
    // be the only one inside the storage when it comes last.
    const long offset = piece == 0 || empty
                            ? storage_offset()
                            : SaturatingAdd(storage_offset(), SaturatingMul(start, byte_stride));
    result.push_back(AsStrided(sizes, shape.strides(), offset));
    start += piece;
  }
  return result;
}

}  // namespace nerva
