#pragma once

// The fast matrix-product variant ("matmul_tiled.cl", "MatMulTiled") for float
// and half operands: every work item keeps a block of outputs in registers and
// the group stages tiles of both operands in local memory. Tile sizes follow
// the device: where the compiler targets the host CPU, 8 x 32 register blocks
// reading mat1 straight from memory, 32 items sharing a local tile of mat2; on other
// devices groups of 8 x 8 blocks with both operands in local tiles, loaded one
// tile ahead.

#include <memory>

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// Tile sizes of one build of the tiled program.
struct MatMulTiles {
  int wg_x, wg_y;  // work items per group along columns and rows
  int rows;        // output rows per work item
  int vec, vecs;   // per item and row: `vecs` vectors of `vec` columns
  int tile_k;      // depth of the local-memory tiles
  bool a_local;    // stage mat1 in local memory too (else read it as broadcast scalars)
};

class TiledMatMul {
 public:
  // The tile sizes for this device and a product of `batch` (m x n) outputs; with
  // no product given (batch 0), those of a large one.
  static MatMulTiles ChooseTiles(const SessionImpl& session, long batch = 0, long m = 0,
                                 long n = 0);
  // True when the tiled variant serves the product: float/half operands and
  // output, float accumulation, and a product big enough to gain.
  static bool Applies(const SessionImpl& session, const ClTensor& mat1, const ClTensor& mat2,
                      const ClTensor& out, DataType acc);
  // Appends the launch to `kernel`; `input` is the GEMM-mode input or null.
  static void Compile(KernelImpl& kernel, std::shared_ptr<SessionImpl> session,
                      const ClTensor& mat1, const ClTensor& mat2, const ClTensor& out,
                      const ClTensor* input, const MatMulOption& option);
  // Forces (1) or forbids (0) the tiled variant regardless of size; -1 restores
  // the size rule. For tests and benchmarks.
  static void SetModeForTesting(int mode);
  // Replaces the device's tile choice (null restores it). For tests and tuning.
  static void SetTilesForTesting(const MatMulTiles* tiles);
};

}  // namespace cl
}  // namespace nerva
