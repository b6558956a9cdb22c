#include "nerva/platform/cl/kernel/gemm/tc_matmul.h"

#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
bool TensorUnitType(DataType type) {
  return type == kHalf || type == kInt8 || type == kUInt8;
}
// Rows of `cols` contiguous elements, rows packed, batches packed or broadcast.
bool Packed(const MatrixView& view) {
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(view.dtype));
  return view.col_stride == item && view.row_stride == view.cols * item &&
         (view.batch == 1 || view.batch_stride == 0 ||
          view.batch_stride == view.rows * view.cols * item);
}
}  // namespace

bool TcMatMul::IsSupport(const SessionImpl& session, const MatMulOption& /*option*/,
                         const MatrixView& mat1, const MatrixView& mat2, const MatrixView& out,
                         bool gemm_mode) {
  if (!session.dev_supports_extension("cl_nrv_tensorcore")) return false;
  return !gemm_mode && mat1.dtype == mat2.dtype && TensorUnitType(mat1.dtype) && Packed(mat1) &&
         Packed(mat2) && Packed(out);
}

void TcMatMul::CreateClKernel(KernelImpl& kernel, std::shared_ptr<SessionImpl> session,
                              const MatMulOption& option, const MatrixView& mat1,
                              const MatrixView& mat2, const MatrixView& out) {
  auto size_of = [](DataType type) { return static_cast<int>(TypeTraitsHelper::GetSize(type)); };
  BuildOption options;
  options.AddOption("-cl-nrv-inline-all-func ")
      .AddDefinitionAutoType("DIM_M", mat1.rows)
      .AddDefinitionAutoType("DIM_N", mat2.cols)
      .AddDefinitionAutoType("DIM_K", mat1.cols)
      .AddDefinition("MAT1_DTYPE", GetDataTypeCode(mat1.dtype))
      .AddDefinition("MAT2_DTYPE", GetDataTypeCode(mat2.dtype))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out.dtype))
      .AddDefinitionAutoType("MAT1_DTYPE_SIZE", size_of(mat1.dtype))
      .AddDefinitionAutoType("MAT2_DTYPE_SIZE", size_of(mat2.dtype))
      .AddDefinitionAutoType("OUT_DTYPE_SIZE", size_of(out.dtype))
      .AddDefinitionAutoType("MAT1_STRIDE_Z", mat1.batch_stride / size_of(mat1.dtype))
      .AddDefinitionAutoType("MAT2_STRIDE_Z", mat2.batch_stride / size_of(mat2.dtype))
      .AddDefinitionAutoType("OUT_STRIDE_Z", out.batch_stride / size_of(out.dtype))
      .AddDefinitionAutoType("MAT1_OFFSET", mat1.offset)
      .AddDefinitionAutoType("MAT2_OFFSET", mat2.offset)
      .AddDefinitionAutoType("OUT_OFFSET", out.offset)
      .AddDefinitionAutoType("FUSE_RELU", option.fuse_relu);
  if (option.rescale) {
    options.AddDefinitionAutoType("FUSE_RESCALE", true)
        .AddDefinitionAutoType("FUSE_RESCALE_MUL", option.rescale->second)
        .AddDefinitionAutoType("FUSE_RESCALE_OUT_SHIFT", option.rescale->first);
  }
  const int mult_of_vector_size = static_cast<int>((mat1.cols + 3) / 4);
  kernel
      .MakeSubKernel(session, ConcatenateStrings(kernel.name(), "tensorcore"),
                     {"tensorcore/tc_common.h", "tensorcore/matmul.cl"}, options,
                     "matmul_tensorcore")
      ->SetArgs(mat1.buffer, mat2.buffer, out.buffer, mult_of_vector_size)
      .SetGlobal({1, 1, static_cast<size_t>(out.batch)});
}

}  // namespace cl
}  // namespace nerva
