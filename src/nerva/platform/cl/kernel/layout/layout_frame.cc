#include "nerva/platform/cl/kernel/layout/layout_frame.h"

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "linvo/conversion.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr size_t kMaxRank = 8;

// Byte offset of a view's first element as the device field holds it.
cl_uint Field(long value, const std::string& op) {
  if (value < 0 || value > 0xFFFFFFFFL) {
    throw std::runtime_error(StrCat(op, ": byte offset ", value, " does not fit 32 bits"));
  }
  return static_cast<cl_uint>(value);
}

// Drops dims of size 1 and merges each dim into the next inner one where both
// layouts step over it exactly (sizes and strides innermost first).
void MergeDims(std::vector<long>* sizes, std::vector<long>* a, std::vector<long>* b) {
  std::vector<long> s, x, y;
  for (size_t d = 0; d < sizes->size(); ++d) {
    const long n = (*sizes)[d];
    if (n == 1) continue;
    if (!s.empty() && (*a)[d] == x.back() * s.back() && (*b)[d] == y.back() * s.back()) {
      s.back() *= n;
      continue;
    }
    s.push_back(n);
    x.push_back((*a)[d]);
    y.push_back((*b)[d]);
  }
  if (s.empty()) s = {1}, x = {0}, y = {0};
  *sizes = s, *a = x, *b = y;
}

}  // namespace

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LayoutLanes& arg) {
  return clSetKernelArg(kernel, index++, sizeof(cl_uint8), &arg.lanes);
}

LayoutLanes Lanes(const std::vector<long>& values, long fill) {
  LayoutLanes result{};
  for (size_t d = 0; d < 8; ++d) {
    result.lanes.s[d] = static_cast<cl_uint>(d < values.size() ? values[d] : fill);
  }
  return result;
}

std::vector<long> InnerSizes(const Tensor& t) {
  return std::vector<long>(t.shape().sizes().rbegin(), t.shape().sizes().rend());
}

std::vector<long> InnerByteStrides(const Tensor& t) {
  std::vector<long> strides = t.strides_in_bytes();
  return std::vector<long>(strides.rbegin(), strides.rend());
}

std::vector<size_t> WalkGlobal(const std::vector<long>& sizes) {
  std::vector<size_t> global;
  for (size_t d = 0; d < std::min<size_t>(sizes.size(), 3); ++d) global.push_back(sizes[d]);
  for (size_t d = 3; d < sizes.size(); ++d) global[2] *= static_cast<size_t>(sizes[d]);
  if (global.empty()) global.push_back(1);
  return global;
}

long MoveVector(size_t item) {
  return item <= 2 ? 16 : 32 / static_cast<long>(item);  // LY_VEC of "layout.h"
}

std::vector<size_t> MoveGlobal(std::vector<long> sizes, long vec) {
  if (!sizes.empty()) sizes[0] = (sizes[0] + vec - 1) / vec;
  return WalkGlobal(sizes);
}

Tensor ViewOf(const Tensor& t, const std::vector<long>& sizes, const std::vector<long>& strides,
              long offset) {
  TensorOption option{Shape(sizes, strides), t.dtype()};
  return Tensor(option, t.storage(),
                t.storage_offset() + offset * static_cast<long>(t.option().item_size()));
}

