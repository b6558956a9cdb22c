#include "nerva/platform/cl/kernel/layout/flip.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

FlipKernel::FlipKernel(const FlipOption& option, const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("Flip", "flip.cl", "Flip", input_opt, input, out_opt, out), option_(option) {}

bool FlipKernel::Verify() const {
  CheckUnary(input_.shape().sizes());
  std::vector<bool> seen(input_.shape().ndim(), false);
  for (int d : option_.dims) {
    const int axis = Axis(d, input_.shape().ndim());
    if (seen[axis]) {
      throw std::runtime_error(
          StrCat(name(), ": dim ", d, " appears twice in dims ", option_.dims));
    }
    seen[axis] = true;
  }
  return true;
}

void FlipKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  const size_t rank = input_.shape().ndim();
  std::vector<long> in_strides = input_.strides_in_bytes();
  const ClTensor out_view(out_), in_view(input_);
  long in_offset = in_view.offset();
  for (int d : option_.dims) {  // start at the flipped dimension's end, walk backwards
    const int axis = Axis(d, rank);
    in_offset += (input_.shape().sizes()[axis] - 1) * in_strides[axis];
    in_strides[axis] = -in_strides[axis];
  }
  AddMoveLayout(session, out_, input_, InnerSizes(out_), InnerByteStrides(out_),
                std::vector<long>(in_strides.rbegin(), in_strides.rend()), out_view.offset(),
                in_offset);
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<FlipKernel, const FlipOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Flip");
};

}  // namespace cl
}  // namespace nerva
