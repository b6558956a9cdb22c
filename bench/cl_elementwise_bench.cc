// Element-wise operators on the OpenCL device: effective bandwidth (bytes each
// operator must move / its time) as a fraction of a plain float4 copy kernel's,
// measured in the same run on buffers of the same size, and a list of small
// tensors through ForEachBinary against one Binary kernel per tensor.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kCopySource[] = R"(
__kernel void Copy4(__global const float4* x, __global float4* y) {
  const size_t i = get_global_id(0);
  y[i] = x[i];
}
)";

// The memory-bound reference: y = x, one float4 per work item.
class CopyKernel : public nerva::cl::KernelImpl {
 public:
  CopyKernel(nerva::Buffer x, nerva::Buffer y, size_t n)
      : KernelImpl("Copy4"), x_(std::move(x)), y_(std::move(y)), n_(n) {}
  bool Verify() const override { return true; }
  void Compile(std::shared_ptr<nerva::cl::SessionImpl> session) override {
    nerva::cl::SourceManager::singleton().AddClSource("cl_bench_copy.cl", kCopySource);
    MakeSubKernel(session, "Copy4::bench", {"cl_bench_copy.cl"}, nerva::cl::BuildOption(), name())
        ->SetArgs(x_, y_)
        .SetGlobal({n_}, {4});
  }

 private:
  nerva::Buffer x_, y_;
  size_t n_;
};

// Median seconds of `run` (which enqueues work) over `runs` timed runs after warm-up.
double Time(nerva::Queue& queue, const std::function<void()>& run, int runs) {
  for (int i = 0; i < 2; ++i) run();
  queue.Wait();
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    run();
    queue.Wait();
    times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  return times[runs / 2];
}

}  // namespace

int main() {
  constexpr long kSide = 4096;
  constexpr long kN = kSide * kSide;  // 16M elements
  constexpr int kRuns = 9;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s, %ld float elements\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str(),
              kN);

  std::vector<float> host(kN);
  std::mt19937 gen(7);
  std::uniform_real_distribution<float> dist(-6.0f, 6.0f);
  for (auto& v : host) v = dist(gen);
  const nerva::TensorOption flat{nerva::Shape({kN}), nerva::kFloat};
  const nerva::TensorOption square{nerva::Shape({kSide, kSide}), nerva::kFloat};
  const nerva::TensorOption transposed{nerva::Shape({kSide, kSide}, std::vector<long>{1, kSide}),
                                       nerva::kFloat};
  const nerva::TensorOption row{nerva::Shape({kSide}), nerva::kFloat};
  const nerva::TensorOption halves{nerva::Shape({kN}), nerva::kHalf};
  nerva::Buffer a = session.MakeBuffer(nerva::kMemReadWrite, flat.bytes());
  nerva::Buffer b = session.MakeBuffer(nerva::kMemReadWrite, flat.bytes());
  nerva::Buffer y = session.MakeBuffer(nerva::kMemReadWrite, flat.bytes());
  queue.CopyHostToDevice(a, host.data(), flat.bytes());
  queue.CopyHostToDevice(b, host.data(), flat.bytes());

  auto copy = std::make_shared<CopyKernel>(a, y, kN);
  copy->Compile(impl);
  const nerva::Kernel copy_kernel(copy);
  const double copy_s = Time(
      queue, [&] { queue.Enqueue(copy_kernel); }, kRuns);
  const double copy_bw = 2.0 * kN * sizeof(float) / copy_s;
  std::printf("%-34s %8.3f ms %7.2f GB/s\n", "copy float4 (baseline)", copy_s * 1e3, copy_bw / 1e9);

  auto report = [&](const char* name, const nerva::Kernel& kernel, double bytes, double target) {
    const double s = Time(
        queue, [&] { queue.Enqueue(kernel); }, kRuns);
    const double ratio = bytes / s / copy_bw;
    std::printf("%-34s %8.3f ms %7.2f GB/s  %.2f of copy (target %.1f)\n", name, s * 1e3,
                bytes / s / 1e9, ratio, target);
  };
  const double f = sizeof(float);
  nerva::BinaryOption add{nerva::BinaryType::kAdd, 1.0f};
  report("Binary add 16M + 16M", nerva::Binary::Create(queue, add, flat, a, flat, b, flat, y),
         3.0 * kN * f, 0.9);
  report("Binary add [4096,4096] + [4096]",
         nerva::Binary::Create(queue, add, square, a, row, b, square, y), 2.0 * kN * f + kSide * f,
         0.8);
  report("Binary add, one input transposed",
         nerva::Binary::Create(queue, add, square, a, transposed, b, square, y), 3.0 * kN * f, 0.3);
  report("Unary exp 16M",
         nerva::Unary::Create(queue, nerva::UnaryOption{nerva::UnaryType::kExp}, flat, a, flat, y),
         2.0 * kN * f, 0.8);
  report("Cast float -> half 16M", nerva::Cast::Create(queue, flat, a, halves, y), kN * (f + 2.0),
         0.8);

  // 256 tensors of 4096 floats: one ForEachBinary against 256 Binary kernels.
  constexpr int kCount = 256;
  constexpr long kLen = 4096;
  const nerva::TensorOption small{nerva::Shape({kLen}), nerva::kFloat};
  std::vector<nerva::TensorOption> opts(kCount, small);
  std::vector<nerva::Buffer> xs, zs;
  for (int i = 0; i < kCount; ++i) {
    xs.push_back(a.View(i * kLen * 4 * 4, kLen * 4, nerva::kMemReadWrite));
    zs.push_back(y.View(i * kLen * 4 * 4, kLen * 4, nerva::kMemReadWrite));
  }
  nerva::Kernel each =
      nerva::ForEachBinary::Create(queue, nerva::ForEachBinaryOption{nerva::BinaryType::kAdd, 1.0f},
                                   opts, xs, opts, xs, opts, zs);
  std::vector<nerva::Kernel> singles;
  for (int i = 0; i < kCount; ++i) {
    singles.push_back(nerva::Binary::Create(queue, add, small, xs[i], small, xs[i], small, zs[i]));
  }
  const double each_s = Time(
      queue, [&] { queue.Enqueue(each); }, kRuns);
  const double singles_s = Time(
      queue,
      [&] {
        for (const auto& k : singles) queue.Enqueue(k);
      },
      kRuns);
  std::printf("%-34s %8.3f ms\n", "ForEachBinary add, 256 x 4096", each_s * 1e3);
  std::printf("%-34s %8.3f ms  ForEach is %.1fx faster (target 3x)\n", "256 Binary add kernels",
              singles_s * 1e3, singles_s / each_s);
  return 0;
}
