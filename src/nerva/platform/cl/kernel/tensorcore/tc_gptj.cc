// GPT-J's block and decode step on the tensor unit: the layer norm, the
// projections and the MLP layers as tc_matmul tiles ("tensorcore/gptj_*.cl"),
// the rotation from the projections' joint [rows, 3 E] layout, the attention
// as the generic path runs it (its own tensor-core program where it fits),
// and the residual. Semantics and outputs as gptj.h documents.

#include <algorithm>

#include "nerva/platform/cl/kernel/attention/attention_util.h"
#include "nerva/platform/cl/kernel/attention/gptj.h"
#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"

namespace nerva {
namespace cl {

namespace {

constexpr int kBlock = 64;
constexpr long kTile = 32;  // TM = TN

size_t Tiles(long n) {
  return static_cast<size_t>((n + kTile - 1) / kTile);
}

}  // namespace

void GPTJKernel::CompileTensorCore(const std::shared_ptr<SessionImpl>& session) {
  const Config& c = config_;
  const DataType dt = t_[kHidden].dtype();
  const long b = B(), t = T(), H = c.heads, D = c.head_dim, E = H * D, I = Inner();
  const long rows = b * t;
  const bool decode = c.decode;
  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinition("DTYPE", GetDataTypeCode(dt))
      .AddDefinitionAutoType("DTYPE_SIZE", static_cast<long>(TypeTraitsHelper::GetSize(dt)))
      .AddDefinitionAutoType("TM", kTile)
      .AddDefinitionAutoType("TN", kTile);
  const std::vector<std::string> sources{"common.h",
                                         "random.h",
                                         "reduce.h",
                                         "attention.h",
                                         "tensorcore/tc_common.h",
                                         "tensorcore/gptj_layernorm.cl",
                                         "tensorcore/gptj_decode_layernorm.cl",
                                         "tensorcore/gptj_gemm.cl",
                                         "tensorcore/gptj_fcs.cl",
                                         "tensorcore/gptj_decode_gemm.cl",
                                         "tensorcore/gptj_rope.cl",
                                         "tensorcore/gptj_add.cl",
                                         "tensorcore/gptj_decode_add.cl"};
  auto unit = [&](const char* kernel) {
    return MakeSubKernel(session, "GPTJ::tensorcore", sources, options, kernel);
  };
  const size_t block = kBlock;
  // x w^T (+ bias, gelu) into columns col0.. of rows of ldo elements.
  auto product = [&](const Tensor& x, long m, long n, long k, const Tensor& w, const Tensor* bias,
                     bool gelu, const Tensor& out, long ldo, long col0) {
    if (decode) {
      unit("gptj_decode_gemm_tensorcore")
          ->SetArgs(x.storage(), w.storage(), bias ? bias->storage() : w.storage(), bias ? 1 : 0,
                    out.storage(), static_cast<int>(m), static_cast<int>(n), static_cast<int>(k),
                    static_cast<int>(ldo), static_cast<int>(col0), gelu ? 1 : 0)
          .SetGlobal({block, Tiles(n)})
          .SetLocal({block, 1});
    } else if (bias) {
      unit("gptj_fcs_tensorcore")
          ->SetArgs(x.storage(), w.storage(), bias->storage(), out.storage(), static_cast<int>(m),
                    static_cast<int>(n), static_cast<int>(k), gelu ? 1 : 0)
          .SetGlobal({block, Tiles(n), Tiles(m)})
          .SetLocal({block, 1, 1});
    } else {
      unit("gptj_gemm_tensorcore")
          ->SetArgs(x.storage(), w.storage(), out.storage(), static_cast<int>(m),
                    static_cast<int>(n), static_cast<int>(k), static_cast<int>(ldo),
                    static_cast<int>(col0))
          .SetGlobal({block, Tiles(n), Tiles(m)})
          .SetLocal({block, 1, 1});
    }
  };
  // Layer norm.
  const size_t ln_groups = decode ? static_cast<size_t>(std::min(rows, 64L)) : rows;
  auto ln = unit(decode ? "gptj_decode_layernorm_tensorcore" : "gptj_layernorm_tensorcore");
  ln->SetArg(t_[kHidden].storage())
      .SetArg(t_[kLnWeight].storage())
      .SetArg(t_[kLnBias].storage())
      .SetArg(t_[kLnOut].storage());
  if (decode) ln->SetArg(static_cast<int>(rows));
  ln->SetArg(static_cast<int>(E)).SetArg(c.eps).SetGlobal({block, ln_groups}).SetLocal({block, 1});
  // Projections side by side in [rows, 3 E], then the rotation.
  const Tensor qkv = decode ? t_[kQkv] : Scratch(session, {rows, 3 * E}, dt);
  const Slot weights[3] = {kQWeight, kKWeight, kVWeight};
  for (int i = 0; i < 3; ++i) {
    product(t_[kLnOut], rows, E, E, t_[weights[i]], nullptr, false, qkv, 3 * E, i * E);
  }
  Tensor qd, kd, vd;
  RotationViews(&qd, &kd, &vd);
  CopyPast(session);
  const long max_pos = t_[kSin].shape().sizes()[0];
  unit("gptj_rope_tensorcore")
      ->SetArgs(qkv.storage(), t_[kSin].storage(), t_[kCos].storage(), static_cast<int>(max_pos),
                c.rotary_dim / 2, t_[kPositions].storage(),
                t_[kPositions].dtype() == kInt64 ? 1 : 0, *FoldView(qd), *FoldView(kd),
                *FoldView(vd), *FoldView(t_[kPresentKey]), *FoldView(t_[kPresentValue]),
                static_cast<int>(P()), static_cast<int>(t), static_cast<int>(H),
                static_cast<int>(D))
      .SetGlobal({static_cast<size_t>(D / 2), static_cast<size_t>(t * H), static_cast<size_t>(b)});
  // Attention, the output projection and the MLP.
  const Tensor ctx = Attend(session, qd);
  product(ctx, rows, E, E, t_[kOutProj], nullptr, false, t_[kAttnOut], E, 0);
  product(t_[kLnOut], rows, I, E, t_[kFcInWeight], &t_[kFcInBias], true, t_[kMlpHidden], I, 0);
  const Tensor mlp_out = decode ? Scratch(session, {rows, E}, dt) : t_[kMlpOut];
  product(t_[kMlpHidden], rows, E, I, t_[kFcOutWeight], &t_[kFcOutBias], false, mlp_out, E, 0);
  // Residual.
  const long n = rows * E;
  unit(decode ? "gptj_decode_add_tensorcore" : "gptj_add_tensorcore")
      ->SetArgs(t_[kHidden].storage(), t_[kAttnOut].storage(), mlp_out.storage(),
                t_[kOut].storage(), static_cast<cl_long>(n))
      .SetGlobal(
          {decode ? std::min<size_t>(static_cast<size_t>(n), 4096) : static_cast<size_t>(n)});
}

}  // namespace cl
}  // namespace nerva
