#pragma once

#include <initializer_list>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "nerva/array_ref.h"

namespace nerva {

// Sizes and element strides of a tensor, always fully populated: without
// explicit strides the shape is contiguous (row-major).
//
// Every shape is checked where it is made: sizes are not negative, the rank is
// at most kMaxRank, the dimensions span at most kMaxElements elements (sizes of
// 0 count as 1, so contiguous strides fit too) and strides are not negative.
// So the 32-bit element count never wraps. Strides are not bounded here (a
// dimension of size 0 or 1 may carry any); views saturate their offsets.
class Shape {
 public:
  static constexpr long kMaxElements = 2147483647L;  // 2^31 - 1
  static constexpr size_t kMaxRank = 64;

  Shape() = default;
  Shape(ArrayRef<long> sizes, std::optional<ArrayRef<long>> strides = std::nullopt);
  Shape(std::initializer_list<long> sizes);

  const std::vector<long>& sizes() const { return sizes_; }
  const std::vector<long>& strides() const { return strides_; }
  size_t ndim() const { return sizes_.size(); }
  bool empty() const { return sizes_.empty(); }

  // Size of `axis`; negative axes count from the end.
  long operator[](int axis) const;
  long& operator[](int axis);
  long stride(int axis) const;

  // Number of elements, computed in 32 bits; 0 for rank 0.
  long size() const;
  // "[2,3,4]": sizes joined by "," without blanks.
  std::string Str() const;

  void ContiguousStrides();
  Shape Slice(int start, int end) const;
  Shape Expand(int axis) const;
  Shape ExpandTo(int axis, size_t ndim) const;
  Shape Insert(int axis, long size) const;
  Shape Erase(int axis) const;
  Shape Reverse() const;
  Shape Transpose(const std::vector<int>& order) const;
  Shape Reshape(ArrayRef<long> sizes) const;
  void Reshape_(ArrayRef<long> sizes);

  bool operator==(const Shape& other) const {
    return sizes_ == other.sizes_ && strides_ == other.strides_;
  }
  bool operator!=(const Shape& other) const { return !(*this == other); }

 private:
  static Shape Contiguous(std::vector<long> sizes);

  std::vector<long> sizes_;
  std::vector<long> strides_;
};

// Sizes as "[2, 3, 4]".
std::ostream& operator<<(std::ostream& os, const Shape& shape);

// Normalises a negative axis; the result must lie in [0, ndim).
int GetRealAxis(int axis, size_t ndim);
// For positions between dimensions, where `ndim` itself is valid.
int GetRealAxisWithMaxDim(int axis, size_t ndim);

std::vector<long> BroadcastSizes(ArrayRef<long> a, ArrayRef<long> b);
Shape BroadcastShape(const Shape& a, const Shape& b);
bool CanBroadcast(ArrayRef<long> a, ArrayRef<long> b);
bool CanBroadcastShape(const Shape& a, const Shape& b);

}  // namespace nerva
