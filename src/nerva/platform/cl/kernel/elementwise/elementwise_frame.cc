#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

#include "nerva/platform/cl/buffer_impl.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr size_t kMaxRank = 8;
// Work items per group of the GPU launches.
constexpr size_t kSpreadGroup = 256;
// Items per group of the explicit 16-lane flat kernel (CPU devices).
constexpr size_t kVec16Group = 64;

// A group of kSpreadGroup items over `global`: as many as fit along x (a
// power of two), the rest along y, then z, so that small inner dimensions do
// not leave groups mostly empty.
std::vector<size_t> SpreadLocal(const std::vector<size_t>& global) {
  std::vector<size_t> local;
  size_t left = kSpreadGroup;
  for (size_t g : global) {
    size_t l = 1;
    while (l < left && l < g) l *= 2;
    local.push_back(l);
    left /= l;
  }
  return local;
}

// Groups of the strided launch on CPU devices, which run a group as a loop
// over x vectorised across items. Streaming layouts take runs of up to 1024
// items along x (PoCL's own choice is far slower); a layout where some tensor
// steps x by more than one element (a transposed view) takes 16 x 256 tiles,
// so the 16 lines the strided tensor touches per row stay in cache while the
// group walks down them. At most `most` items; no local range (the runtime's
// choice) where the sizes leave only small divisors.
std::vector<size_t> CpuStridedLocal(const std::vector<size_t>& global, bool tiled, size_t most) {
  std::vector<size_t> local(global.size(), 1);
  local[0] = PowerOfTwoDivisor(global[0], std::min<size_t>(tiled ? 16 : 1024, most));
  if (tiled && global.size() > 1) {
    local[1] = PowerOfTwoDivisor(global[1], std::min<size_t>(256, most / local[0]));
  }
  size_t items = 1;
  for (size_t l : local) items *= l;
  return items >= 16 ? local : std::vector<size_t>();
}

// Byte span [first, last) of a tensor's elements relative to its buffer.
std::pair<long, long> SpanOf(const Tensor& t) {
  long lo = t.storage_offset(), hi = t.storage_offset();
  const long item = static_cast<long>(t.option().item_size());
  const auto& sizes = t.shape().sizes();
  const auto& strides = t.shape().strides();
  if (sizes.empty()) return {lo, lo};
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i] == 0) return {lo, lo};
    const long reach = (sizes[i] - 1) * strides[i] * item;
    (reach < 0 ? lo : hi) += reach;
  }
  return {lo, hi + item};
}

std::string Dims(const std::vector<long>& sizes) {
  std::ostringstream os;
  os << "[";
  for (size_t i = 0; i < sizes.size(); ++i) os << (i ? ", " : "") << sizes[i];
  os << "]";
  return os.str();
}

long Count(const std::vector<long>& sizes) {
  long n = 1;
  for (long s : sizes) n *= s;
  return sizes.empty() ? 0 : n;
}

bool ValidType(DataType type) {
  return type >= kHalf && type <= kBool && type != kDouble;
}

// Element strides of `t` seen with `out_sizes` (right-aligned, 0 where broadcast).
std::vector<long> BroadcastStrides(const Tensor& t, const std::vector<long>& out_sizes) {
  const auto& sizes = t.shape().sizes();
  const auto& strides = t.shape().strides();
  std::vector<long> result(out_sizes.size(), 0);
  const size_t lead = out_sizes.size() - sizes.size();
  for (size_t i = 0; i < sizes.size(); ++i) {
    result[lead + i] = sizes[i] == 1 ? 0 : strides[i];
  }
  return result;
}

}  // namespace

bool BroadcastTogether(const std::vector<long>& a, const std::vector<long>& b,
                       std::vector<long>* out) {
  const size_t rank = std::max(a.size(), b.size());
  std::vector<long> result(rank);
  for (size_t i = 0; i < rank; ++i) {
    const long x = i < a.size() ? a[a.size() - 1 - i] : 1;
    const long y = i < b.size() ? b[b.size() - 1 - i] : 1;
    if (x != 1 && y != 1 && x != y) return false;
    result[rank - 1 - i] = x == 1 ? y : x;
  }
  if (out) *out = std::move(result);
  return true;
}

