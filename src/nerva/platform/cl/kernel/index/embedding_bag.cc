#include "nerva/platform/cl/kernel/index/embedding_bag.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

void CheckBagMode(const std::string& op, EmbeddingBagMode mode) {
  const int m = static_cast<int>(mode);
  if (m < 0 || m > 2) throw std::invalid_argument(StrCat(op, ": unknown mode ", m));
}

EmbeddingBagKernel::EmbeddingBagKernel(std::string name, const EmbeddingBagOption& option,
                                       Tensor weight, Tensor indices, Tensor offsets,
                                       Tensor per_sample_weights, Tensor out)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      weight_(std::move(weight)),
      indices_(std::move(indices)),
      offsets_(std::move(offsets)),
      psw_(std::move(per_sample_weights)),
      out_(std::move(out)) {}

long EmbeddingBagKernel::Bags() const {
  if (indices_.shape().ndim() == 2) return indices_.shape().sizes()[0];
  return offsets_.shape().sizes()[0] - (option_.include_last_offset ? 1 : 0);
}

bool EmbeddingBagKernel::Verify() const {
  CheckBagMode(name(), option_.mode);
  if (weight_.dtype() != kFloat && weight_.dtype() != kHalf) {
    throw std::invalid_argument(
        StrCat(name(), ": weight must be float or half, got ", weight_.dtype()));
  }
  if (weight_.shape().ndim() != 2) {
    throw std::runtime_error(StrCat(name(), ": weight must be 2-D, got ", weight_.shape()));
  }
  CheckIndexType("indices", indices_);
  const size_t rank = indices_.shape().ndim();
  if (rank == 2 && Defined(offsets_)) {
    throw std::runtime_error(
        StrCat(name(), ": offsets must be left out for 2-D indices of shape ", indices_.shape()));
  }
  if (rank == 1) {
    if (!Defined(offsets_)) throw std::runtime_error(StrCat(name(), ": 1-D indices need offsets"));
    CheckIndexType("offsets", offsets_);
    if (offsets_.shape().ndim() != 1 ||
        (option_.include_last_offset && offsets_.shape().sizes()[0] < 1)) {
      throw std::runtime_error(StrCat(name(), ": offsets must be 1-D",
                                      option_.include_last_offset ? " and not empty" : "", ", got ",
                                      offsets_.shape()));
    }
  } else if (rank != 2) {
    throw std::runtime_error(
        StrCat(name(), ": indices must be 1-D or 2-D, got ", indices_.shape()));
  }
  if (Defined(psw_)) {
    if (option_.mode != EmbeddingBagMode::kSum) {
      throw std::invalid_argument(StrCat(name(), ": per_sample_weights need mode kSum"));
    }
    CheckSameType("per_sample_weights", psw_, weight_.dtype());
    CheckSizes("per_sample_weights", psw_, indices_.shape().sizes());
  }
  CheckOut("out", out_, {Bags(), weight_.shape().sizes()[1]}, weight_.dtype());
  return true;
}

void EmbeddingBagKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long dim = weight_.shape().sizes()[1];
  const long bags = Bags();
  if (bags * dim == 0) return;
  const long chunks = (dim + 15) / 16;  // EB_W columns per work item
  const long len = ElementCount(indices_);
  const Tensor weight = Dense(session, weight_);
  const Tensor indices = len > 0 ? Dense(session, indices_) : out_;
  const bool fixed = indices_.shape().ndim() == 2;
  const Tensor offsets = fixed ? out_ : Dense(session, offsets_);
  const bool has_psw = Defined(psw_) && len > 0;
  const Tensor psw = has_psw ? Dense(session, psw_) : out_;
  const bool cpu = session->host_cpu();
  auto& unit = Unit(session, "embedding_bag.cl", TypeOptions(weight_.dtype()),
                    cpu ? name() + "_cpu" : name());
  // GPUs take one more argument: the 16-column chunks per bag.
  auto set_args = [&](auto... more) {
    unit.SetArgs(Arg(weight), Arg(indices), Is64(indices), Arg(offsets), fixed ? 0 : Is64(offsets),
                 Arg(psw), static_cast<int>(has_psw), Arg(out_), static_cast<cl_ulong>(bags),
                 static_cast<cl_ulong>(dim), static_cast<cl_long>(weight_.shape().sizes()[0]),
                 static_cast<cl_long>(len),
                 static_cast<cl_long>(fixed ? 0 : offsets_.shape().sizes()[0]),
                 static_cast<cl_long>(fixed ? indices_.shape().sizes()[1] : 0),
                 static_cast<int>(option_.include_last_offset), static_cast<int>(option_.mode),
                 static_cast<cl_long>(option_.padding_idx), more...);
  };
  if (cpu) {
    set_args();
    Launch(unit, bags, kCpuRowLocal);
  } else {
    set_args(static_cast<cl_ulong>(chunks));
    Launch(unit, bags * chunks);
  }
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const EmbeddingBagOption&, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "EmbeddingBag", [](const std::string& n, const EmbeddingBagOption& o, TO wo, CB w, TO io,
                         CB i, TO fo, CB f, TO po, CB p, TO oo, MB out) {
        return std::make_shared<EmbeddingBagKernel>(n, o, MakeTensor(wo, w), MakeTensor(io, i),
                                                    MakeTensor(fo, f), MakeTensor(po, p),
                                                    MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
