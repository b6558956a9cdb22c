#include "nerva/platform/cl/kernel/gemm/matmul.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "nerva/kernel/tensor_partitioner.h"
#include "nerva/platform/cl/kernel/gemm/matmul_tiled.h"
#include "nerva/platform/cl/kernel/gemm/tc_matmul.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr int kTile = 8;
constexpr int kMaxRank = 8;
long g_partition_limit_for_testing = 0;

bool SupportedType(DataType type) {
  switch (type) {
    case kHalf:
    case kBFloat:
    case kFloat:
    case kInt8:
    case kInt16:
    case kInt32:
    case kInt64:
    case kUInt8:
    case kUInt16:
    case kUInt32:
    case kUInt64:
    case kFloat8_e4m3fn:
    case kFloat8_e5m2:
      return true;
    default:
      return false;
  }
}

bool NeedsExtension(DataType type) {
  return type == kBFloat || type == kFloat8_e4m3fn || type == kFloat8_e5m2;
}

std::vector<long> Batch(const std::vector<long>& sizes) {
  return {sizes.begin(), sizes.end() - 2};
}

long ItemSize(DataType type) {
  return static_cast<long>(TypeTraitsHelper::GetSize(type));
}

// The type alpha * acc + beta * input is formed in.
DataType AlphaBetaType(DataType acc, DataType input) {
  if (TypeTraitsHelper::IsFloattingPoint(acc)) return acc;
  return TypeTraitsHelper::IsFloattingPoint(input) ? kFloat : acc;
}

}  // namespace

DataType GemmKernel::GetAccDtype(DataType mat1, DataType mat2) {
  const size_t bits = std::max(TypeTraitsHelper::GetBits(mat1), TypeTraitsHelper::GetBits(mat2));
  if (TypeTraitsHelper::IsFloattingPoint(mat1) || TypeTraitsHelper::IsFloattingPoint(mat2)) {
    return bits <= 32 ? kFloat : kDouble;
  }
  if (TypeTraitsHelper::IsSigned(mat1) || TypeTraitsHelper::IsSigned(mat2)) {
    return bits <= 8 ? kInt16 : bits <= 16 ? kInt32 : kInt64;
  }
  return bits <= 8 ? kUInt16 : bits <= 16 ? kUInt32 : kUInt64;
}

void GemmKernel::SetPartitionLimitForTesting(long bytes) {
  g_partition_limit_for_testing = bytes;
}

GemmKernel::GemmKernel(const MatMulOption& option, const TensorOption& mat1_opt, const Buffer& mat1,
                       const TensorOption& mat2_opt, const Buffer& mat2,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out)
    : KernelImpl("Gemm"),
      option_(option),
      mat1_opt_(mat1_opt),
      mat2_opt_(mat2_opt),
      input_opt_(input_opt),
      out_opt_(out_opt),
      mat1_(mat1),
      mat2_(mat2),
      input_(input),
      out_(out),
      gemm_mode_(true) {}

GemmKernel::GemmKernel(const std::string& name, const MatMulOption& option,
                       const TensorOption& mat1_opt, const Buffer& mat1,
                       const TensorOption& mat2_opt, const Buffer& mat2,
                       const TensorOption& out_opt, Buffer& out)
    : KernelImpl(name),
      option_(option),
      mat1_opt_(mat1_opt),
      mat2_opt_(mat2_opt),
      out_opt_(out_opt),
      mat1_(mat1),
      mat2_(mat2),
      out_(out),
      gemm_mode_(false) {}

MatMulKernel::MatMulKernel(const MatMulOption& option, const TensorOption& mat1_opt,
                           const Buffer& mat1, const TensorOption& mat2_opt, const Buffer& mat2,
                           const TensorOption& out_opt, Buffer& out)
    : GemmKernel("MatMul", option, mat1_opt, mat1, mat2_opt, mat2, out_opt, out) {}

