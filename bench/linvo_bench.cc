// Bandwidth of the linvo float fast paths relative to memcpy on the same machine.
// Each ratio is (bytes moved by the op / time) / (bytes moved by memcpy / time).
#include <linvo/linvo.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace {

constexpr int64_t kSide = 4096;
constexpr int64_t kElements = kSide * kSide;  // 16M floats
constexpr double kBytes = kElements * sizeof(float);
constexpr int kRepeats = 5;

// Best wall time in seconds over a few runs.
double BestTime(const std::function<void()>& fn) {
  fn();  // warm up: page faults, caches
  double best = 1e30;
  for (int i = 0; i < kRepeats; ++i) {
    auto start = std::chrono::steady_clock::now();
    fn();
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    best = std::min(best, elapsed.count());
  }
  return best;
}

linvo::Matrix RandomFloats(const linvo::Shape& shape) {
  linvo::Matrix m(shape, linvo::kFloat);
  std::mt19937 rng(42);
  std::uniform_real_distribution<float> dist(-4.0f, 4.0f);
  float* p = m.data<float>();
  for (int64_t i = 0; i < m.size(); ++i) p[i] = dist(rng);
  return m;
}

}  // namespace

int main() {
  linvo::Shape square{kSide, kSide};
  linvo::Matrix a = RandomFloats(square), b = RandomFloats(square), out(square, linvo::kFloat);
  linvo::Matrix sum_out(linvo::Shape{1}, linvo::kFloat);

  double memcpy_time =
      BestTime([&] { std::memcpy(out.data(), a.data(), static_cast<size_t>(kBytes)); });
  double memcpy_bw = 2 * kBytes / memcpy_time;

  struct Op {
    const char* name;
    double bytes;  // bytes read plus bytes written
    std::function<void()> run;
  };
  const Op ops[] = {
      {"Add", 3 * kBytes, [&] { linvo::Add(a, b, out); }},
      {"Sum", kBytes, [&] { linvo::Sum(a, std::nullopt, false, sum_out); }},
      {"Softmax(-1)", 2 * kBytes, [&] { linvo::Softmax(a, -1, out); }},
      {"Transpose", 2 * kBytes,
       [&] {
         linvo::Transpose(a, {1, 0}, out);
       }},
  };

  std::printf("memcpy: %.2f GB/s over %lld floats\n", memcpy_bw / 1e9,
              static_cast<long long>(kElements));
  std::printf("%-12s %10s %10s %8s\n", "op", "ms", "GB/s", "ratio");
  for (const Op& op : ops) {
    double t = BestTime(op.run);
    double bw = op.bytes / t;
    std::printf("%-12s %10.2f %10.2f %8.3f\n", op.name, t * 1e3, bw / 1e9, bw / memcpy_bw);
  }
  return 0;
}
