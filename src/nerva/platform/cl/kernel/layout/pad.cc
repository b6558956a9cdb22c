#include "nerva/platform/cl/kernel/layout/pad.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
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
    : UnaryMoveKernel("Pad", "pad.cl", "PadMove", input_opt, input, out_opt, out),
      option_(option) {}

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
  std::vector<long> before(rank, 0), after(rank, 0);  // tensor order
  for (size_t k = 0; k < option_.pad.size() / 2; ++k) {
    before[rank - 1 - k] = option_.pad[2 * k];
    after[rank - 1 - k] = option_.pad[2 * k + 1];
  }
  bool cropped = false;
  for (size_t d = 0; d < rank; ++d) cropped = cropped || before[d] < 0 || after[d] < 0;
  if (!session->host_cpu() && input_.shape().size() > 0 && out_.shape().size() <= 0xFFFFFFFFL) {
    CompileFlat(session, before);
    return;
  }
  if (cropped && option_.mode != PadMode::kConstant) {
    CompileGeneric(session, before);
    return;
  }
  if (CompileRows(session, before, after, cropped)) return;
  // The interior: a plain move of the input's overlap with the output.
  const auto& n = input_.shape().sizes();
  const auto& out_sizes = out_.shape().sizes();
  std::vector<long> lo(rank), len(rank);
  long out_at = 0, in_at = 0;
  bool empty = false;
  for (size_t d = 0; d < rank; ++d) {
    lo[d] = std::max(before[d], 0L);
    len[d] = std::max(n[d] + std::min(before[d], 0L) + std::min(after[d], 0L), 0L);
    out_at += lo[d] * out_.shape().strides()[d];
    in_at += std::max(-before[d], 0L) * input_.shape().strides()[d];
    empty = empty || len[d] == 0;
  }
  if (!empty) {
    AddMove(session, ViewOf(out_, len, out_.shape().strides(), out_at),
            ViewOf(input_, len, input_.shape().strides(), in_at));
  }
  // The border, one slab before and one after each padded dim. Constant
  // mode fills it; the others copy it from the output itself, dim by dim:
  // dims already done span the whole output, later ones only the interior.
  const bool fill = option_.mode == PadMode::kConstant;
  const uint64_t bits = ElementBits(option_.value, out_.dtype());
  const long item = static_cast<long>(out_.option().item_size());
  std::vector<long> start = lo, sizes = len;
  for (size_t d = 0; d < rank; ++d) {
    if (fill) {  // earlier dims interior, later ones whole: slabs stay disjoint
      start = lo;
      sizes = len;
      for (size_t e = d + 1; e < rank; ++e) start[e] = 0, sizes[e] = out_sizes[e];
    }
    const long pieces[2][2] = {{0, before[d]}, {lo[d] + len[d], out_sizes[d] - lo[d] - len[d]}};
    for (int side = 0; side < 2; ++side) {
      if (pieces[side][1] <= 0) continue;
      start[d] = pieces[side][0];
      sizes[d] = pieces[side][1];
      long at = 0;
      for (size_t e = 0; e < rank; ++e) at += start[e] * out_.shape().strides()[e];
      if (fill) {
        AddFill(session, ViewOf(out_, sizes, out_.shape().strides(), at), bits);
        continue;
      }
      // Where out position start[d] + k along d reads from, and the step.
      long from = 0, step = 0;
      if (option_.mode == PadMode::kReflect) {
        from = side ? before[d] + n[d] - 2 : 2 * before[d], step = -1;
      } else if (option_.mode == PadMode::kReplicate) {
        from = side ? before[d] + n[d] - 1 : before[d];
      } else {
        from = side ? before[d] : n[d], step = 1;
      }
      std::vector<long> os, is;  // innermost first, bytes
      for (size_t e = rank; e-- > 0;) {
        const long stride = out_.shape().strides()[e] * item;
        os.push_back(stride);
        is.push_back(e == d ? step * stride : stride);
      }
      const ClTensor view(out_);
      const long base = view.offset();
      const long src = base + (at + (from - start[d]) * out_.shape().strides()[d]) * item;
      AddMoveLayout(session, out_, out_, std::vector<long>(sizes.rbegin(), sizes.rend()), os, is,
                    base + at * item, src);
    }
    start[d] = 0, sizes[d] = out_sizes[d];  // this dim is now whole
  }
}

