#include "nerva/platform/cl/kernel/reduce/reducewithindices.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

ReduceWithIndicesKernel::ReduceWithIndicesKernel(const ReduceWithIndicesOption& option,
                                                 const TensorOption& input, const Buffer& input_buf,
                                                 const TensorOption& values, Buffer& values_buf,
                                                 const TensorOption& indices, Buffer& indices_buf)
    : ArgReduceKernel("ReduceWithIndices",
                      MakeProgram("ReduceWithIndices", "reducewithindices.cl",
                                  "reduce_with_indices_x", "reduce_with_indices"),
                      option.dim, option.keepdim, Tensor(input, input_buf, 0),
                      Tensor(indices, indices_buf, 0), Tensor(values, values_buf, 0)),
      op_type_(option.op_type) {}

bool ReduceWithIndicesKernel::Verify() const {
  if (op_type_ != ReduceType::kMax && op_type_ != ReduceType::kMin) {
    throw std::invalid_argument(StrCat("ReduceWithIndices: op_type ",
                                       static_cast<uint32_t>(op_type_),
                                       " is not supported, only kMax (0) or kMin (1)"));
  }
  return ArgReduceKernel::Verify();
}

void ReduceWithIndicesKernel::AddExtraOptions(BuildOption& options) const {
  options.AddDefinition("OP", op_type_ == ReduceType::kMax ? "MAX" : "MIN");
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ReduceWithIndicesKernel, const ReduceWithIndicesOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
          "ReduceWithIndices");
};

}  // namespace cl
}  // namespace nerva
