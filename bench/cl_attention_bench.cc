// Attention kernels on the OpenCL device, in one run on the same device:
//  - ScaledDotProductAttention forward, 1 x 16 heads x 2048 x 64, float, beside
//    the same attention composed of nerva's MatMul (q k^T), Softmax and MatMul
//    (p v), which holds the 16 x 2048 x 2048 scores in device memory;
//  - PagedAttentionV2 decode of 32 sequences x 2048 tokens: bytes of the key and
//    value cache read per second as a fraction of a float4 copy kernel's.

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
#include "nerva/platform/cl/session_impl.h"

namespace {

using Clock = std::chrono::steady_clock;

// Fastest of `runs` timed runs of `enqueue` after one warm-up.
double Time(nerva::Queue& queue, const std::function<void()>& enqueue, int runs) {
  enqueue();
  queue.Wait();
  double best = 1e30;
  for (int i = 0; i < runs; ++i) {
    const auto start = Clock::now();
    enqueue();
    queue.Wait();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
  }
  return best;
}

template <typename T>
nerva::Tensor Upload(nerva::Session& session, nerva::Queue& queue, const std::vector<long>& sizes,
                     nerva::DataType dtype, const std::vector<T>& host) {
  nerva::Tensor t = session.MakeTensor(sizes, dtype);
  queue.CopyHostToDevice(t.storage(), host.data(), static_cast<long>(host.size() * sizeof(T)));
  return t;
}

std::vector<float> Random(long n, unsigned seed) {
  std::vector<float> v(n);
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1, 1);
  for (auto& x : v) x = dist(gen);
  return v;
}

}  // namespace

