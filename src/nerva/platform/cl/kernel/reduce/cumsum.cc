#include "nerva/platform/cl/kernel/reduce/cumsum.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
constexpr int kLogBlockSize = 6;
static_assert((1 << kLogBlockSize) == kReduceBlockSize, "the scan tile is two groups wide");
}  // namespace

CumsumKernel::CumsumKernel(const CumsumOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : KernelImpl("Cumsum"),
      option_(option),
      input_(input, input_buf, 0),
      output_(output, output_buf, 0) {}

bool CumsumKernel::Verify() const {
  CheckType(name(), "input", input_.dtype(), true);
  CheckType(name(), "output", output_.dtype(), true);
  CheckContiguous(name(), "output", output_);
  if (input_.shape().ndim() == 0) throw std::runtime_error("Cumsum: input has rank 0");
  NormalizeAxis(name(), option_.dim, input_.shape().ndim());
  CheckSameSizes(name(), "output", output_, "input", input_);
  return true;
}

void CumsumKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(input_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const int dim = NormalizeAxis(name(), option_.dim, sizes.size());
  const AxisFold fold = FoldAxes(sizes, dim, dim);
  const DataType accum = TypeTraitsHelper::IsFloattingPoint(input_.dtype()) ? kFloat : kInt64;
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(output_.dtype()))
      .AddDefinition("ACCUM_DTYPE", GetDataTypeCode(accum))
      .AddDefinition("INIT", "0")
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize)
      .AddDefinitionAutoType("LOG_BLOCK_SIZE", kLogBlockSize);
  const std::vector<std::string> sources = {"common.h", "reduce.h", "cumsum.cl"};
  if (fold.inner == 1) {
    const std::vector<long> view = {fold.outer, fold.reduced};
    MakeSubKernel(session, "Cumsum::cumsum", sources, options, "cumsum_x")
        ->SetArgs(ContiguousView(input_, view), ContiguousView(output_, view),
                  static_cast<int>(fold.reduced))
        .SetGlobal({static_cast<size_t>(kReduceBlockSize), static_cast<size_t>(fold.outer)})
        .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
    return;
  }
  const bool two_d = fold.outer == 1;
  const bool in_place = input_.storage().UnsafeGetPtr() == output_.storage().UnsafeGetPtr() &&
                        input_.dtype() == output_.dtype();
  options.AddOptionIf(two_d, "-DENABLE_2D_TENSOR").AddOptionIf(in_place, "-DIN_PLACE");
  const std::vector<long> view = two_d ? std::vector<long>{fold.reduced, fold.inner}
                                       : std::vector<long>{fold.outer, fold.reduced, fold.inner};
  auto unit = MakeSubKernel(session, "Cumsum::cumsum", sources, options, "cumsum");
  unit->SetArg(ContiguousView(input_, view));
  if (!in_place) unit->SetArg(ContiguousView(output_, view));
  unit->SetArg(static_cast<int>(fold.reduced));
  if (two_d) {
    unit->SetGlobal({static_cast<size_t>(fold.inner)});
  } else {
    unit->SetGlobal({static_cast<size_t>(fold.inner), static_cast<size_t>(fold.outer)});
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<CumsumKernel, const CumsumOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Cumsum");
};

}  // namespace cl
}  // namespace nerva