GemmKernel::Operand GemmKernel::Mat1() const {
  Operand op{mat1_opt_.shape.sizes(), mat1_opt_.shape.strides()};
  if (op.sizes.size() == 1) {
    op.sizes.insert(op.sizes.begin(), 1);
    op.strides.insert(op.strides.begin(), 0);
  } else if (option_.transpose_mat1) {
    std::swap(op.sizes[op.sizes.size() - 1], op.sizes[op.sizes.size() - 2]);
    std::swap(op.strides[op.strides.size() - 1], op.strides[op.strides.size() - 2]);
  }
  return op;
}

GemmKernel::Operand GemmKernel::Mat2() const {
  Operand op{mat2_opt_.shape.sizes(), mat2_opt_.shape.strides()};
  if (op.sizes.size() == 1) {
    op.sizes.push_back(1);
    op.strides.push_back(0);
  } else if (option_.transpose_mat2) {
    std::swap(op.sizes[op.sizes.size() - 1], op.sizes[op.sizes.size() - 2]);
    std::swap(op.strides[op.strides.size() - 1], op.strides[op.strides.size() - 2]);
  }
  return op;
}

std::vector<long> GemmKernel::ExpectedOutSizes() const {
  const Operand a = Mat1(), b = Mat2();
  std::vector<long> sizes = BroadcastSizes(Batch(a.sizes), Batch(b.sizes));
  if (mat1_opt_.shape.ndim() > 1) sizes.push_back(a.sizes[a.sizes.size() - 2]);
  if (mat2_opt_.shape.ndim() > 1) sizes.push_back(b.sizes.back());
  if (sizes.empty()) sizes.push_back(1);
  return sizes;
}

bool GemmKernel::Verify() const {
  if (mat1_opt_.shape.empty()) throw std::runtime_error("Gemm mat1 option cannot be empty!");
  if (!mat1_) throw std::runtime_error("Gemm mat1 buffer cannot be empty!");
  if (mat2_opt_.shape.empty()) throw std::runtime_error("Gemm mat2 option cannot be empty!");
  if (!mat2_) throw std::runtime_error("Gemm mat2 buffer cannot be empty!");
  if (out_opt_.shape.empty()) throw std::runtime_error("Gemm y option cannot be empty!");
  if (!out_) throw std::runtime_error("Gemm y buffer cannot be empty!");
  if (gemm_mode_) {
    if (input_opt_.shape.empty()) {
      throw std::runtime_error("Gemm mode input option cannot be empty!");
    }
    if (!input_) throw std::runtime_error("Gemm mode input buffer cannot be empty!");
    auto rank_in = [](const TensorOption& opt, size_t lo) {
      return opt.shape.ndim() >= lo && opt.shape.ndim() <= 3;
    };
    if (!rank_in(mat1_opt_, 2)) {
      throw std::runtime_error("Gemm mode only support 2D or 3D mat1 tensor");
    }
    if (!rank_in(mat2_opt_, 2)) {
      throw std::runtime_error("Gemm mode only support 2D or 3D mat2 tensor");
    }
    if (!rank_in(input_opt_, 1)) {
      throw std::runtime_error("Gemm mode only support 2D or 3D input tensor");
    }
    const auto& in = input_opt_.shape.sizes();
    const auto& out = out_opt_.shape.sizes();
    bool broadcastable = in.size() <= out.size();
    for (size_t i = 0; broadcastable && i < in.size(); ++i) {
      const long d = in[in.size() - 1 - i];
      broadcastable = d == 1 || d == out[out.size() - 1 - i];
    }
    if (!broadcastable)
      throw std::runtime_error("Gemm mode input and output must be broadcastable.");
  }
  const Operand a = Mat1(), b = Mat2();
  if (a.sizes.back() != b.sizes[b.sizes.size() - 2]) {
    throw std::runtime_error(
        StrCat("Invalid Gemm shpae ", mat1_opt_.shape, " x ", mat2_opt_.shape));
  }
  for (const TensorOption* opt : {&mat1_opt_, &mat2_opt_, &out_opt_}) {
    if (opt->shape.ndim() > kMaxRank) {
      throw std::runtime_error(StrCat(name(), ": rank ", opt->shape.ndim(), " of shape ",
                                      opt->shape, " is over ", kMaxRank));
    }
  }
  if (!CanBroadcast(Batch(a.sizes), Batch(b.sizes))) {
    throw std::runtime_error(StrCat(name(), ": cannot broadcast the batch dimensions of ",
                                    mat1_opt_.shape, " with ", mat2_opt_.shape));
  }
  const std::vector<long> expected = ExpectedOutSizes();
  if (out_opt_.shape.sizes() != expected) {
    throw std::runtime_error(StrCat(name(), ": output shape ", out_opt_.shape,
                                    " does not match the product's shape ", Shape(expected)));
  }
  VerifyTypes();
  for (const TensorOption* opt : {&mat1_opt_, &mat2_opt_, &out_opt_, &input_opt_}) {
    const auto& strides = opt->shape.strides();
    if (std::any_of(strides.begin(), strides.end(), [](long s) { return s < 0; })) {
      throw std::invalid_argument(
          StrCat(name(), ": negative strides are not supported: ", Shape(strides)));
    }
  }
  VerifyBuffer("mat1", mat1_opt_, mat1_);
  VerifyBuffer("mat2", mat2_opt_, mat2_);
  if (gemm_mode_) VerifyBuffer("input", input_opt_, input_);
  VerifyBuffer("output", out_opt_, out_);
  return true;
}

