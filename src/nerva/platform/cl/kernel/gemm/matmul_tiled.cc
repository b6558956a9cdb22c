#include "nerva/platform/cl/kernel/gemm/matmul_tiled.h"

#include "nerva/platform/cl/kernel/gemm/matrix_view.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
int g_mode_for_testing = -1;
}  // namespace

void TiledMatMul::SetModeForTesting(int mode) {
  g_mode_for_testing = mode;
}

MatMulTiles TiledMatMul::ChooseTiles(const SessionImpl& /*session*/) {
  return {1, 1, 8, 16, 64};
}

bool TiledMatMul::Applies(const SessionImpl& /*session*/, const ClTensor& /*mat1*/,
                          const ClTensor& /*mat2*/, const ClTensor& /*out*/, DataType /*acc*/) {
  return false;
}

void TiledMatMul::Compile(KernelImpl& /*kernel*/, std::shared_ptr<SessionImpl> /*session*/,
                          const ClTensor& /*mat1*/, const ClTensor& /*mat2*/,
                          const ClTensor& /*out*/, const ClTensor* /*input*/,
                          const MatMulOption& /*option*/) {}

}  // namespace cl
}  // namespace nerva
