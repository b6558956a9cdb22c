#include "nerva/platform/cl/kernel/index/scatter.h"

#include <algorithm>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/index/gather_element.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
constexpr size_t kScanLocal = 256;  // SCAN_LOCAL of scatter_row_scan_gpu
}  // namespace

ScatterKernel::ScatterKernel(std::string name, int dim, ScatterReduceType reduce, bool include_self,
                             Tensor input, Tensor index, Tensor src, Tensor count, Tensor out)
    : IndexFrameKernel(std::move(name)),
      dim_(dim),
      reduce_(reduce),
      include_self_(include_self),
      input_(std::move(input)),
      index_(std::move(index)),
      src_(std::move(src)),
      count_(std::move(count)),
      out_(std::move(out)) {}

bool ScatterKernel::Verify() const {
  const int r = static_cast<int>(reduce_);
  if (r < 0 || r > 5) throw std::invalid_argument(StrCat(name(), ": unknown reduce ", r));
  CheckDataType("input", input_, reduce_ != ScatterReduceType::kNone);
  CheckIndexType("index", index_);
  CheckSameType("src", src_, input_.dtype());
  CheckRank("input", input_);
  const int d = Dim(dim_, input_.shape().ndim());
  CheckIndexFits(name(), "index", index_, "input", input_, d);
  CheckIndexFits(name(), "index", index_, "src", src_, -1);
  CheckOut("out", out_, input_.shape().sizes(), input_.dtype());
  if (Defined(count_)) {
    if (count_.dtype() != kInt32 && count_.dtype() != kInt64 && count_.dtype() != kFloat) {
      throw std::invalid_argument(
          StrCat(name(), ": count must be int32, int64 or float, got ", count_.dtype()));
    }
    CheckSizes("count", count_, input_.shape().sizes());
    if (!count_.is_contiguous())
      throw std::invalid_argument(StrCat(name(), ": count must be contiguous"));
  }
  return true;
}

void ScatterKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(out_) == 0) return;
  const int d = Dim(dim_, input_.shape().ndim());
  const long n = ElementCount(index_);
  const Tensor input = Dense(session, input_);
  const std::vector<long> out_strides = out_.shape().strides();
  Buffer table = Table(session, WalkTable(d, index_.shape().sizes(), index_.shape().strides(),
                                          src_.shape().strides(), out_strides));
  const long dsize = input_.shape().sizes()[d];
  const long dstride = out_strides[d];
  if (reduce_ == ScatterReduceType::kMean) {
    CompileMean(session, input, table, n, dsize, dstride);
    return;
  }
  const BuildOption options = TypeOptions(input_.dtype());
  if (reduce_ == ScatterReduceType::kNone) {
    Copy(session, input, out_);
    if (n == 0) return;
    auto& unit = Unit(session, "scatter.cl", options, "scatter_replace");
    unit.SetArgs(Arg(src_), Arg(index_), Is64(index_), Arg(out_), table, static_cast<cl_ulong>(n),
                 static_cast<cl_long>(dsize), static_cast<cl_long>(dstride));
    Launch(unit, n);
    return;
  }
  const int op = static_cast<int>(reduce_);
  if (RowPath(d)) {
    CompileRows(session, input, table, options, d);
    return;
  }
  Accumulator acc = BeginAccumulate(session, out_, op, !include_self_);
  if (n > 0) {
    auto& unit = Unit(session, "scatter.cl", options, "Scatter");
    unit.SetArgs(Arg(src_), Arg(index_), Is64(index_), acc.acc, acc.count,
                 static_cast<int>(acc.counted), op, table, static_cast<cl_ulong>(n),
                 static_cast<cl_long>(dsize), static_cast<cl_long>(dstride));
    Launch(unit, n);
  }
  EndAccumulate(session, acc, input, out_, include_self_);
}

bool ScatterKernel::RowPath(int d) const {
  const auto& sizes = index_.shape().sizes();
  const size_t last = sizes.size() - 1;
  if (sizes.size() < 2 || static_cast<int>(last) == d || ElementCount(index_) == 0) return false;
  const bool constant = sizes[last] == 1 || index_.shape().strides()[last] == 0;
  const bool src_rows = sizes[last] == 1 || src_.shape().strides()[last] == 1;
  // The row lists count in 32 bits.
  return constant && src_rows && ElementCount(index_) / sizes[last] < (1L << 31);
}

