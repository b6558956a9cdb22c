#pragma once

// Argument checks of the CPU layout kernels, run when a kernel is created.
// They refuse what the matrix library would only log and skip: element types
// outside the table or differing where the call copies without conversion
// (std::invalid_argument), and shapes the call cannot map (std::runtime_error).

#include "nerva/buffer.h"
#include "nerva/kernel/base.h"
#include "nerva/tensor_option.h"

namespace nerva::cpu {

void CheckPermuteArgs(const PermuteOption& option, const TensorOption& in_opt, const Buffer& in,
                      const TensorOption& out_opt, Buffer& out);
void CheckSliceArgs(const SliceOption& option, const TensorOption& in_opt, const Buffer& in,
                    const TensorOption& out_opt, Buffer& out);
void CheckTileArgs(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                   Buffer& out);
void CheckBroadcastToArgs(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                          Buffer& out);

}  // namespace nerva::cpu
