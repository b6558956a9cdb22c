#pragma once

// Shared pieces of the OpenCL benchmarks: the float4 copy kernel every ratio
// is measured against, a timer for one kernel and random device tensors.

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <string>
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

// Fastest of `runs` timed runs of `kernel` after warm-up: on a shared
// machine the minimum is the least disturbed measure.
inline double TimeKernel(Queue& queue, const Kernel& kernel, int runs) {
  for (int i = 0; i < 2; ++i) queue.Enqueue(kernel);
  queue.Wait();
  double best = 1e30;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    queue.Enqueue(kernel);
    queue.Wait();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

// A float tensor of `sizes` on the device, uniform in [lo, hi).
inline Tensor RandomTensor(Session& session, Queue& queue, const std::vector<long>& sizes, float lo,
                           float hi, unsigned seed) {
  long n = 1;
  for (long s : sizes) n *= s;
  std::vector<float> host(n);
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(lo, hi);
  for (auto& v : host) v = dist(gen);
  Tensor t = session.MakeTensor(sizes, kFloat);
  queue.CopyHostToDevice(t.storage(), host.data(), n * static_cast<long>(sizeof(float)));
  return t;
}

// The OpenCL session's device name, for the first line of a report.
inline std::string DeviceName(const Session& session) {
  auto impl = std::dynamic_pointer_cast<cl::SessionImpl>(session.impl());
  return impl->device().getInfo<CL_DEVICE_NAME>();
}

}  // namespace nerva::bench
