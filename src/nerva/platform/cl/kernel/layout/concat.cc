#include "nerva/platform/cl/kernel/layout/concat.h"

#include <numeric>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// The view of `t` covering [start, start + count) along `dim`.
Tensor Along(const Tensor& t, int dim, long start, long count) {
  std::vector<long> sizes = t.shape().sizes();
  sizes[dim] = count;
  return ViewOf(t, sizes, t.shape().strides(), count ? start * t.shape().strides()[dim] : 0);
}

constexpr size_t kRowPieces = 8;  // pieces one ConcatRows launch joins
constexpr size_t kRowGroup = 256;

long RowProduct(const std::vector<long>& sizes, size_t from, size_t to) {
  long n = 1;
  for (size_t d = from; d < to; ++d) n *= sizes[d];
  return n;
}

}  // namespace

std::vector<Tensor> MakeTensorList(const std::string& op, const std::vector<TensorOption>& opts,
                                   const std::vector<Buffer>& buffers) {
  if (opts.size() != buffers.size()) {
    throw std::runtime_error(
        StrCat(op, ": ", opts.size(), " descriptors but ", buffers.size(), " buffers"));
  }
  std::vector<Tensor> list;
  for (size_t i = 0; i < opts.size(); ++i) list.push_back(MakeTensor(opts[i], buffers[i]));
  return list;
}

ConcatKernel::ConcatKernel(const ConcatOption& option, const std::vector<TensorOption>& input_opts,
                           const std::vector<Buffer>& inputs, const TensorOption& out_opt,
                           Buffer& out)
    : LayoutKernel("Concat", "concat.cl", "Concat"),
      option_(option),
      inputs_(MakeTensorList("Concat", input_opts, inputs)),
      out_(MakeTensor(out_opt, out)) {}

std::vector<Tensor> ConcatKernel::Joined() const {
  std::vector<Tensor> joined;
  for (const Tensor& t : inputs_) {
    if (!(t.shape().ndim() == 1 && t.shape().sizes()[0] == 0)) joined.push_back(t);
  }
  return joined;
}

bool ConcatKernel::Verify() const {
  if (inputs_.empty()) throw std::invalid_argument(StrCat(name(), ": no inputs"));
  CheckTensor(out_, "out");
  for (size_t i = 0; i < inputs_.size(); ++i) {
    CheckTensor(inputs_[i], StrCat("input ", i));
  }
  std::vector<DataType> types;
  for (const Tensor& t : inputs_) types.push_back(t.dtype());
  CheckType(out_, JoinedType(types), "out");
  const std::vector<Tensor> joined = Joined();
  if (joined.empty()) {
    CheckShape(out_, {0}, "out");
    return true;
  }
  const auto& first = joined[0].shape().sizes();
  const int dim = Axis(option_.dim, first.size());
  std::vector<long> sizes = first;
  sizes[dim] = 0;
  for (const Tensor& t : joined) {
    std::vector<long> s = t.shape().sizes();
    const bool fits = s.size() == first.size();
    if (fits) sizes[dim] += s[dim];
    if (fits) s[dim] = first[dim];
    if (!fits || s != first) {
      throw std::runtime_error(StrCat(name(), ": input shape ", t.shape().sizes(),
                                      " does not match ", first, " outside dim ", dim));
    }
  }
  CheckShape(out_, sizes, "out");
  return true;
}

void ConcatKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const std::vector<Tensor> joined = Joined();
  if (joined.empty() || out_.shape().size() == 0) return;
  const int dim = Axis(option_.dim, joined[0].shape().ndim());
  if (!session->host_cpu() && CompileRows(session, joined, dim)) return;
  SetWrittenBytes(out_.shape().size() * out_.option().item_size());
  long start = 0;
  for (const Tensor& t : joined) {
    const long n = t.shape().sizes()[dim];
    const Tensor slice = Along(out_, dim, start, n);
    if (t.dtype() == out_.dtype()) {
      AddMove(session, slice, t);
    } else {
      AddConvert(session, slice, t);
    }
    start += n;
  }
}