std::pair<cl_mem, long> RootOf(const Buffer& buffer) {
  // A buffer of another platform is no memory object: it is only itself (the
  // frame's memory check refuses it later with a message).
  if (dynamic_cast<const BufferImpl*>(buffer.get()) == nullptr) {
    return {reinterpret_cast<cl_mem>(buffer.get()), 0};
  }
  cl_mem mem = static_cast<cl_mem>(buffer.UnsafeGetPtr());
  cl_mem parent = nullptr;
  size_t origin = 0;
  if (clGetMemObjectInfo(mem, CL_MEM_ASSOCIATED_MEMOBJECT, sizeof(parent), &parent, nullptr) !=
          CL_SUCCESS ||
      parent == nullptr) {
    return {mem, 0};
  }
  clGetMemObjectInfo(mem, CL_MEM_OFFSET, sizeof(origin), &origin, nullptr);
  return {parent, static_cast<long>(origin)};
}

bool SharesMemory(const Tensor& a, const Tensor& b) {
  if (!a.storage() || !b.storage()) return false;
  const auto ra = RootOf(a.storage());
  const auto rb = RootOf(b.storage());
  if (ra.first != rb.first) return false;
  const auto sa = SpanOf(a), sb = SpanOf(b);
  if (sa.first == sa.second || sb.first == sb.second) return false;
  return sa.first + ra.second < sb.second + rb.second &&
         sb.first + rb.second < sa.second + ra.second;
}

int ElementwiseVecSize(int requested, long length, bool aliased) {
  if (!aliased) return AdjustVecSize(requested, length);
  for (int vec : {4, 2}) {
    if (vec <= requested && length % vec == 0) return vec;
  }
  return 1;
}

Tensor MakeTensor(const TensorOption& option, const Buffer& buffer) {
  return Tensor(option, buffer, 0);
}

bool IsFloat(DataType type) {
  return TypeTraitsHelper::IsFloattingPoint(type);
}

bool CanCast(DataType from, DataType to) {
  if (IsFloat(from) && !IsFloat(to)) return false;
  if (from != kBool && to == kBool) return false;
  return true;
}

std::string ConversionKind(DataType from, DataType to) {
  if (to == kBool) return "BOOL";
  if (IsFloat(from) && !IsFloat(to)) return "SAT";
  return "WRAP";
}

DataType PromoteTypes(const std::vector<DataType>& types) {
  if (std::all_of(types.begin(), types.end(), [](DataType t) { return t == kBool; })) return kBool;
  DataType result = types.at(0);
  for (size_t i = 1; i < types.size(); ++i)
    result = TypeTraitsHelper::TypePromote(result, types[i]);
  return result;
}

ElementwiseLayout CoalesceLayout(const Tensor& out, const std::vector<Tensor>& inputs) {
  const std::vector<long>& out_sizes = out.shape().sizes();
  std::vector<std::vector<long>> strides;  // per tensor, outermost first
  strides.push_back(BroadcastStrides(out, out_sizes));
  for (const Tensor& t : inputs) strides.push_back(BroadcastStrides(t, out_sizes));
  // Keep dimensions larger than 1, merging each into the one before it when
  // every tensor steps over the inner one exactly.
  ElementwiseLayout layout;
  std::vector<std::vector<long>> kept(strides.size());
  std::vector<long> sizes;
  for (size_t d = 0; d < out_sizes.size(); ++d) {
    if (out_sizes[d] == 1) continue;
    bool merge = !sizes.empty();
    for (size_t t = 0; merge && t < strides.size(); ++t) {
      merge = kept[t].back() == strides[t][d] * out_sizes[d];
    }
    if (merge) {
      sizes.back() *= out_sizes[d];
      for (size_t t = 0; t < strides.size(); ++t) kept[t].back() = strides[t][d];
    } else {
      sizes.push_back(out_sizes[d]);
      for (size_t t = 0; t < strides.size(); ++t) kept[t].push_back(strides[t][d]);
    }
  }
  if (sizes.empty()) {  // a single element
    sizes.push_back(1);
    for (auto& k : kept) k.push_back(1);
  }
  std::reverse(sizes.begin(), sizes.end());
  layout.sizes = sizes;
  for (size_t t = 0; t < kept.size(); ++t) {
    const long item =
        static_cast<long>(TypeTraitsHelper::GetSize(t == 0 ? out.dtype() : inputs[t - 1].dtype()));
    std::vector<long> bytes(kept[t].rbegin(), kept[t].rend());
    for (long& b : bytes) b *= item;
    layout.strides.push_back(bytes);
  }
  return layout;
}

