// Activation throughput on the OpenCL device against a plain float4 copy on
// the same buffers, and the cost of creating a kernel whose program is cached.

#include <algorithm>
#include <chrono>
#include <cstdio>
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
  constexpr long kN = 16L << 20;
  constexpr int kRuns = 15;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s, %ld float elements\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str(),
              kN);

  std::vector<float> host(kN);
  std::mt19937 gen(7);
  std::uniform_real_distribution<float> dist(-6.0f, 6.0f);
  for (auto& v : host) v = dist(gen);
  nerva::Tensor x = session.MakeTensor({kN}, nerva::kFloat);
  nerva::Tensor y = session.MakeTensor({kN}, nerva::kFloat);
  queue.CopyHostToDevice(x.storage(), host.data(), kN * sizeof(float));

  auto copy = std::make_shared<CopyKernel>(x.storage(), y.storage(), kN);
  copy->Compile(impl);
  const double copy_s = TimeKernel(queue, nerva::Kernel(copy), kRuns);
  const double bytes = 2.0 * kN * sizeof(float);
  std::printf("%-8s %8.3f ms %7.2f GB/s\n", "COPY", copy_s * 1e3, bytes / copy_s / 1e9);

  const std::pair<nerva::ActivationType, const char*> ops[] = {
      {nerva::kRelu, "RELU"}, {nerva::kGelu, "GELU"}, {nerva::kSigmoid, "SIGMOID"}};
  for (const auto& [op, name] : ops) {
    nerva::ActivationOption option;
    option.op_type = op;
    nerva::Kernel kernel = nerva::Activation::Create(queue, option, x, y);
    const double s = TimeKernel(queue, kernel, kRuns);
    std::printf("%-8s %8.3f ms %7.2f GB/s  %.2f of copy\n", name, s * 1e3, bytes / s / 1e9,
                copy_s / s);
  }

  // Creation with the program already in the session cache: unit creation and
  // argument binding only.
  nerva::ActivationOption option;
  constexpr int kCreates = 2000;
  nerva::Activation::Create(queue, option, x, y);
  const auto start = Clock::now();
  for (int i = 0; i < kCreates; ++i) nerva::Activation::Create(queue, option, x, y);
  const double per_create =
      std::chrono::duration<double, std::micro>(Clock::now() - start).count() / kCreates;
  std::printf("cached Activation kernel creation: %.2f us\n", per_create);
  return 0;
}