bool ConcatKernel::CompileRows(const std::shared_ptr<SessionImpl>& session,
                               const std::vector<Tensor>& joined, int dim) {
  if (!out_.is_contiguous()) return false;
  std::vector<Tensor> pieces;
  for (const Tensor& t : joined) {
    if (t.dtype() != out_.dtype() || !t.is_contiguous()) return false;
    if (t.shape().size() != 0) pieces.push_back(t);
  }
  const auto& sizes = out_.shape().sizes();
  const long item = static_cast<long>(out_.option().item_size());
  const long rows = RowProduct(sizes, 0, dim), out_row = RowProduct(sizes, dim, sizes.size());
  if (rows * out_row > 0xFFFFFFFFL) return false;
  // 16-byte units when every row width and offset allows them.
  const ClTensor out_view(out_);
  bool wide = (out_row * item) % 16 == 0 && out_view.offset() % 16 == 0;
  std::vector<ClTensor> views;
  for (const Tensor& t : pieces) {
    views.emplace_back(t);
    const long width = t.shape().size() / rows;
    wide = wide && (width * item) % 16 == 0 && views.back().offset() % 16 == 0;
  }
  const long unit = wide ? 16 : item;
  long column = 0;  // in units
  for (size_t first = 0; first < pieces.size(); first += kRowPieces) {
    const size_t count = std::min(kRowPieces, pieces.size() - first);
    std::vector<long> starts;
    long width = 0;
    for (size_t k = 0; k < count; ++k) {
      starts.push_back(width);
      width += pieces[first + k].shape().size() / rows * item / unit;
    }
    auto launch = MakeSubKernel(session, ProgramName(), MoveSources(), MoveOptions(item),
                                wide ? "ConcatRows16" : "ConcatRows");
    const long total = rows * width;
    launch->SetArgs(static_cast<cl_uint>(total), static_cast<cl_uint>(width),
                    static_cast<cl_uint>(out_row * item / unit), Lanes(starts, width),
                    out_.storage(), static_cast<cl_uint>(out_view.offset() + column * unit));
    for (size_t k = 0; k < kRowPieces; ++k) {
      if (k < count) {
        launch->SetArg(pieces[first + k].storage()).SetArg(views[first + k].offset());
      } else {
        launch->SetArg(out_.storage()).SetArg(static_cast<cl_uint>(0));
      }
    }
    launch->SetGlobal({static_cast<size_t>(total)}).SetLocal({kRowGroup});
    column += width;
  }
  return true;
}

SplitKernel::SplitKernel(const SplitOption& option, const TensorOption& input_opt,
                         const Buffer& input, const std::vector<TensorOption>& out_opts,
                         const std::vector<Buffer>& outs)
    : LayoutKernel("Split", "split.cl", "Split"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      outs_(MakeTensorList("Split", out_opts, outs)) {}

std::vector<long> SplitKernel::Pieces() const {
  const auto& in = input_.shape().sizes();
  const int dim = Axis(option_.dim, in.size());
  const long n = in[dim];
  const auto& sizes = option_.split_sizes;
  std::vector<long> pieces;
  if (sizes.size() == 1) {
    const long s = sizes[0];
    if (s < 0 || (s == 0 && n != 0)) {
      throw std::runtime_error(
          StrCat(name(), ": cannot split dim ", dim, " of size ", n, " into chunks of ", s));
    }
    for (long at = 0; at < n; at += s) pieces.push_back(std::min(s, n - at));
    if (pieces.empty()) pieces.push_back(0);
    return pieces;
  }
  long total = 0;
  for (long s : sizes) {
    if (s < 0) throw std::runtime_error(StrCat(name(), ": negative split size in ", sizes));
    total += s;
  }
  if (sizes.empty() || total != n) {
    throw std::runtime_error(StrCat(name(), ": split sizes ", sizes, " do not add up to size ", n,
                                    " of dim ", dim, " of input ", in));
  }
  return sizes;
}

bool SplitKernel::Verify() const {
  CheckTensor(input_, "input");
  const std::vector<long> pieces = Pieces();
  if (pieces.size() != outs_.size()) {
    throw std::runtime_error(StrCat(name(), ": input ", input_.shape().sizes(), " splits into ",
                                    pieces.size(), " pieces ", pieces, " but ", outs_.size(),
                                    " outputs were given"));
  }
  const int dim = Axis(option_.dim, input_.shape().ndim());
  for (size_t i = 0; i < outs_.size(); ++i) {
    CheckTensor(outs_[i], StrCat("out ", i));
    CheckType(outs_[i], input_.dtype(), StrCat("out ", i));
    std::vector<long> sizes = input_.shape().sizes();
    sizes[dim] = pieces[i];
    CheckShape(outs_[i], sizes, StrCat("out ", i));
  }
  return true;
}

void SplitKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const int dim = Axis(option_.dim, input_.shape().ndim());
  long start = 0;
  for (const Tensor& out : outs_) {
    const long n = out.shape().sizes()[dim];
    AddMove(session, out, Along(input_, dim, start, n));
    start += n;
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<ConcatKernel, const ConcatOption&, const std::vector<TensorOption>&,
                 const std::vector<Buffer>&, const TensorOption&, Buffer&>("Concat");
  ClModule::singleton()
      .AddKernel<SplitKernel, const SplitOption&, const TensorOption&, const Buffer&,
                 const std::vector<TensorOption>&, const std::vector<Buffer>&>("Split");
};

}  // namespace cl
}  // namespace nerva