std::pair<Tensor, Tensor> PixelShuffleViews(const Tensor& deep, const Tensor& spatial, long r,
                                            bool spatial_order) {
  const size_t c = deep.shape().ndim() - 3;
  const auto& ds = deep.shape().strides();
  const auto& ss = spatial.shape().strides();
  std::vector<long> sizes(spatial.shape().sizes().begin(), spatial.shape().sizes().begin() + c);
  std::vector<long> d_strides(ds.begin(), ds.begin() + c), s_strides(ss.begin(), ss.begin() + c);
  const long C = spatial.shape().sizes()[c], H = deep.shape().sizes()[c + 1],
             W = deep.shape().sizes()[c + 2];
  if (spatial_order) {  // (C, H, i, W, j)
    sizes.insert(sizes.end(), {C, H, r, W, r});
    d_strides.insert(d_strides.end(), {ds[c] * r * r, ds[c + 1], ds[c] * r, ds[c + 2], ds[c]});
    s_strides.insert(s_strides.end(), {ss[c], ss[c + 1] * r, ss[c + 1], ss[c + 2] * r, ss[c + 2]});
  } else {  // (C, i, j, H, W)
    sizes.insert(sizes.end(), {C, r, r, H, W});
    d_strides.insert(d_strides.end(), {ds[c] * r * r, ds[c] * r, ds[c], ds[c + 1], ds[c + 2]});
    s_strides.insert(s_strides.end(), {ss[c], ss[c + 1], ss[c + 2], ss[c + 1] * r, ss[c + 2] * r});
  }
  return {ViewOf(deep, sizes, d_strides), ViewOf(spatial, sizes, s_strides)};
}

std::string DimsText(const std::vector<long>& sizes) {
  return StrCat(sizes);
}

LayoutKernel::LayoutKernel(std::string name, std::string program, std::string entry)
    : KernelImpl(std::move(name)), program_(std::move(program)), entry_(std::move(entry)) {}

void LayoutKernel::CheckTensor(const Tensor& t, const std::string& what) const {
  const DataType type = t.dtype();
  if (type < kHalf || type > kBool || type == kDouble) {
    throw std::invalid_argument(StrCat(name(), ": unsupported type ", type, " of ", what));
  }
  if (t.shape().ndim() > kMaxRank) {
    throw std::invalid_argument(
        StrCat(name(), ": rank ", t.shape().ndim(), " of ", what, " exceeds ", kMaxRank));
  }
  if (t.shape().size() != 0 && !t.storage()) {
    throw std::runtime_error(StrCat(name(), ": ", what, " has no buffer"));
  }
}

void LayoutKernel::CheckShape(const Tensor& t, const std::vector<long>& expected,
                              const std::string& what) const {
  if (t.shape().sizes() != expected) {
    throw std::runtime_error(StrCat(name(), ": ", what, " shape ", t.shape().sizes(),
                                    " is not the result's ", expected));
  }
}

void LayoutKernel::CheckType(const Tensor& t, DataType expected, const std::string& what) const {
  if (t.dtype() != expected) {
    throw std::invalid_argument(
        StrCat(name(), ": ", what, " type ", t.dtype(), " differs from ", expected));
  }
}

int LayoutKernel::Axis(long axis, size_t rank, const std::string& what) const {
  const long r = static_cast<long>(rank);
  if (axis < -r || axis >= r || r == 0) {
    throw std::out_of_range(StrCat(name(), ": ", what, " ", axis, " out of range for rank ", rank,
                                   " (expected in [", -r, ", ", r - 1, "])"));
  }
  return static_cast<int>(axis < 0 ? axis + r : axis);
}

void LayoutKernel::AddMove(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                           const Tensor& in) {
  if (out.shape().size() == 0) return;
  const ElementwiseLayout layout = CoalesceLayout(out, {in});
  const ClTensor out_view(out), in_view(in);  // both lie inside their buffers
  AddMoveLayout(session, out, in, layout.sizes, layout.strides[0], layout.strides[1],
                out_view.offset(), in_view.offset());
}

