#pragma once

#include <cstdint>
#include <initializer_list>
#include <ostream>
#include <string>
#include <vector>

namespace linvo {

using Dims = std::vector<int64_t>;

// Ordered list of dimension sizes of a dense row-major matrix.
class Shape {
 public:
  Shape() = default;
  Shape(std::initializer_list<int64_t> dims) : dims_(dims) {}
  Shape(Dims dims) : dims_(std::move(dims)) {}  // NOLINT: implicit by design
  Shape(const int64_t* dims, size_t ndim) : dims_(dims, dims + ndim) {}

  const Dims& dims() const { return dims_; }
  int64_t ndim() const { return static_cast<int64_t>(dims_.size()); }
  bool empty() const { return dims_.empty(); }
  Dims::const_iterator begin() const { return dims_.begin(); }
  Dims::const_iterator end() const { return dims_.end(); }

  // Product of the dimensions; 1 for rank 0.
  int64_t size() const;
  // Row-major strides in elements.
  Dims strides() const;
  // "[2,3,4]" (no blanks).
  std::string Str() const;
  // Every dimension is positive.
  bool IsValid() const;

  int64_t operator[](int axis) const;
  int64_t& operator[](int axis);
  Shape operator+(const Shape& other) const;
  Shape& operator+=(const Shape& other);
  bool operator==(const Shape& other) const { return dims_ == other.dims_; }
  bool operator!=(const Shape& other) const { return dims_ != other.dims_; }

  // Dimensions [begin, end); negative positions count from the end, the range is clamped.
  Shape Slice(int begin, int end) const;
  Shape Insert(int index, int64_t size) const;
  Shape Erase(int index) const;
  Shape Reverse() const;
  // Inserts a 1 before `axis`; axis may equal the rank (-1 appends).
  Shape Expand(int axis) const;
  // Inserts 1s at `axis` until the rank is `rank`.
  Shape ExpandTo(int axis, int64_t rank) const;
  Shape Transpose(const std::vector<int>& order) const;
  // Accepts one -1, inferred from the total size.
  Shape Reshape(const Dims& new_dims) const;
  // For each axis of `target`, this shape's stride, or 0 where this shape has size 1 or lacks the
  // axis (shapes aligned at their last axis).
  Shape GetBroadcastStrides(const Shape& target) const;

 private:
  Dims dims_;
};

// Writes "[2, 3, 4]", the list form used in messages.
std::ostream& operator<<(std::ostream& os, const Shape& shape);
std::string DimsStr(const Dims& dims);

Shape BroadcastShape(const Shape& a, const Shape& b);
bool CanBroadcastShape(const Shape& a, const Shape& b);
bool CanBroadcastDims(const Dims& a, const Dims& b);

// Maps a negative axis to axis + ndim; throws std::out_of_range outside [0, ndim).
int GetRealAxis(int axis, int64_t ndim);
std::vector<int> GetRealAxes(const std::vector<int>& axes, int64_t ndim);
// As GetRealAxis, but ndim itself is a valid position (-1 maps to ndim).
int GetRealAxisWithMaxDim(int axis, int64_t ndim);

}  // namespace linvo
