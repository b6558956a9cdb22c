#pragma once

// Helpers of the reduction tests: typed device tensors from doubles and back,
// device tensors, and index arithmetic for reference loops.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace reduce_util {

inline Tensor UploadAs(const std::vector<double>& values, const std::vector<long>& sizes,
                       DataType type) {
  return Upload(ToBytes(values, type), sizes, type);
}

// A device tensor of `sizes` and `type` filled with a marker pattern.
inline Tensor MakeOutput(const std::vector<long>& sizes, DataType type) {
  std::vector<double> fill(static_cast<size_t>(Count(sizes)), 77.0);
  return UploadAs(fill, sizes, type);
}

inline std::vector<double> DownloadAs(const Tensor& tensor) {
  const size_t n = static_cast<size_t>(Count(tensor.shape().sizes()));
  return FromBytes(Download<uint8_t>(tensor, n * TypeTraitsHelper::GetSize(tensor.dtype())),
                   tensor.dtype());
}

// Random values in [lo, hi); integer-valued when `integral`.
inline std::vector<double> RandomValues(size_t n, double lo, double hi, unsigned seed,
                                        bool integral = false) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<double> dist(lo, hi);
  std::vector<double> out(n);
  for (auto& v : out) v = integral ? std::floor(dist(gen)) : dist(gen);
  if (n && out[0] == 0) out[0] = 1;
  return out;
}

// Row-major multi-index of flat position `flat`.
inline std::vector<long> Unflatten(long flat, const std::vector<long>& sizes) {
  std::vector<long> index(sizes.size());
  for (size_t i = sizes.size(); i-- > 0;) {
    index[i] = flat % sizes[i];
    flat /= sizes[i];
  }
  return index;
}

inline long Flatten(const std::vector<long>& index, const std::vector<long>& sizes) {
  long flat = 0;
  for (size_t i = 0; i < sizes.size(); ++i) flat = flat * sizes[i] + index[i];
  return flat;
}

// The device kernel names of a created kernel, in execution order.
inline std::vector<std::string> UnitNames(const Kernel& kernel) {
  std::vector<std::string> names;
  auto impl = std::dynamic_pointer_cast<KernelImpl>(kernel.impl());
  if (impl) {
    for (const auto& unit : impl->units()) names.push_back(unit->name());
  }
  return names;
}

}  // namespace reduce_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
