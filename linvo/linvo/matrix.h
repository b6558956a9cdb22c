#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "linvo/data_type.h"
#include "linvo/shape.h"

namespace linvo {

// A block of host bytes.
class IStorage {
 public:
  virtual ~IStorage() = default;
  virtual void* data() = 0;
  virtual const void* data() const = 0;
  virtual size_t size() const = 0;  // bytes
};

// Owned, zero-initialised bytes.
class Storage : public IStorage {
 public:
  explicit Storage(size_t bytes) : bytes_(bytes, 0) {}
  void* data() override { return bytes_.data(); }
  const void* data() const override { return bytes_.data(); }
  size_t size() const override { return bytes_.size(); }

 private:
  std::vector<uint8_t> bytes_;
};

// Caller-owned memory; nothing is freed.
class StorageMap : public IStorage {
 public:
  StorageMap(void* data, size_t bytes) : data_(data), size_(bytes) {}
  void* data() override { return data_; }
  const void* data() const override { return data_; }
  size_t size() const override { return size_; }

 private:
  void* data_;
  size_t size_;
};

struct MatrixImpl {
  Shape shape;
  DataType dtype = kNoType;
  std::shared_ptr<IStorage> storage;
};

// Dense row-major host matrix. Copies share the data; Clone() copies it.
class Matrix {
 public:
  Matrix();
  // Owned, zero-filled storage.
  Matrix(const Shape& shape, DataType dtype);
  // Wraps caller-owned memory of shape.size() elements without copying.
  Matrix(const Shape& shape, DataType dtype, void* data);

  const Shape& shape() const { return impl_->shape; }
  DataType dtype() const { return impl_->dtype; }
  int64_t ndim() const { return impl_->shape.ndim(); }
  int64_t size() const;  // elements
  size_t item_size() const;
  size_t nbytes() const;
  void* data();
  const void* data() const;
  template <typename T>
  T* data() {
    return static_cast<T*>(data());
  }
  template <typename T>
  const T* data() const {
    return static_cast<const T*>(data());
  }
  const std::shared_ptr<MatrixImpl>& impl() const { return impl_; }

  Matrix Clone() const;
  Matrix CastTo(DataType dtype) const;
  bool operator==(const Matrix& other) const;
  bool operator!=(const Matrix& other) const { return !(*this == other); }

  Matrix& operator+=(const Matrix& other);
  Matrix& operator-=(const Matrix& other);
  Matrix& operator*=(const Matrix& other);
  Matrix& operator/=(const Matrix& other);

  // Element-wise; the `_` forms write into this matrix.
  Matrix Exp() const;
  Matrix Sqrt() const;
  Matrix Tanh() const;
  Matrix Sigmoid() const;
  Matrix Relu() const;
  Matrix Relu6() const;
  Matrix Gelu() const;
  Matrix Negative() const;
  Matrix Power(float p) const;
  Matrix& Exp_();
  Matrix& Sqrt_();
  Matrix& Tanh_();
  Matrix& Sigmoid_();
  Matrix& Relu_();
  Matrix& Relu6_();
  Matrix& Gelu_();
  Matrix& Negative_();
  Matrix& Power_(float p);
  Matrix Softmax(int axis) const;
  // In place for floating types; an integral matrix is rebound to a new kFloat result.
  Matrix& Softmax_(int axis);

  // Reductions over one axis, or everything without an axis.
  Matrix Sum(std::optional<int> axis = std::nullopt, bool keepdims = false) const;
  Matrix Max(std::optional<int> axis = std::nullopt, bool keepdims = false) const;
  Matrix Mean(std::optional<int> axis = std::nullopt, bool keepdims = false) const;
  Matrix Std(std::optional<int> axis = std::nullopt, bool keepdims = false) const;
  Matrix CountNonzero(std::optional<int> axis = std::nullopt, bool keepdims = false) const;

  // Layout. Non-`_` forms return copies; `_` forms change this matrix's shape (same data).
  Matrix Transpose(const std::vector<int>& order) const;
  Matrix T() const;  // axes reversed
  Matrix Reshape(const Dims& dims) const;
  Matrix& Reshape_(const Dims& dims);
  // Removes size-1 axes between start and end (inclusive).
  Matrix Squeeze(int start = 0, int end = -1) const;
  Matrix& Squeeze_(int start = 0, int end = -1);
  // Inserts a size-1 axis before an existing axis.
  Matrix Unsqueeze(int axis) const;
  Matrix& Unsqueeze_(int axis);
  // Inserts a size-1 axis; axis may equal ndim() (or be -1) to append.
  Matrix Expand(int axis) const;
  Matrix& Expand_(int axis);
  // Reverses the order of the axes (a transposition; the `_` form rebinds this handle).
  Matrix Reverse() const;
  Matrix& Reverse_();
  Matrix Slice(const Dims& starts, const Dims& ends, const Dims& steps) const;
  Matrix Tile(const Dims& repeats) const;
  Matrix BroadcastTo(const Dims& dims) const;
  std::vector<Matrix> Split(int axis, int64_t chunk) const;
  Matrix Index(const std::vector<Matrix>& indices) const;
  // sizes holds (before, after) pairs, the first pair for the last axis.
  Matrix Pad(const Dims& sizes, double value) const;
  Matrix Pad(const Dims& sizes, long value) const;
  Matrix Pad(const Dims& sizes, int value) const { return Pad(sizes, static_cast<long>(value)); }

  Matrix& Fill_(double value);
  Matrix& Fill_(long value);
  Matrix& Fill_(int value) { return Fill_(static_cast<long>(value)); }
  Matrix& Reset();  // zero every byte

  // Raw bytes in and out.
  void Load(const void* src);
  void LoadFromFile(const std::string& path);
  void Dump(const std::string& path) const;

 private:
  std::shared_ptr<MatrixImpl> impl_;
};

Matrix operator+(const Matrix& a, const Matrix& b);
Matrix operator-(const Matrix& a, const Matrix& b);
Matrix operator*(const Matrix& a, const Matrix& b);
Matrix operator/(const Matrix& a, const Matrix& b);

Matrix Empty(const Shape& shape, DataType dtype);  // zero-filled
Matrix EmptyLike(const Matrix& m);                 // zero-filled
Matrix Ones(const Shape& shape, DataType dtype);
Matrix LoadMatrix(const Shape& shape, DataType dtype, const std::string& path);

}  // namespace linvo
