#include "nerva/platform/cl/kernel/norm/norm_util.h"

#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

Tensor OptionalTensor(const TensorOption& option, const Buffer& buffer) {
  if (option.shape.ndim() == 0 || !buffer) return Tensor();
  return Tensor(option, buffer, 0);
}

void CheckPresent(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (!tensor.impl() || tensor.shape().ndim() == 0 ||
      (ElementCount(tensor) > 0 && !tensor.storage())) {
    throw std::invalid_argument(StrCat(op, ": ", arg, " is undefined"));
  }
}

void CheckNormType(const std::string& op, const std::string& arg, const Tensor& tensor) {
  if (tensor.dtype() != kFloat && tensor.dtype() != kHalf) {
    throw std::invalid_argument(StrCat(op, ": unsupported ", arg, " type ", tensor.dtype()));
  }
}

void CheckStatOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                     long count) {
  CheckPresent(op, arg, tensor);
  CheckNormType(op, arg, tensor);
  CheckContiguous(op, arg, tensor);
  if (ElementCount(tensor) != count) {
    throw std::runtime_error(
        StrCat(op, ": ", arg, " has shape ", tensor.shape(), " but needs ", count, " elements"));
  }
}

void CheckLike(const std::string& op, const std::string& arg, const Tensor& tensor,
               const std::string& other_arg, const Tensor& other) {
  CheckPresent(op, arg, tensor);
  CheckSameSizes(op, arg, tensor, other_arg, other);
  if (tensor.dtype() != other.dtype()) {
    throw std::invalid_argument(StrCat(op, ": ", arg, " type ", tensor.dtype(),
                                       " differs from the ", other_arg, " type ", other.dtype()));
  }
}

void CheckOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                 const std::vector<long>& expected, DataType dtype) {
  CheckPresent(op, arg, tensor);
  CheckContiguous(op, arg, tensor);
  CheckSizes(op, arg, tensor, expected, "the input");
  if (tensor.dtype() != dtype) {
    throw std::invalid_argument(
        StrCat(op, ": ", arg, " type ", tensor.dtype(), " differs from the input type ", dtype));
  }
}

ChannelFold FoldChannels(const std::string& op, const Tensor& input) {
  const auto& sizes = input.shape().sizes();
  if (sizes.size() < 2) {
    throw std::runtime_error(
        StrCat(op, ": input must have at least 2 dimensions, got shape ", input.shape()));
  }
  return {sizes[0], sizes[1], Product(sizes, 2, sizes.size())};
}

void CheckChannelTensor(const std::string& op, const std::string& arg, const Tensor& tensor,
                        long channels) {
  CheckNormType(op, arg, tensor);
  if (ElementCount(tensor) != channels) {
    throw std::runtime_error(StrCat(op, ": ", arg, " has shape ", tensor.shape(),
                                    " but the input has ", channels, " channels"));
  }
}

RunSplit SplitRun(long length, int widest) {
  RunSplit split;
  split.vec = AdjustVecSize(widest, length);
  split.leftover = static_cast<int>(length % split.vec);
  split.vectors = length / split.vec;
  return split;
}

int NormBlockSize(const SessionImpl& session, long groups) {
  const bool cpu = session.host_cpu();
  return cpu && groups >= kReduceBlockSize ? 1 : kReduceBlockSize;
}

int NormVecWidth(const SessionImpl& session, int block) {
  return session.host_cpu() && block == 1 ? 16 : 4;
}

BuildOption NormBuildOption(DataType dtype, const RunSplit& split, int block) {
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(dtype))
      .AddDefinitionAutoType("VEC_SIZE", split.vec)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", split.leftover)
      .AddDefinitionAutoType("BLOCK_SIZE", block);
  return options;
}

void AddTensorSwitch(BuildOption& options, const Tensor& tensor, const std::string& flag,
                     const std::string& type_name) {
  if (!tensor.defined()) return;
  options.AddOption("-D" + flag).AddDefinition(type_name, GetDataTypeCode(tensor.dtype()));
}

bool RowCacheFits(const SessionImpl& session, long floats, int vec, int block) {
  if (block == 1) return false;
  const unsigned long bytes = static_cast<unsigned long>(floats * 4 + 512L * vec);
  return bytes <= session.local_mem_size();
}

std::vector<std::string> NormSources(const std::string& program) {
  return {"common.h", "reduce.h", "norm.h", program};
}

}  // namespace cl
}  // namespace nerva
