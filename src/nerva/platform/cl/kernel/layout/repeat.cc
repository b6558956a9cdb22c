#include "nerva/platform/cl/kernel/layout/repeat.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/layout/tile.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

RepeatKernel::RepeatKernel(const RepeatOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("Repeat", "repeat.cl", "Repeat", input_opt, input, out_opt, out),
      option_(option) {}

bool RepeatKernel::Verify() const {
  const auto& in = input_.shape().sizes();
  const auto& reps = option_.repeats;
  if (reps.size() < in.size()) {
    throw std::runtime_error(
        StrCat(name(), ": repeats ", reps, " have fewer entries than input ", in, " has dims"));
  }
  std::vector<long> sizes;
  for (size_t d = 0; d < reps.size(); ++d) {
    if (reps[d] < 0) {
      throw std::invalid_argument(StrCat(name(), ": negative repeat in ", reps));
    }
    const size_t lead = reps.size() - in.size();
    sizes.push_back(reps[d] * (d < lead ? 1 : in[d - lead]));
  }
  CheckUnary(sizes);
  return true;
}

void RepeatKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const auto views = TiledViews(out_, input_);
  AddMove(session, views.first, views.second);
}

RepeatInterleaveKernel::RepeatInterleaveKernel(const RepeatOption& option,
                                               const TensorOption& input_opt, const Buffer& input,
                                               const TensorOption& repeats_opt,
                                               const Buffer& repeats,
                                               const TensorOption& cumsum_opt, const Buffer& cumsum,
                                               const TensorOption& out_opt, Buffer& out)
    : LayoutKernel("Repeat_Interleave", "repeat.cl", "RepeatInterleave"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      repeats_(MakeTensor(repeats_opt, repeats)),
      cumsum_(MakeTensor(cumsum_opt, cumsum)),
      out_(MakeTensor(out_opt, out)) {}

bool RepeatInterleaveKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  const auto& in = input_.shape().sizes();
  const int dim = Axis(option_.dim, in.size());
  for (const Tensor* t : {&repeats_, &cumsum_}) {
    const char* what = t == &repeats_ ? "repeats" : "repeats_cumsum";
    if (t->dtype() != kInt32 && t->dtype() != kInt64) {
      throw std::invalid_argument(StrCat(name(), ": ", what, " type ", t->dtype(),
                                         " is not DataType::kInt32 or DataType::kInt64"));
    }
    const auto& s = t->shape().sizes();
    if (s.size() != 1 || (s[0] != 1 && s[0] != in[dim])) {
      throw std::runtime_error(StrCat(name(), ": ", what, " shape ", s, " must be [1] or [",
                                      in[dim], "] for input ", in, " along dim ", dim));
    }
  }
  if (cumsum_.shape().sizes() != repeats_.shape().sizes()) {
    throw std::runtime_error(StrCat(name(), ": repeats_cumsum shape ", cumsum_.shape().sizes(),
                                    " differs from repeats ", repeats_.shape().sizes()));
  }
  std::vector<long> expected = in;
  expected[dim] = out_.shape().ndim() == in.size() ? out_.shape().sizes()[dim] : -1;
  const bool scalar = repeats_.shape().sizes()[0] == 1 && in[dim] != 1;
  if (expected[dim] < 0 || (scalar && in[dim] != 0 && expected[dim] % in[dim] != 0) ||
      (in[dim] == 0 && expected[dim] != 0)) {
    expected[dim] = -1;  // no total fits: report the mismatch
  }
  CheckShape(out_, expected, "out");
  return true;
}

void RepeatInterleaveKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const size_t rank = out_.shape().ndim();
  const int dim = Axis(option_.dim, rank);
  const long item = static_cast<long>(out_.option().item_size());
  const ClTensor out_view(out_), in_view(input_), cum_view(cumsum_);
  const std::vector<long> sizes = InnerSizes(out_);
  const int axis = static_cast<int>(rank - 1 - dim);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(static_cast<size_t>(item)), entry());
  const long cum_item = static_cast<long>(cumsum_.option().item_size());
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(rank), axis,
                static_cast<cl_uint>(input_.shape().sizes()[dim]), out_.storage(),
                out_view.offset(), Lanes(InnerByteStrides(out_), 0), input_.storage(),
                in_view.offset(), Lanes(InnerByteStrides(input_), 0), cumsum_.storage(),
                cum_view.offset(), static_cast<cl_uint>(cumsum_.shape().strides()[0] * cum_item),
                static_cast<cl_uint>(cumsum_.shape().sizes()[0]),
                static_cast<cl_uint>(cum_item == 8));
  unit->SetGlobal(WalkGlobal(sizes));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<RepeatKernel, const RepeatOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Repeat");
  ClModule::singleton()
      .AddKernel<RepeatInterleaveKernel, const RepeatOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Repeat_Interleave");
};

}  // namespace cl
}  // namespace nerva
