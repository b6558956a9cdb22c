// Layout benchmark: effective bandwidth (bytes read + written) of each
// operator as a fraction of the float4 copy kernel's, measured in one run.
// The copy is timed again beside every operator, alternating with it, and
// each takes its best time, so a machine shared with other work skews the
// ratio as little as possible.

#include <algorithm>
#include <cstdio>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"

using namespace nerva;

int main() {
  Session session("opencl", 0);
  Queue queue = session.MakeQueue();
  std::printf("device: %s\n", bench::DeviceName(session).c_str());
  const long n = 4096L * 4096L;
  Buffer x = session.MakeBuffer(kMemReadWrite, n * 4), y = session.MakeBuffer(kMemReadWrite, n * 4);
  std::vector<float> host(n, 1.5f);
  queue.CopyHostToDevice(x, host.data(), n * 4);
  auto copy = std::make_shared<bench::CopyKernel>(x, y, n);
  copy->Compile(std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl()));
  const Kernel copy_kernel(copy);
  const auto report = [&](const char* what, const Kernel& k, double bytes, double target) {
    double copy_time = 1e30, time = 1e30;
    for (int round = 0; round < 5; ++round) {
      copy_time = std::min(copy_time, bench::TimeKernel(queue, copy_kernel, 3));
      time = std::min(time, bench::TimeKernel(queue, k, 3));
    }
    const double base = 2.0 * n * 4 / copy_time, bw = bytes / time;
    std::printf("%-40s %6.2f GB/s (copy %6.2f)  ratio %.2f (target %.1f)\n", what, bw / 1e9,
                base / 1e9, bw / base, target);
  };
  TensorOption sq{Shape({4096, 4096}), kFloat};
  report("Permute 4096x4096 (2-D transpose)",
         Permute::Create(queue, PermuteOption{{1, 0}}, sq, x, sq, y), 2.0 * n * 4, 0.5);
  TensorOption nchw{Shape({32, 64, 56, 56}), kFloat}, nhwc{Shape({32, 56, 56, 64}), kFloat};
  const double m = 32.0 * 64 * 56 * 56;
  report("Permute (0,2,3,1) of 32x64x56x56",
         Permute::Create(queue, PermuteOption{{0, 2, 3, 1}}, nchw, x, nhwc, y), 2 * m * 4, 0.4);
  std::vector<TensorOption> parts(8, TensorOption{Shape({512, 4096}), kFloat});
  std::vector<Buffer> bufs;
  for (int i = 0; i < 8; ++i) bufs.push_back(x.View(i * 512L * 4096 * 4, 512L * 4096 * 4, 0));
  report("Concat of 8 x [512, 4096] along dim 1",
         Concat::Create(queue, ConcatOption{1}, parts, bufs,
                        TensorOption{Shape({512, 32768}), kFloat}, y),
         2.0 * n * 4, 0.8);
  TensorOption stepped{Shape({2047, 4090}, std::vector<long>{8192, 1}), kFloat};
  TensorOption dense{Shape({2047, 4090}), kFloat};
  report("StridedCopy of x[1:-1:2, 3:-3]",
         Copy::Create(queue, CopyOption{4096 + 3, 0}, stepped, x, dense, y), 2.0 * 2047 * 4090 * 4,
         0.6);
  TensorOption pin{Shape({32, 64, 54, 54}), kFloat}, pout{Shape({32, 64, 56, 56}), kFloat};
  report("Pad (reflect, 1 each side) 32x64x54x54",
         Pad::Create(queue, PadOption{{1, 1, 1, 1}, PadMode::kReflect, 0}, pin, x, pout, y),
         (32.0 * 64 * 54 * 54 + m) * 4, 0.6);
  return 0;
}
