#pragma once

// The tensor-core path of the matrix products: devices that offer the
// cl_nrv_tensorcore extension run contiguous 2-D/3-D products of 8- and
// 16-bit operands on their tensor unit ("tensorcore/matmul.cl",
// "matmul_tensorcore"), with ReLU and rescale stages fused on request.

#include <memory>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/gemm/matrix_view.h"

namespace nerva {
namespace cl {

class KernelImpl;
class SessionImpl;

class TcMatMul {
 public:
  // True when the device has cl_nrv_tensorcore and the product fits the tensor
  // unit: plain (not GEMM-mode) products of contiguous rows, same-type half or
  // 8-bit operands, mat2 not transposed.
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