int main() {
  using namespace nerva;
  Session session("opencl", 0);
  Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());
  constexpr int kRuns = 3;

  // Copy baseline: 16M floats.
  constexpr long kN = 1L << 24;
  Tensor cx = Upload(session, queue, {kN}, kFloat, Random(kN, 1));
  Tensor cy = session.MakeTensor({kN}, kFloat);
  auto copy = std::make_shared<bench::CopyKernel>(cx.storage(), cy.storage(), kN);
  copy->Compile(impl);
  const Kernel copy_kernel(copy);
  const double copy_s = Time(
      queue, [&] { queue.Enqueue(copy_kernel); }, 5);
  const double copy_bw = 2.0 * kN * sizeof(float) / copy_s;
  std::printf("%-44s %9.3f ms %8.2f GB/s\n", "COPY float4 16M", copy_s * 1e3, copy_bw / 1e9);

  // Scaled dot-product attention against MatMul + Softmax + MatMul.
  const long H = 16, L = 2048, D = 64;
  Tensor q = Upload(session, queue, {1, H, L, D}, kFloat, Random(H * L * D, 2));
  Tensor k = Upload(session, queue, {1, H, L, D}, kFloat, Random(H * L * D, 3));
  Tensor v = Upload(session, queue, {1, H, L, D}, kFloat, Random(H * L * D, 4));
  Tensor out = session.MakeTensor({1, H, L, D}, kFloat);
  Tensor lse = session.MakeTensor({1, H, L}, kFloat);
  TensorOption none{Shape(std::vector<long>{}), kFloat};
  Buffer nb;
  ScaledDotProductAttentionOption sdpa;
  Kernel fused = ScaledDotProductAttention::Create(
      queue.impl(), sdpa, q.option(), q.storage(), k.option(), k.storage(), v.option(), v.storage(),
      none, nb, out.option(), out.storage(), lse.option(), lse.storage(), none, nb);
  const double fused_s = Time(
      queue, [&] { queue.Enqueue(fused); }, kRuns);
  Tensor scores = session.MakeTensor({1, H, L, L}, kFloat);
  Tensor probs = session.MakeTensor({1, H, L, L}, kFloat);
  Tensor out2 = session.MakeTensor({1, H, L, D}, kFloat);
  MatMulOption qk;
  qk.transpose_mat2 = true;
  Kernel mm1 = MatMul::Create(queue.impl(), qk, q.option(), q.storage(), k.option(), k.storage(),
                              scores.option(), scores.storage());
  Kernel sm = Softmax::Create(queue.impl(), SoftmaxOption{-1}, scores.option(), scores.storage(),
                              probs.option(), probs.storage());
  Kernel mm2 = MatMul::Create(queue.impl(), MatMulOption{}, probs.option(), probs.storage(),
                              v.option(), v.storage(), out2.option(), out2.storage());
  const double composed_s = Time(
      queue,
      [&] {
        queue.Enqueue(mm1);
        queue.Enqueue(sm);
        queue.Enqueue(mm2);
      },
      kRuns);
  const double flops = 4.0 * H * L * L * D;
  std::printf("%-44s %9.3f ms %8.2f GFLOP/s\n", "SDPA 1x16x2048x64 fused", fused_s * 1e3,
              flops / fused_s / 1e9);
  std::printf("%-44s %9.3f ms %8.2f GFLOP/s (scores %.0f MiB)\n",
              "SDPA composed MatMul+Softmax+MatMul", composed_s * 1e3, flops / composed_s / 1e9,
              2.0 * H * L * L * 4 / (1 << 20));
  std::printf("%-44s %9.2fx (target >= 2)\n", "speed-up fused / composed", composed_s / fused_s);

  // Paged decode: 32 sequences x 2048 tokens, 8 heads of 64, blocks of 16.
  const long seqs = 32, len = 2048, heads = 8, hs = 64, bs = 16, per = len / bs;
  const long blocks = seqs * per;
  std::vector<int32_t> table(seqs * per), lens(seqs, static_cast<int32_t>(len));
  for (long i = 0; i < seqs * per; ++i) table[i] = static_cast<int32_t>(i);
  std::shuffle(table.begin(), table.end(), std::mt19937(5));
  Tensor pq = Upload(session, queue, {seqs, heads, hs}, kFloat, Random(seqs * heads * hs, 6));
  Tensor kc =
      Upload(session, queue, {blocks, heads, bs, hs}, kFloat, Random(blocks * heads * bs * hs, 7));
  Tensor vc =
      Upload(session, queue, {blocks, heads, bs, hs}, kFloat, Random(blocks * heads * bs * hs, 8));
  Tensor bt = Upload(session, queue, {seqs, per}, kInt32, table);
  Tensor sl = Upload(session, queue, {seqs}, kInt32, lens);
  PagedAttentionV2Option pv2{static_cast<int>(heads), 0.125f, static_cast<int>(bs),
                             static_cast<int>(len), 512};
  const long parts = len / 512;
  Tensor pout = session.MakeTensor({seqs, heads, hs}, kFloat);
  Tensor sums = session.MakeTensor({seqs, heads, parts}, kFloat);
  Tensor maxes = session.MakeTensor({seqs, heads, parts}, kFloat);
  Tensor tmp = session.MakeTensor({seqs, heads, parts, hs}, kFloat);
  Kernel paged = PagedAttentionV2::Create(
      queue.impl(), pv2, pq.option(), pq.storage(), kc.option(), kc.storage(), vc.option(),
      vc.storage(), bt.option(), bt.storage(), sl.option(), sl.storage(), pout.option(),
      pout.storage(), sums.option(), sums.storage(), maxes.option(), maxes.storage(), tmp.option(),
      tmp.storage());
  const double paged_s = Time(
      queue, [&] { queue.Enqueue(paged); }, 5);
  const double cache_bytes = 2.0 * blocks * heads * bs * hs * sizeof(float);
  std::printf("%-44s %9.3f ms %8.2f GB/s %6.2f of copy (target >= 0.5)\n",
              "PagedAttentionV2 32x2048, 8x64 heads", paged_s * 1e3, cache_bytes / paged_s / 1e9,
              cache_bytes / paged_s / copy_bw);
  return 0;
}
