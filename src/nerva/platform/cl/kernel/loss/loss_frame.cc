#include "nerva/platform/cl/kernel/loss/loss_frame.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
// Items each work item of a partial-sum group folds, at least.
constexpr long kItemsPerWorkItem = 8;
// Partial sums at most on host CPU devices; on GPUs groups enough to keep every
// compute unit busy (the final fold reads them all, so not more).
constexpr long kMaxGroups = 256;
constexpr long kGroupsPerComputeUnit = 16;
// Host CPU devices: items per loss_chunks work item at least (a multiple of 16).
constexpr long kCpuChunkItems = 4096;
}  // namespace

void LossKernel::CheckReduction() const {
  const int r = static_cast<int>(reduction_);
  if (r < 0 || r > 2) throw std::invalid_argument(StrCat(name(), ": unknown reduction ", r));
}

void LossKernel::CheckFloat(const std::string& arg, const Tensor& tensor) const {
  if (tensor.dtype() != kFloat && tensor.dtype() != kHalf) {
    throw std::invalid_argument(
        StrCat(name(), ": ", arg, " must be float or half, got ", tensor.dtype()));
  }
}

void LossKernel::CheckSameType(const std::string& arg, const Tensor& tensor, DataType type) const {
  if (tensor.dtype() != type) {
    throw std::invalid_argument(
        StrCat(name(), ": ", arg, " must have type ", type, ", got ", tensor.dtype()));
  }
}

void LossKernel::CheckShape(const std::string& arg, const Tensor& tensor,
                            const std::vector<long>& sizes) const {
  if (tensor.shape().sizes() != sizes) {
    throw std::runtime_error(
        StrCat(name(), ": ", arg, " must have shape ", Shape(sizes), ", got ", tensor.shape()));
  }
  if (ElementCount(tensor) > 0 && tensor.storage().impl() == nullptr) {
    throw std::invalid_argument(StrCat(name(), ": ", arg, " has no buffer"));
  }
}

void LossKernel::CheckBroadcast(const std::string& arg, const Tensor& tensor,
                                const std::vector<long>& sizes) const {
  std::vector<long> out;
  if (!BroadcastTogether(tensor.shape().sizes(), sizes, &out) || out != sizes) {
    throw std::runtime_error(StrCat(name(), ": ", arg, " of shape ", tensor.shape(),
                                    " does not broadcast to ", Shape(sizes)));
  }
  if (ElementCount(tensor) > 0 && tensor.storage().impl() == nullptr) {
    throw std::invalid_argument(StrCat(name(), ": ", arg, " has no buffer"));
  }
}

std::vector<long> LossKernel::ResultSizes(const std::vector<long>& sizes) const {
  return Reduced() ? std::vector<long>{1} : sizes;
}

Tensor LossKernel::Dense(const std::shared_ptr<SessionImpl>& session, const Tensor& tensor,
                         const std::vector<long>& sizes) {
  Tensor t = tensor.shape().sizes() == sizes ? tensor : tensor.BroadcastTo(sizes);
  t = MakeContiguous(*this, session, t);
  keep_.push_back(t);
  return t;
}

std::vector<std::string> LossKernel::LossSources(const std::string& program) {
  return {"common.h", "math.h", "reduce.h", "loss_frame.cl", program};
}

BuildOption LossKernel::LossOptions(DataType dtype) {
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(dtype))
      .AddDefinitionAutoType("BLOCK_SIZE", kReduceBlockSize);
  return options;
}

