// Gather, scatter and embedding-bag kernels on the OpenCL device: effective bandwidth (the bytes
// each operator must read and write, divided by its time) as a fraction of a plain float4 copy
// kernel's, measured in the same run. Targets: Gather >= 0.5, Scatter-add >= 0.25, EmbeddingBag
// sum >= 0.4.

#include <cstdio>
#include <memory>
#include <random>
#include <vector>

#include "bench_util.h"

namespace {

using nerva::bench::CopyKernel;
using nerva::bench::TimeKernel;

constexpr long kTable = 1 << 20;  // rows of the table
constexpr long kDim = 64;         // floats per row
constexpr long kPicks = 1 << 20;  // rows gathered or scattered
constexpr long kTargets = 1 << 16;
constexpr long kBag = 20;
constexpr int kRuns = 5;

nerva::Tensor Random(nerva::Session& s, nerva::Queue& q, const std::vector<long>& sizes) {
  long n = 1;
  for (long v : sizes) n *= v;
  std::vector<float> host(n);
  std::mt19937 gen(1);
  std::uniform_real_distribution<float> dist(-1, 1);
  for (auto& v : host) v = dist(gen);
  nerva::Tensor t = s.MakeTensor(sizes, nerva::kFloat);
  q.CopyHostToDevice(t.storage(), host.data(), n * 4);
  return t;
}

nerva::Tensor Indices(nerva::Session& s, nerva::Queue& q, long n, long hi) {
  std::vector<int64_t> host(n);
  std::mt19937 gen(2);
  std::uniform_int_distribution<int64_t> dist(0, hi - 1);
  for (auto& v : host) v = dist(gen);
  nerva::Tensor t = s.MakeTensor({n}, nerva::kInt64);
  q.CopyHostToDevice(t.storage(), host.data(), n * 8);
  return t;
}

// Copy time of the same byte count, measured right before, and the ratio line.
void Report(const char* what, double seconds, double bytes, double copy_gbs) {
  const double gbs = bytes / seconds / 1e9;
  std::printf("%-36s %8.3f ms %7.2f GB/s  ratio %.2f\n", what, seconds * 1e3, gbs, gbs / copy_gbs);
}

}  // namespace

int main() {
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());

  nerva::Tensor table = Random(session, queue, {kTable, kDim});
  nerva::Tensor rows = session.MakeTensor({kPicks, kDim}, nerva::kFloat);
  nerva::Tensor picks = Indices(session, queue, kPicks, kTable);
  auto copy = std::make_shared<CopyKernel>(table.storage(), rows.storage(), kPicks * kDim);
  copy->Compile(impl);
  const nerva::Kernel copy_kernel(copy);
  auto copy_gbs = [&] {
    const double s = TimeKernel(queue, copy_kernel, kRuns);
    return 2.0 * kPicks * kDim * 4 / s / 1e9;
  };
  double base = copy_gbs();
  std::printf("%-36s %7.2f GB/s\n", "COPY float4 64M floats", base);

  // Gather: 1M random rows of the 1M x 64 table (reads the rows and the indices, writes out).
  nerva::Kernel gather =
      nerva::Gather::Create(queue, nerva::GatherOption{0}, table.option(), table.storage(),
                            picks.option(), picks.storage(), rows.option(), rows.storage());
  Report("Gather 1M rows of 1Mx64", TimeKernel(queue, gather, kRuns),
         2.0 * kPicks * kDim * 4 + kPicks * 8.0, base);

  // Scatter-add of 1M rows into 64K rows: the index is one per row, expanded along the row.
  base = copy_gbs();
  nerva::Tensor targets = Indices(session, queue, kPicks, kTargets);
  nerva::Tensor index = nerva::Tensor(nerva::TensorOption{nerva::Shape({kPicks, 1}), nerva::kInt64},
                                      targets.storage(), 0)
                            .BroadcastTo({kPicks, kDim});
  nerva::Tensor acc = Random(session, queue, {kTargets, kDim});
  nerva::Tensor acc_out = session.MakeTensor({kTargets, kDim}, nerva::kFloat);
  nerva::Kernel scatter =
      nerva::Scatter::Create(queue, nerva::ScatterOption{0, nerva::ScatterReduceType::kSum, true},
                             acc.option(), acc.storage(), index.option(), index.storage(),
                             rows.option(), rows.storage(), acc_out.option(), acc_out.storage());
  Report("Scatter-add 1M rows into 64K rows", TimeKernel(queue, scatter, kRuns),
         kPicks * kDim * 4.0 + kPicks * 8.0 + 2.0 * kTargets * kDim * 4, base);

  // EmbeddingBag sum, bags of 20 over the table.
  base = copy_gbs();
  const long bags = kPicks / kBag;
  std::vector<int64_t> offsets(bags);
  for (long b = 0; b < bags; ++b) offsets[b] = b * kBag;
  nerva::Tensor toff = session.MakeTensor({bags}, nerva::kInt64);
  queue.CopyHostToDevice(toff.storage(), offsets.data(), bags * 8);
  nerva::Tensor bag_idx = session.MakeTensor({bags * kBag}, nerva::kInt64);
  queue.CopyDeviceToDevice(bag_idx.storage(), picks.storage(), bags * kBag * 8);
  nerva::Tensor bag_out = session.MakeTensor({bags, kDim}, nerva::kFloat);
  nerva::Kernel bag = nerva::EmbeddingBag::Create(
      queue, nerva::EmbeddingBagOption{nerva::EmbeddingBagMode::kSum, false, -1}, table.option(),
      table.storage(), bag_idx.option(), bag_idx.storage(), toff.option(), toff.storage(),
      nerva::TensorOption{nerva::Shape(), nerva::kFloat}, nerva::Buffer(), bag_out.option(),
      bag_out.storage());
  Report("EmbeddingBag sum, bags of 20", TimeKernel(queue, bag, kRuns),
         bags * kBag * (kDim * 4.0 + 8) + bags * (kDim * 4.0 + 8), base);
  return 0;
}
