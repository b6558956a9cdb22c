#include "nerva/platform/cl/kernel/layout/slice.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

SliceRanges NormalizeSlice(const std::string& op, const std::vector<long>& sizes,
                           const std::vector<long>& starts, const std::vector<long>& ends,
                           const std::vector<long>& steps) {
  if (starts.size() != ends.size() || (!steps.empty() && steps.size() != starts.size())) {
    throw std::invalid_argument(StrCat(op, ": starts ", starts, ", ends ", ends, " and steps ",
                                       steps, " differ in length"));
  }
  if (starts.size() > sizes.size()) {
    throw std::out_of_range(StrCat(op, ": ", starts.size(), " sliced dims exceed rank ",
                                   sizes.size(), " of input ", sizes));
  }
  SliceRanges ranges;
  for (size_t d = 0; d < starts.size(); ++d) {
    const long n = sizes[d];
    const long step = steps.empty() ? 1 : steps[d];
    if (step < 1) {
      throw std::invalid_argument(
          StrCat(op, ": slice step ", step, " of dim ", d, " must be positive"));
    }
    long start = starts[d] < 0 ? starts[d] + n : starts[d];
    long end = ends[d] < 0 ? ends[d] + n : ends[d];
    start = std::clamp(start, 0L, n);
    end = std::clamp(end, start, n);
    ranges.starts.push_back(start);
    ranges.steps.push_back(step);
    ranges.counts.push_back((end - start + step - 1) / step);
  }
  return ranges;
}

std::vector<long> SlicedSizes(const std::vector<long>& sizes, const SliceRanges& ranges) {
  std::vector<long> result = sizes;
  std::copy(ranges.counts.begin(), ranges.counts.end(), result.begin());
  return result;
}

Tensor SliceView(const Tensor& t, const SliceRanges& ranges) {
  std::vector<long> strides = t.shape().strides();
  long offset = 0;
  bool empty = false;
  for (size_t d = 0; d < ranges.starts.size(); ++d) {
    empty = empty || ranges.counts[d] == 0;
    offset += ranges.starts[d] * strides[d];
    strides[d] *= ranges.steps[d];
  }
  // An empty slice may start at the end of its dimension: keep it at the tensor's start.
  return ViewOf(t, SlicedSizes(t.shape().sizes(), ranges), strides, empty ? 0 : offset);
}

SliceKernel::SliceKernel(const SliceOption& option, const TensorOption& input_opt,
                         const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : LayoutKernel("Slice", "slice.cl", "Slice"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      out_(MakeTensor(out_opt, out)) {}

bool SliceKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  const SliceRanges ranges =
      NormalizeSlice(name(), input_.shape().sizes(), option_.starts, option_.ends, option_.steps);
  CheckShape(out_, SlicedSizes(input_.shape().sizes(), ranges), "out");
  return true;
}

void SliceKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const SliceRanges ranges =
      NormalizeSlice(name(), input_.shape().sizes(), option_.starts, option_.ends, option_.steps);
  AddMove(session, out_, SliceView(input_, ranges));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SliceKernel, const SliceOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Slice");
};

}  // namespace cl
}  // namespace nerva
