// Losses on the OpenCL device: effective read bandwidth (bytes the operator
// must read and write / time) of CrossEntropyLoss, NllLoss and MseLoss as a
// fraction of a plain float4 copy kernel's, and CTCLoss beside a plain
// single-threaded host implementation of the same recursion, all measured in
// the same run on the same device.

#include <algorithm>
#include <chrono>
#include <cmath>
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

namespace {

double Lse(double a, double b) {
  const double m = std::max(a, b);
  return m == -INFINITY ? m : m + std::log(std::exp(a - m) + std::exp(b - m));
}

// The CTC forward recursion on the host, one sample after the other, in float
// like the device: the negative log-likelihood summed over the batch.
double HostCtc(const std::vector<float>& lp, const std::vector<long>& targets, long T, long N,
               long C, long S) {
  double total = 0;
  const long kp = 2 * S + 1;
  std::vector<float> a(kp), next(kp);
  for (long n = 0; n < N; ++n) {
    auto label = [&](long s) { return s % 2 ? targets[n * S + s / 2] : 0L; };
    auto at = [&](long t, long c) { return lp[(t * N + n) * C + c]; };
    std::fill(a.begin(), a.end(), -INFINITY);
    a[0] = at(0, 0);
    a[1] = at(0, label(1));
    for (long t = 1; t < T; ++t) {
      for (long s = 0; s < kp; ++s) {
        float v = a[s];
        if (s >= 1) v = static_cast<float>(Lse(v, a[s - 1]));
        if (s % 2 && s >= 2 && label(s) != label(s - 2)) v = static_cast<float>(Lse(v, a[s - 2]));
        next[s] = v + at(t, label(s));
      }
      std::swap(a, next);
    }
    total -= Lse(a[kp - 1], a[kp - 2]);
  }
  return total;
}

template <typename T>
nerva::Tensor Device(nerva::Session& session, nerva::Queue& queue, const std::vector<T>& host,
                     std::vector<long> sizes, nerva::DataType type) {
  nerva::Tensor t = session.MakeTensor(sizes, type);
  queue.CopyHostToDevice(t.storage(), host.data(), static_cast<long>(host.size() * sizeof(T)));
  return t;
}

}  // namespace

