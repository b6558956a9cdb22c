#include "nerva/platform/cl/kernel/index/embedding_bag_backward.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel/index/embedding_bag.h"

namespace nerva {
namespace cl {

EmbeddingBagBackwardKernel::EmbeddingBagBackwardKernel(std::string name,
                                                       const EmbeddingBagBackwardOption& option,
                                                       Tensor grad, Tensor indices, Tensor offsets,
                                                       Tensor offset2bag, Tensor max_indices,
                                                       Tensor per_sample_weights,
                                                       Tensor grad_weight)
    : IndexFrameKernel(std::move(name)),
      option_(option),
      grad_(std::move(grad)),
      indices_(std::move(indices)),
      offsets_(std::move(offsets)),
      offset2bag_(std::move(offset2bag)),
      max_indices_(std::move(max_indices)),
      psw_(std::move(per_sample_weights)),
      grad_weight_(std::move(grad_weight)) {}

bool EmbeddingBagBackwardKernel::Verify() const {
  CheckBagMode(name(), option_.mode);
  if (grad_.dtype() != kFloat && grad_.dtype() != kHalf) {
    throw std::invalid_argument(
        StrCat(name(), ": grad must be float or half, got ", grad_.dtype()));
  }
  if (grad_.shape().ndim() != 2 || grad_weight_.shape().ndim() != 2) {
    throw std::runtime_error(StrCat(name(), ": grad ", grad_.shape(), " and grad_weight ",
                                    grad_weight_.shape(), " must be 2-D"));
  }
  const long dim = grad_.shape().sizes()[1];
  CheckOut("grad_weight", grad_weight_, {grad_weight_.shape().sizes()[0], dim}, grad_.dtype());
  CheckIndexType("indices", indices_);
  const long len = ElementCount(indices_);
  if (Defined(offset2bag_)) {
    CheckIndexType("offset2bag", offset2bag_);
    CheckSizes("offset2bag", offset2bag_, {len});
  } else {
    if (!Defined(offsets_) || offsets_.shape().ndim() != 1 || indices_.shape().ndim() != 1) {
      throw std::runtime_error(
          StrCat(name(), ": without offset2bag, 1-D indices and 1-D offsets are needed"));
    }
    CheckIndexType("offsets", offsets_);
  }
  if (option_.mode == EmbeddingBagMode::kMax) {
    if (!Defined(max_indices_))
      throw std::runtime_error(StrCat(name(), ": kMax needs max_indices"));
    CheckIndexType("max_indices", max_indices_);
    CheckSizes("max_indices", max_indices_, grad_.shape().sizes());
  }
  if (Defined(psw_)) {
    if (option_.mode != EmbeddingBagMode::kSum) {
      throw std::invalid_argument(StrCat(name(), ": per_sample_weights need mode kSum"));
    }
    CheckSameType("per_sample_weights", psw_, grad_.dtype());
    CheckSizes("per_sample_weights", psw_, indices_.shape().sizes());
  }
  return true;
}

void EmbeddingBagBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long rows = grad_weight_.shape().sizes()[0];
  const long dim = grad_.shape().sizes()[1];
  const long bags = grad_.shape().sizes()[0];
  const long total = rows * dim;
  if (total == 0) return;
  const long len = ElementCount(indices_);
  const bool max_mode = option_.mode == EmbeddingBagMode::kMax;
  const BuildOption options = TypeOptions(grad_.dtype());
  Buffer acc = Scratch(session, total * 4);
  Buffer freq = Scratch(session, rows * 4);
  Buffer bag_size = Scratch(session, std::max(bags, 1L) * 4);
  auto& pre = Unit(session, "embedding_bag_backward_pre.cl", options, "embedding_bag_backward_pre");
  pre.SetArgs(acc, freq, bag_size, static_cast<cl_ulong>(total), static_cast<cl_long>(rows),
              static_cast<cl_long>(bags));
  Launch(pre, std::max(total, bags));
  const long n = max_mode ? bags * dim : len * dim;
  if (n > 0) {
    const Tensor grad = Dense(session, grad_);
    const Tensor indices = len ? Dense(session, indices_) : grad;
    const bool has_o2b = Defined(offset2bag_) && len > 0;
    const Tensor o2b = has_o2b ? Dense(session, offset2bag_) : grad;
    const bool has_off = !has_o2b && Defined(offsets_) && ElementCount(offsets_) > 0;
    const Tensor off = has_off ? Dense(session, offsets_) : grad;
    const Tensor maxi = max_mode ? Dense(session, max_indices_) : grad;
    const bool has_psw = Defined(psw_) && len > 0;
    const Tensor psw = has_psw ? Dense(session, psw_) : grad;
    const auto pad = static_cast<cl_long>(option_.padding_idx);
    const auto noff = static_cast<cl_long>(has_off ? ElementCount(offsets_) : 0);
    const auto o2b_len = static_cast<cl_long>(has_o2b ? len : 0);
    if (len > 0) {
      auto& count =
          Unit(session, "embedding_bag_backward_pre.cl", options, "embedding_bag_backward_count");
      count.SetArgs(Arg(indices), Is64(indices), Arg(o2b), Is64(o2b), o2b_len, Arg(off), Is64(off),
                    noff, freq, bag_size, static_cast<cl_long>(len), static_cast<cl_long>(rows),
                    static_cast<cl_long>(bags), pad);
      Launch(count, len);
    }
    auto& unit = Unit(session, "embedding_bag_backward.cl", options, name());
    unit.SetArgs(Arg(grad), Arg(indices), Is64(indices), Arg(o2b), Is64(o2b), o2b_len, Arg(off),
                 Is64(off), noff, Arg(maxi), Is64(maxi), Arg(psw), static_cast<int>(has_psw), freq,
                 bag_size, acc, static_cast<cl_ulong>(n), static_cast<cl_ulong>(dim),
                 static_cast<cl_long>(rows), static_cast<cl_long>(bags),
                 static_cast<int>(option_.mode),
                 static_cast<int>(option_.scale_grad_by_freq && !max_mode), pad);
    Launch(unit, n);
  }
  auto& store = Unit(session, "embedding_bag_backward.cl", options, "embedding_bag_backward_store");
  store.SetArgs(acc, Arg(grad_weight_), static_cast<cl_ulong>(total));
  Launch(store, total);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const EmbeddingBagBackwardOption&, TO, CB, TO, CB, TO, CB, TO, CB, TO, CB, TO,
                      CB, TO, MB>(
      "EmbeddingBagBackward",
      [](const std::string& n, const EmbeddingBagBackwardOption& o, TO go, CB g, TO io, CB i, TO fo,
         CB f, TO bo, CB b, TO mo, CB m, TO po, CB p, TO wo, MB w) {
        return std::make_shared<EmbeddingBagBackwardKernel>(
            n, o, MakeTensor(go, g), MakeTensor(io, i), MakeTensor(fo, f), MakeTensor(bo, b),
            MakeTensor(mo, m), MakeTensor(po, p), MakeTensor(wo, w));
      });
};

}  // namespace cl
}  // namespace nerva
