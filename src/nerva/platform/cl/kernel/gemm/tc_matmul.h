#pragma once

// The tensor-core path of the matrix products. A product is accepted when
// - the device offers cl_nrv_tensorcore,
// - it is a plain product (not GEMM mode) folded into one 3-D launch,
// - mat1 and mat2 have the same type: half (output half or float) or int8 / uint8
//   (output int8, uint8, int16 or int32, saturated),
// - every operand is packed: contiguous rows, rows packed, batches packed or broadcast,
//   offsets whole elements (so no transposed views), and the output is not empty,
// - M, N and K are at most 65536.
// It builds "tensorcore/matmul.cl" ("matmul_tensorcore"), or "tensorcore/matmul_ab.cl"
// ("matmul_ab_tensorcore", K in tiles of 1024) for 8-bit operands with K above 4096.
// matmul_tensorcore runs M in tiles of up to 64 rows (the largest power of two dividing M)
// and stages mat1 transposed in local memory (ENABLE_AB2ATB_OPT) when the tile and K are
// multiples of 4 and the block fits half the local memory. MatMulOption's fused ReLU and
// rescale (param, scale) become FUSE_RELU and FUSE_RESCALE with the output shift `param`
// and the multiplier round(scale * 2^param).

#include <memory>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/gemm/matrix_view.h"

namespace nerva {
namespace cl {

class KernelImpl;
class SessionImpl;

class TcMatMul {
 public:
  static bool IsSupport(const SessionImpl& session, const MatMulOption& option,
                        const MatrixView& mat1, const MatrixView& mat2, const MatrixView& out,
                        bool gemm_mode);
  // Appends the tensor-core launch of the product to `kernel`.
  static void CreateClKernel(KernelImpl& kernel, std::shared_ptr<SessionImpl> session,
                             const MatMulOption& option, const MatrixView& mat1,
                             const MatrixView& mat2, const MatrixView& out);
};

}  // namespace cl
}  // namespace nerva
