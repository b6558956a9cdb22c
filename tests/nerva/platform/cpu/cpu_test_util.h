#pragma once

// Shared set-up of the CPU platform tests: a "cpu" session with one queue and
// helpers that move raw bytes in and out of buffers.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/test_util.h"

namespace nerva::cpu::test {

using Bytes = std::vector<uint8_t>;

inline Bytes RandomBytes(size_t count, unsigned seed) {
  std::mt19937 engine(seed);
  std::uniform_int_distribution<int> byte(0, 255);
  Bytes bytes(count);
  for (auto& b : bytes) b = static_cast<uint8_t>(byte(engine));
  return bytes;
}

class CpuTest : public ::testing::Test {
 protected:
  Buffer Upload(const Bytes& bytes) {
    Buffer buffer = session_.MakeBuffer(kMemReadWrite, static_cast<long>(bytes.size()));
    queue_.CopyHostToDevice(buffer, bytes.data(), static_cast<long>(bytes.size()));
    return buffer;
  }

  Bytes Download(const Buffer& buffer, long size) {
    Bytes bytes(static_cast<size_t>(size));
    queue_.CopyDeviceToHost(bytes.data(), buffer, size);
    return bytes;
  }

  Bytes Download(const Buffer& buffer) { return Download(buffer, buffer.size()); }

  Session session_{"cpu", 0};
  Queue queue_ = session_.MakeQueue();
};

}  // namespace nerva::cpu::test
