#include "nerva/platform/cl/kernel/tensorcore/encoded_matmul.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr int kBlock = 16;

bool IsInput(DataType t) {
  return t == kInt8 || t == kUInt8 || t == kInt16 || t == kUInt16;
}

void Check2D(const std::string& op, const char* what, const TensorOption& opt,
             const Buffer& buffer) {
  if (opt.shape.ndim() != 2 || !buffer || opt.shape.size() == 0 ||
      opt.shape != Shape(opt.shape.sizes())) {
    throw std::runtime_error(
        StrCat(op, ": ", what, " must be a contiguous, non-empty 2-D tensor, got ", opt.shape));
  }
}

}  // namespace

EncodedMatMulKernel::EncodedMatMulKernel(const EncodedMatMulOption& option,
                                         const TensorOption& input_opt, const Buffer& input,
                                         const TensorOption& coef_opt, const Buffer& coef,
                                         const TensorOption& offset_opt, const Buffer& offset,
                                         const TensorOption& out_opt, Buffer& out)
    : KernelImpl("EncodedMatMul"),
      option_(option),
      input_opt_(input_opt),
      coef_opt_(coef_opt),
      offset_opt_(offset_opt),
      out_opt_(out_opt),
      input_(input),
      coef_(coef),
      offset_(offset),
      out_(out) {}

void EncodedMatMulKernel::Sizes(long* m, long* n, long* k) const {
  const std::string op = name();
  Check2D(op, "input", input_opt_, input_);
  Check2D(op, "coefficient", coef_opt_, coef_);
  Check2D(op, "output", out_opt_, out_);
  if (!IsInput(input_opt_.dtype) || (coef_opt_.dtype != kInt8 && coef_opt_.dtype != kUInt8) ||
      !(IsInput(out_opt_.dtype) || out_opt_.dtype == kInt32)) {
    throw std::invalid_argument(StrCat(op, ": unsupported types ", input_opt_.dtype, " x ",
                                       coef_opt_.dtype, " -> ", out_opt_.dtype));
  }
  *k = transposed_input() ? input_opt_.shape[1] : input_opt_.shape[0];
  *m = transposed_input() ? input_opt_.shape[0] : input_opt_.shape[1];
  *n = coef_opt_.shape[0];
  if (coef_opt_.shape[1] != *k || out_opt_.shape.sizes() != std::vector<long>{*n, *m}) {
    throw std::runtime_error(StrCat(op, ": input ", input_opt_.shape, ", weights ", coef_opt_.shape,
                                    " and output ", out_opt_.shape, " do not form a product"));
  }
  if (input_.size() < input_opt_.bytes() || out_.size() < out_opt_.bytes() ||
      coef_.size() < CoefBlockBytes(*n, *k)) {
    throw std::runtime_error(StrCat(op, ": a buffer is smaller than its operand"));
  }
}

long EncodedMatMulKernel::CoefBlockBytes(long n, long k) const {
  return (n * k * static_cast<long>(coef_opt_.item_size()) + 3) / 4 * 4 +
         4 * n * (option_.rescale_pcq ? 2 : 1);
}

bool EncodedMatMulKernel::Verify() const {
  long m, n, k;
  Sizes(&m, &n, &k);
  return true;
}

