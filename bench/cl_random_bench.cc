// Random-number throughput on the OpenCL device: RandUniform and RandNormal
// writing 16M floats, as a fraction of a float4 copy kernel's write bandwidth
// on the same buffers.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using nerva::bench::CopyKernel;

using nerva::bench::TimeKernel;

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
