#include "nerva/platform/cl/kernel/elementwise/glu_backward.h"

#include <stdexcept>
#include <utility>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

GLUBackwardKernel::GLUBackwardKernel(const GLUBackwardOption& option,
                                     const TensorOption& grad_output_opt, const Buffer& grad_output,
                                     const TensorOption& input_opt, const Buffer& input,
                                     const TensorOption& grad_input_opt, Buffer& grad_input)
    : KernelImpl("GLUBackward"),
      option_(option),
      grad_output_(MakeTensor(grad_output_opt, grad_output)),
      input_(MakeTensor(input_opt, input)),
      grad_input_(MakeTensor(grad_input_opt, grad_input)) {}

bool GLUBackwardKernel::Verify() const {
  const std::pair<const char*, const Tensor*> all[] = {
      {"grad_output", &grad_output_}, {"input", &input_}, {"grad_input", &grad_input_}};
  for (const auto& [what, t] : all) {
    if (!IsFloat(t->dtype()) || t->dtype() == kDouble) {
      throw std::invalid_argument(StrCat(name(), ": unsupported type ", t->dtype(), " of ", what));
    }
    if (t->shape().ndim() > 8) {
      throw std::invalid_argument(
          StrCat(name(), ": rank ", t->shape().ndim(), " of ", what, " exceeds 8"));
    }
    for (long s : t->shape().strides()) {
      if (s < 0) throw std::invalid_argument(StrCat(name(), ": negative stride of ", what));
    }
    if (t->shape().size() != 0 && !t->storage()) {
      throw std::runtime_error(StrCat(name(), ": ", what, " has no buffer"));
    }
  }
  if (rank() == 0)
    throw std::runtime_error(StrCat(name(), ": input must have a dimension to halve"));
  if (option_.dim < -rank() || option_.dim >= rank()) {
    throw std::out_of_range(
        StrCat(name(), ": dim ", option_.dim, " out of range for input ", input_.shape()));
  }
  std::vector<long> half = input_.shape().sizes();
  if (half[dim()] % 2 != 0) {
    throw std::runtime_error(StrCat(name(), ": halving dimension ", dim(), " of input ",
                                    input_.shape(), " must have an even size"));
  }
  half[dim()] /= 2;
  if (grad_output_.shape().sizes() != half) {
    throw std::runtime_error(StrCat(name(), ": grad_output ", grad_output_.shape(),
                                    " must be input ", input_.shape(), " halved along dim ", dim(),
                                    ", ", Shape(half)));
  }
  if (grad_input_.shape().sizes() != input_.shape().sizes()) {
    throw std::runtime_error(StrCat(name(), ": grad_input ", grad_input_.shape(),
                                    " must have the input's shape ", input_.shape()));
  }
  const DataType result = PromoteTypes({grad_output_.dtype(), input_.dtype()});
  if (!CanCast(result, grad_input_.dtype())) {
    throw std::invalid_argument(StrCat(name(), ": result type ", result,
                                       " can't be cast to the grad_input type ",
                                       grad_input_.dtype()));
  }
  if (SharesMemory(grad_input_, input_) || SharesMemory(grad_input_, grad_output_)) {
    throw std::runtime_error(StrCat(name(), ": grad_input overlaps an input"));
  }
  return true;
}

std::pair<Tensor, Tensor> GLUBackwardKernel::Halves(const Tensor& t) const {
  std::vector<long> sizes = t.shape().sizes();
  const long n = sizes[dim()] / 2;
  sizes[dim()] = n;
  const TensorOption half{Shape(sizes, t.shape().strides()), t.dtype()};
  const long second = n * t.shape().strides()[dim()] * static_cast<long>(t.option().item_size());
  return {Tensor(half, t.storage(), t.storage_offset()),
          Tensor(half, t.storage(), t.storage_offset() + second)};
}

void GLUBackwardKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (grad_output_.shape().size() == 0) return;
  const auto [a, b] = Halves(input_);
  const auto [ga, gb] = Halves(grad_input_);
  // One layout for the five views (all of grad_output's shape), grad_input's first half leading.
  const std::vector<Tensor> tensors = {ga, gb, grad_output_, a, b};
  const ElementwiseLayout layout = CoalesceLayout(ga, {gb, grad_output_, a, b});
  const DataType t = PromoteTypes({grad_output_.dtype(), input_.dtype()});
  const ElementwiseSpec spec{"glu_backward.cl", {t, t}, t, BuildOption()};
  auto unit = MakeSubKernel(
      session, ConcatenateStrings(name(), "glu"), ElementwiseSources(spec),
      ElementwiseOptions(spec, grad_input_.dtype(), {grad_output_.dtype(), input_.dtype()}, 1,
                         ElementwiseForm::kStrided),
      name());
  const size_t rank = layout.sizes.size();
  EwDims dims{};
  for (size_t d = 0; d < 8; ++d) {
    dims.sizes.s[d] = d < rank ? static_cast<cl_uint>(layout.sizes[d]) : 1;
  }
  unit->SetArgs(dims, static_cast<int>(rank));
  for (size_t i = 0; i < tensors.size(); ++i) {
    const ClTensor view(tensors[i]);
    EwStridedArg arg{view.mem(), view.offset(), {}, view.buffer()};
    for (size_t d = 0; d < rank; ++d) arg.strides.s[d] = static_cast<cl_uint>(layout.strides[i][d]);
    unit->SetArg(arg);
  }
  std::vector<size_t> global;
  for (size_t d = 0; d < std::min<size_t>(rank, 3); ++d) {
    global.push_back(static_cast<size_t>(layout.sizes[d]));
  }
  for (size_t d = 3; d < rank; ++d) global[2] *= static_cast<size_t>(layout.sizes[d]);
  unit->SetGlobal(global);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<GLUBackwardKernel, const GLUBackwardOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, const Buffer&, const TensorOption&, Buffer&>("GLUBackward");
};

}  // namespace cl
}  // namespace nerva
