#include "nerva/platform/cl/kernel/gemm/tc_matmul.h"

#include <algorithm>

#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr long kMaxDim = 65536;
constexpr long kMaxDirectK = 4096;
constexpr long kTileK = 1024;
constexpr int kBlock = 64;

long ItemSize(DataType type) {
  return static_cast<long>(TypeTraitsHelper::GetSize(type));
}

bool OutputFits(DataType operands, DataType out) {
  if (operands == kHalf) return out == kHalf || out == kFloat;
  return out == kInt8 || out == kUInt8 || out == kInt16 || out == kInt32;
}

// Rows of `cols` contiguous elements, rows packed, batches packed or broadcast.
bool Packed(const MatrixView& view) {
  const long item = ItemSize(view.dtype);
  return view.col_stride == item && view.row_stride == view.cols * item &&
         view.offset % item == 0 &&
         (view.batch == 1 || view.batch_stride == 0 ||
          view.batch_stride == view.rows * view.cols * item);
}

}  // namespace

bool TcMatMul::IsSupport(const SessionImpl& session, const MatMulOption& /*option*/,
                         const MatrixView& mat1, const MatrixView& mat2, const MatrixView& out,
                         bool gemm_mode) {
  if (!session.dev_supports_extension(kTensorCoreExtension) || gemm_mode) return false;
  const DataType type = mat1.dtype;
  if (mat2.dtype != type || (type != kHalf && type != kInt8 && type != kUInt8)) return false;
  if (!OutputFits(type, out.dtype)) return false;
  const long m = mat1.rows, k = mat1.cols, n = mat2.cols;
  if (m < 1 || n < 1 || k < 1 || out.batch < 1 || m > kMaxDim || n > kMaxDim || k > kMaxDim) {
    return false;
  }
  return Packed(mat1) && Packed(mat2) && Packed(out);
}

void TcMatMul::CreateClKernel(KernelImpl& kernel, std::shared_ptr<SessionImpl> session,
                              const MatMulOption& option, const MatrixView& mat1,
                              const MatrixView& mat2, const MatrixView& out) {
  const long m = mat1.rows, k = mat1.cols, n = mat2.cols;
  const bool tiled_k = mat1.dtype != kHalf && k > kMaxDirectK;
  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinitionAutoType("DIM_M", m)
      .AddDefinitionAutoType("DIM_N", n)
      .AddDefinitionAutoType("DIM_K", k)
      .AddDefinition("MAT1_DTYPE", GetDataTypeCode(mat1.dtype))
      .AddDefinition("MAT2_DTYPE", GetDataTypeCode(mat2.dtype))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out.dtype))
      .AddDefinitionAutoType("MAT1_DTYPE_SIZE", ItemSize(mat1.dtype))
      .AddDefinitionAutoType("MAT2_DTYPE_SIZE", ItemSize(mat2.dtype))
      .AddDefinitionAutoType("OUT_DTYPE_SIZE", ItemSize(out.dtype))
      .AddDefinitionAutoType("MAT1_STRIDE_Z", mat1.batch_stride / ItemSize(mat1.dtype))
      .AddDefinitionAutoType("MAT2_STRIDE_Z", mat2.batch_stride / ItemSize(mat2.dtype))
      .AddDefinitionAutoType("OUT_STRIDE_Z", out.batch_stride / ItemSize(out.dtype))
      .AddDefinitionAutoType("MAT1_OFFSET", mat1.offset / ItemSize(mat1.dtype))
      .AddDefinitionAutoType("MAT2_OFFSET", mat2.offset / ItemSize(mat2.dtype))
      .AddDefinitionAutoType("OUT_OFFSET", out.offset / ItemSize(out.dtype))
      .AddDefinitionAutoType("FUSE_RELU", option.fuse_relu);
  if (option.rescale) {
    options.AddDefinitionAutoType("FUSE_RESCALE", true)
        .AddDefinitionAutoType("FUSE_RESCALE_MUL",
                               TcRescaleMultiplier(option.rescale->first, option.rescale->second))
        .AddDefinitionAutoType("FUSE_RESCALE_OUT_SHIFT", option.rescale->first);
  }
  const Buffer& mat1_buffer = mat1.buffer;
  const Buffer& mat2_buffer = mat2.buffer;
  const Buffer& out_buffer = out.buffer;
  const size_t batch = static_cast<size_t>(out.batch);
  if (tiled_k) {
    const long tile_m = std::min(m, 32L), tile_n = std::min(n, 32L);
    options.AddDefinitionAutoType("TILE_M", tile_m)
        .AddDefinitionAutoType("TILE_N", tile_n)
        .AddDefinitionAutoType("TILE_K", kTileK)
        .AddDefinitionAutoType("TILE_PARTIAL_M", m % tile_m)
        .AddDefinitionAutoType("TILE_PARTIAL_N", n % tile_n);
    const size_t n_tiles = static_cast<size_t>((n + tile_n - 1) / tile_n);
    kernel
        .MakeSubKernel(session, ConcatenateStrings(kernel.name(), "tensorcore_ab"),
                       {"tensorcore/tc_common.h", "tensorcore/matmul_ab.cl"}, options,
                       "matmul_ab_tensorcore")
        ->SetArgs(mat1_buffer, mat2_buffer, out_buffer)
        .SetGlobal({kBlock, static_cast<size_t>((m + tile_m - 1) / tile_m), batch * n_tiles})
        .SetLocal({kBlock, 1, 1});
    return;
  }
  const long tile_m = static_cast<long>(PowerOfTwoDivisor(static_cast<size_t>(m), 64));
  const bool ab2atb = tile_m % 4 == 0 && k % 4 == 0 &&
                      static_cast<uint64_t>(tile_m * k * ItemSize(mat1.dtype)) * 2 <=
                          session->available_local_mem();
  options.AddDefinitionAutoType("TILE_M", tile_m)
      .AddDefinitionAutoType("TILE_N", n)
      .AddOption("-DENABLE_TILE_M")
      .AddOptionIf(ab2atb, "-DENABLE_AB2ATB_OPT");
  const int mult_of_vector_size = static_cast<int>((k + 3) / 4);
  kernel
      .MakeSubKernel(session, ConcatenateStrings(kernel.name(), "tensorcore"),
                     {"tensorcore/tc_common.h", "tensorcore/matmul.cl"}, options,
                     "matmul_tensorcore")
      ->SetArgs(mat1_buffer, mat2_buffer, out_buffer, mult_of_vector_size)
      .SetGlobal({kBlock, static_cast<size_t>(m / tile_m), batch})
      .SetLocal({kBlock, 1, 1});
}

}  // namespace cl
}  // namespace nerva
