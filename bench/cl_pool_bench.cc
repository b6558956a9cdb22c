// Pooling, im2col and resize on the OpenCL device: effective bandwidth (bytes
// the operator must read and write / time) as a fraction of a plain float4
// copy kernel's, measured in the same run on the same device.

#include <algorithm>
#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using nerva::bench::CopyKernel;
using nerva::bench::TimeKernel;

nerva::Tensor RandomTensor(nerva::Session& session, nerva::Queue& queue,
                           const std::vector<long>& sizes) {
  long n = 1;
  for (long s : sizes) n *= s;
  std::vector<float> host(n);
  std::mt19937 gen(1);
  std::uniform_real_distribution<float> dist(-3, 3);
  for (auto& v : host) v = dist(gen);
  nerva::Tensor t = session.MakeTensor(sizes, nerva::kFloat);
  queue.CopyHostToDevice(t.storage(), host.data(), n * static_cast<long>(sizeof(float)));
  return t;
}

long Count(const nerva::Tensor& t) {
  long n = 1;
  for (long s : t.shape().sizes()) n *= s;
  return n;
}

}  // namespace

int main() {
  constexpr int kRuns = 5;
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());

  constexpr long kCopy = 16L << 20;  // 16M floats
  nerva::Tensor cx = RandomTensor(session, queue, {kCopy});
  nerva::Tensor cy = session.MakeTensor({kCopy}, nerva::kFloat);
  auto copy = std::make_shared<CopyKernel>(cx.storage(), cy.storage(), kCopy);
  copy->Compile(impl);
  const double copy_bw =
      2.0 * kCopy * sizeof(float) / TimeKernel(queue, nerva::Kernel(copy), kRuns);
  std::printf("%-40s %7.2f GB/s\n", "COPY float4 16M", copy_bw / 1e9);

  auto report = [&](const char* label, const nerva::Kernel& kernel, double bytes, double target) {
    double s = 1e30, copy_s = 1e30;
    for (int round = 0; round < 2; ++round) {
      copy_s = std::min(copy_s, TimeKernel(queue, nerva::Kernel(copy), kRuns));
      s = std::min(s, TimeKernel(queue, kernel, kRuns));
    }
    const double ratio = bytes / s / (2.0 * kCopy * sizeof(float) / copy_s);
    std::printf("%-40s %8.3f ms %7.2f GB/s  %.2f of copy (target %.2f)%s\n", label, s * 1e3,
                bytes / s / 1e9, ratio, target, ratio >= target ? "" : "  BELOW");
  };

  {
    nerva::Tensor x = RandomTensor(session, queue, {32, 64, 112, 112});
    nerva::Tensor y = session.MakeTensor({32, 64, 55, 55}, nerva::kFloat);
    nerva::MaxPool2DOption o;
    o.kernel_size = {3, 3}, o.stride = {2, 2};
    auto k =
        nerva::MaxPool2D::Create(queue.impl(), o, x.option(), x.storage(), y.option(), y.storage());
    report("MaxPool2D 3x3/2 32x64x112x112", k, 4.0 * (Count(x) + Count(y)), 0.5);
  }
  {
    nerva::Tensor x = RandomTensor(session, queue, {32, 2048, 7, 7});
    nerva::Tensor y = session.MakeTensor({32, 2048, 1, 1}, nerva::kFloat);
    auto k = nerva::AdaptiveAvgPool2D::Create(queue.impl(), x.option(), x.storage(), y.option(),
                                              y.storage());
    report("AdaptiveAvgPool2D 1x1 32x2048x7x7", k, 4.0 * (Count(x) + Count(y)), 0.6);
  }
  {
    nerva::Tensor x = RandomTensor(session, queue, {8, 64, 56, 56});
    nerva::Tensor y = session.MakeTensor({8, 64 * 9, 56 * 56}, nerva::kFloat);
    nerva::Im2colOption o;
    o.kernel_size = {3, 3}, o.padding = {1, 1};
    auto k =
        nerva::Im2col::Create(queue.impl(), o, x.option(), x.storage(), y.option(), y.storage());
    report("Im2col 3x3 8x64x56x56 (bytes written)", k, 4.0 * Count(y), 0.5);
  }
  {
    nerva::Tensor x = RandomTensor(session, queue, {8, 64, 112, 112});
    nerva::Tensor y = session.MakeTensor({8, 64, 224, 224}, nerva::kFloat);
    nerva::ResizeOption o;
    o.mode = nerva::InterpolateMode::kBilinear;
    auto k =
        nerva::Resize::Create(queue.impl(), o, x.option(), x.storage(), y.option(), y.storage());
    report("Resize bilinear x2 8x64x112x112", k, 4.0 * (Count(x) + Count(y)), 0.5);
  }
  return 0;
}
