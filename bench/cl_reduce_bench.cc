// Reductions, softmax, argmax and cumsum on the OpenCL device: effective
// bandwidth (bytes the operator must read and write / time) as a fraction of
// a plain float4 copy kernel's, measured in the same run on the same device.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using nerva::bench::CopyKernel;
using nerva::bench::TimeKernel;

using Clock = std::chrono::steady_clock;

}  // namespace

int main() {
  constexpr long kRows = 4096;
  constexpr long kCols = 4096;
  constexpr long kN = kRows * kCols;  // 16M floats
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
  nerva::Tensor x = session.MakeTensor({kRows, kCols}, nerva::kFloat);
  nerva::Tensor y = session.MakeTensor({kRows, kCols}, nerva::kFloat);
  nerva::Tensor flat = session.MakeTensor({kN}, nerva::kFloat);
  nerva::Tensor scalar = session.MakeTensor({1}, nerva::kFloat);
  nerva::Tensor rows = session.MakeTensor({kRows}, nerva::kFloat);
  nerva::Tensor cols = session.MakeTensor({kCols}, nerva::kFloat);
  nerva::Tensor row_index = session.MakeTensor({kRows}, nerva::kInt64);
  queue.CopyHostToDevice(x.storage(), host.data(), kN * sizeof(float));
  queue.CopyHostToDevice(flat.storage(), host.data(), kN * sizeof(float));

  auto copy = std::make_shared<CopyKernel>(x.storage(), y.storage(), kN);
  copy->Compile(impl);
  const double copy_s = TimeKernel(queue, nerva::Kernel(copy), kRuns);
  const double copy_bw = 2.0 * kN * sizeof(float) / copy_s;
  std::printf("%-28s %8.3f ms %7.2f GB/s\n", "COPY float4", copy_s * 1e3, copy_bw / 1e9);

  // The copy is timed again beside every operator, so both see the same load.
  auto report = [&](const char* label, const nerva::Kernel& kernel, double bytes, double target) {
    double s = 1e30, copy_again = 1e30;
    for (int round = 0; round < 3; ++round) {
      copy_again = std::min(copy_again, TimeKernel(queue, nerva::Kernel(copy), kRuns));
      s = std::min(s, TimeKernel(queue, kernel, kRuns));
    }
    const double ratio = bytes / s / (2.0 * kN * sizeof(float) / copy_again);
    std::printf("%-28s %8.3f ms %7.2f GB/s  %.2f of copy (target %.2f)%s\n", label, s * 1e3,
                bytes / s / 1e9, ratio, target, ratio >= target ? "" : "  BELOW");
  };
  const double in_bytes = static_cast<double>(kN) * sizeof(float);

  nerva::ReduceOption sum;
  sum.op_type = nerva::ReduceType::kSum;
  report("Reduce sum 16M -> scalar",
         nerva::Reduce::Create(queue, sum, flat.option(), flat.storage(), scalar.option(),
                               scalar.storage()),
         in_bytes + 4, 0.8);
  sum.axes = {1};
  report("Reduce sum 4096x4096 axis 1",
         nerva::Reduce::Create(queue, sum, x.option(), x.storage(), rows.option(), rows.storage()),
         in_bytes + kRows * 4.0, 0.7);
  sum.axes = {0};
  report("Reduce sum 4096x4096 axis 0",
         nerva::Reduce::Create(queue, sum, x.option(), x.storage(), cols.option(), cols.storage()),
         in_bytes + kCols * 4.0, 0.7);
  report("Softmax 4096x4096 axis 1",
         nerva::Softmax::Create(queue, nerva::SoftmaxOption{1}, x.option(), x.storage(), y.option(),
                                y.storage()),
         2 * in_bytes, 0.7);
  report("ArgMax 4096x4096 axis 1",
         nerva::ArgMax::Create(queue, nerva::ArgMaxOption{1, false}, x.option(), x.storage(),
                               row_index.option(), row_index.storage()),
         in_bytes + kRows * 8.0, 0.6);
  report("Cumsum 4096x4096 axis 1",
         nerva::Cumsum::Create(queue, nerva::CumsumOption{1}, x.option(), x.storage(), y.option(),
                               y.storage()),
         2 * in_bytes, 0.5);
  return 0;
}
