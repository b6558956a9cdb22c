#include "nerva/platform/cl/kernel/reduce/softmax_backward.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

SoftmaxBackwardKernel::SoftmaxBackwardKernel(const SoftmaxBackwardOption& option,
                                             const TensorOption& grad_output,
                                             const Buffer& grad_output_buf,
                                             const TensorOption& output, const Buffer& output_buf,
                                             const TensorOption& grad_input, Buffer& grad_input_buf)
    : SoftmaxBackwardKernel("SoftmaxBackward", "softmax_backward", "", option.dim,
                            Tensor(grad_output, grad_output_buf, 0), Tensor(output, output_buf, 0),
                            Tensor(grad_input, grad_input_buf, 0)) {}

SoftmaxBackwardKernel::SoftmaxBackwardKernel(std::string name, std::string prefix,
                                             std::string program, int dim,
                                             const Tensor& grad_output, const Tensor& output,
                                             const Tensor& grad_input)
    : KernelImpl(std::move(name)),
      prefix_(std::move(prefix)),
      program_(std::move(program)),
      dim_(dim),
      grad_output_(grad_output),
      output_(output),
      grad_input_(grad_input) {}

bool SoftmaxBackwardKernel::Verify() const {
  CheckType(name(), "grad_output", grad_output_.dtype(), false);
  CheckType(name(), "grad_input", grad_input_.dtype(), false);
  if (output_.dtype() != grad_output_.dtype()) {
    throw std::invalid_argument(StrCat(name(), ": output type ", output_.dtype(),
                                       " differs from grad_output type ", grad_output_.dtype()));
  }
  CheckContiguous(name(), "grad_input", grad_input_);
  if (grad_output_.shape().ndim() == 0) {
    throw std::runtime_error(StrCat(name(), ": grad_output has rank 0"));
  }
  NormalizeAxis(name(), dim_, grad_output_.shape().ndim());
  CheckSameSizes(name(), "output", output_, "grad_output", grad_output_);
  CheckSameSizes(name(), "grad_input", grad_input_, "grad_output", grad_output_);
  return true;
}

void SoftmaxBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(grad_output_) == 0) return;
  grad_output_ = MakeContiguous(*this, session, grad_output_);
  output_ = MakeContiguous(*this, session, output_);
  const auto& sizes = grad_output_.shape().sizes();
  const int dim = NormalizeAxis(name(), dim_, sizes.size());
  const AxisFold fold = FoldAxes(sizes, dim, dim);
  const bool innermost = fold.inner == 1;
  const long run = innermost ? fold.reduced : fold.inner;
  const int vec = AdjustVecSize(4, run);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(grad_output_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(grad_input_.dtype()))
      .AddDefinitionAutoType("VEC_SIZE", vec)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(run % vec))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  std::vector<std::string> sources = {"common.h", "math.h", "reduce.h"};
  if (!program_.empty()) sources.push_back(program_);
  sources.push_back("softmax_backward.cl");
  const std::string program_name = name() + "::softmax_backward";
  if (innermost) {
    const std::vector<long> view = {fold.outer, run};
    MakeSubKernel(session, program_name, sources, options, prefix_ + "_x")
        ->SetArgs(ContiguousView(grad_output_, view), ContiguousView(output_, view),
                  ContiguousView(grad_input_, view), static_cast<uint32_t>(run / vec))
        .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(fold.outer)})
        .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
    return;
  }
  const bool two_d = fold.outer == 1;
  options.AddOptionIf(two_d, "-DIS_2D_TENSOR");
  const std::vector<long> view = two_d ? std::vector<long>{fold.reduced, run}
                                       : std::vector<long>{fold.outer, fold.reduced, run};
  auto unit = MakeSubKernel(session, program_name, sources, options, prefix_);
  unit->SetArgs(ContiguousView(grad_output_, view, vec), ContiguousView(output_, view, vec),
                ContiguousView(grad_input_, view, vec), static_cast<int>(fold.reduced));
  if (two_d) {
    unit->SetGlobal({static_cast<size_t>(run)}, {static_cast<size_t>(vec)});
  } else {
    unit->SetGlobal({static_cast<size_t>(run), 1, static_cast<size_t>(fold.outer)},
                    {static_cast<size_t>(vec)});
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SoftmaxBackwardKernel, const SoftmaxBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "SoftmaxBackward");
};

}  // namespace cl
}  // namespace nerva