void GemmKernel::VerifyBuffer(const char* what, const TensorOption& opt,
                              const Buffer& buffer) const {
  long last = 0;
  for (size_t i = 0; i < opt.shape.ndim(); ++i) {
    if (opt.shape.sizes()[i] == 0) return;
    last += (opt.shape.sizes()[i] - 1) * opt.shape.strides()[i];
  }
  const long bytes = (last + 1) * ItemSize(opt.dtype);
  if (bytes > buffer.size()) {
    throw std::runtime_error(StrCat(name(), ": ", what, " of shape ", opt.shape, " addresses ",
                                    bytes, " bytes, its buffer has ", buffer.size()));
  }
}

void GemmKernel::VerifyTypes() const {
  auto check = [this](const char* what, DataType type) {
    if (!SupportedType(type)) {
      throw std::invalid_argument(StrCat(name(), ": unsupported ", what, " type ", type));
    }
  };
  check("mat1", mat1_opt_.dtype);
  check("mat2", mat2_opt_.dtype);
  if (gemm_mode_) check("input", input_opt_.dtype);
  check("output", out_opt_.dtype);
}

void GemmKernel::FoldBatches(std::vector<long>* sizes,
                             std::vector<std::vector<long>>* strides) const {
  const Operand a = Mat1(), b = Mat2();
  const std::vector<long> batch = BroadcastSizes(Batch(a.sizes), Batch(b.sizes));
  const size_t nb = batch.size();
  // Element strides of each operand along the output's batch dims (0 where it broadcasts).
  auto along = [&](const std::vector<long>& op_sizes, const std::vector<long>& op_strides,
                   size_t op_batch_rank) {
    std::vector<long> out(nb, 0);
    for (size_t i = 0; i < op_batch_rank && i < nb; ++i) {
      const size_t src = op_batch_rank - 1 - i, dst = nb - 1 - i;
      out[dst] = op_sizes[src] == 1 ? 0 : op_strides[src];
    }
    return out;
  };
  std::vector<std::vector<long>> all = {
      along(a.sizes, a.strides, a.sizes.size() - 2), along(b.sizes, b.strides, b.sizes.size() - 2),
      along(out_opt_.shape.sizes(), out_opt_.shape.strides(), nb)};
  if (gemm_mode_) {
    const auto& in = input_opt_.shape;
    const size_t in_batch = in.ndim() > 2 ? in.ndim() - 2 : 0;
    all.push_back(along(in.sizes(), in.strides(), in_batch));
  }
  // Drop batch dims of size 1, then merge neighbours that fold for every operand.
  sizes->clear();
  strides->assign(all.size(), {});
  for (size_t d = 0; d < nb; ++d) {
    if (batch[d] == 1) continue;
    bool fold = !sizes->empty();
    for (size_t i = 0; fold && i < all.size(); ++i) {
      fold = (*strides)[i].back() == all[i][d] * batch[d];
    }
    if (fold) {
      sizes->back() *= batch[d];
      for (size_t i = 0; i < all.size(); ++i) (*strides)[i].back() = all[i][d];
    } else {
      sizes->push_back(batch[d]);
      for (size_t i = 0; i < all.size(); ++i) (*strides)[i].push_back(all[i][d]);
    }
  }
}

