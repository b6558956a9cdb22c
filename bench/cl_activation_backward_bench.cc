// Activation gradients on the OpenCL device: effective bandwidth (grad_output and the
// saved tensor read, grad_input written, divided by the time) as a fraction of a plain
// float4 copy kernel's, on 16M floats in the same run (each operator alternating with the
// copy).

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using nerva::bench::CopyKernel;

using Clock = std::chrono::steady_clock;

// Fastest of `runs` alternating timed runs of `a` and `b` after warm-up, in seconds. On a
// shared machine the minimum is the steadiest estimate, and alternating exposes both
// kernels to the same load.
std::pair<double, double> TimePair(nerva::Queue& queue, const nerva::Kernel& a,
                                   const nerva::Kernel& b, int runs) {
  auto once = [&queue](const nerva::Kernel& k) {
    const auto start = Clock::now();
    queue.Enqueue(k);
    queue.Wait();
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  once(a), once(b);
  double best_a = 1e30, best_b = 1e30;
  for (int i = 0; i < runs; ++i) {
    best_a = std::min(best_a, once(a));
    best_b = std::min(best_b, once(b));
  }
  return {best_a, best_b};
}

}  // namespace

int main() {
  constexpr long kN = 16L << 20;
  constexpr int kRuns = 25;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s, %ld float elements\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str(),
              kN);

  std::mt19937 gen(7);
  std::uniform_real_distribution<float> dist(-6.0f, 6.0f);
  std::vector<float> host(kN);
  const nerva::TensorOption opt{nerva::Shape({kN}), nerva::kFloat};
  auto upload = [&]() {
    for (auto& v : host) v = dist(gen);
    nerva::Buffer b = session.MakeBuffer(nerva::kMemReadWrite, kN * sizeof(float));
    queue.CopyHostToDevice(b, host.data(), kN * sizeof(float));
    return b;
  };
  nerva::Buffer grad = upload(), x = upload();
  nerva::Buffer out = session.MakeBuffer(nerva::kMemReadWrite, kN * sizeof(float));

  auto copy = std::make_shared<CopyKernel>(x, out, kN);
  copy->Compile(impl);
  const nerva::Kernel copy_kernel(copy);
  const double copy_bytes = 2.0 * kN * sizeof(float), op_bytes = 3.0 * kN * sizeof(float);

  using Make = std::function<nerva::Kernel()>;
  const std::pair<const char*, Make> ops[] = {
      {"ReLUBackward",
       [&] { return nerva::ReLUBackward::Create(queue, opt, grad, opt, x, opt, out); }},
      {"GeLUBackward",
       [&] { return nerva::GeLUBackward::Create(queue, opt, grad, opt, x, opt, out); }},
      {"SiluBackward",
       [&] { return nerva::SiluBackward::Create(queue, opt, grad, opt, x, opt, out); }},
      {"SigmoidBackward",
       [&] { return nerva::SigmoidBackward::Create(queue, opt, grad, opt, x, opt, out); }},
      {"MishBackward",
       [&] { return nerva::MishBackward::Create(queue, opt, grad, opt, x, opt, out); }},
  };
  // Each operator alternates with the copy; the copy's best time over all of them is the
  // baseline, so every ratio is taken against the same, most favourable copy.
  std::vector<std::pair<const char*, double>> best;
  double copy_s = 1e30;
  for (const auto& [name, make] : ops) {
    const auto [op_s, c_s] = TimePair(queue, make(), copy_kernel, kRuns);
    best.emplace_back(name, op_s);
    copy_s = std::min(copy_s, c_s);
  }
  const double copy_bw = copy_bytes / copy_s;
  std::printf("%-16s %9.3f ms %7.2f GB/s\n", "copy float4", copy_s * 1e3, copy_bw / 1e9);
  for (const auto& [name, op_s] : best) {
    const double bw = op_bytes / op_s;
    const bool target =
        std::string(name) != "SigmoidBackward" && std::string(name) != "MishBackward";
    std::printf("%-16s %9.3f ms %7.2f GB/s  %.2f of copy%s\n", name, op_s * 1e3, bw / 1e9,
                bw / copy_bw, target ? "  (target 0.85)" : "");
  }
  return 0;
}
