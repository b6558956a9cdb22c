#include "nerva/platform/cl/kernel/layout/select_scatter.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/layout/slicescatter.h"
#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

std::vector<long> Without(std::vector<long> sizes, int dim) {
  sizes.erase(sizes.begin() + dim);
  return sizes;
}

}  // namespace

Tensor SelectView(const Tensor& t, int dim, long index) {
  return ViewOf(t, Without(t.shape().sizes(), dim), Without(t.shape().strides(), dim),
                index * t.shape().strides()[dim]);
}

// The position index along a dimension of size n, or std::out_of_range.
static long SelectIndex(const std::string& op, long index, long n, int dim) {
  if (index < -n || index >= n) {
    throw std::out_of_range(
        StrCat(op, ": index ", index, " out of range for dim ", dim, " of size ", n));
  }
  return index < 0 ? index + n : index;
}

SelectScatterKernel::SelectScatterKernel(const SelectScatterOption& option,
                                         const TensorOption& input_opt, const Buffer& input,
                                         const TensorOption& src_opt, const Buffer& src,
                                         const TensorOption& out_opt, Buffer& out)
    : LayoutKernel("SelectScatter", "select_scatter.cl", "SelectScatter"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      src_(MakeTensor(src_opt, src)),
      out_(MakeTensor(out_opt, out)) {}

bool SelectScatterKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(src_, "src");
  CheckTensor(out_, "out");
  CheckType(src_, input_.dtype(), "src");
  CheckType(out_, input_.dtype(), "out");
  CheckShape(out_, input_.shape().sizes(), "out");
  const int dim = Axis(option_.dim, input_.shape().ndim());
  SelectIndex(name(), option_.index, input_.shape().sizes()[dim], dim);
  CheckShape(src_, Without(input_.shape().sizes(), dim), "src");
  if (SharesMemory(input_, out_) && !SameOrSeparate(input_, out_)) {
    throw std::runtime_error(StrCat(name(), ": out overlaps input without being the same view"));
  }
  if (SharesMemory(src_, out_)) throw std::runtime_error(StrCat(name(), ": out overlaps src"));
  return true;
}

void SelectScatterKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const int dim = Axis(option_.dim, input_.shape().ndim());
  const long index = SelectIndex(name(), option_.index, input_.shape().sizes()[dim], dim);
  if (!SameOrSeparate(input_, out_)) AddMove(session, out_, input_);
  AddMove(session, SelectView(out_, dim, index), src_);
}

SelectBackwardKernel::SelectBackwardKernel(const SelectBackwardOption& option,
                                           const TensorOption& grad_output_opt,
                                           const Buffer& grad_output,
                                           const TensorOption& grad_input_opt, Buffer& grad_input)
    : UnaryMoveKernel("SelectBackward", "select_backward.cl", "SelectBackward", grad_output_opt,
                      grad_output, grad_input_opt, grad_input),
      option_(option) {}

bool SelectBackwardKernel::Verify() const {
  CheckTensor(input_, "grad_output");
  CheckTensor(out_, "grad_input");
  CheckType(out_, input_.dtype(), "grad_input");
  const int dim = Axis(option_.dim, out_.shape().ndim());
  SelectIndex(name(), option_.index, out_.shape().sizes()[dim], dim);
  CheckShape(input_, Without(out_.shape().sizes(), dim), "grad_output");
  if (SharesMemory(input_, out_)) {
    throw std::runtime_error(StrCat(name(), ": grad_input overlaps grad_output"));
  }
  return true;
}

void SelectBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const int dim = Axis(option_.dim, out_.shape().ndim());
  const long index = SelectIndex(name(), option_.index, out_.shape().sizes()[dim], dim);
  AddFill(session, out_, 0);
  AddMove(session, SelectView(out_, dim, index), input_);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<SelectScatterKernel, const SelectScatterOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
          "SelectScatter");
  ClModule::singleton()
      .AddKernel<SelectBackwardKernel, const SelectBackwardOption&, const TensorOption&,
                 const Buffer&, const TensorOption&, Buffer&>("SelectBackward");
};

}  // namespace cl
}  // namespace nerva
