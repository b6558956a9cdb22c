// Random-number throughput on the OpenCL device: RandUniform and RandNormal
// writing 16M floats, as a fraction of a float4 copy kernel's write bandwidth
// on the same buffers.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
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

double TimeKernel(nerva::Queue& queue, const nerva::Kernel& kernel, int runs) {
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

}  // namespace

int main() {
  constexpr long kN = 16L << 20;
  constexpr int kRuns = 15;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s, %ld float elements\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str(),
              kN);
  nerva::Tensor x = session.MakeTensor({kN}, nerva::kFloat);
  nerva::Tensor y = session.MakeTensor({kN}, nerva::kFloat);
  std::vector<float> host(kN, 1.0f);
  queue.CopyHostToDevice(x.storage(), host.data(), kN * sizeof(float));

  auto copy = std::make_shared<CopyKernel>(x.storage(), y.storage(), kN);
  copy->Compile(impl);
  const double copy_s = TimeKernel(queue, nerva::Kernel(copy), kRuns);
  const double written = static_cast<double>(kN) * sizeof(float);
  std::printf("%-12s %8.3f ms %7.2f GB/s written\n", "COPY", copy_s * 1e3, written / copy_s / 1e9);

  const auto report = [&](const char* name, const nerva::Kernel& kernel, double target) {
    const double s = TimeKernel(queue, kernel, kRuns);
    std::printf("%-12s %8.3f ms %7.2f GB/s written  %.2f of copy (target >= %.1f)\n", name, s * 1e3,
                written / s / 1e9, copy_s / s, target);
  };
  report("RandUniform", nerva::Rand::Create(queue, nerva::RandOption(), y.option(), y.storage()),
         0.7);
  report("RandNormal", nerva::RandN::Create(queue, nerva::RandNOption(), y.option(), y.storage()),
         0.5);
  return 0;
}