void LossKernel::CompileForward(const std::shared_ptr<SessionImpl>& session,
                                const std::string& program, const BuildOption& options, long count,
                                float divisor, const Tensor& out, const Tensor* total_weight,
                                const std::function<void(KernelUnit&)>& bind) {
  const std::vector<std::string> sources = LossSources(program);
  const std::string key = "Loss::" + program;
  Tensor result = out;
  if (!Reduced()) {
    if (count > 0) {
      auto unit = MakeSubKernel(session, key, sources, options, "loss_none");
      unit->SetArgs(static_cast<cl_long>(count), MakeLossArg(out));
      bind(*unit);
      unit->SetGlobal({static_cast<size_t>(count)});
    }
    if (total_weight == nullptr) return;
    // The summed weights still go to total_weight; the sum of losses is dropped.
    result =
        Tensor(TensorOption{Shape({1}), total_weight->dtype()}, MakeScratchBuffer(session, 8), 0);
    keep_.push_back(result);
  }
  if (session->host_cpu()) {
    CompileChunks(session, program, options, count, divisor, result, total_weight, bind);
    return;
  }
  const long block = kReduceBlockSize;
  const long most = static_cast<long>(session->compute_units()) * kGroupsPerComputeUnit;
  const long groups =
      std::clamp((count + block * kItemsPerWorkItem - 1) / (block * kItemsPerWorkItem), 1L,
                 std::max(most, 1L));
  const long chunk = (count + groups - 1) / groups;
  Buffer part = PartialSums(session, groups);
  auto partial = MakeSubKernel(session, key, sources, options, "loss_partial");
  partial->SetArgs(static_cast<cl_long>(count), static_cast<cl_long>(chunk), part);
  bind(*partial);
  partial->SetGlobal({static_cast<size_t>(groups * block)}).SetLocal({static_cast<size_t>(block)});
  CompileFinal(session, program, options, groups, part, divisor, result, total_weight);
}

void LossKernel::CompileChunks(const std::shared_ptr<SessionImpl>& session,
                               const std::string& program, const BuildOption& options, long count,
                               float divisor, const Tensor& out, const Tensor* total_weight,
                               const std::function<void(KernelUnit&)>& bind) {
  const long chunks = std::clamp(count / kCpuChunkItems, 1L, kMaxGroups);
  // Chunks start on multiples of 16 items, so their vectors stay aligned.
  const long chunk = ((count + chunks - 1) / chunks + 15) / 16 * 16;
  Buffer part = PartialSums(session, chunks);
  auto unit =
      MakeSubKernel(session, "Loss::" + program, LossSources(program), options, "loss_chunks");
  unit->SetArgs(static_cast<cl_long>(count), static_cast<cl_long>(chunk), part);
  bind(*unit);
  unit->SetGlobal({static_cast<size_t>(chunks)}).SetLocal({1});
  CompileFinal(session, program, options, chunks, part, divisor, out, total_weight);
}

Buffer LossKernel::PartialSums(const std::shared_ptr<SessionImpl>& session, long groups) {
  Buffer part =
      MakeScratchBuffer(session, std::max(groups, 1L) * 2 * static_cast<long>(sizeof(float)));
  scratch_.push_back(part);
  return part;
}

void LossKernel::CompileFinal(const std::shared_ptr<SessionImpl>& session,
                              const std::string& program, const BuildOption& options, long groups,
                              const Buffer& part, float divisor, const Tensor& out,
                              const Tensor* total_weight) {
  const long block = kReduceBlockSize;
  const bool has_tw = total_weight != nullptr;
  auto final_unit =
      MakeSubKernel(session, "Loss::" + program, LossSources(program), options, "loss_final");
  final_unit->SetArgs(
      static_cast<int>(groups), static_cast<int>(reduction() == LossReduction::kMean), divisor,
      part, MakeLossArg(out), MakeLossArg(has_tw ? *total_weight : out), static_cast<int>(has_tw));
  final_unit->SetGlobal({static_cast<size_t>(block)}).SetLocal({static_cast<size_t>(block)});
}

void LossKernel::CompileBackward(const std::shared_ptr<SessionImpl>& session,
                                 const std::string& program, const BuildOption& options, long count,
                                 const Tensor& grad_output, const Tensor& grad_input,
                                 const std::function<void(KernelUnit&)>& bind) {
  if (count == 0) return;
  const std::vector<std::string> sources = LossSources(program);
  const float scale = reduction() == LossReduction::kMean
                          ? static_cast<float>(1.0 / static_cast<double>(count))
                          : 1.0f;
  auto unit = MakeSubKernel(session, "Loss::" + program, sources, options, "loss_backward");
  unit->SetArgs(static_cast<cl_long>(count), MakeLossArg(grad_output),
                static_cast<cl_long>(Reduced() ? 0 : 1), scale, MakeLossArg(grad_input));
  bind(*unit);
  unit->SetGlobal({static_cast<size_t>(count)});
}

LossArg MakeLossArg(const Tensor& tensor) {
  const ClTensor view(tensor);
  return LossArg{view.mem(), view.offset(), view.buffer()};
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LossArg& arg) {
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
  return status == CL_SUCCESS ? clSetKernelArg(kernel, index++, sizeof(cl_ulong), &arg.offset)
                              : status;
}

}  // namespace cl
}  // namespace nerva
