#include "nerva/platform/cl/kernel/reduce/reduce.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr long kSingleGroupLimit = 4096;

[[noreturn]] void ThrowKind(ReduceType kind) {
  throw std::invalid_argument(
      StrCat("Unsupport reduce operator type: ", static_cast<uint32_t>(kind)));
}

BuildOption ReduceBuildOption(const std::string& op, DataType in, DataType out, DataType accum,
                              const std::string& init, int vec_size, long run) {
  BuildOption options;
  options.AddDefinition("OP", op)
      .AddDefinition("DTYPE", GetDataTypeCode(in))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(out))
      .AddDefinition("ACCUM_DTYPE", GetDataTypeCode(accum))
      .AddDefinition("INIT", init)
      .AddDefinitionAutoType("VEC_SIZE", vec_size)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(run % vec_size))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  return options;
}

}  // namespace

bool PlanReduce(const std::vector<long>& sizes, const std::vector<int>& axes, bool global_ok,
                ReducePlan* plan) {
  const size_t rank = sizes.size();
  ReducePlan p;
  p.reduced = 1;
  for (int axis : axes) p.reduced *= sizes[axis];
  if (axes.size() == rank && global_ok && p.reduced > kSingleGroupLimit) {
    p.variant = ReduceVariant::kGlobal;
    p.run = p.reduced;
  } else if (AxesConsecutive(axes)) {
    const AxisFold fold = FoldAxes(sizes, axes.front(), axes.back());
    if (axes.back() == static_cast<int>(rank) - 1) {
      p.variant = ReduceVariant::kRow;
      p.outer = fold.outer;
      p.run = fold.reduced;
    } else {
      p.variant = axes.front() == 0 ? ReduceVariant::kCol : ReduceVariant::kMiddle;
      p.outer = fold.outer;
      p.height = fold.reduced;
      p.run = fold.inner;
    }
  } else if ((rank == 3 && axes == std::vector<int>{0, 2}) ||
             (rank == 4 && axes == std::vector<int>{0, 2, 3})) {
    p.variant = ReduceVariant::kXZ;
    p.outer = sizes[0];
    p.kept = sizes[1];
    p.run = Product(sizes, 2, rank);
  } else {
    return false;
  }
  *plan = p;
  return true;
}