void EncodedMatMulKernel::Compile(std::shared_ptr<SessionImpl> session) {
  RequireTensorCore(*session, name());
  long m, n, k;
  Sizes(&m, &n, &k);
  const long in_size = static_cast<long>(input_opt_.item_size());
  long tile_m = option_.tile_m > 0 && option_.tile_m < m ? option_.tile_m : m;
  // A transposed input is always staged (and transposed) in local memory: when the encoder
  // kept the whole product as one tile, the rows that fit the local memory make the tile.
  if (transposed_input()) {
    const long fit =
        (static_cast<long>(session->available_local_mem()) - kTcLocalAlign) / (k * in_size);
    tile_m = std::max(1L, std::min(tile_m, fit));
  }
  const bool tiled = tile_m < m || transposed_input();
  if (tiled && static_cast<uint64_t>(tile_m * k * in_size + kTcLocalAlign) >
                   session->available_local_mem()) {
    throw std::runtime_error(StrCat(name(), ": an input tile of ", tile_m, " x ", k,
                                    " exceeds the device's local memory"));
  }
  if (tiled && (offset_opt_.dtype != kInt32 || !offset_ || offset_.size() < 4)) {
    throw std::runtime_error(StrCat(name(), ": tiled products need an int32 offset tensor"));
  }
  const long partial = m % tile_m;
  BuildOption options = TensorCoreBuildOption(*session, kBlock);
  options.AddDefinition("IN_DTYPE", GetDataTypeCode(input_opt_.dtype))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_opt_.dtype))
      .AddDefinition("COEF_DTYPE", GetDataTypeCode(coef_opt_.dtype))
      .AddDefinitionAutoType("M_SIZE", m)
      .AddDefinitionAutoType("N_SIZE", n)
      .AddDefinitionAutoType("K_SIZE", k)
      .AddDefinitionAutoType("TILE_M", tile_m)
      .AddDefinitionAutoType("TILE_M_PARTIAL", partial)
      .AddDefinitionAutoType("TILE_N", n)
      .AddDefinitionAutoType("TILE_N_NUM", 1)
      .AddDefinitionAutoType("TILE_H", 1)
      .AddDefinitionAutoType("TILE_H_PARTIAL", 1)
      .AddDefinitionAutoType("TILE_W", tile_m)
      .AddDefinitionAutoType("TILE_W_PARTIAL", partial)
      .AddDefinitionAutoType("IN_DTYPE_SIZE", in_size)
      .AddDefinitionAutoType("COEF_DTYPE_SIZE", static_cast<long>(coef_opt_.item_size()))
      .AddDefinitionAutoType("OUT_DTYPE_SIZE", static_cast<long>(out_opt_.item_size()))
      .AddDefinitionAutoType("TRANSPOSE_A", transposed_input())
      .AddOptionIf(option_.relu1, "-DFUSE_RELU_1=1");
  if (option_.rescale) {
    options.AddOption("-DFUSE_RESCALE=1")
        .AddDefinitionAutoType("FUSE_RESCALE_MUL",
                               TcRescaleMultiplier(option_.rescale->first, option_.rescale->second))
        .AddDefinitionAutoType("FUSE_RESCALE_OUT_SHIFT", option_.rescale->first);
  }
  if (option_.rescale_pcq) {
    options.AddOption("-DFUSE_RESCALE_PCQ=1")
        .AddDefinitionAutoType("FUSE_RESCALE_PCQ_OUT_SHIFT", option_.rescale_pcq->first);
  }
  const std::vector<std::string> sources = {"tensorcore/tc_common.h",
                                            "tensorcore/encoded_matmul.cl"};
  const std::string program = ConcatenateStrings(name(), "encoded_matmul");
  if (!tiled) {
    MakeSubKernel(session, program, sources, options, "EncodedMatMul_common")
        ->SetArgs(input_, coef_, out_)
        .SetGlobal({kBlock})
        .SetLocal({kBlock});
    return;
  }
  // The device keeps every block offset inside the coefficient buffer.
  options.AddDefinitionAutoType("COEF_BLOCK_LIMIT", coef_.size() - CoefBlockBytes(n, k));
  const long tiles = (m + tile_m - 1) / tile_m;
  const int vec = 4;
  MakeSubKernel(session, program, sources, options, "EncodedMatMul")
      ->SetArgs(input_, coef_, offset_, out_, static_cast<int>(k % vec),
                static_cast<int>(tile_m % vec), static_cast<int>(partial % vec),
                static_cast<int>(n), static_cast<int>(n), static_cast<int>(k),
                static_cast<int>(tile_m), static_cast<int>(partial))
      .SetGlobal({static_cast<size_t>(tiles * kBlock)})
      .SetLocal({kBlock});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<EncodedMatMulKernel, const EncodedMatMulOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("EncodedMatMul");
};

}  // namespace cl
}  // namespace nerva
