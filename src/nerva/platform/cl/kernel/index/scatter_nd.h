#pragma once

// "ScatterND" (scatter_nd.cl): ONNX ScatterND(data, indices, updates, reduction) with
// ScatterNDOption::reduction kNone, kSum, kProd, kAmax or kAmin. indices has rank q >= 1 and a
// last dimension k <= rank of data; updates has shape indices.shape[:-1] + data.shape[k:]; out
// has data's shape and type. Each index tuple addresses one slice of data; negative indices
// count from the end; a tuple with an index outside [-size, size) is skipped (its slice of
// updates is ignored). With kNone, duplicate tuples keep one of their slices, unspecified which;
// the reductions combine all of them. kNone moves any element type but double; reductions take
// float, half, int8, int16, int32, int64 and uint8. Indices int32 or int64.

#include <memory>
#include <string>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

class ScatterNDKernel : public IndexFrameKernel {
 public:
  ScatterNDKernel(std::string name, const ScatterNDOption& option, Tensor data, Tensor indices,
                  Tensor updates, Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ScatterNDOption option_;
  Tensor data_, indices_, updates_, out_;
};

}  // namespace cl
}  // namespace nerva
