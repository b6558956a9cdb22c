#include "nerva/platform/cl/kernel/reduce/softmax.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
// Rows of at least this many elements (all in whole vectors) take the online form.
constexpr long kOnlineMinLength = 4096;
}  // namespace

SoftmaxKernel::SoftmaxKernel(const SoftmaxOption& option, const TensorOption& input,
                             const Buffer& input_buf, const TensorOption& output,
                             Buffer& output_buf)
    : SoftmaxKernel("Softmax", "softmax", "", option.dim, Tensor(input, input_buf, 0),
                    Tensor(output, output_buf, 0)) {}

SoftmaxKernel::SoftmaxKernel(std::string name, std::string prefix, std::string program, int dim,
                             const Tensor& input, const Tensor& output)
    : KernelImpl(std::move(name)),
      prefix_(std::move(prefix)),
      program_(std::move(program)),
      dim_(dim),
      input_(input),
      output_(output) {}

bool SoftmaxKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), false);
  CheckType(name(), "output", output_.dtype(), false);
  CheckContiguous(name(), "output", output_);
  if (input_.shape().ndim() == 0) throw std::runtime_error(StrCat(name(), ": input has rank 0"));
  NormalizeAxis(name(), dim_, input_.shape().ndim());
  CheckSameSizes(name(), "output", output_, "input", input_);
  return true;
}

void SoftmaxKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const AxisFold fold = FoldAxes(sizes, NormalizeAxis(name(), dim_, sizes.size()),
                                 NormalizeAxis(name(), dim_, sizes.size()));
  const bool innermost = fold.inner == 1;
  const long run = innermost ? fold.reduced : fold.inner;
  const int vec = AdjustVecSize(4, run);
  const int leftover = static_cast<int>(run % vec);
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(output_.dtype()))
      .AddDefinitionAutoType("VEC_SIZE", vec)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", leftover)
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  std::vector<std::string> sources = {"common.h", "math.h", "reduce.h"};
  if (!program_.empty()) sources.push_back(program_);
  sources.push_back("softmax.cl");
  const std::string program_name = name() + "::softmax";

  if (innermost && session->host_cpu()) {
    // One item per row, no barriers: a group's items run one after the other there.
    const long rows = fold.outer;
    MakeSubKernel(session, program_name, sources, options, prefix_ + "_x_row")
        ->SetArgs(ContiguousView(input_, {rows, run}), ContiguousView(output_, {rows, run}),
                  static_cast<int>(run))
        .SetGlobal({static_cast<size_t>(rows)})
        .SetLocal({1});
    return;
  }
  if (innermost) {
    const long rows = fold.outer;
    const long vectors = run / vec;
    const bool online = run >= kOnlineMinLength && leftover == 0;
    // The row in float plus the two reduction arrays must fit in local memory.
    const bool share = !online && static_cast<unsigned long>((vectors * 4 + 512) * vec) <=
                                      session->local_mem_size();
    options.AddOptionIf(share, "-DUSE_SHARE_MEMORY");
    auto unit = MakeSubKernel(session, program_name, sources, options,
                              prefix_ + (online ? "_x_online" : "_x"));
    if (share) unit->SetArg(LocalMemory{static_cast<size_t>(vectors * vec) * sizeof(float)});
    unit->SetArg(ContiguousView(input_, {1, rows, run}))
        .SetArg(ContiguousView(output_, {1, rows, run}))
        .SetArg(static_cast<uint32_t>(vectors))
        .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(rows)})
        .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
    return;
  }
  const bool two_d = fold.outer == 1;
  options.AddOptionIf(two_d, "-DIS_2D_TENSOR");
  const std::vector<long> view = two_d ? std::vector<long>{fold.reduced, run}
                                       : std::vector<long>{fold.outer, fold.reduced, run};
  auto unit = MakeSubKernel(session, program_name, sources, options, prefix_);
  unit->SetArgs(ContiguousView(input_, view, vec), ContiguousView(output_, view, vec),
                static_cast<int>(fold.reduced));
  if (two_d) {
    unit->SetGlobal({static_cast<size_t>(run)}, {static_cast<size_t>(vec)});
  } else {
    unit->SetGlobal({static_cast<size_t>(run), 1, static_cast<size_t>(fold.outer)},
                    {static_cast<size_t>(vec)});
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SoftmaxKernel, const SoftmaxOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Softmax");
};

}  // namespace cl
}  // namespace nerva