bool GemmKernel::SupportBroadcast3D() const {
  std::vector<long> sizes;
  std::vector<std::vector<long>> strides;
  FoldBatches(&sizes, &strides);
  return sizes.size() <= 1;
}

void GemmKernel::Compile(std::shared_ptr<SessionImpl> session) {
  for (DataType type :
       {mat1_opt_.dtype, mat2_opt_.dtype, out_opt_.dtype, gemm_mode_ ? input_opt_.dtype : kFloat}) {
    if (NeedsExtension(type) &&
        !(type == kBFloat ? session->bfloat16_supported() : session->fp8_supported())) {
      throw std::invalid_argument(StrCat(name(), ": the device does not support type ", type));
    }
  }
  if (GetAccDtype(mat1_opt_.dtype, mat2_opt_.dtype) == kDouble &&
      !session->dev_supports_extension("cl_khr_fp64")) {
    throw std::invalid_argument(StrCat(name(), ": ", mat1_opt_.dtype, " x ", mat2_opt_.dtype,
                                       " accumulates in double, which the device lacks"));
  }
  const bool fused = option_.fuse_relu || option_.rescale.has_value();
  std::vector<long> sizes;
  std::vector<std::vector<long>> strides;
  FoldBatches(&sizes, &strides);
  std::vector<long> batch_strides;
  for (const auto& s : strides) batch_strides.push_back(s.empty() ? 0 : s[0]);
  const std::vector<long> no_offsets(strides.size(), 0);
  // Only products that fold into one 3-D launch are offered to the tensor unit.
  if (sizes.size() <= 1) {
    const Views views = MakeViews(sizes.empty() ? 1 : sizes[0], batch_strides, no_offsets);
    if (TcMatMul::IsSupport(*session, option_, views.mat1, views.mat2, views.out, gemm_mode_)) {
      TcMatMul::CreateClKernel(*this, session, option_, views.mat1, views.mat2, views.out);
      return;
    }
  }
  if (fused) throw std::runtime_error("Only tensorcore MatMul support fuse relu and rescale.");
  if (out_opt_.shape.sizes().end() !=
      std::find(out_opt_.shape.sizes().begin(), out_opt_.shape.sizes().end(), 0L)) {
    return;  // an empty output: nothing to compute
  }
  if (SupportBroadcast3D()) {
    CompileViews(session, sizes.empty() ? 1 : sizes[0], batch_strides, no_offsets);
  } else {
    CompileGenericBroadcast3D(session);
  }
}

void GemmKernel::CompileGenericBroadcast3D(std::shared_ptr<SessionImpl> session) {
  std::vector<long> sizes;
  std::vector<std::vector<long>> strides;
  FoldBatches(&sizes, &strides);
  const size_t outer = sizes.size() - 1;
  std::vector<long> index(outer, 0);
  std::vector<long> inner_strides;
  for (const auto& s : strides) inner_strides.push_back(s.back());
  while (true) {
    std::vector<long> offsets(strides.size(), 0);
    for (size_t i = 0; i < strides.size(); ++i) {
      for (size_t d = 0; d < outer; ++d) offsets[i] += index[d] * strides[i][d];
    }
    CompileViews(session, sizes.back(), inner_strides, offsets);
    size_t d = outer;
    while (d > 0 && ++index[d - 1] == sizes[d - 1]) index[--d] = 0;
    if (d == 0) break;
  }
}