void LayoutKernel::AddMoveLayout(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                                 const Tensor& in, std::vector<long> sizes,
                                 std::vector<long> out_strides, std::vector<long> in_strides,
                                 long out_offset, long in_offset) {
  for (long s : sizes)
    if (s == 0) return;
  MergeDims(&sizes, &out_strides, &in_strides);
  if (sizes.size() > kMaxRank) {  // one launch per index of the outermost dimension
    const long n = sizes.back(), so = out_strides.back(), si = in_strides.back();
    sizes.pop_back();
    out_strides.pop_back();
    in_strides.pop_back();
    for (long i = 0; i < n; ++i) {
      AddMoveLayout(session, out, in, sizes, out_strides, in_strides, out_offset + i * so,
                    in_offset + i * si);
    }
    return;
  }
  const size_t item = out.option().item_size();
  const bool xc =
      out_strides[0] == static_cast<long>(item) && in_strides[0] == static_cast<long>(item);
  // Streaming stores of the x-run vectors: every row start aligned to one.
  uint64_t moved = item;
  for (long s : sizes) moved *= static_cast<uint64_t>(s);
  std::vector<uint64_t> steps = {static_cast<uint64_t>(out_offset)};
  steps.insert(steps.end(), out_strides.begin() + 1, out_strides.end());
  const bool stream =
      xc && session->StreamStores(std::max(written_bytes_, moved), MoveVector(item) * item, steps);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(item, xc, sizes.size() > 3, stream), entry_);
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(sizes.size()), out.storage(),
                Field(out_offset, name()), Lanes(out_strides, 0), in.storage(),
                Field(in_offset, name()), Lanes(in_strides, 0));
  unit->SetGlobal(MoveGlobal(sizes, xc ? MoveVector(item) : 1));
}

void LayoutKernel::AddConvert(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                              const Tensor& in) {
  if (out.shape().size() == 0) return;
  const ElementwiseLayout layout = CoalesceLayout(out, {in});
  const DataType type = in.dtype();
  const ElementwiseSpec spec{"stridedcopy.cl", {type}, type, BuildOption(), false};
  BuildOption options = ElementwiseOptions(spec, out.dtype(), {type}, 1, ElementwiseForm::kStrided);
  const size_t rank = layout.sizes.size();
  options.AddDefinitionAutoType("EW_DEEP", rank > 3);
  const Tensor* tensors[] = {&out, &in};
  for (size_t t = 0; t < 2; ++t) {  // x strides of 0 or one item become constants
    const long x = layout.strides[t][0];
    const bool known = x == 0 || x == static_cast<long>(tensors[t]->option().item_size());
    options.AddDefinitionAutoType(t ? "EW_XS_in0" : "EW_XS_out", known ? x : -1L);
  }
  EwDims dims{};
  for (size_t d = 0; d < 8; ++d) {
    dims.sizes.s[d] = d < rank ? static_cast<cl_uint>(layout.sizes[d]) : 1;
  }
  auto unit = MakeSubKernel(session, ConcatenateStrings("StridedCopy", "elementwise"),
                            ElementwiseSources(spec), options, "StridedCopyStrided");
  unit->SetArgs(dims, static_cast<int>(rank));
  for (size_t t = 0; t < 2; ++t) {
    const ClTensor view(*tensors[t]);
    EwStridedArg arg{view.mem(), view.offset(), {}, view.buffer()};
    for (size_t d = 0; d < rank; ++d) arg.strides.s[d] = static_cast<cl_uint>(layout.strides[t][d]);
    unit->SetArg(arg);
  }
  unit->SetGlobal(WalkGlobal(layout.sizes));
}

void LayoutKernel::AddFill(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                           uint64_t bits) {
  if (out.shape().size() == 0) return;
  const ElementwiseLayout layout = CoalesceLayout(out, {});
  const ClTensor view(out);
  const auto& sizes = layout.sizes;
  const size_t item = out.option().item_size();
  const bool xc = layout.strides[0][0] == static_cast<long>(item);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(item, xc, sizes.size() > 3), entry_ + "Fill");
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(sizes.size()), out.storage(), view.offset(),
                Lanes(layout.strides[0], 0), static_cast<cl_ulong>(bits));
  unit->SetGlobal(MoveGlobal(sizes, xc ? MoveVector(item) : 1));
}

BuildOption LayoutKernel::MoveOptions(size_t item, bool xc, bool deep, bool stream) const {
  BuildOption options;
  options.AddDefinitionAutoType("LY_SIZE", static_cast<int>(item))
      .AddDefinitionAutoType("LY_XC", xc)
      .AddDefinitionAutoType("LY_DEEP", deep);
  if (stream) options.AddDefinitionAutoType("NERVA_STREAM", true);
  return options;
}

