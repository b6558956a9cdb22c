#include "nerva/platform/cl/kernel/reduce/argmax.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

ArgReduceKernel::ArgReduceKernel(std::string name, Program program, int dim, bool keepdim,
                                 const Tensor& input, const Tensor& indices, const Tensor& values)
    : KernelImpl(std::move(name)),
      program_(std::move(program)),
      dim_(dim),
      keepdim_(keepdim),
      input_(input),
      indices_(indices),
      values_(values) {}

bool ArgReduceKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), true);
  CheckIndexType(name(), "indices", indices_.dtype());
  CheckContiguous(name(), "indices", indices_);
  const auto& sizes = input_.shape().sizes();
  if (sizes.empty()) throw std::runtime_error(StrCat(name(), ": input has rank 0"));
  const int dim = NormalizeAxis(name(), dim_, sizes.size());
  const std::vector<long> expected = ReducedSizes(sizes, {dim}, keepdim_);
  const std::string what = StrCat("reducing ", input_.shape(), " along dim ", dim_);
  CheckSizes(name(), "indices", indices_, expected, what);
  if (values_.defined()) {
    CheckContiguous(name(), "values", values_);
    CheckSizes(name(), "values", values_, expected, what);
  }
  if (sizes[dim] == 0 && ElementCount(indices_) > 0) {
    throw std::runtime_error(
        StrCat(name(), ": cannot reduce input ", input_.shape(), " over an empty dim ", dim_));
  }
  return true;
}

void ArgReduceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(indices_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const int dim = NormalizeAxis(name(), dim_, sizes.size());
  const AxisFold fold = FoldAxes(sizes, dim, dim);
  const bool innermost = fold.inner == 1;
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(indices_.dtype()))
      .AddDefinitionAutoType("VEC_SIZE", 4)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER",
                             innermost ? static_cast<int>(fold.reduced % 4) : 0)
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  if (values_.defined()) options.AddDefinition("DTYPE_VALUES", GetDataTypeCode(values_.dtype()));
  AddExtraOptions(options);
  const size_t block = kReduceBlockSize;
  std::vector<ClTensor> outputs;
  if (innermost) {
    outputs.push_back(ContiguousView(indices_, {fold.outer}));
    if (values_.defined()) outputs.push_back(ContiguousView(values_, {fold.outer}));
    if (session->host_cpu()) {
      // One item per row, no barriers: a group's items run one after the other there.
      MakeSubKernel(session, program_.name, program_.sources, options, program_.row_kernel + "_row")
          ->SetArgs(ContiguousView(input_, {fold.outer, fold.reduced}), outputs,
                    static_cast<int>(fold.reduced))
          .SetGlobal({static_cast<size_t>(fold.outer)})
          .SetLocal({1});
      return;
    }
    MakeSubKernel(session, program_.name, program_.sources, options, program_.row_kernel)
        ->SetArgs(ContiguousView(input_, {fold.outer, fold.reduced}), outputs,
                  static_cast<int>(fold.reduced / 4))
        .SetGlobal({block, static_cast<size_t>(fold.outer)})
        .SetLocal({block, 1});
  } else {
    outputs.push_back(ContiguousView(indices_, {fold.outer, fold.inner}));
    if (values_.defined()) outputs.push_back(ContiguousView(values_, {fold.outer, fold.inner}));
    MakeSubKernel(session, program_.name, program_.sources, options, program_.column_kernel)
        ->SetArgs(ContiguousView(input_, {fold.outer, fold.reduced, fold.inner}), outputs,
                  static_cast<int>(fold.reduced))
        .SetGlobal({static_cast<size_t>(fold.inner), static_cast<size_t>(fold.outer)});
  }
}

ArgReduceKernel::Program ArgReduceKernel::MakeProgram(const std::string& op,
                                                      const std::string& file,
                                                      const std::string& row_kernel,
                                                      const std::string& column_kernel) {
  std::vector<std::string> sources = {"common.h", "reduce.h"};
  if (file != "argmax.cl") sources.push_back(file);
  sources.push_back("argmax.cl");
  return {op + "::arg", sources, row_kernel, column_kernel};
}

ArgMaxKernel::ArgMaxKernel(const ArgMaxOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : ArgReduceKernel("ArgMax", MakeProgram("ArgMax", "argmax.cl", "argmax_x", "argmax"),
                      option.dim, option.keepdim, Tensor(input, input_buf, 0),
                      Tensor(output, output_buf, 0), Tensor()) {}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ArgMaxKernel, const ArgMaxOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("ArgMax");
};

}  // namespace cl
}  // namespace nerva