ReduceKernel::ReduceKernel(const ReduceOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : ReduceKernel("Reduce", option, input, input_buf, output, output_buf) {}

ReduceKernel::ReduceKernel(std::string name, const ReduceOption& option, const TensorOption& input,
                           const Buffer& input_buf, const TensorOption& output, Buffer& output_buf)
    : KernelImpl(std::move(name)),
      option_(option),
      input_(input, input_buf, 0),
      output_(output, output_buf, 0) {}

std::string ReduceKernel::GetOpCode() const {
  switch (option_.op_type) {
    case ReduceType::kMax:
      return "MAX";
    case ReduceType::kMin:
      return "MIN";
    case ReduceType::kSum:
    case ReduceType::kMean:
    case ReduceType::kCountNonzero:
      return "SUM";
    case ReduceType::kVar:
      return "VAR";
    case ReduceType::kProd:
      return "PROD";
    case ReduceType::kAll:
      return "AND";
    case ReduceType::kAny:
      return "OR";
  }
  ThrowKind(option_.op_type);
}

DataType ReduceKernel::GetAccumType(DataType type) const {
  switch (option_.op_type) {
    case ReduceType::kMax:
    case ReduceType::kMin:
      return TypeTraitsHelper::IsFloattingPoint(type) ? kFloat : type;
    case ReduceType::kSum:
    case ReduceType::kMean:
    case ReduceType::kVar:
    case ReduceType::kProd:
    case ReduceType::kCountNonzero:
      return kFloat;
    case ReduceType::kAll:
    case ReduceType::kAny:
      return kInt32;
  }
  ThrowKind(option_.op_type);
}

std::string ReduceKernel::GetInit(DataType type) const {
  switch (option_.op_type) {
    case ReduceType::kMax:
      return TypeTraitsHelper::GetMinValueStr(type);
    case ReduceType::kMin:
      return TypeTraitsHelper::GetMaxValueStr(type);
    case ReduceType::kSum:
    case ReduceType::kMean:
    case ReduceType::kVar:
    case ReduceType::kAny:
    case ReduceType::kCountNonzero:
      return "0";
    case ReduceType::kProd:
    case ReduceType::kAll:
      return "1";
  }
  ThrowKind(option_.op_type);
}

bool ReduceKernel::Verify() const {
  GetOpCode();
  CheckType(name(), "input", input_.dtype(), true);
  CheckType(name(), "output", output_.dtype(), true);
  CheckContiguous(name(), "output", output_);
  const auto& sizes = input_.shape().sizes();
  if (sizes.empty()) throw std::runtime_error(StrCat(name(), ": input has rank 0"));
  const std::vector<int> axes = NormalizeAxes(name(), option_.axes, sizes.size());
  ReducePlan plan;
  if (!PlanReduce(sizes, axes, GlobalAllowed(), &plan)) throw std::invalid_argument(AxesMessage());
  CheckSizes(name(), "output", output_, ReducedSizes(sizes, axes, option_.keepdim),
             StrCat("reducing ", input_.shape(), " over the axes"));
  if (plan.reduced == 0 && ElementCount(output_) > 0) {
    throw std::runtime_error(
        StrCat(name(), ": cannot reduce input ", input_.shape(), " over zero elements"));
  }
  return true;
}

BuildOption ReduceKernel::CommonOptions(int vec_size, long run) const {
  const DataType in = input_.dtype();
  return ReduceBuildOption(GetOpCode(), in, output_.dtype(), GetAccumType(in), GetInit(in),
                           vec_size, run);
}

void ReduceKernel::AddKindSwitch(BuildOption& options) const {
  switch (option_.op_type) {
    case ReduceType::kMean:
      options.AddOption("-DENABLE_REDUCE_MEAN");
      break;
    case ReduceType::kVar:
      options.AddOption("-DENABLE_REDUCE_VAR");
      break;
    case ReduceType::kAll:
    case ReduceType::kAny:
      options.AddOption("-DENABLE_REDUCE_LOGICAL");
      break;
    case ReduceType::kCountNonzero:
      options.AddOption("-DENABLE_REDUCE_COUNT_NONZERO");
      break;
    default:
      break;
  }
  AddExtraOptions(options);
}

void ReduceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (ElementCount(output_) == 0) return;
  input_ = MakeContiguous(*this, session, input_);
  const auto& sizes = input_.shape().sizes();
  const std::vector<int> axes = NormalizeAxes(name(), option_.axes, sizes.size());
  ReducePlan plan;
  if (!PlanReduce(sizes, axes, GlobalAllowed(), &plan)) throw std::invalid_argument(AxesMessage());
  if (plan.variant == ReduceVariant::kGlobal) {
    CompileGlobalReduce(session);
    return;
  }
  const long n = plan.reduced;
  // The correction is dropped for a single element, so its variance is 0.
  const float correction = n == 1 ? 0.0f : option_.correction;
  const float based_coeff = static_cast<float>(n) / (static_cast<float>(n) - correction);
  const float inv_reduction_size = 1.0f / static_cast<float>(n);
  const int vec = AdjustVecSize(4, plan.run);
  const int vectors = static_cast<int>(plan.run / vec);
  // Column items: one per vector, the first shifted back over the leftover.
  const int column_items = static_cast<int>((plan.run + vec - 1) / vec);
  BuildOption options = CommonOptions(vec, plan.run);
  const size_t block = kReduceBlockSize;
  if (plan.variant == ReduceVariant::kCol || plan.variant == ReduceVariant::kMiddle) {
    const bool cpu = session->host_cpu();
    const ColumnSplit split = cpu ? SplitRows(*session, plan.outer, plan.height)
                                  : SplitColumns(*session, column_items * plan.outer, plan.height);
    if (cpu ? plan.height >= kMinRowsForRowChunks : split.splits > 1) {
      CompileSplitColumns(session, plan, split, std::move(options), based_coeff,
                          inv_reduction_size);
      return;
    }
  }
  switch (plan.variant) {
    case ReduceVariant::kRow:
      options.AddOption("-DREDUCE_ON_ROW");
      AddKindSwitch(options);
      MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_on_row")
          ->SetArgs(ContiguousView(input_, {plan.outer, plan.run}),
                    ContiguousView(output_, {plan.outer}), based_coeff, inv_reduction_size,
                    static_cast<int>(plan.outer), 1, vectors)
          .SetGlobal({block, static_cast<size_t>(plan.outer)})
          .SetLocal({block, 1});
      break;
    case ReduceVariant::kXZ:
      options.AddOption("-DREDUCE_3DXZ");
      AddKindSwitch(options);
      MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_on_xz")
          ->SetArgs(ContiguousView(input_, {plan.outer, plan.kept, plan.run}),
                    ContiguousView(output_, {plan.kept}), based_coeff, inv_reduction_size,
                    static_cast<int>(plan.kept), static_cast<int>(plan.outer), vectors)
          .SetGlobal({block, static_cast<size_t>(plan.kept)})
          .SetLocal({block, 1});
      break;
    case ReduceVariant::kCol:
      options.AddOption("-DREDUCE_ON_COL");
      AddKindSwitch(options);
      MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_on_col")
          ->SetArgs(ContiguousView(input_, {plan.height, plan.run}, vec),
                    ContiguousView(output_, {plan.run}, vec), based_coeff, inv_reduction_size,
                    static_cast<int>(plan.height), 1, column_items)
          .SetGlobal({static_cast<size_t>(plan.run)}, {static_cast<size_t>(vec)})
          .SetLocal({block});
      break;
    default:
      options.AddOption("-DREDUCE_ON_3DY");
      AddKindSwitch(options);
      MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_on_y")
          ->SetArgs(ContiguousView(input_, {plan.outer, plan.height, plan.run}, vec),
                    ContiguousView(output_, {plan.outer, plan.run}, vec), based_coeff,
                    inv_reduction_size, static_cast<int>(plan.height), static_cast<int>(plan.outer),
                    column_items)
          .SetGlobal({static_cast<size_t>(plan.run), static_cast<size_t>(plan.outer)},
                     {static_cast<size_t>(vec)})
          .SetLocal({block, 1});
      break;
  }
}

