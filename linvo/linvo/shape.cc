#include "linvo/shape.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

namespace linvo {
namespace {

template <typename T>
std::string ListStr(const std::vector<T>& items) {
  std::ostringstream ss;
  ss << "[";
  for (size_t i = 0; i < items.size(); ++i) ss << (i ? ", " : "") << items[i];
  ss << "]";
  return ss.str();
}

[[noreturn]] void ThrowAxisOutOfRange(int axis, int64_t ndim) {
  std::ostringstream ss;
  ss << "index " << axis << " out of range, the max dimension is " << ndim;
  throw std::out_of_range(ss.str());
}

// Size of the axis `offset` places from the end, 1 when the shape lacks it.
int64_t DimFromEnd(const Dims& dims, size_t offset) {
  return offset < dims.size() ? dims[dims.size() - 1 - offset] : 1;
}

}  // namespace

int64_t Shape::size() const {
  int64_t n = 1;
  for (int64_t d : dims_) n *= d;
  return n;
}

Dims Shape::strides() const {
  Dims strides(dims_.size());
  int64_t stride = 1;
  for (size_t i = dims_.size(); i-- > 0;) {
    strides[i] = stride;
    stride *= dims_[i];
  }
  return strides;
}

std::string Shape::Str() const {
  std::ostringstream ss;
  ss << "[";
  for (size_t i = 0; i < dims_.size(); ++i) ss << (i ? "," : "") << dims_[i];
  ss << "]";
  return ss.str();
}

bool Shape::IsValid() const {
  return std::all_of(dims_.begin(), dims_.end(), [](int64_t d) { return d > 0; });
}

int64_t Shape::operator[](int axis) const {
  return dims_[GetRealAxis(axis, ndim())];
}

int64_t& Shape::operator[](int axis) {
  return dims_[GetRealAxis(axis, ndim())];
}

Shape Shape::operator+(const Shape& other) const {
  Shape result(*this);
  result += other;
  return result;
}

Shape& Shape::operator+=(const Shape& other) {
  dims_.insert(dims_.end(), other.dims_.begin(), other.dims_.end());
  return *this;
}

Shape Shape::Slice(int begin, int end) const {
  int64_t n = ndim();
  int64_t b = std::clamp<int64_t>(begin < 0 ? begin + n : begin, 0, n);
  int64_t e = std::clamp<int64_t>(end < 0 ? end + n : end, 0, n);
  if (b >= e) return Shape();
  return Shape(Dims(dims_.begin() + b, dims_.begin() + e));
}

Shape Shape::Insert(int index, int64_t size) const {
  Dims dims = dims_;
  dims.insert(dims.begin() + GetRealAxisWithMaxDim(index, ndim()), size);
  return Shape(std::move(dims));
}

Shape Shape::Erase(int index) const {
  Dims dims = dims_;
  dims.erase(dims.begin() + GetRealAxis(index, ndim()));
  return Shape(std::move(dims));
}

Shape Shape::Reverse() const {
  return Shape(Dims(dims_.rbegin(), dims_.rend()));
}

Shape Shape::Expand(int axis) const {
  return Insert(axis, 1);
}

Shape Shape::ExpandTo(int axis, int64_t rank) const {
  Shape result(*this);
  int position = GetRealAxisWithMaxDim(axis, ndim());
  while (result.ndim() < rank) result.dims_.insert(result.dims_.begin() + position, 1);
  return result;
}

Shape Shape::Transpose(const std::vector<int>& order) const {
  std::vector<bool> seen(dims_.size(), false);
  bool valid = order.size() == dims_.size();
  Dims dims;
  for (size_t i = 0; valid && i < order.size(); ++i) {
    int axis = order[i] < 0 ? order[i] + static_cast<int>(ndim()) : order[i];
    valid = axis >= 0 && axis < ndim() && !seen[axis];
    if (valid) {
      seen[axis] = true;
      dims.push_back(dims_[axis]);
    }
  }
  if (!valid) {
    throw std::invalid_argument("Invalid transpose order " + ListStr(order) + " with shape " +
                                ListStr(dims_));
  }
  return Shape(std::move(dims));
}

Shape Shape::Reshape(const Dims& new_dims) const {
  Dims dims = new_dims;
  int infer = -1;
  int64_t known = 1;
  for (size_t i = 0; i < dims.size(); ++i) {
    if (dims[i] == -1 && infer < 0) {
      infer = static_cast<int>(i);
    } else if (dims[i] < 0) {
      throw std::invalid_argument("Invalid reshape size: " + ListStr(new_dims));
    } else {
      known *= dims[i];
    }
  }
  int64_t total = size();
  if (infer >= 0) dims[infer] = known != 0 ? total / known : -1;
  int64_t result_size = Shape(dims).size();
  if (result_size != total || (infer >= 0 && dims[infer] < 0)) {
    std::ostringstream ss;
    ss << "Cannot reshape: " << ListStr(dims_) << " to " << ListStr(new_dims)
       << ", total size mismatch: " << total << " vs " << result_size;
    throw std::invalid_argument(ss.str());
  }
  return Shape(std::move(dims));
}

Shape Shape::GetBroadcastStrides(const Shape& target) const {
  Dims own_strides = strides();
  Dims result(target.dims_.size(), 0);
  bool valid = dims_.size() <= target.dims_.size();
  for (size_t k = 0; valid && k < dims_.size(); ++k) {
    size_t axis = dims_.size() - 1 - k;
    int64_t d = dims_[axis];
    int64_t t = target.dims_[target.dims_.size() - 1 - k];
    valid = d == t || d == 1;
    if (d != 1) result[target.dims_.size() - 1 - k] = own_strides[axis];
  }
  if (!valid) {
    throw std::runtime_error("Cannot get broadcast strides" + ListStr(dims_) + " to " +
                             ListStr(target.dims_));
  }
  return Shape(std::move(result));
}

std::ostream& operator<<(std::ostream& os, const Shape& shape) {
  return os << ListStr(shape.dims());
}

std::string DimsStr(const Dims& dims) {
  return ListStr(dims);
}

bool CanBroadcastDims(const Dims& a, const Dims& b) {
  for (size_t k = 0; k < std::max(a.size(), b.size()); ++k) {
    int64_t x = DimFromEnd(a, k), y = DimFromEnd(b, k);
    if (x != y && x != 1 && y != 1) return false;
  }
  return true;
}

bool CanBroadcastShape(const Shape& a, const Shape& b) {
  return CanBroadcastDims(a.dims(), b.dims());
}

Shape BroadcastShape(const Shape& a, const Shape& b) {
  if (!CanBroadcastShape(a, b)) {
    throw std::runtime_error("Cannot broadcast shapes " + ListStr(a.dims()) + " and " +
                             ListStr(b.dims()));
  }
  size_t rank = std::max(a.dims().size(), b.dims().size());
  Dims dims(rank);
  for (size_t k = 0; k < rank; ++k) {
    int64_t x = DimFromEnd(a.dims(), k), y = DimFromEnd(b.dims(), k);
    dims[rank - 1 - k] = x == 1 ? y : x;
  }
  return Shape(std::move(dims));
}

int GetRealAxis(int axis, int64_t ndim) {
  int64_t real = axis < 0 ? axis + ndim : axis;
  if (real < 0 || real >= ndim) ThrowAxisOutOfRange(axis, ndim);
  return static_cast<int>(real);
}

std::vector<int> GetRealAxes(const std::vector<int>& axes, int64_t ndim) {
  std::vector<int> real;
  real.reserve(axes.size());
  for (int axis : axes) real.push_back(GetRealAxis(axis, ndim));
  return real;
}

int GetRealAxisWithMaxDim(int axis, int64_t ndim) {
  int64_t real = axis < 0 ? axis + ndim + 1 : axis;
  if (real < 0 || real > ndim) ThrowAxisOutOfRange(axis, ndim);
  return static_cast<int>(real);
}

}  // namespace linvo
