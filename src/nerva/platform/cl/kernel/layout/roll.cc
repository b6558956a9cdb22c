#include "nerva/platform/cl/kernel/layout/roll.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

long Wrap(long shift, long n) {
  return n == 0 ? 0 : ((shift % n) + n) % n;
}

}  // namespace

RollKernel::RollKernel(const RollOption& option, const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("Roll", "roll.cl", "Roll", input_opt, input, out_opt, out), option_(option) {}

bool RollKernel::Verify() const {
  CheckUnary(input_.shape().sizes());
  const size_t expected = option_.dims.empty() ? 1 : option_.dims.size();
  if (option_.shifts.size() != expected) {
    throw std::runtime_error(
        StrCat(name(), ": shifts ", option_.shifts, " and dims ", option_.dims, " must align"));
  }
  for (int d : option_.dims) Axis(d, input_.shape().ndim());
  return true;
}

void RollKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const size_t rank = input_.shape().ndim();
  const ClTensor out_view(out_), in_view(input_);
  const std::vector<long> sizes = InnerSizes(out_);
  const auto views = [&] {
    return std::make_tuple(out_.storage(), out_view.offset(), Lanes(InnerByteStrides(out_), 0),
                           input_.storage(), in_view.offset(), Lanes(InnerByteStrides(input_), 0));
  };
  const auto program = ProgramName();
  if (option_.dims.empty()) {
    const long n = out_.shape().size();
    auto unit = MakeSubKernel(session, program, MoveSources(),
                              MoveOptions(out_.option().item_size()), "RollFlat");
    const auto [om, oo, os, im, io, is] = views();
    unit->SetArgs(Lanes(sizes, 1), static_cast<cl_uint>(n),
                  static_cast<cl_uint>(Wrap(option_.shifts[0], n)), om, oo, os, im, io, is);
    unit->SetGlobal({static_cast<size_t>(n)});
    return;
  }
  std::vector<long> shifts(rank, 0);  // tensor order
  for (size_t i = 0; i < option_.dims.size(); ++i) {
    const int axis = Axis(option_.dims[i], rank);
    shifts[axis] = Wrap(shifts[axis] + Wrap(option_.shifts[i], input_.shape().sizes()[axis]),
                        input_.shape().sizes()[axis]);
  }
  auto unit = MakeSubKernel(session, program, MoveSources(), MoveOptions(out_.option().item_size()),
                            "Roll");
  const auto [om, oo, os, im, io, is] = views();
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(rank),
                Lanes(std::vector<long>(shifts.rbegin(), shifts.rend()), 0), om, oo, os, im, io,
                is);
  unit->SetGlobal(WalkGlobal(sizes));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<RollKernel, const RollOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Roll");
};

}  // namespace cl
}  // namespace nerva