GemmKernel::Views GemmKernel::MakeViews(long batch, const std::vector<long>& batch_strides,
                                        const std::vector<long>& offsets) const {
  const Operand a = Mat1(), b = Mat2();
  const long m = a.sizes[a.sizes.size() - 2], k = a.sizes.back(), n = b.sizes.back();
  auto view = [&](size_t i, const Buffer& buf, DataType type, long rows, long cols, long row_stride,
                  long col_stride) {
    const long item = ItemSize(type);
    return MatrixView{buf,
                      type,
                      batch,
                      rows,
                      cols,
                      batch_strides[i] * item,
                      row_stride * item,
                      col_stride * item,
                      offsets[i] * item};
  };
  Views views;
  views.mat1 =
      view(0, mat1_, mat1_opt_.dtype, m, k, a.strides[a.strides.size() - 2], a.strides.back());
  views.mat2 =
      view(1, mat2_, mat2_opt_.dtype, k, n, b.strides[b.strides.size() - 2], b.strides.back());
  // The output's row and column strides; a dimension that a 1-D operand removed has none.
  const auto& os = out_opt_.shape.strides();
  const size_t orank = os.size();
  const bool has_m = mat1_opt_.shape.ndim() > 1, has_n = mat2_opt_.shape.ndim() > 1;
  const long out_rs = has_m ? os[orank - (has_n ? 2 : 1)] : 0;
  const long out_cs = has_n ? os[orank - 1] : 0;
  views.out = view(2, out_, out_opt_.dtype, m, n, out_rs, out_cs);
  if (gemm_mode_) {
    const auto& is = input_opt_.shape;
    const size_t irank = is.ndim();
    auto in_stride = [&](size_t from_end, long out_size) {
      if (from_end >= irank) return 0L;
      const size_t d = irank - 1 - from_end;
      return is.sizes()[d] == 1 && out_size != 1 ? 0L : is.strides()[d];
    };
    views.input = view(3, input_, input_opt_.dtype, m, n, in_stride(1, m), in_stride(0, n));
  }
  return views;
}

void GemmKernel::CompileViews(std::shared_ptr<SessionImpl> session, long batch,
                              const std::vector<long>& batch_strides,
                              const std::vector<long>& offsets) {
  const Views v = MakeViews(batch, batch_strides, offsets);
  CompilePart(session, v.mat1, v.mat2, v.out, gemm_mode_ ? &v.input : nullptr);
}

long GemmKernel::PartitionLimit(const SessionImpl& session) const {
  const long device = static_cast<long>(
      std::min<cl_ulong>(session.device().getInfo<CL_DEVICE_MAX_MEM_ALLOC_SIZE>(), UINT32_MAX));
  return g_partition_limit_for_testing > 0 ? std::min(device, g_partition_limit_for_testing)
                                           : device;
}

void GemmKernel::CompilePart(std::shared_ptr<SessionImpl> session, const MatrixView& mat1,
                             const MatrixView& mat2, const MatrixView& out,
                             const MatrixView* input) {
  const long limit = PartitionLimit(*session);
  std::vector<const MatrixView*> views = {&mat1, &mat2, &out};
  if (input) views.push_back(input);
  std::vector<TensorPartitioner::Operand> operands;
  for (const MatrixView* v : views) {
    operands.push_back({v->batch_stride, v == &mat2 ? 0 : v->row_stride, v->Extent()});
  }
  const TensorPartitioner partitioner =
      TensorPartitioner::Make(out.batch, out.rows, operands, limit);
  // Device offsets are 32-bit: views that end past 4 GiB also move to sub-buffers.
  const bool whole = partitioner.num_parts() == 1 &&
                     std::all_of(views.begin(), views.end(), [](const MatrixView* v) {
                       return v->offset + v->Extent() <= static_cast<long>(UINT32_MAX);
                     });
  const long align =
      static_cast<long>(session->device().getInfo<CL_DEVICE_MEM_BASE_ADDR_ALIGN>() / 8);
  for (const auto& part : partitioner.parts()) {
    auto cut = [&](const MatrixView& v, bool by_rows) {
      if (whole) return v;
      return v
          .Part(part.batch_begin, part.batch_end, by_rows ? part.row_begin : 0,
                by_rows ? part.row_end : v.rows)
          .OnSubBuffer(align);
    };
    const MatrixView in_part = input ? cut(*input, true) : MatrixView();
    input_tensor_.reset(input ? new ClTensor(in_part.ToClTensor()) : nullptr);
    CompileBroadcast3D(session, cut(mat1, true).ToClTensor(), cut(mat2, false).ToClTensor(),
                       cut(out, true).ToClTensor());
  }
}

