#include "nerva/platform/cl/kernel/layout/pad.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

const char* ModeName(PadMode mode) {
  switch (mode) {
    case PadMode::kConstant:
      return "constant";
    case PadMode::kReflect:
      return "reflect";
    case PadMode::kReplicate:
      return "replicate";
    default:
      return "circular";
  }
}

}  // namespace

PadKernel::PadKernel(const PadOption& option, const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("Pad", "pad.cl", "Pad", input_opt, input, out_opt, out), option_(option) {}

bool PadKernel::Verify() const {
  const auto& in = input_.shape().sizes();
  const auto& pad = option_.pad;
  const int mode = static_cast<int>(option_.mode);
  if (mode < 0 || mode > 3) {
    throw std::invalid_argument(StrCat(name(), ": unknown mode ", mode));
  }
  if (pad.size() % 2 != 0 || pad.size() > 2 * in.size()) {
    throw std::invalid_argument(StrCat(name(), ": pad ", pad, " must hold (before, after) pairs",
                                       " for at most the ", in.size(), " dims of input ", in));
  }
  std::vector<long> sizes = in;
  for (size_t k = 0; k < pad.size() / 2; ++k) {
    const size_t d = in.size() - 1 - k;
    const long before = pad[2 * k], after = pad[2 * k + 1], n = in[d];
    const bool limited = option_.mode != PadMode::kConstant;
    const long limit = option_.mode == PadMode::kReflect ? n - 1 : n;
    if (limited && (before > 0 || after > 0) &&
        (n == 0 || (option_.mode != PadMode::kReplicate && (before > limit || after > limit)))) {
      throw std::runtime_error(StrCat(name(), ": ", ModeName(option_.mode), " padding (", before,
                                      ", ", after, ") does not fit dim ", d, " of input ", in));
    }
    sizes[d] = n + before + after;
    if (sizes[d] < 0) {
      throw std::runtime_error(StrCat(name(), ": padding (", before, ", ", after, ") of dim ", d,
                                      " leaves a negative size for input ", in));
    }
  }
  CheckUnary(sizes);
  return true;
}

void PadKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const size_t rank = input_.shape().ndim();
  std::vector<long> before(rank, 0);  // innermost first
  for (size_t k = 0; k < option_.pad.size() / 2; ++k) before[k] = option_.pad[2 * k];
  const ClTensor out_view(out_), in_view(input_);
  const std::vector<long> sizes = InnerSizes(out_);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(out_.option().item_size()), entry());
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(rank), Lanes(InnerSizes(input_), 1),
                Lanes(before, 0), static_cast<int>(option_.mode), out_.storage(), out_view.offset(),
                Lanes(InnerByteStrides(out_), 0), input_.storage(), in_view.offset(),
                Lanes(InnerByteStrides(input_), 0),
                static_cast<cl_ulong>(ElementBits(option_.value, out_.dtype())));
  unit->SetGlobal(WalkGlobal(sizes));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<PadKernel, const PadOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Pad");
};

}  // namespace cl
}  // namespace nerva