std::vector<std::string> LayoutKernel::MoveSources() const {
  return {"common.h", "layout.h", program_};
}

std::string LayoutKernel::ProgramName() const {
  return ConcatenateStrings(program_, "layout");
}

UnaryMoveKernel::UnaryMoveKernel(std::string name, std::string program, std::string entry,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& out_opt, const Buffer& out)
    : LayoutKernel(std::move(name), std::move(program), std::move(entry)),
      input_(MakeTensor(input_opt, input)),
      out_(MakeTensor(out_opt, out)) {}

void UnaryMoveKernel::CheckUnary(const std::vector<long>& expected) const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  CheckShape(out_, expected, "out");
}

DataType JoinedType(const std::vector<DataType>& types) {
  bool floating = false, all_bool = true;
  size_t signed_size = 0, unsigned_size = 0;
  for (DataType t : types) {
    all_bool = all_bool && t == kBool;
    if (IsFloat(t)) {
      floating = true;
    } else if (t >= kInt8 && t <= kInt64) {
      signed_size = std::max(signed_size, TypeTraitsHelper::GetSize(t));
    } else if (t >= kUInt8 && t <= kUInt64) {
      unsigned_size = std::max(unsigned_size, TypeTraitsHelper::GetSize(t));
    }
  }
  if (all_bool) return kBool;
  if (floating) {
    std::vector<DataType> floats;
    for (DataType t : types)
      if (IsFloat(t)) floats.push_back(t);
    return PromoteTypes(floats);
  }
  const auto signed_of = [](size_t size) {
    return size <= 1 ? kInt8 : size == 2 ? kInt16 : size == 4 ? kInt32 : kInt64;
  };
  if (unsigned_size == 0) return signed_of(signed_size);
  if (signed_size == 0) {
    return unsigned_size == 1   ? kUInt8
           : unsigned_size == 2 ? kUInt16
           : unsigned_size == 4 ? kUInt32
                                : kUInt64;
  }
  return signed_of(signed_size > unsigned_size ? signed_size : 2 * unsigned_size);
}

uint64_t ElementBits(double value, DataType type) {
  uint64_t bits = 0;
  const auto put = [&bits](auto v) { std::memcpy(&bits, &v, sizeof(v)); };
  switch (type) {
    case kHalf:
      put(linvo::FloatToHalf(static_cast<float>(value)));
      break;
    case kBFloat:
      put(linvo::FloatToBFloat(static_cast<float>(value)));
      break;
    case kFloat:
      put(static_cast<float>(value));
      break;
    case kFloat8_e4m3fn:
      put(linvo::FloatToFloat8E4M3(static_cast<float>(value)));
      break;
    case kFloat8_e5m2:
      put(linvo::FloatToFloat8E5M2(static_cast<float>(value)));
      break;
    case kInt8:
      put(linvo::SaturateToInteger<int8_t>(value));
      break;
    case kInt16:
      put(linvo::SaturateToInteger<int16_t>(value));
      break;
    case kInt32:
      put(linvo::SaturateToInteger<int32_t>(value));
      break;
    case kInt64:
      put(linvo::SaturateToInteger<int64_t>(value));
      break;
    case kUInt8:
      put(linvo::SaturateToInteger<uint8_t>(value));
      break;
    case kUInt16:
      put(linvo::SaturateToInteger<uint16_t>(value));
      break;
    case kUInt32:
      put(linvo::SaturateToInteger<uint32_t>(value));
      break;
    case kUInt64:
      put(linvo::SaturateToInteger<uint64_t>(value));
      break;
    case kBool:
      put(static_cast<uint8_t>(value != 0.0));
      break;
    default:
      break;
  }
  return bits;
}

}  // namespace cl
}  // namespace nerva
