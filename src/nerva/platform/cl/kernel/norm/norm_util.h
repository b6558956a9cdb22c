#pragma once

// Host pieces shared by the normalisation kernels: optional inputs, type
// checks, the common build definitions and the local row-cache rule.

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/program.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

class SessionImpl;

// An input the caller may leave out: undefined when its option has an empty
// shape or its buffer is null.
Tensor OptionalTensor(const TensorOption& option, const Buffer& buffer);

// A tensor the caller must give: a rank-0 option, or a null buffer under a
// non-empty shape, throws std::invalid_argument "<op>: <arg> is undefined".
void CheckPresent(const std::string& op, const std::string& arg, const Tensor& tensor);
// Normalised data and statistics are float or half; anything else throws
// std::invalid_argument "<op>: unsupported <arg> type DataType::...".
void CheckNormType(const std::string& op, const std::string& arg, const Tensor& tensor);
// A defined output of `count` elements, contiguous, float or half.
void CheckStatOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                     long count);
// A given input with the sizes and type of `other`.
void CheckLike(const std::string& op, const std::string& arg, const Tensor& tensor,
               const std::string& other_arg, const Tensor& other);
// A defined output with `expected` sizes and the type `dtype`, contiguous.
void CheckOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                 const std::vector<long>& expected, DataType dtype);

// An (N, C, spatial...) input as batch x channels x spatial run; fewer than two
// dimensions throw std::runtime_error.
struct ChannelFold {
  long batch = 0;
  long channels = 0;
  long spatial = 1;
};
ChannelFold FoldChannels(const std::string& op, const Tensor& input);
// A defined per-channel tensor (weight, bias, running statistics) of
// `channels` elements, float or half.
void CheckChannelTensor(const std::string& op, const std::string& arg, const Tensor& tensor,
                        long channels);

// The three outputs of a normalisation backward: each is written when its
// output_mask entry is set and the caller gives it.
struct GradOutputs {
  std::array<bool, 3> mask{true, true, true};
  Tensor input, weight, bias;
  bool WritesInput() const { return mask[0] && input.defined(); }
  bool WritesWeight() const { return mask[1] && weight.defined(); }
  bool WritesBias() const { return mask[2] && bias.defined(); }
};

// The vector width (at most `widest`) and leftover of a run of `length`
// elements.
struct RunSplit {
  int vec = 1;
  int leftover = 0;
  long vectors = 0;  // whole vectors after the leftover elements
};
RunSplit SplitRun(long length, int widest = 4);

// The group size of the programs that fold a row per group, for `groups`
// groups: 64, except on devices whose compiler targets the host CPU when
// there are at least 64 groups: there a group's items run one after the
// other on one thread, so one item per row reads the row sequentially without
// barriers, and the many groups keep the cores busy.
int NormBlockSize(const SessionImpl& session, long groups);

// The widest vector for a run folded by groups of `block` items: 16 floats
// (a whole AVX-512 register) for the single items of host-CPU devices, whose
// compiler keeps explicit vectors at their own width; 4 elsewhere.
int NormVecWidth(const SessionImpl& session, int block);

// DTYPE, VEC_SIZE, VEC_SIZE_LEFTOVER and BLOCK_SIZE (`block`).
BuildOption NormBuildOption(DataType dtype, const RunSplit& split, int block);
// `flag` and `type_name`=type of `tensor` when it is defined.
void AddTensorSwitch(BuildOption& options, const Tensor& tensor, const std::string& flag,
                     const std::string& type_name);

// True when `floats` cached floats per group plus the two reduction arrays
// ((vectors * 4 + 512) * vec bytes for one row) fit in the device's local
// memory. Groups of one item (host-CPU devices) keep no cache: their item
// reads the row again from the processor's cache, and the local array, host
// memory itself, would only add copies.
bool RowCacheFits(const SessionImpl& session, long floats, int vec, int block);

// The sources of a normalisation program: the shared headers, then `program`.
std::vector<std::string> NormSources(const std::string& program);

// Rows x run view of a contiguous tensor, `step` elements per item along x.
inline ClTensor RowView(const Tensor& tensor, long rows, long run, uint32_t step = 1) {
  return ContiguousView(tensor, {rows, run}, step);
}

}  // namespace cl
}  // namespace nerva
