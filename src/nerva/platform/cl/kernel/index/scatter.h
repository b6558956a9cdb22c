#pragma once

// "Scatter" (scatter.cl, pre- and post-passes in scatter_pre.cl): torch.scatter(input, dim,
// index, src) and torch.scatter_reduce(input, dim, index, src, reduce, include_self) with
// ScatterOption: reduce kNone overwrites, kSum, kProd, kMean, kAmax, kAmin reduce, and
// include_self says whether the input's value takes part at the positions that receive values
// (positions that receive none keep the input). kMean runs the programs of "ScatterMean".
// Rules as PyTorch's: index has the input's rank, no larger size than src on any dimension and
// than input on any but dim; out has the input's shape and type. Indices lie in [0, size of
// dim); any other index (negative ones included) is skipped: nothing is written for it (PyTorch
// raises). With duplicate indices kNone keeps one of the values, unspecified which (as in
// PyTorch); the reductions combine all of them (float sums within rounding, in any order).
// Index int32 or int64, possibly strided or expanded; src a view of any layout. kNone moves any
// element type but double; the reductions take float, half, int8, int16, int32, int64 and uint8
// (accumulated in float, int32 and int64; integer means use floor division, as PyTorch).

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class ScatterKernel : public IndexFrameKernel {
 public:
  // `count` is ScatterMean's count tensor (left out: empty shape).
  ScatterKernel(std::string name, int dim, ScatterReduceType reduce, bool include_self,
                Tensor input, Tensor index, Tensor src, Tensor count, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  // The three passes of kMean (scatter_mean.cc).
  void CompileMean(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                   const Buffer& table, long n, long dsize, long dstride);

 private:
  // The reductions but kMean take a row path when the index is constant along its last
  // dimension (an index of one value per row, expanded: the usual scatter_add pattern) and that
  // dimension is not `dim`: src rows are bucketed by destination row on the device, and each
  // out row then combines its list without atomics. GPUs scan the buckets in one work-group and
  // give each work item 4 columns, so that a warp reads whole src rows. CPUs bucket without
  // atomics (a few parts of the rows, each with its own histogram; lists in row order, so sums
  // repeat exactly) and give each work item a whole out row, 64 columns at a time.
  bool RowPath(int d) const;
  void CompileRows(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                   const Buffer& table, const BuildOption& options, int d);
  // The row path's shape and buffers: `start` (out_rows + 1 list bounds) and `order` (the src
  // row offsets, list after list) are what the bucketing passes leave.
  struct RowLists {
    long len = 0, rows = 0, width = 0, out_rows = 0, dsize = 0, dstride = 0;
    Buffer key, src_at, order, start;
  };
  void BucketRowsCpu(const std::shared_ptr<SessionImpl>& session, const Buffer& table,
                     const BuildOption& options, const RowLists& l);
  void BucketRowsGpu(const std::shared_ptr<SessionImpl>& session, const Buffer& table,
                     const BuildOption& options, const RowLists& l);

  int dim_;
  ScatterReduceType reduce_;
  bool include_self_;
  Tensor input_, index_, src_, count_, out_;
};

}  // namespace cl
}  // namespace nerva
