#include "nerva/platform/cl/kernel/reduce/renorm.h"

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

RenormKernel::RenormKernel(const RenormOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : KernelImpl("Renorm"),
      option_(option),
      input_(input, input_buf, 0),
      output_(output, output_buf, 0) {}

bool RenormKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), false);
  CheckType(name(), "output", output_.dtype(), false);
  CheckContiguous(name(), "output", output_);
  if (input_.shape().ndim() < 2) {
    throw std::runtime_error(
        StrCat("Renorm: input needs at least 2 dimensions, got ", input_.shape()));
  }
  NormalizeAxis(name(), option_.dim, input_.shape().ndim());
  CheckSameSizes(name(), "output", output_, "input", input_);
  if (!(option_.p > 0)) {
    throw std::invalid_argument(StrCat("Renorm: p must be positive, got ", option_.p));
  }
  if (!(option_.maxnorm >= 0)) {
    throw std::invalid_argument(
        StrCat("Renorm: maxnorm must be non-negative, got ", option_.maxnorm));
  }
  return true;
}

void RenormKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const int dim = NormalizeAxis(name(), option_.dim, sizes.size());
  const AxisFold fold = FoldAxes(sizes, dim, dim);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(output_.dtype()))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  const std::vector<long> view = {fold.outer, fold.reduced, fold.inner};
  MakeSubKernel(session, "Renorm::renorm", {"common.h", "reduce.h", "renorm.cl"}, options, "renorm")
      ->SetArgs(ContiguousView(input_, view), ContiguousView(output_, view), option_.p,
                option_.maxnorm, static_cast<int>(fold.outer), static_cast<int>(fold.inner))
      .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(fold.reduced)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<RenormKernel, const RenormOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Renorm");
};

}  // namespace cl
}  // namespace nerva