void ReduceKernel::CompileSplitColumns(std::shared_ptr<SessionImpl> session, const ReducePlan& plan,
                                       const ColumnSplit& split, BuildOption options,
                                       float based_coeff, float inv_reduction_size) {
  const int vec = AdjustVecSize(4, plan.run);
  const int column_items = static_cast<int>((plan.run + vec - 1) / vec);
  const long plane = plan.outer * split.splits * plan.run;
  const bool squares = option_.op_type == ReduceType::kVar;
  const long accum_size =
      static_cast<long>(TypeTraitsHelper::GetSize(GetAccumType(input_.dtype())));
  partial_ = MakeScratchBuffer(session, (squares ? 2 : 1) * plane * accum_size);
  options.AddOption("-DREDUCE_SPLIT_COLUMNS");
  AddKindSwitch(options);
  const size_t block = kReduceBlockSize;
  const size_t run = static_cast<size_t>(plan.run);
  if (session->host_cpu()) {
    MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_rows_partial")
        ->SetArgs(ContiguousView(input_, {plan.outer, plan.height, plan.run}), partial_,
                  static_cast<int>(plan.height), static_cast<int>(split.rows),
                  static_cast<int>(split.splits), static_cast<int>(plan.run), plane)
        .SetGlobal({static_cast<size_t>(split.splits), static_cast<size_t>(plan.outer)})
        .SetLocal({1, 1});
  } else {
    MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_split_partial")
        ->SetArgs(ContiguousView(input_, {plan.outer, plan.height, plan.run}, vec), partial_,
                  static_cast<int>(plan.height), static_cast<int>(split.rows),
                  static_cast<int>(split.splits), static_cast<int>(plan.run), plane, column_items)
        .SetGlobal({run, static_cast<size_t>(plan.outer * split.splits)},
                   {static_cast<size_t>(vec)})
        .SetLocal({block, 1});
  }
  MakeSubKernel(session, ProgramName(), Sources(), options, "reduce_split_merge")
      ->SetArgs(partial_, ContiguousView(output_, {plan.outer, plan.run}, vec), based_coeff,
                inv_reduction_size, static_cast<int>(split.splits), static_cast<int>(plan.run),
                plane, column_items)
      .SetGlobal({run, static_cast<size_t>(plan.outer)}, {static_cast<size_t>(vec)})
      .SetLocal({block, 1});
}