bool PadKernel::CompileRows(const std::shared_ptr<SessionImpl>& session,
                            const std::vector<long>& before, const std::vector<long>& after,
                            bool cropped) {
  const size_t rank = input_.shape().ndim();
  if (!session->host_cpu() || cropped || rank < 2 || !input_.is_contiguous() ||
      !out_.is_contiguous() || out_.shape().size() > 0xFFFFFFFFL || input_.shape().size() == 0) {
    return false;
  }
  for (size_t d = 0; d + 2 < rank; ++d) {
    if (before[d] != 0 || after[d] != 0) return false;
  }
  const auto& n = input_.shape().sizes();
  const auto& out_sizes = out_.shape().sizes();
  long planes = 1;
  for (size_t d = 0; d + 2 < rank; ++d) planes *= n[d];
  const ClTensor out_view(out_), in_view(input_);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(out_.option().item_size()), "PadRows");
  unit->SetArgs(static_cast<cl_uint>(n[rank - 1]), static_cast<cl_uint>(n[rank - 2]),
                static_cast<cl_uint>(out_sizes[rank - 1]),
                static_cast<cl_uint>(out_sizes[rank - 2]), static_cast<int>(before[rank - 1]),
                static_cast<int>(before[rank - 2]), static_cast<int>(option_.mode), out_.storage(),
                out_view.offset(), input_.storage(), in_view.offset(),
                static_cast<cl_ulong>(ElementBits(option_.value, out_.dtype())));
  unit->SetGlobal({static_cast<size_t>(planes)}).SetLocal({1});
  return true;
}

void PadKernel::CompileGeneric(const std::shared_ptr<SessionImpl>& session,
                               const std::vector<long>& before_in_order) {
  const size_t rank = input_.shape().ndim();
  const std::vector<long> before(before_in_order.rbegin(), before_in_order.rend());
  const ClTensor out_view(out_), in_view(input_);
  const std::vector<long> sizes = InnerSizes(out_);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(out_.option().item_size()), "Pad");
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(rank), Lanes(InnerSizes(input_), 1),
                Lanes(before, 0), static_cast<int>(option_.mode), out_.storage(), out_view.offset(),
                Lanes(InnerByteStrides(out_), 0), input_.storage(), in_view.offset(),
                Lanes(InnerByteStrides(input_), 0),
                static_cast<cl_ulong>(ElementBits(option_.value, out_.dtype())));
  unit->SetGlobal(WalkGlobal(sizes));
}

void PadKernel::CompileFlat(const std::shared_ptr<SessionImpl>& session,
                            const std::vector<long>& before_in_order) {
  // Innermost first; an unpadded dim merges into the unpadded one inside it
  // when both layouts step over it exactly.
  std::vector<long> sizes, in_sizes, before, os, is;
  const std::vector<long> out_sizes = InnerSizes(out_), n = InnerSizes(input_);
  const std::vector<long> out_strides = InnerByteStrides(out_),
                          in_strides = InnerByteStrides(input_);
  for (size_t d = 0; d < out_sizes.size(); ++d) {
    const long b = before_in_order[out_sizes.size() - 1 - d];
    const bool plain = b == 0 && n[d] == out_sizes[d];
    if (plain && !sizes.empty() && before.back() == 0 && in_sizes.back() == sizes.back() &&
        out_strides[d] == os.back() * sizes.back() && in_strides[d] == is.back() * sizes.back()) {
      sizes.back() *= out_sizes[d];
      in_sizes.back() = sizes.back();
      continue;
    }
    sizes.push_back(out_sizes[d]);
    in_sizes.push_back(n[d]);
    before.push_back(b);
    os.push_back(out_strides[d]);
    is.push_back(in_strides[d]);
  }
  const ClTensor out_view(out_), in_view(input_);
  auto unit = MakeSubKernel(session, ProgramName(), MoveSources(),
                            MoveOptions(out_.option().item_size()), "PadFlat");
  const long total = out_.shape().size();
  unit->SetArgs(Lanes(sizes, 1), static_cast<int>(sizes.size()), Lanes(in_sizes, 1),
                Lanes(before, 0), static_cast<int>(option_.mode), out_.storage(), out_view.offset(),
                Lanes(os, 0), input_.storage(), in_view.offset(), Lanes(is, 0),
                static_cast<cl_ulong>(ElementBits(option_.value, out_.dtype())),
                static_cast<cl_uint>(total));
  unit->SetGlobal({static_cast<size_t>(total)}).SetLocal({256});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<PadKernel, const PadOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Pad");
};

}  // namespace cl
}  // namespace nerva
