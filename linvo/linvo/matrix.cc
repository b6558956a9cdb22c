#include "linvo/matrix.h"

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "linvo/function/cast.h"
#include "linvo/function/fill.h"
#include "linvo/util.h"

namespace linvo {

Matrix::Matrix() : impl_(std::make_shared<MatrixImpl>()) {}

Matrix::Matrix(const Shape& shape, DataType dtype) : impl_(std::make_shared<MatrixImpl>()) {
  impl_->shape = shape;
  impl_->dtype = dtype;
  impl_->storage = std::make_shared<Storage>(shape.size() * TypeTraitsHelper::GetSize(dtype));
}

Matrix::Matrix(const Shape& shape, DataType dtype, void* data)
    : impl_(std::make_shared<MatrixImpl>()) {
  impl_->shape = shape;
  impl_->dtype = dtype;
  impl_->storage =
      std::make_shared<StorageMap>(data, shape.size() * TypeTraitsHelper::GetSize(dtype));
}

int64_t Matrix::size() const {
  return impl_->storage ? impl_->shape.size() : 0;
}

size_t Matrix::item_size() const {
  return TypeTraitsHelper::GetSize(impl_->dtype);
}

size_t Matrix::nbytes() const {
  return impl_->storage ? impl_->storage->size() : 0;
}

void* Matrix::data() {
  return impl_->storage ? impl_->storage->data() : nullptr;
}

const void* Matrix::data() const {
  return impl_->storage ? impl_->storage->data() : nullptr;
}

Matrix Matrix::Clone() const {
  if (!impl_->storage) return Matrix();
  Matrix copy(shape(), dtype());
  if (nbytes() > 0) std::memcpy(copy.data(), data(), nbytes());
  return copy;
}

Matrix Matrix::CastTo(DataType type) const {
  return CastMatrix(*this, type);
}

bool Matrix::operator==(const Matrix& other) const {
  return shape() == other.shape() && dtype() == other.dtype() && nbytes() == other.nbytes() &&
         (nbytes() == 0 || std::memcmp(data(), other.data(), nbytes()) == 0);
}

Matrix& Matrix::Fill_(double value) {
  Fill(*this, value);
  return *this;
}

Matrix& Matrix::Fill_(long value) {
  Fill(*this, value);
  return *this;
}

Matrix& Matrix::Reset() {
  if (nbytes() > 0) std::memset(data(), 0, nbytes());
  return *this;
}

void Matrix::Load(const void* src) {
  if (nbytes() > 0) std::memcpy(data(), src, nbytes());
}

void Matrix::LoadFromFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) throw std::runtime_error("File not found " + path);
  auto file_size = static_cast<size_t>(file.tellg());
  if (file_size != nbytes()) {
    std::ostringstream ss;
    ss << "File " << path << " size mismatch: " << file_size << " vs " << nbytes();
    throw std::runtime_error(ss.str());
  }
  file.seekg(0);
  file.read(static_cast<char*>(data()), static_cast<std::streamsize>(nbytes()));
  auto read = static_cast<size_t>(file.gcount());
  if (read != nbytes()) {
    std::ostringstream ss;
    ss << "Read " << path << " size mismatch: " << read << " vs " << nbytes();
    throw std::runtime_error(ss.str());
  }
}

void Matrix::Dump(const std::string& path) const {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file) file.write(static_cast<const char*>(data()), static_cast<std::streamsize>(nbytes()));
  if (!file) LINVO_CHECK(0);
}

Matrix Empty(const Shape& shape, DataType dtype) {
  return Matrix(shape, dtype);
}

Matrix EmptyLike(const Matrix& m) {
  return Matrix(m.shape(), m.dtype());
}

Matrix Ones(const Shape& shape, DataType dtype) {
  Matrix m(shape, dtype);
  Fill(m, 1L);
  return m;
}

Matrix LoadMatrix(const Shape& shape, DataType dtype, const std::string& path) {
  Matrix m(shape, dtype);
  m.LoadFromFile(path);
  return m;
}

}  // namespace linvo
