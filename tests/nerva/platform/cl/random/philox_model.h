#pragma once

// A host model of the device's Philox-4x32-10 generator, written from its
// description, for bit-exact comparisons with the random programs.

#include <array>
#include <cmath>
#include <cstdint>

namespace nerva {
namespace cl {
namespace testing {

class HostPhilox {
 public:
  using Block = std::array<uint32_t, 4>;

  HostPhilox(uint64_t seed, uint64_t subsequence, uint64_t offset) {
    key_ = {static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32)};
    ctr_ = Ten({static_cast<uint32_t>(offset), static_cast<uint32_t>(offset >> 32),
                static_cast<uint32_t>(subsequence), static_cast<uint32_t>(subsequence >> 32)});
  }

  uint32_t Next() {
    const uint32_t r = ctr_[stat_];
    if (++stat_ == 4) {
      ctr_ = Ten(ctr_);
      stat_ = 0;
    }
    return r;
  }

  Block Next4() {
    const Block cur = ctr_;
    ctr_ = Ten(cur);
    Block out;
    for (int i = 0; i < 4; ++i) out[i] = stat_ + i < 4 ? cur[stat_ + i] : ctr_[stat_ + i - 4];
    return out;
  }

  // word * 2^-32 + 2^-33 with single-precision rounding after each operation.
  static float Uniform(uint32_t word) {
    const float inv = 2.3283064e-10f;
    const float scaled = static_cast<float>(static_cast<double>(static_cast<float>(word)) * inv);
    return static_cast<float>(static_cast<double>(scaled) + static_cast<double>(inv / 2.0f));
  }

  // Box-Muller in double precision: (sin(v) * s, cos(v) * s).
  static std::array<double, 2> Normal(uint32_t x, uint32_t y) {
    const double u = x * 0x1p-32 + 0x1p-33;
    const double v = (y * 0x1p-32 + 0x1p-33) * 2 * M_PI;
    const double s = std::sqrt(-2 * std::log(u));
    return {std::sin(v) * s, std::cos(v) * s};
  }

 private:
  using Key = std::array<uint32_t, 2>;

  static Block Round(const Block& c, const Key& k) {
    const uint64_t a = static_cast<uint64_t>(0xD2511F53u) * c[0];
    const uint64_t b = static_cast<uint64_t>(0xCD9E8D57u) * c[2];
    return {static_cast<uint32_t>(b >> 32) ^ c[1] ^ k[0], static_cast<uint32_t>(b),
            static_cast<uint32_t>(a >> 32) ^ c[3] ^ k[1], static_cast<uint32_t>(a)};
  }

  Block Ten(Block c) const {
    Key k = key_;
    c = Round(c, k);
    for (int i = 0; i < 9; ++i) {
      k[0] += 0x9E3779B9u;
      k[1] += 0xBB67AE85u;
      c = Round(c, k);
    }
    return c;
  }

  Key key_;
  Block ctr_;
  int stat_ = 0;
};

}  // namespace testing
}  // namespace cl
}  // namespace nerva
