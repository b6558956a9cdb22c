#pragma once

// Helpers of the tensor-core attention tests: tensors on the emulating session,
// and whether a prepared kernel runs a given device kernel.

#include <string>
#include <vector>

#include "nerva/platform/cl/attention/attention_test_util.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
inline namespace tc_attention_util {

inline Tensor TcUploadAs(const std::vector<double>& values, const std::vector<long>& sizes,
                         DataType type) {
  const std::vector<uint8_t> bytes = ToBytes(values, type);
  Tensor tensor = TcSession().MakeTensor(sizes, type);
  TcQueue().CopyHostToDevice(tensor.storage(), bytes.data(), static_cast<long>(bytes.size()));
  return tensor;
}

// An output filled with a marker value.
inline Tensor TcOutput(const std::vector<long>& sizes, DataType type) {
  return TcUploadAs(std::vector<double>(static_cast<size_t>(Count(sizes)), 77.0), sizes, type);
}

inline std::vector<double> TcDownloadAs(const Tensor& tensor) {
  std::vector<uint8_t> bytes(static_cast<size_t>(Count(tensor.shape().sizes())) *
                             TypeTraitsHelper::GetSize(tensor.dtype()));
  TcQueue().CopyDeviceToHost(bytes.data(), tensor.storage(), static_cast<long>(bytes.size()));
  return FromBytes(bytes, tensor.dtype());
}

// Whether `kernel` runs the device kernel `device_kernel`.
inline bool Runs(const Kernel& kernel, const std::string& device_kernel) {
  for (const auto& name : UnitNames(kernel)) {
    if (name == device_kernel) return true;
  }
  return false;
}

}  // namespace tc_attention_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