void GemmKernel::CompileBroadcast3D(std::shared_ptr<SessionImpl> session, const ClTensor& mat1,
                                    const ClTensor& mat2, const ClTensor& out) {
  const long batch = out.shape()[0], m = mat1.shape()[1], k = mat1.shape()[2];
  const long n = mat2.shape()[2];
  const DataType acc =
      GetAccDtype(static_cast<DataType>(mat1.dtype()), static_cast<DataType>(mat2.dtype()));
  const bool float_input =
      !input_tensor_ || input_tensor_->dtype() == kFloat || input_tensor_->dtype() == kHalf;
  if (float_input && TiledMatMul::Applies(*session, mat1, mat2, out, acc)) {
    TiledMatMul::Compile(*this, session, mat1, mat2, out, input_tensor_.get(), option_);
    return;
  }
  const long bt = std::min(batch, 4L);
  const bool aligned1 = m % kTile == 0 && k % kTile == 0 && batch % bt == 0;
  const bool aligned2 = k % kTile == 0 && n % kTile == 0 && batch % bt == 0;
  BuildOption options;
  options.AddDefinitionAutoType("TILE_M", kTile)
      .AddDefinitionAutoType("TILE_N", kTile)
      .AddDefinition("MAT1_DTYPE", GetDataTypeCode(static_cast<DataType>(mat1.dtype())))
      .AddDefinition("MAT2_DTYPE", GetDataTypeCode(static_cast<DataType>(mat2.dtype())))
      .AddDefinition("ACC_DTYPE", GetDataTypeCode(acc))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(static_cast<DataType>(out.dtype())))
      .AddDefinitionAutoType("GEMM_MODE", gemm_mode_);
  if (gemm_mode_) {
    const DataType in_type = static_cast<DataType>(input_tensor_->dtype());
    options.AddDefinition("IN_DTYPE", GetDataTypeCode(in_type))
        .AddDefinition("ALPHA_BETA_DTYPE", GetDataTypeCode(AlphaBetaType(acc, in_type)));
  }
  options.AddOptionIf(aligned1, "-DMAT1_IS_ALIGNED")
      .AddOptionIf(aligned2, "-DMAT2_IS_ALIGNED")
      .AddOptionIf(acc == kFloat, "-DOPENCL_DOT4_ENABLED");
  const size_t tile_bytes = static_cast<size_t>(bt) * kTile * kTile * ItemSize(acc);
  auto unit = MakeSubKernel(session, ConcatenateStrings("MatMul", "generic"),
                            {"common.h", "matmul.cl"}, options, "MatMul");
  unit->SetArgs(LocalMemory{tile_bytes}, LocalMemory{tile_bytes}, mat1, mat2, out);
  if (gemm_mode_) unit->SetArg(*input_tensor_).SetArg(option_.alpha).SetArg(option_.beta);
  unit->SetArg(static_cast<uint32_t>(batch))
      .SetArg(static_cast<uint32_t>(m))
      .SetArg(static_cast<uint32_t>(n))
      .SetArg(static_cast<uint32_t>(k))
      .SetArg(static_cast<uint32_t>((k + kTile - 1) / kTile));
  unit->SetGlobal({static_cast<size_t>(n), static_cast<size_t>(m), static_cast<size_t>(batch)})
      .SetLocal({kTile, kTile, static_cast<size_t>(bt)});
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<MatMulKernel, const MatMulOption&, const TensorOption&, const Buffer&,
                   const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("MatMul");
  module.AddKernel<GemmKernel, const MatMulOption&, const TensorOption&, const Buffer&,
                   const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                   const TensorOption&, Buffer&>("Gemm");
};

}  // namespace cl
}  // namespace nerva
