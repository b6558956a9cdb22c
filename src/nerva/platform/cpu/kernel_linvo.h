#pragma once

// The four layout kernels of the CPU platform, computed by linvo directly on
// the buffers' host memory. Only the sizes and element type of each
// TensorOption are used: every tensor is dense, row-major and starts at the
// first byte of its buffer.

#include "linvo/matrix.h"
#include "nerva/buffer.h"
#include "nerva/kernel/base.h"
#include "nerva/tensor_option.h"

namespace nerva::cpu {

// Non-owning matrices over a buffer's memory.
const linvo::Matrix ConstMapLinvoMatrix(const TensorOption& option, const Buffer& buffer);
linvo::Matrix MapLinvoMatrix(const TensorOption& option, Buffer& buffer);

void PermuteCpuCall(const PermuteOption& option, const TensorOption& in_opt, const Buffer& in,
                    const TensorOption& out_opt, Buffer& out);
void SliceCpuCall(const SliceOption& option, const TensorOption& in_opt, const Buffer& in,
                  const TensorOption& out_opt, Buffer& out);
void TileCpuCall(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                 Buffer& out);
void BroadcastToCpuCall(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                        Buffer& out);

}  // namespace nerva::cpu
