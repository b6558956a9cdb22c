#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace nerva {

// How a platform encoder lays out coefficients; passed through unchanged.
enum EncodeCoefMode : int32_t {
  kEncodeCoefDefault = 0,
};

// A constant operand encoded for one device, ready to be bound to a kernel.
struct EncodedCoef {
  // Copies `size` bytes from `data` when it is not null; zero-filled otherwise.
  EncodedCoef(std::string name, const void* data, size_t size, size_t extra);

  std::string name;
  std::vector<uint8_t> data;
  uint64_t size = 0;
  uint64_t extra = 0;
};

}  // namespace nerva
