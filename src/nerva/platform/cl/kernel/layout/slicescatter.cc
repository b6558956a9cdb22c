#include "nerva/platform/cl/kernel/layout/slicescatter.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/layout/slice.h"
#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

bool SameOrSeparate(const Tensor& input, const Tensor& out) {
  if (!SharesMemory(input, out)) return false;
  return input.storage().get() == out.storage().get() &&
         input.storage_offset() == out.storage_offset() && input.shape() == out.shape();
}

SliceScatterKernel::SliceScatterKernel(const SliceOption& option, const TensorOption& input_opt,
                                       const Buffer& input, const TensorOption& src_opt,
                                       const Buffer& src, const TensorOption& out_opt, Buffer& out)
    : LayoutKernel("SliceScatter", "slicescatter.cl", "SliceScatter"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      src_(MakeTensor(src_opt, src)),
      out_(MakeTensor(out_opt, out)) {}

bool SliceScatterKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(src_, "src");
  CheckTensor(out_, "out");
  CheckType(src_, input_.dtype(), "src");
  CheckType(out_, input_.dtype(), "out");
  CheckShape(out_, input_.shape().sizes(), "out");
  const SliceRanges ranges =
      NormalizeSlice(name(), input_.shape().sizes(), option_.starts, option_.ends, option_.steps);
  CheckShape(src_, SlicedSizes(input_.shape().sizes(), ranges), "src");
  if (SharesMemory(input_, out_) && !SameOrSeparate(input_, out_)) {
    throw std::runtime_error(StrCat(name(), ": out overlaps input without being the same view"));
  }
  if (SharesMemory(src_, out_)) {
    throw std::runtime_error(StrCat(name(), ": out overlaps src"));
  }
  return true;
}

void SliceScatterKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (!SameOrSeparate(input_, out_)) AddMove(session, out_, input_);
  const SliceRanges ranges =
      NormalizeSlice(name(), input_.shape().sizes(), option_.starts, option_.ends, option_.steps);
  AddMove(session, SliceView(out_, ranges), src_);
}

SliceBackwardKernel::SliceBackwardKernel(const SliceBackwardOption& option,
                                         const TensorOption& grad_output_opt,
                                         const Buffer& grad_output,
                                         const TensorOption& grad_input_opt, Buffer& grad_input)
    : UnaryMoveKernel("SliceBackward", "slicescatter.cl", "SliceScatter", grad_output_opt,
                      grad_output, grad_input_opt, grad_input),
      option_(option) {}

SliceOption SliceBackwardKernel::AsSlice() const {
  const auto& sizes = out_.shape().sizes();
  const int dim = Axis(option_.dim, sizes.size());
  SliceOption slice;
  for (int d = 0; d < dim; ++d) {
    slice.starts.push_back(0);
    slice.ends.push_back(sizes[d]);
    slice.steps.push_back(1);
  }
  slice.starts.push_back(option_.start);
  slice.ends.push_back(option_.end);
  slice.steps.push_back(option_.step);
  return slice;
}

bool SliceBackwardKernel::Verify() const {
  CheckTensor(input_, "grad_output");
  CheckTensor(out_, "grad_input");
  CheckType(out_, input_.dtype(), "grad_input");
  const SliceOption slice = AsSlice();
  const SliceRanges ranges =
      NormalizeSlice(name(), out_.shape().sizes(), slice.starts, slice.ends, slice.steps);
  CheckShape(input_, SlicedSizes(out_.shape().sizes(), ranges), "grad_output");
  if (SharesMemory(input_, out_)) {
    throw std::runtime_error(StrCat(name(), ": grad_input overlaps grad_output"));
  }
  return true;
}

void SliceBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const SliceOption slice = AsSlice();
  const SliceRanges ranges =
      NormalizeSlice(name(), out_.shape().sizes(), slice.starts, slice.ends, slice.steps);
  AddFill(session, out_, 0);
  AddMove(session, SliceView(out_, ranges), input_);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SliceScatterKernel, const SliceOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("SliceScatter");
  ClModule::singleton()
      .AddKernel<SliceBackwardKernel, const SliceBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("SliceBackward");
};

}  // namespace cl
}  // namespace nerva
