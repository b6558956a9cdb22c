// Normalisation kernels on the OpenCL device: effective bandwidth (bytes the
// operator must read and write / time) as a fraction of a plain float4 copy
// kernel's, measured in the same run on the same device.

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
using nerva::bench::RandomTensor;
using nerva::bench::TimeKernel;

using Clock = std::chrono::steady_clock;

}  // namespace

int main() {
  constexpr long kRows = 4096;
  constexpr long kCols = 4096;
  constexpr long kN = kRows * kCols;  // 16M floats
  constexpr int kRuns = 7;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());

  nerva::Tensor x = RandomTensor(session, queue, {kRows, kCols}, -3, 3, 1);
  nerva::Tensor g = RandomTensor(session, queue, {kRows, kCols}, -1, 1, 2);
  nerva::Tensor y = session.MakeTensor({kRows, kCols}, nerva::kFloat);
  nerva::Tensor w = RandomTensor(session, queue, {kCols}, 0.5, 1.5, 3);
  nerva::Tensor b = RandomTensor(session, queue, {kCols}, -1, 1, 4);
  nerva::Tensor dw = session.MakeTensor({kCols}, nerva::kFloat);
  nerva::Tensor db = session.MakeTensor({kCols}, nerva::kFloat);
  nerva::Tensor mean = session.MakeTensor({kRows}, nerva::kFloat);
  nerva::Tensor rstd = session.MakeTensor({kRows}, nerva::kFloat);

  auto copy = std::make_shared<CopyKernel>(x.storage(), y.storage(), kN);
  copy->Compile(impl);
  const double copy_s = TimeKernel(queue, nerva::Kernel(copy), kRuns);
  std::printf("%-34s %8.3f ms %7.2f GB/s\n", "COPY float4 16M", copy_s * 1e3,
              2.0 * kN * sizeof(float) / copy_s / 1e9);

  // The copy is timed again beside every operator, so both see the same load.
  auto report = [&](const char* label, const nerva::Kernel& kernel, double bytes, double target) {
    double s = 1e30, copy_again = 1e30;
    for (int round = 0; round < 3; ++round) {
      copy_again = std::min(copy_again, TimeKernel(queue, nerva::Kernel(copy), kRuns));
      s = std::min(s, TimeKernel(queue, kernel, kRuns));
    }
    const double ratio = bytes / s / (2.0 * kN * sizeof(float) / copy_again);
    std::printf("%-34s %8.3f ms %7.2f GB/s  %.2f of copy (target %.2f)%s\n", label, s * 1e3,
                bytes / s / 1e9, ratio, target, ratio >= target ? "" : "  BELOW");
  };
  const double bytes = static_cast<double>(kN) * sizeof(float);

  nerva::LayerNormOption ln{{kCols}, 1e-5f};
  report("LayerNorm 4096x4096",
         nerva::LayerNorm::Create(queue, ln, x.option(), x.storage(), w.option(), w.storage(),
                                  b.option(), b.storage(), y.option(), y.storage()),
         2 * bytes, 0.6);
  nerva::Kernel ln_train = nerva::LayerNorm::Create(
      queue, ln, x.option(), x.storage(), w.option(), w.storage(), b.option(), b.storage(),
      y.option(), y.storage(), mean.option(), mean.storage(), rstd.option(), rstd.storage());
  queue.Enqueue(ln_train);
  queue.Wait();
  report("RMSNorm 4096x4096",
         nerva::RMSNorm::Create(queue, nerva::RMSNormOption{{kCols}, 1e-6f}, x.option(),
                                x.storage(), w.option(), w.storage(), y.option(), y.storage()),
         2 * bytes, 0.6);
  nerva::LayerNormBackwardOption lnb{{kCols}, {true, true, true}};
  report("LayerNormBackward 4096x4096 (all)",
         nerva::LayerNormBackward::Create(queue, lnb, g.option(), g.storage(), x.option(),
                                          x.storage(), mean.option(), mean.storage(), rstd.option(),
                                          rstd.storage(), w.option(), w.storage(), b.option(),
                                          b.storage(), y.option(), y.storage(), dw.option(),
                                          dw.storage(), db.option(), db.storage()),
         3 * bytes, 0.4);

  // Batch normalisation in training on 32x64x56x56, in x's memory.
  constexpr long kBatch = 32, kChannels = 64, kSpatial = 56 * 56;
  const nerva::TensorOption bn_opt{nerva::Shape({kBatch, kChannels, 56, 56}), nerva::kFloat};
  nerva::Tensor rm = RandomTensor(session, queue, {kChannels}, -1, 1, 5);
  nerva::Tensor rv = RandomTensor(session, queue, {kChannels}, 0.5, 2, 6);
  nerva::Tensor cw = RandomTensor(session, queue, {kChannels}, 0.5, 1.5, 7);
  nerva::Tensor cb = RandomTensor(session, queue, {kChannels}, -1, 1, 8);
  nerva::Tensor sm = session.MakeTensor({kChannels}, nerva::kFloat);
  nerva::Tensor sr = session.MakeTensor({kChannels}, nerva::kFloat);
  nerva::Tensor nm = session.MakeTensor({kChannels}, nerva::kFloat);
  nerva::Tensor nv = session.MakeTensor({kChannels}, nerva::kFloat);
  report("BatchNormTrain 32x64x56x56",
         nerva::BatchNormTrain::Create(
             queue, nerva::BatchNormTrainOption{}, bn_opt, x.storage(), rm.option(), rm.storage(),
             rv.option(), rv.storage(), cw.option(), cw.storage(), cb.option(), cb.storage(),
             bn_opt, y.storage(), sm.option(), sm.storage(), sr.option(), sr.storage(), nm.option(),
             nm.storage(), nv.option(), nv.storage()),
         2.0 * kBatch * kChannels * kSpatial * sizeof(float), 0.5);
  return 0;
}