void AppendSplitColumnSum(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                          const Buffer& partial, long splits, long run, const Tensor& out) {
  const int vec = AdjustVecSize(4, run);
  const int column_items = static_cast<int>((run + vec - 1) / vec);
  BuildOption options = ReduceBuildOption("SUM", kFloat, out.dtype(), kFloat, "0", vec, run);
  options.AddOption("-DREDUCE_SPLIT_COLUMNS");
  kernel
      .MakeSubKernel(session, "Reduce::reduce", {"common.h", "reduce.h", "reduce.cl"}, options,
                     "reduce_split_merge")
      ->SetArgs(partial, ContiguousView(out, {1, run}, vec), 1.0f, 1.0f, static_cast<int>(splits),
                static_cast<int>(run), splits * run, column_items)
      .SetGlobal({static_cast<size_t>(run), 1}, {static_cast<size_t>(vec)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize), 1});
}

void ReduceKernel::CompileGlobalReduce(std::shared_ptr<SessionImpl> session) {
  const long n = ElementCount(input_);
  const long vectors = n / 4;
  const long resident = static_cast<long>(session->compute_units()) *
                        session->max_work_group_size() / kReduceBlockSize;
  const long groups =
      std::max(1L, std::min((vectors + kReduceBlockSize - 1) / kReduceBlockSize, resident));
  const DataType accum = GetAccumType(input_.dtype());
  partial_ =
      MakeScratchBuffer(session, groups * static_cast<long>(TypeTraitsHelper::GetSize(accum)));
  const size_t global = static_cast<size_t>(groups) * kReduceBlockSize;

  BuildOption first = CommonOptions(4, n);
  first.AddOption("-DGLOBAL_REDUCE");
  AddKindSwitch(first);
  MakeSubKernel(session, ProgramName(), Sources(), first, "global_reduce")
      ->SetArgs(input_.storage(), partial_, static_cast<uint32_t>(vectors),
                static_cast<uint32_t>(global))
      .SetGlobal({global})
      .SetLocal({static_cast<size_t>(kReduceBlockSize)});

  BuildOption second = CommonOptions(1, 0);
  second.AddOption("-DGLOBAL_REDUCE_TO_SCALAR");
  AddKindSwitch(second);
  MakeSubKernel(session, ProgramName(), Sources(), second, "reduce_to_scalar")
      ->SetArgs(partial_, output_.storage(), 1.0f / static_cast<float>(n),
                static_cast<uint32_t>(groups))
      .SetGlobal({static_cast<size_t>(kReduceBlockSize)})
      .SetLocal({static_cast<size_t>(kReduceBlockSize)});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ReduceKernel, const ReduceOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Reduce");
};

}  // namespace cl
}  // namespace nerva