BuildOption ElementwiseOptions(const ElementwiseSpec& spec, DataType out,
                               const std::vector<DataType>& inputs, int vec, ElementwiseForm form) {
  BuildOption options = spec.options;
  options.AddDefinitionAutoType("VEC_SIZE", vec)
      .AddDefinitionAutoType("EW_FORM", static_cast<int>(form))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out))
      .AddDefinition("OUT_CVT", ConversionKind(spec.result_type, out));
  if (!spec.arg_types.empty()) {
    options.AddDefinitionAutoType("EW_INT", !IsFloat(spec.arg_types[0]));
  }
  for (size_t i = 0; i < inputs.size(); ++i) {
    const std::string index = std::to_string(i);
    options.AddDefinition("IN" + index + "_DTYPE", GetDataTypeCode(inputs[i]))
        .AddDefinition("ARG" + index + "_DTYPE", GetDataTypeCode(spec.arg_types.at(i)))
        .AddDefinition("IN" + index + "_CVT", ConversionKind(inputs[i], spec.arg_types.at(i)));
  }
  return options;
}

std::vector<std::string> ElementwiseSources(const ElementwiseSpec& spec) {
  std::vector<std::string> sources = {"common.h", "math.h", "elementwise.h", spec.program};
  if (!spec.math) sources.erase(sources.begin() + 1);
  return sources;
}

ElementwiseKernel::ElementwiseKernel(std::string name, std::vector<Tensor> inputs, Tensor out,
                                     std::vector<std::string> input_names)
    : KernelImpl(std::move(name)),
      inputs_(std::move(inputs)),
      out_(std::move(out)),
      input_names_(std::move(input_names)) {}

void ElementwiseKernel::VerifyShapes() const {
  std::vector<Tensor> all = inputs_;
  all.push_back(out_);
  for (size_t i = 0; i < all.size(); ++i) {
    const Tensor& t = all[i];
    const std::string& what = i < inputs_.size() ? input_names_.at(i) : std::string("out");
    if (!ValidType(t.dtype())) {
      throw std::invalid_argument(StrCat(name(), ": unsupported type ", t.dtype(), " of ", what));
    }
    if (t.shape().ndim() > kMaxRank) {
      throw std::invalid_argument(
          StrCat(name(), ": rank ", t.shape().ndim(), " of ", what, " exceeds ", kMaxRank));
    }
    for (long s : t.shape().strides()) {
      if (s < 0) throw std::invalid_argument(StrCat(name(), ": negative stride of ", what));
    }
    if (Count(t.shape().sizes()) != 0 && !t.storage()) {
      throw std::runtime_error(StrCat(name(), ": ", what, " has no buffer"));
    }
  }
  std::vector<long> shape = inputs_.empty() ? out_.shape().sizes() : inputs_[0].shape().sizes();
  for (size_t i = 1; i < inputs_.size(); ++i) {
    const auto& other = inputs_[i].shape().sizes();
    if (!BroadcastTogether(shape, other, &shape)) {
      throw std::runtime_error(
          StrCat(name(), ": cannot broadcast ", Dims(shape), " with ", Dims(other)));
    }
  }
  if (out_.shape().sizes() != shape) {
    throw std::runtime_error(StrCat(name(), ": output shape ", Dims(out_.shape().sizes()),
                                    " is not the broadcast shape ", Dims(shape)));
  }
  // An input that shares memory with the output must be the very same view.
  for (size_t i = 0; i < inputs_.size(); ++i) {
    const Tensor& in = inputs_[i];
    if (!SharesMemory(in, out_)) continue;
    const bool same = RootOf(in.storage()).second + in.storage_offset() ==
                          RootOf(out_.storage()).second + out_.storage_offset() &&
                      in.shape() == out_.shape() && in.dtype() == out_.dtype();
    if (!same) {
      throw std::runtime_error(
          StrCat(name(), ": out overlaps ", input_names_.at(i), " without being the same view"));
    }
  }
}

void ElementwiseKernel::VerifyOutputType(DataType result) const {
  if (!CanCast(result, out_.dtype())) {
    throw std::invalid_argument(StrCat(name(), ": result type ", result,
                                       " can't be cast to the output type ", out_.dtype()));
  }
}

