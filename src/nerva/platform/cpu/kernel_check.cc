#include "nerva/platform/cpu/kernel_check.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "nerva/util.h"

namespace nerva::cpu {
namespace {

void CheckType(const char* op, const char* which, DataType type) {
  if (type < kHalf || type > kBool) {
    throw std::invalid_argument(StrCat(op, ": unsupported ", which, " type ", type));
  }
}

// Both types valid; equal too when the call copies without conversion.
void CheckTypes(const char* op, const TensorOption& in, const TensorOption& out, bool same) {
  CheckType(op, "input", in.dtype);
  CheckType(op, "output", out.dtype);
  if (same && in.dtype != out.dtype) {
    throw std::invalid_argument(
        StrCat(op, ": input type ", in.dtype, " and output type ", out.dtype, " differ"));
  }
}

void CheckRank(const char* op, const TensorOption& in) {
  if (in.shape.ndim() == 0) throw std::runtime_error(StrCat(op, ": input has no dimensions"));
}

void ExpectOutput(const char* op, const TensorOption& out, const std::vector<long>& expected) {
  if (out.shape.sizes() != expected) {
    throw std::runtime_error(
        StrCat(op, ": output shape ", out.shape.sizes(), " should be ", expected));
  }
}

}  // namespace

void CheckPermuteArgs(const PermuteOption& option, const TensorOption& in_opt, const Buffer&,
                      const TensorOption& out_opt, Buffer&) {
  CheckTypes("Permute", in_opt, out_opt, true);
  CheckRank("Permute", in_opt);
  const std::vector<long>& sizes = in_opt.shape.sizes();
  const std::vector<int>& order = option.dims;
  std::vector<int> sorted = order;
  std::sort(sorted.begin(), sorted.end());
  bool permutation = order.size() == sizes.size();
  for (size_t i = 0; permutation && i < sorted.size(); ++i) {
    permutation = sorted[i] == static_cast<int>(i);
  }
  if (!permutation) {
    throw std::runtime_error(StrCat("Permute: order ", order, " is no permutation of the input's ",
                                    sizes.size(), " dimensions"));
  }
  std::vector<long> expected;
  for (int axis : order) expected.push_back(sizes[axis]);
  ExpectOutput("Permute", out_opt, expected);
}

void CheckSliceArgs(const SliceOption& option, const TensorOption& in_opt, const Buffer&,
                    const TensorOption& out_opt, Buffer&) {
  CheckTypes("Slice", in_opt, out_opt, false);
  CheckRank("Slice", in_opt);
  const std::vector<long>& sizes = in_opt.shape.sizes();
  const size_t rank = sizes.size();
  if (option.starts.size() != rank || option.ends.size() != rank || option.steps.size() != rank) {
    throw std::runtime_error(StrCat("Slice: starts ", option.starts, ", ends ", option.ends,
                                    " and steps ", option.steps,
                                    " need one entry per dimension of ", in_opt.shape));
  }
  std::vector<long> expected;
  for (size_t i = 0; i < rank; ++i) {
    const long start = option.starts[i], end = option.ends[i], step = option.steps[i];
    if (step <= 0 || start < 0 || start >= end || end - start < step) {
      throw std::runtime_error(StrCat("Slice: range [", start, ", ", end, ") with step ", step,
                                      " is invalid for dim ", i, " of size ", sizes[i]));
    }
    const long stop = std::min(end, sizes[i]);
    expected.push_back(std::max(0L, (stop - start + step - 1) / step));
  }
  ExpectOutput("Slice", out_opt, expected);
}

void CheckTileArgs(const TensorOption& in_opt, const Buffer&, const TensorOption& out_opt,
                   Buffer&) {
  CheckTypes("Tile", in_opt, out_opt, true);
  CheckRank("Tile", in_opt);
  const std::vector<long>& in = in_opt.shape.sizes();
  const std::vector<long>& out = out_opt.shape.sizes();
  const size_t lead = out.size() >= in.size() ? out.size() - in.size() : 0;
  bool ok = out.size() >= in.size();
  for (size_t i = 0; ok && i < in.size(); ++i) {
    ok = in[i] > 0 && out[lead + i] % in[i] == 0;
  }
  if (!ok) {
    throw std::runtime_error(
        StrCat("Tile: output shape ", out, " is no tiling of input shape ", in));
  }
}

void CheckBroadcastToArgs(const TensorOption& in_opt, const Buffer&, const TensorOption& out_opt,
                          Buffer&) {
  CheckTypes("BroadcastTo", in_opt, out_opt, true);
  CheckRank("BroadcastTo", in_opt);
  const std::vector<long>& in = in_opt.shape.sizes();
  const std::vector<long>& out = out_opt.shape.sizes();
  if (out.size() < in.size() || !CanBroadcast(in, out) || BroadcastSizes(in, out) != out) {
    throw std::runtime_error(StrCat("BroadcastTo: cannot broadcast ", in, " to ", out));
  }
}

}  // namespace nerva::cpu
