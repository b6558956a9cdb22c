#pragma once

// Batched matrix products on the OpenCL device: "MatMul" (torch.matmul) and
// "Gemm" (out = alpha * (mat1 @ mat2) + beta * input, as torch.baddbmm/addmm).
//
// Operands: 1-D to 8-D for MatMul (a 1-D mat1 is a row, a 1-D mat2 a column,
// and the output drops that dimension, as torch.matmul); 2-D or 3-D for Gemm,
// whose input (1-D to 3-D) broadcasts to the output. Leading (batch) dimensions
// broadcast. transpose_mat1 / transpose_mat2 swap an operand's last two
// dimensions. Strided views of any layout are accepted.
//
// Types: half, float, the integer types, and bfloat16 / fp8 on devices that
// offer them, in any pair; the products accumulate in GetAccDtype's type and
// are converted to the output's type (saturating for integer outputs). The
// output may have any of these types. Zero-size outputs run no device work; a
// zero inner dimension gives zeros (beta * input in Gemm mode).

#include <memory>
#include <vector>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/gemm/matrix_view.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

class GemmKernel : public KernelImpl {
 public:
  GemmKernel(const MatMulOption& option, const TensorOption& mat1_opt, const Buffer& mat1,
             const TensorOption& mat2_opt, const Buffer& mat2, const TensorOption& input_opt,
             const Buffer& input, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

  // True when the batch dimensions of every operand fold into one batch index
  // with one stride each, so that a single launch covers the product.
  bool SupportBroadcast3D() const;
  // One launch (or one per part when an operand exceeds the device's limits)
  // of the 3-D product mat1 [B][M][K] x mat2 [B][K][N] -> out [B][M][N].
  void CompileBroadcast3D(std::shared_ptr<SessionImpl> session, const ClTensor& mat1,
                          const ClTensor& mat2, const ClTensor& out);
  // Products whose batches do not fold: one 3-D launch per outer batch index.
  void CompileGenericBroadcast3D(std::shared_ptr<SessionImpl> session);

  // The accumulation type: float for floating operands up to 32 bits (double
  // beyond); for integers one step wider than the wider operand (short, int,
  // long; unsigned when both are unsigned).
  static DataType GetAccDtype(DataType mat1, DataType mat2);

  // Lowers the per-operand byte limit beyond which products are partitioned
  // (0 restores the device's own limit). For tests.
  static void SetPartitionLimitForTesting(long bytes);

 protected:
  GemmKernel(const std::string& name, const MatMulOption& option, const TensorOption& mat1_opt,
             const Buffer& mat1, const TensorOption& mat2_opt, const Buffer& mat2,
             const TensorOption& out_opt, Buffer& out);

 private:
  // The operands after 1-D promotion and transposes, batch dims first.
  struct Operand {
    std::vector<long> sizes;    // batch..., rows, cols
    std::vector<long> strides;  // elements
  };
  bool gemm_mode() const { return gemm_mode_; }
  Operand Mat1() const;
  Operand Mat2() const;
  std::vector<long> ExpectedOutSizes() const;
  void VerifyTypes() const;
  // Throws when the view addresses bytes beyond its buffer.
  void VerifyBuffer(const char* what, const TensorOption& opt, const Buffer& buffer) const;
  // Batch sizes of the output and per operand (mat1, mat2, out, input) its
  // element strides for them, merged where they fold.
  void FoldBatches(std::vector<long>* sizes, std::vector<std::vector<long>>* strides) const;
  struct Views {
    MatrixView mat1, mat2, out, input;
  };
  // The 3-D views of `batch` batches with these batch strides and offsets
  // (elements, per operand: mat1, mat2, out, input).
  Views MakeViews(long batch, const std::vector<long>& batch_strides,
                  const std::vector<long>& offsets) const;
  // The 3-D views for outer batch offsets `outer` (elements, per operand).
  void CompileViews(std::shared_ptr<SessionImpl> session, long batch,
                    const std::vector<long>& batch_strides, const std::vector<long>& offsets);
  void CompilePart(std::shared_ptr<SessionImpl> session, const MatrixView& mat1,
                   const MatrixView& mat2, const MatrixView& out, const MatrixView* input);
  long PartitionLimit(const SessionImpl& session) const;

  MatMulOption option_;
  TensorOption mat1_opt_, mat2_opt_, input_opt_, out_opt_;
  Buffer mat1_, mat2_, input_, out_;
  bool gemm_mode_;
  // The GEMM-mode input of the launch being built.
  std::unique_ptr<ClTensor> input_tensor_;
};

class MatMulKernel : public GemmKernel {
 public:
  MatMulKernel(const MatMulOption& option, const TensorOption& mat1_opt, const Buffer& mat1,
               const TensorOption& mat2_opt, const Buffer& mat2, const TensorOption& out_opt,
               Buffer& out);
};

}  // namespace cl
}  // namespace nerva
