#pragma once

// "Gather" (gather.cl): whole slices of the input along GatherOption::dim, one per element of
// an index tensor of any shape: out has the input's sizes with index's sizes in place of dim
// (torch.index_select for a 1-D index, ONNX Gather otherwise). Negative indices count from the
// end; an index outside [-size, size) yields zeros for its slice (nothing outside any buffer is
// read). Index: int32 or int64; data: any element type but double; out contiguous.
// "Index" (index.cl, IndexKernel) shares this kernel: input[..., index, ...] on IndexOption::dim.

#include <memory>
#include <string>

#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class GatherKernel : public IndexFrameKernel {
 public:
  GatherKernel(std::string name, std::string program, int dim, Tensor input, Tensor index,
               Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::vector<long> OutSizes() const;
  // CPUs: one work item per out row (16 KiB pieces of longer rows) copying 64-byte vectors,
  // with a prefetch of the row a few items ahead.
  // GPUs: one work item per unit of up to 16 bytes of an out row (coalesced rows).
  void CompileGpu(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                  const Tensor& index, long rows, long row_bytes, long count, long dsize);

  std::string program_;
  int dim_;
  Tensor input_, index_, out_;
};

}  // namespace cl
}  // namespace nerva