void ElementwiseKernel::ThrowUnsupportedTypes(const std::string& what) const {
  std::ostringstream os;
  os << name() << ": " << what << " not defined for";
  for (size_t i = 0; i < inputs_.size(); ++i) os << (i ? ", " : " ") << inputs_[i].dtype();
  throw std::invalid_argument(os.str());
}

void ElementwiseKernel::CompileElementwise(const std::shared_ptr<SessionImpl>& session,
                                           const ElementwiseSpec& spec,
                                           const std::function<void(KernelUnit&)>& bind) {
  if (Count(out_.shape().sizes()) == 0) return;
  const ElementwiseLayout layout = CoalesceLayout(out_, inputs_);
  std::vector<Tensor> tensors = {out_};
  tensors.insert(tensors.end(), inputs_.begin(), inputs_.end());
  bool flat = layout.sizes.size() == 1;
  for (size_t t = 0; flat && t < tensors.size(); ++t) {
    flat = layout.strides[t][0] == static_cast<long>(tensors[t].option().item_size());
  }
  const long n = layout.sizes[0];
  // GPUs: spread lanes (no overlapping vectors, so aliasing needs no care),
  // fixed-size groups over bounds-checked ranges.
  const bool spread = !session->host_cpu();
  // CPU devices: one element per item, so the compiler vectorises across items
  // with unit-stride accesses (four elements per item would make every access
  // a gather); one launch covers any length and aliasing needs no care.
  const int vec = spread ? 4 : 1;

  std::vector<DataType> types;
  for (const Tensor& in : inputs_) types.push_back(in.dtype());
  BuildOption options =
      ElementwiseOptions(spec, out_.dtype(), types, flat ? vec : 1,
                         flat ? ElementwiseForm::kFlat : ElementwiseForm::kStrided);
  if (spread) options.AddDefinitionAutoType("EW_SPREAD", 1);
  if (!flat) {  // x strides that are 0 or one item become constants
    options.AddDefinitionAutoType("EW_DEEP", layout.sizes.size() > 3);
    for (size_t t = 0; t < tensors.size(); ++t) {
      const long x = layout.strides[t][0];
      const bool known = x == 0 || x == static_cast<long>(tensors[t].option().item_size());
      options.AddDefinitionAutoType(t ? "EW_XS_in" + std::to_string(t - 1) : "EW_XS_out",
                                    known ? x : -1L);
    }
  }
  const std::vector<std::string> sources = ElementwiseSources(spec);
  const std::string program = ConcatenateStrings(name(), "elementwise");
  std::vector<ClTensor> views;
  for (const Tensor& t : tensors) views.emplace_back(t);
  if (flat && spread) {
    const long stride = (n + vec - 1) / vec;
    auto unit = MakeSubKernel(session, program, sources, options, name());
    unit->SetArgs(static_cast<cl_uint>(n), static_cast<cl_uint>(stride));
    for (const ClTensor& v : views) unit->SetArg(EwFlatArg{v.mem(), v.offset(), v.buffer()});
    bind(*unit);
    unit->SetGlobal({static_cast<size_t>(stride)}).SetLocal({kSpreadGroup});
    return;
  }
  bool all_float = out_.dtype() == kFloat;
  for (DataType t : types) all_float = all_float && t == kFloat;
  bool float_to_half = out_.dtype() == kHalf && session->host_cpu();
  for (DataType t : types) float_to_half = float_to_half && t == kFloat;
  // One flat launch from element `base` on: `items` items of `step` elements.
  const auto add_flat = [&](const BuildOption& build, long base, long items, long step) {
    auto unit = MakeSubKernel(session, program, sources, build, name());
    unit->SetArgs(static_cast<cl_uint>(base));
    for (const ClTensor& v : views) unit->SetArg(EwFlatArg{v.mem(), v.offset(), v.buffer()});
    bind(*unit);
    unit->SetGlobal({static_cast<size_t>(items)});
    const size_t group = PowerOfTwoDivisor(
        static_cast<size_t>(items),
        std::min<size_t>(step == 16 ? kVec16Group : 1024, session->max_work_group_size()));
    if (group >= 16) unit->SetLocal({group});
  };
  // The 16-lane build: its 64-byte stores stream when the output is large and
  // `steps` (the output's offset and row strides) keep them aligned.
  const auto vec16_options = [&](const std::vector<uint64_t>& steps) {
    BuildOption vec16 = options;
    vec16.AddDefinitionAutoType("EW_VEC16", 1);
    const uint64_t bytes = Count(out_.shape().sizes()) * out_.option().item_size();
    if (session->StreamStores(bytes, 64, steps)) vec16.AddDefinitionAutoType("NERVA_STREAM", 1);
    return vec16;
  };
  // Whole vectors of 16 elements (32 into half, one 64-byte store), then the
  // rest element by element.
  const long step = float_to_half ? 32 : 16;
  if (flat && spec.op16 && (all_float || float_to_half) && n >= step) {
    add_flat(vec16_options({views[0].offset()}), 0, n / step, 16);
    if (n % step != 0) add_flat(options, n / step * step, n % step, 1);
    return;
  }
  if (flat) {
    add_flat(options, 0, n, 1);
    return;
  }
  // One strided launch over x in [x0, x0 + nx) of every row, `step`
  // elements per item along x.
  const size_t rank = layout.sizes.size();
  bool tiled = false;
  for (size_t t = 0; t < tensors.size(); ++t) {
    const long x = layout.strides[t][0];
    tiled = tiled || (x != 0 && x != static_cast<long>(tensors[t].option().item_size()));
  }
  const auto add_strided = [&](const BuildOption& build, long x0, long nx, long step) {
    auto unit = MakeSubKernel(session, program, sources, build, name() + "Strided");
    EwDims dims{};
    for (size_t d = 0; d < 8; ++d)
      dims.sizes.s[d] = d < rank ? static_cast<cl_uint>(d ? layout.sizes[d] : nx) : 1;
    unit->SetArgs(dims, static_cast<int>(rank));
    size_t extent = 1;
    for (size_t d = 2; d < rank; ++d) extent *= static_cast<size_t>(layout.sizes[d]);
    if (spread) unit->SetArg(static_cast<cl_uint>(extent));
    for (size_t t = 0; t < views.size(); ++t) {
      const long offset = views[t].offset() + x0 * layout.strides[t][0];
      EwStridedArg arg{views[t].mem(), static_cast<cl_uint>(offset), {}, views[t].buffer()};
      for (size_t d = 0; d < rank; ++d)
        arg.strides.s[d] = static_cast<cl_uint>(layout.strides[t][d]);
      unit->SetArg(arg);
    }
    bind(*unit);
    std::vector<size_t> global = {static_cast<size_t>(nx / step)};
    for (size_t d = 1; d < std::min<size_t>(rank, 3); ++d) {
      global.push_back(static_cast<size_t>(layout.sizes[d]));
    }
    for (size_t d = 3; d < rank; ++d) global[2] *= static_cast<size_t>(layout.sizes[d]);
    unit->SetGlobal(global);
    if (spread) {
      unit->SetLocal(SpreadLocal(global));
      return;
    }
    const std::vector<size_t> local =
        CpuStridedLocal(global, tiled && rank > 1, session->max_work_group_size());
    if (!local.empty()) unit->SetLocal(local);
  };
  // CPU devices, float tensors all contiguous along x, rank up to 3: rows
  // in whole 16-element vectors, then the rows' last elements.
  bool rows16 = session->host_cpu() && spec.op16 && all_float && rank <= 3 && layout.sizes[0] >= 16;
  for (size_t t = 0; rows16 && t < tensors.size(); ++t) rows16 = layout.strides[t][0] == 4;
  if (rows16) {
    const long whole = layout.sizes[0] / 16 * 16;
    std::vector<uint64_t> steps = {views[0].offset()};
    for (size_t d = 1; d < rank; ++d) steps.push_back(layout.strides[0][d]);
    add_strided(vec16_options(steps), 0, whole, 16);
    if (whole < layout.sizes[0]) add_strided(options, whole, layout.sizes[0] - whole, 1);
    return;
  }
  add_strided(options, 0, layout.sizes[0], 1);
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwFlatArg& arg) {
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
  return status == CL_SUCCESS ? clSetKernelArg(kernel, index++, sizeof(cl_uint), &arg.offset)
                              : status;
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwStridedArg& arg) {
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
  if (status == CL_SUCCESS) status = clSetKernelArg(kernel, index++, sizeof(cl_uint), &arg.offset);
  return status == CL_SUCCESS ? clSetKernelArg(kernel, index++, sizeof(cl_uint8), &arg.strides)
                              : status;
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwDims& arg) {
  return clSetKernelArg(kernel, index++, sizeof(cl_uint8), &arg.sizes);
}

}  // namespace cl
}  // namespace nerva
