#include "nerva/shape.h"

#include <algorithm>
#include <cstdint>
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

}  // namespace

Shape::Shape(ArrayRef<long> sizes, std::optional<ArrayRef<long>> strides) : sizes_(sizes.vec()) {
  if (strides) {
    if (strides->size() != sizes.size()) {
      throw std::runtime_error(StrCat("New shape dims of sizes and strides mismatch ", sizes.size(),
                                      " vs ", strides->size()));
    }
    strides_ = strides->vec();
  } else {
    strides_ = ContiguousStridesOf(sizes_);
  }
}

Shape::Shape(std::initializer_list<long> sizes)
    : sizes_(sizes), strides_(ContiguousStridesOf(sizes_)) {}

Shape Shape::Contiguous(std::vector<long> sizes) {
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
  const int position = GetRealAxisWithMaxDim(axis, ndim());
  std::vector<long> sizes = sizes_;
  sizes.insert(sizes.begin() + position, target - ndim(), 1);
  return Contiguous(std::move(sizes));
}

Shape Shape::Insert(int axis, long size) const {
  const int position = GetRealAxisWithMaxDim(axis, ndim());
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
  long product = 1;
  for (long s : sizes) product *= s;
  if (product <= 0) {
    auto infer = std::find(sizes.begin(), sizes.end(), -1);
    const bool one_inferred =
        std::count(sizes.begin(), sizes.end(), -1) == 1 &&
        std::none_of(sizes.begin(), sizes.end(), [](long s) { return s < -1; });
    if (product < 0 && !one_inferred) {
      throw std::runtime_error(StrCat("Invalid reshape size: ", sizes));
    }
    if (product < 0 || (product == 0 && infer != sizes.end())) {
      const long known = -product;
      if (known == 0 || count % known != 0) {
        throw std::runtime_error(StrCat("Cannot reshape: ", sizes_, " to ", sizes));
      }
      *infer = count / known;
    }
  }
  long final_product = 1;
  for (long s : sizes) final_product *= s;
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
