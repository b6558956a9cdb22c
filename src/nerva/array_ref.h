#pragma once

#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <vector>

namespace nerva {

// A non-owning view of a contiguous sequence: a pointer and a count. It never
// outlives the data it points at; pass it by value.
template <typename T>
class ArrayRef {
 public:
  using value_type = T;
  using iterator = const T*;
  using const_iterator = const T*;
  using size_type = size_t;

  constexpr ArrayRef() = default;
  constexpr ArrayRef(const T& one) : data_(&one), length_(1) {}
  constexpr ArrayRef(const T* data, size_t length) : data_(data), length_(length) {}
  constexpr ArrayRef(const T* begin, const T* end) : data_(begin), length_(end - begin) {}
  template <typename A>
  ArrayRef(const std::vector<T, A>& v) : data_(v.data()), length_(v.size()) {}
  template <size_t N>
  constexpr ArrayRef(const T (&array)[N]) : data_(array), length_(N) {}
  // The list must outlive the view: fine for a call argument, not for a variable.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winit-list-lifetime"
#endif
  constexpr ArrayRef(const std::initializer_list<T>& list)
      : data_(list.begin() == list.end() ? nullptr : list.begin()), length_(list.size()) {}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

  constexpr const T* begin() const { return data_; }
  constexpr const T* end() const { return data_ + length_; }
  constexpr const T* data() const { return data_; }
  constexpr size_t size() const { return length_; }
  constexpr bool empty() const { return length_ == 0; }
  constexpr const T& front() const { return data_[0]; }
  constexpr const T& back() const { return data_[length_ - 1]; }
  constexpr const T& operator[](size_t i) const { return data_[i]; }

  std::vector<T> vec() const { return std::vector<T>(begin(), end()); }
  operator std::vector<T>() const { return vec(); }

  bool equals(ArrayRef other) const {
    if (length_ != other.length_) return false;
    for (size_t i = 0; i < length_; ++i)
      if (!(data_[i] == other.data_[i])) return false;
    return true;
  }

 private:
  const T* data_ = nullptr;
  size_t length_ = 0;
};

template <typename T>
bool operator==(ArrayRef<T> a, ArrayRef<T> b) {
  return a.equals(b);
}
template <typename T>
bool operator!=(ArrayRef<T> a, ArrayRef<T> b) {
  return !a.equals(b);
}

using IntArrayRef = ArrayRef<long>;

}  // namespace nerva