void ScatterKernel::CompileRows(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                                const Buffer& table, const BuildOption& options, int d) {
  RowLists l;
  l.len = index_.shape().sizes().back();
  l.rows = ElementCount(index_) / l.len;
  l.width = out_.shape().sizes().back();
  l.out_rows = ElementCount(out_) / l.width;
  l.dsize = input_.shape().sizes()[d];
  l.dstride = out_.shape().strides()[d];
  l.key = Scratch(session, l.rows * 8);
  l.src_at = Scratch(session, l.rows * 8);
  l.order = Scratch(session, l.rows * 8);
  l.start = Scratch(session, (l.out_rows + 1) * 4);
  const bool cpu = session->host_cpu();
  const long chunks = cpu ? 1 : (l.width + 3) / 4;  // GPUs: the W of scatter_row_reduce_gpu
  if (cpu) {
    BucketRowsCpu(session, table, options, l);
  } else {
    BucketRowsGpu(session, table, options, l);
  }
  auto& reduce = Unit(session, "scatter.cl", options,
                      cpu ? "scatter_row_reduce_cpu" : "scatter_row_reduce_gpu");
  auto set_args = [&](auto... chunk_arg) {
    reduce.SetArgs(Arg(src_), Arg(input), Arg(out_), l.start, l.order,
                   static_cast<cl_ulong>(l.out_rows), chunk_arg..., static_cast<cl_long>(l.width),
                   static_cast<cl_long>(l.len), static_cast<int>(reduce_),
                   static_cast<int>(include_self_));
  };
  if (cpu) {
    set_args();
  } else {
    set_args(static_cast<cl_ulong>(chunks));
  }
  Launch(reduce, l.out_rows * chunks, cpu ? kCpuRowLocal : 64);
}

void ScatterKernel::BucketRowsCpu(const std::shared_ptr<SessionImpl>& session, const Buffer& table,
                                  const BuildOption& options, const RowLists& l) {
  // Histograms of 4-byte counts, one per part, within 16 MiB; a few parts keep both cores busy
  // while the serial scan over all histograms stays short.
  const long parts = std::max(1L, std::min({4L, l.rows, (1L << 22) / l.out_rows}));
  Buffer count = Scratch(session, parts * l.out_rows * 4);
  const auto rows = static_cast<cl_ulong>(l.rows), out_rows = static_cast<cl_ulong>(l.out_rows);
  auto& keys = Unit(session, "scatter.cl", options, "scatter_row_key_cpu");
  keys.SetArgs(Arg(index_), Is64(index_), table, rows, static_cast<cl_long>(l.dsize),
               static_cast<cl_long>(l.dstride), static_cast<cl_long>(l.width), l.key, l.src_at);
  Launch(keys, l.rows);
  auto& counts = Unit(session, "scatter.cl", options, "scatter_row_count_cpu");
  counts.SetArgs(l.key, count, rows, out_rows, static_cast<cl_ulong>(parts));
  counts.SetGlobal({static_cast<size_t>(parts)}).SetLocal({1});
  auto& scan = Unit(session, "scatter.cl", options, "scatter_row_scan_cpu");
  scan.SetArgs(count, l.start, out_rows, static_cast<cl_ulong>(parts));
  scan.SetGlobal({1}).SetLocal({1});
  auto& fill = Unit(session, "scatter.cl", options, "scatter_row_fill_cpu");
  fill.SetArgs(l.key, l.src_at, count, l.order, rows, out_rows, static_cast<cl_ulong>(parts));
  fill.SetGlobal({static_cast<size_t>(parts)}).SetLocal({1});
}

void ScatterKernel::BucketRowsGpu(const std::shared_ptr<SessionImpl>& session, const Buffer& table,
                                  const BuildOption& options, const RowLists& l) {
  Buffer count = Scratch(session, l.out_rows * 4);
  auto& zero = Unit(session, "scatter_pre.cl", TypeOptions(kInt32), "acc_init");
  zero.SetArgs(count, count, static_cast<cl_ulong>(l.out_rows),
               static_cast<int>(ScatterReduceType::kSum), 0);
  Launch(zero, l.out_rows);
  auto& keys = Unit(session, "scatter.cl", options, "scatter_row_key");
  keys.SetArgs(Arg(index_), Is64(index_), table, static_cast<cl_ulong>(l.rows),
               static_cast<cl_long>(l.len), static_cast<cl_long>(l.dsize),
               static_cast<cl_long>(l.dstride), static_cast<cl_long>(l.width), l.key, l.src_at,
               count);
  Launch(keys, l.rows);
  auto& scan = Unit(session, "scatter.cl", options, "scatter_row_scan_gpu");
  scan.SetArgs(count, l.start, static_cast<cl_ulong>(l.out_rows));
  scan.SetGlobal({kScanLocal}).SetLocal({kScanLocal});
  auto& fill = Unit(session, "scatter.cl", options, "scatter_row_fill");
  fill.SetArgs(l.key, l.src_at, count, l.order, static_cast<cl_ulong>(l.rows));
  Launch(fill, l.rows);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const ScatterOption&, TO, CB, TO, CB, TO, CB, TO, MB>(
      "Scatter", [](const std::string& n, const ScatterOption& o, TO io, CB i, TO xo, CB x, TO so,
                    CB s, TO oo, MB out) {
        return std::make_shared<ScatterKernel>(
            n, o.dim, o.reduce, o.include_self, MakeTensor(io, i), MakeTensor(xo, x),
            MakeTensor(so, s), MakeTensor(TensorOption{Shape(), kInt32}, Buffer()),
            MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
