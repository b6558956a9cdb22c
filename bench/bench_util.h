#pragma once

// Shared pieces of the OpenCL benchmarks: the float4 copy kernel every ratio
// is measured against, and a median timer for one kernel.

#include <algorithm>
#include <chrono>
#include <memory>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva::bench {

using Clock = std::chrono::steady_clock;

inline const char kCopySource[] = R"(
__kernel void Copy4(__global const float4* x, __global float4* y) {
  const size_t i = get_global_id(0);
  y[i] = x[i];
}
)";

// The memory-bound reference: y = x over `n` floats, one float4 per work item.
class CopyKernel : public cl::KernelImpl {
 public:
  CopyKernel(Buffer x, Buffer y, size_t n)
      : KernelImpl("Copy4"), x_(std::move(x)), y_(std::move(y)), n_(n) {}
  bool Verify() const override { return true; }
  void Compile(std::shared_ptr<cl::SessionImpl> session) override {
    cl::SourceManager::singleton().AddClSource("cl_bench_copy.cl", kCopySource);
    MakeSubKernel(session, "Copy4::bench", {"cl_bench_copy.cl"}, cl::BuildOption(), name())
        ->SetArgs(x_, y_)
        .SetGlobal({n_}, {4});
  }

 private:
  Buffer x_, y_;
  size_t n_;
};

// Median seconds per run of `kernel` over `runs` timed runs after warm-up.
inline double TimeKernel(Queue& queue, const Kernel& kernel, int runs) {
  for (int i = 0; i < 3; ++i) queue.Enqueue(kernel);
  queue.Wait();
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    queue.Enqueue(kernel);
    queue.Wait();
    times.push_back(std::chrono::duration<double>(Clock::now() - start).count());
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  return times[runs / 2];
}

}  // namespace nerva::bench
