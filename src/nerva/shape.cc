#include "nerva/shape.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <stdexcept>

#include "nerva/util.h"

namespace nerva {
namespace {

std::vector<long> ContiguousStridesOf(const std::vector<long>& sizes) {
  std::vector<long> strides(sizes.size());
  long stride = 1;
  for (size_t i = sizes.size(); i-- > 0;) {
    strides[i] = stride;
    stride *= sizes[i];
  }
  return strides;
}

[[noreturn]] void ThrowAxis(int axis, size_t ndim) {
  throw std::out_of_range(StrCat("index ", axis, " out of range, the max dimension is ", ndim));
}

// Walks both size lists from the back; returns false on a mismatch.
bool BroadcastInto(ArrayRef<long> a, ArrayRef<long> b, std::vector<long>* out) {
  if (a.empty() || b.empty()) {
    if (out) *out = a.empty() ? b.vec() : a.vec();
    return true;
  }
  const size_t ndim = std::max(a.size(), b.size());
  std::vector<long> result(ndim);
  for (size_t i = 0; i < ndim; ++i) {
    const long x = i < a.size() ? a[a.size() - 1 - i] : 1;
    const long y = i < b.size() ? b[b.size() - 1 - i] : 1;
    if (x != 1 && y != 1 && x != y) return false;
    result[ndim - 1 - i] = std::max(x, y);
  }
  if (out) *out = std::move(result);
  return true;
}

// Sizes must be non-negative, the rank bounded and the span (zeros counted as
// ones) within 2^31 - 1 elements; strides must be non-negative.
void CheckSizes(ArrayRef<long> sizes) {
  if (sizes.size() > Shape::kMaxRank) {
    throw std::runtime_error(
        StrCat("Shape rank ", sizes.size(), " exceeds the maximum ", Shape::kMaxRank));
  }
  for (long s : sizes) {
    if (s < 0) throw std::runtime_error(StrCat("Invalid shape size: ", sizes));
  }
  long span = 1;
  for (long s : sizes) {
    // Both factors are at most 2^31 - 1 before the product, so it cannot overflow.
    if (s <= Shape::kMaxElements) span *= std::max(s, 1L);
    if (s > Shape::kMaxElements || span > Shape::kMaxElements) {
      throw std::runtime_error(
          StrCat("Shape ", sizes, " spans more than ", Shape::kMaxElements, " elements"));
    }
  }
}

// The product of the sizes other than -1, saturated at LONG_MAX so it never overflows.
long CheckedProduct(const std::vector<long>& sizes) {
  long product = 1;
  for (long s : sizes) {
    if (s == -1) continue;
    if (__builtin_mul_overflow(product, s, &product)) return std::numeric_limits<long>::max();
  }
  return product;
}

// GetRealAxisWithMaxDim lets positions below zero pass; inserting needs a real one.
int InsertPosition(int axis, size_t ndim) {
  const int position = GetRealAxisWithMaxDim(axis, ndim);
  if (position < 0) ThrowAxis(axis, ndim);
  return position;
}

void CheckStrides(ArrayRef<long> strides) {
  for (long s : strides) {
    if (s < 0) throw std::runtime_error(StrCat("Invalid shape strides: ", strides));
  }
}

}  // namespace

Shape::Shape(ArrayRef<long> sizes, std::optional<ArrayRef<long>> strides) : sizes_(sizes.vec()) {
  CheckSizes(sizes);
  if (strides) {
    if (strides->size() != sizes.size()) {
      throw std::runtime_error(StrCat("New shape dims of sizes and strides mismatch ", sizes.size(),
                                      " vs ", strides->size()));
    }
    CheckStrides(*strides);
    strides_ = strides->vec();
  } else {
    strides_ = ContiguousStridesOf(sizes_);
  }
}

Shape::Shape(std::initializer_list<long> sizes) : sizes_(sizes) {
  CheckSizes(sizes_);
  strides_ = ContiguousStridesOf(sizes_);
}

Shape Shape::Contiguous(std::vector<long> sizes) {
  CheckSizes(sizes);
  Shape shape;
  shape.strides_ = ContiguousStridesOf(sizes);
  shape.sizes_ = std::move(sizes);
  return shape;
}

long Shape::operator[](int axis) const {
  return sizes_[GetRealAxis(axis, ndim())];
}
long& Shape::operator[](int axis) {
  return sizes_[GetRealAxis(axis, ndim())];
}
long Shape::stride(int axis) const {
  return strides_[GetRealAxis(axis, ndim())];
}

long Shape::size() const {
  if (sizes_.empty()) return 0;
  int32_t count = 1;
  for (long s : sizes_) count = static_cast<int32_t>(static_cast<uint32_t>(count) * s);
  return count;
}

std::string Shape::Str() const {
  std::string text = "[";
  for (size_t i = 0; i < sizes_.size(); ++i) {
    if (i) text += ",";
    text += std::to_string(sizes_[i]);
  }
  return text + "]";
}

void Shape::ContiguousStrides() {
  strides_ = ContiguousStridesOf(sizes_);
}

Shape Shape::Slice(int start, int end) const {
  const int rank = static_cast<int>(ndim());
  if (start >= rank) return Shape();
  if (start < 0) start += rank;
  if (end < 0) end += rank;
  end = std::min(end, rank - 1);
  if (start < 0 || end < start) return Shape();
  Shape result;
  result.sizes_.assign(sizes_.begin() + start, sizes_.begin() + end + 1);
  result.strides_.assign(result.sizes_.size(), 0);
  return result;
}

Shape Shape::Expand(int axis) const {
  const int rank = static_cast<int>(ndim());
  const int position = (axis == -1 || axis == rank) ? rank : GetRealAxis(axis, ndim());
  return Insert(position, 1);
}

Shape Shape::ExpandTo(int axis, size_t target) const {
  if (ndim() >= target) return *this;
  if (target > kMaxRank) {
    throw std::runtime_error(StrCat("Shape rank ", target, " exceeds the maximum ", kMaxRank));
  }
  const int position = InsertPosition(axis, ndim());
  std::vector<long> sizes = sizes_;
  sizes.insert(sizes.begin() + position, target - ndim(), 1);
  return Contiguous(std::move(sizes));
}

Shape Shape::Insert(int axis, long size) const {
  const int position = InsertPosition(axis, ndim());
  std::vector<long> sizes = sizes_;
  sizes.insert(sizes.begin() + position, size);
  return Contiguous(std::move(sizes));
}

Shape Shape::Erase(int axis) const {
  std::vector<long> sizes = sizes_;
  sizes.erase(sizes.begin() + GetRealAxis(axis, ndim()));
  return Contiguous(std::move(sizes));
}

Shape Shape::Reverse() const {
  return Contiguous({sizes_.rbegin(), sizes_.rend()});
}

Shape Shape::Transpose(const std::vector<int>& order) const {
  const auto invalid = [&] {
    return std::runtime_error(StrCat("Invalid transpose order ", order, " with shape ", sizes_));
  };
  if (order.size() != ndim()) throw invalid();
  Shape result = *this;
  std::vector<bool> seen(ndim(), false);
  for (size_t i = 0; i < order.size(); ++i) {
    // An axis outside the rank is an index error; a repeated one is a bad order.
    const int source = GetRealAxis(order[i], ndim());
    if (seen[source]) throw invalid();
    seen[source] = true;
    result.sizes_[i] = sizes_[source];
    result.strides_[i] = strides_[source];
  }
  return result;
}

Shape Shape::Reshape(ArrayRef<long> requested) const {
  const long count = size();
  std::vector<long> sizes = requested.vec();
  // Only a single -1 may stand for a size to infer; other negatives are invalid.
  const auto inferred = std::count(sizes.begin(), sizes.end(), -1L);
  if (inferred > 1 || std::any_of(sizes.begin(), sizes.end(), [](long s) { return s < -1; })) {
    throw std::runtime_error(StrCat("Invalid reshape size: ", sizes));
  }
  const long known = CheckedProduct(sizes);
  if (inferred == 1) {
    if (known == 0 || count % known != 0) {
      throw std::runtime_error(StrCat("Cannot reshape: ", sizes_, " to ", sizes));
    }
    *std::find(sizes.begin(), sizes.end(), -1L) = count / known;
  }
  const long final_product = CheckedProduct(sizes);
  if (final_product != count) {
    throw std::runtime_error(StrCat("Cannot reshape: ", sizes_, " to ", sizes,
                                    ", total size mismatch: ", count, " vs ", final_product));
  }
  return Contiguous(std::move(sizes));
}

void Shape::Reshape_(ArrayRef<long> sizes) {
  *this = Reshape(sizes);
}

std::ostream& operator<<(std::ostream& os, const Shape& shape) {
  return PrintList(os, shape.sizes().data(), shape.sizes().size());
}

int GetRealAxis(int axis, size_t ndim) {
  const int real = axis < 0 ? axis + static_cast<int>(ndim) : axis;
  if (real < 0 || real >= static_cast<int>(ndim)) ThrowAxis(axis, ndim);
  return real;
}

int GetRealAxisWithMaxDim(int axis, size_t ndim) {
  const int real = axis < 0 ? axis + static_cast<int>(ndim) + 1 : axis;
  if (real > static_cast<int>(ndim)) ThrowAxis(axis, ndim);
  return real;
}

std::vector<long> BroadcastSizes(ArrayRef<long> a, ArrayRef<long> b) {
  std::vector<long> result;
  if (!BroadcastInto(a, b, &result)) {
    throw std::runtime_error(StrCat("Cannot broadcast shapes ", a, " and ", b));
  }
  return result;
}

Shape BroadcastShape(const Shape& a, const Shape& b) {
  return Shape(BroadcastSizes(a.sizes(), b.sizes()));
}

bool CanBroadcast(ArrayRef<long> a, ArrayRef<long> b) {
  return BroadcastInto(a, b, nullptr);
}

bool CanBroadcastShape(const Shape& a, const Shape& b) {
  return CanBroadcast(a.sizes(), b.sizes());
}

}  // namespace nerva
