#include "nerva/platform/cl/kernel/reduce/max_norm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

MaxNormKernel::MaxNormKernel(const MaxNormOption& option, const TensorOption& weight,
                             const Buffer& weight_buf, const TensorOption& indices,
                             const Buffer& indices_buf)
    : KernelImpl("MaxNorm"),
      option_(option),
      weight_(weight, weight_buf, 0),
      indices_(indices, indices_buf, 0) {}

bool MaxNormKernel::Verify() const {
  CheckType(name(), "weight", weight_.dtype(), false);
  CheckIndexType(name(), "indices", indices_.dtype());
  CheckContiguous(name(), "weight", weight_);
  if (weight_.shape().ndim() != 2) {
    throw std::runtime_error(StrCat("MaxNorm: weight must be 2-D, got ", weight_.shape()));
  }
  if (!(option_.norm_type > 0)) {
    throw std::invalid_argument(
        StrCat("MaxNorm: norm_type must be positive, got ", option_.norm_type));
  }
  return true;
}

void MaxNormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long count = ElementCount(indices_);
  if (count == 0 || ElementCount(weight_) == 0) return;
  indices_ = MakeContiguous(*this, session, indices_);
  const long rows = weight_.shape()[0];
  const long row_len = weight_.shape()[1];
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(weight_.dtype()))
      .AddDefinition("DTYPE_INDEX", GetDataTypeCode(indices_.dtype()))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  MakeSubKernel(session, "MaxNorm::max_norm", {"common.h", "reduce.h", "max_norm.cl"}, options,
                "max_norm")
      ->SetArgs(ContiguousView(weight_, {rows, row_len}), ContiguousView(indices_, {count}),
                static_cast<float>(option_.max_norm), static_cast<float>(option_.norm_type),
                static_cast<int>(rows), static_cast<int>(row_len))
      .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(count)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<MaxNormKernel, const MaxNormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&>("MaxNorm");
};

}  // namespace cl
}  // namespace nerva