int main() {
  constexpr long kN = 4096L * 4096L;  // 16M floats for the copy reference
  constexpr int kRuns = 5;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());
  std::mt19937 gen(7);
  std::uniform_real_distribution<float> dist(-4.0f, 4.0f);

  nerva::Tensor x = session.MakeTensor({kN}, nerva::kFloat);
  nerva::Tensor y = session.MakeTensor({kN}, nerva::kFloat);
  {
    std::vector<float> host(kN);
    for (auto& v : host) v = dist(gen);
    queue.CopyHostToDevice(x.storage(), host.data(), kN * sizeof(float));
    queue.CopyHostToDevice(y.storage(), host.data(), kN * sizeof(float));
  }
  auto copy = std::make_shared<CopyKernel>(x.storage(), y.storage(), kN);
  copy->Compile(impl);
  const double copy_s = TimeKernel(queue, nerva::Kernel(copy), kRuns);
  std::printf("%-34s %9.3f ms %7.2f GB/s\n", "COPY float4 16M", copy_s * 1e3,
              2.0 * kN * sizeof(float) / copy_s / 1e9);

  // The copy is timed again beside every operator, so both see the same load.
  auto report = [&](const char* label, const nerva::Kernel& kernel, double bytes, double target) {
    double s = 1e30, copy_again = 1e30;
    for (int round = 0; round < 2; ++round) {
      copy_again = std::min(copy_again, TimeKernel(queue, nerva::Kernel(copy), kRuns));
      s = std::min(s, TimeKernel(queue, kernel, kRuns));
    }
    const double ratio = bytes / s / (2.0 * kN * sizeof(float) / copy_again);
    std::printf("%-34s %9.3f ms %7.2f GB/s  %.2f of copy (target %.2f)%s\n", label, s * 1e3,
                bytes / s / 1e9, ratio, target, ratio >= target ? "" : "  BELOW");
  };
  nerva::Tensor scalar = session.MakeTensor({1}, nerva::kFloat);
  nerva::Tensor total_weight = session.MakeTensor({1}, nerva::kFloat);

  report("MseLoss 16M mean",
         nerva::MseLoss::Create(queue, nerva::MseLossOption{}, x.option(), x.storage(), y.option(),
                                y.storage(), scalar.option(), scalar.storage()),
         2.0 * kN * sizeof(float), 0.7);
  {
    // NllLoss over 16M input elements: (8M, 2) with 8M int64 targets.
    const long rows = kN / 2;
    std::vector<int64_t> target(rows);
    for (long i = 0; i < rows; ++i) target[i] = i % 2;
    nerva::Tensor t = Device(session, queue, target, {rows}, nerva::kInt64);
    nerva::TensorOption in{nerva::Shape({rows, 2}), nerva::kFloat};
    report("NllLoss 8Mx2 mean",
           nerva::NllLoss::Create(queue, nerva::NllLossOption{}, in, x.storage(), t.option(),
                                  t.storage(), scalar.option(), scalar.storage(),
                                  total_weight.option(), total_weight.storage()),
           kN * sizeof(float) + rows * 8.0, 0.7);
  }
  {
    constexpr long kRows = 4096, kClasses = 32000;
    nerva::Tensor logits = session.MakeTensor({kRows, kClasses}, nerva::kFloat);
    std::vector<float> host(kRows * kClasses);
    for (auto& v : host) v = dist(gen);
    queue.CopyHostToDevice(logits.storage(), host.data(), host.size() * sizeof(float));
    std::vector<int64_t> target(kRows);
    for (long i = 0; i < kRows; ++i) target[i] = (i * 7919) % kClasses;
    nerva::Tensor t = Device(session, queue, target, {kRows}, nerva::kInt64);
    report("CrossEntropyLoss 4096x32000 mean",
           nerva::CrossEntropyLoss::Create(queue, nerva::CrossEntropyLossOption{}, logits.option(),
                                           logits.storage(), t.option(), t.storage(),
                                           scalar.option(), scalar.storage()),
           static_cast<double>(kRows) * kClasses * sizeof(float) + kRows * 8.0, 0.6);
  }
  {
    constexpr long T = 200, N = 32, C = 40, S = 50;
    std::vector<float> lp(T * N * C);
    for (long row = 0; row < T * N; ++row) {
      double sum = 0;
      for (long c = 0; c < C; ++c) sum += std::exp(lp[row * C + c] = dist(gen));
      for (long c = 0; c < C; ++c) lp[row * C + c] -= static_cast<float>(std::log(sum));
    }
    std::vector<int64_t> targets(N * S), lengths_in(N, T), lengths_t(N, S);
    for (long i = 0; i < N * S; ++i) targets[i] = 1 + (i * 31) % (C - 1);
    nerva::Tensor lpt = Device(session, queue, lp, {T, N, C}, nerva::kFloat);
    nerva::Tensor tg = Device(session, queue, targets, {N, S}, nerva::kInt64);
    nerva::Tensor il = Device(session, queue, lengths_in, {N}, nerva::kInt64);
    nerva::Tensor tl = Device(session, queue, lengths_t, {N}, nerva::kInt64);
    nerva::Tensor alpha = session.MakeTensor({N, T, 2 * S + 1}, nerva::kFloat);
    nerva::Kernel ctc = nerva::CTCLoss::Create(
        queue, nerva::CTCLossOption{0, nerva::LossReduction::kSum, false}, lpt.option(),
        lpt.storage(), tg.option(), tg.storage(), il.option(), il.storage(), tl.option(),
        tl.storage(), scalar.option(), scalar.storage(), alpha.option(), alpha.storage());
    const double device_s = TimeKernel(queue, ctc, kRuns);
    float device_loss = 0;
    queue.CopyDeviceToHost(&device_loss, scalar.storage(), sizeof(float));
    std::vector<long> host_targets(targets.begin(), targets.end());
    double host_s = 1e30, host_loss = 0;
    for (int i = 0; i < 3; ++i) {
      const auto start = Clock::now();
      host_loss = HostCtc(lp, host_targets, T, N, C, S);
      host_s = std::min(host_s, std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::printf("%-34s %9.3f ms  host %9.3f ms  %.2fx the host (target > 1)%s  loss %.3f vs %.3f\n",
                "CTCLoss 200x32x40, 50 labels", device_s * 1e3, host_s * 1e3, host_s / device_s,
                host_s > device_s ? "" : "  BELOW", device_loss, host_loss);
  }
  return 0;
}
