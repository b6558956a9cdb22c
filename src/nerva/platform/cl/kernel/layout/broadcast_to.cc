#include "nerva/platform/cl/kernel/layout/broadcast_to.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

BroadcastToKernel::BroadcastToKernel(const TensorOption& input_opt, const Buffer& input,
                                     const TensorOption& out_opt, Buffer& out)
    : UnaryMoveKernel("BroadcastTo", "broadcast_to.cl", "BroadcastTo", input_opt, input, out_opt,
                      out) {}

bool BroadcastToKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  const auto& in = input_.shape().sizes();
  const auto& out = out_.shape().sizes();
  bool fits = in.size() <= out.size();
  for (size_t i = 0; fits && i < in.size(); ++i) {
    const long a = in[in.size() - 1 - i], b = out[out.size() - 1 - i];
    fits = a == b || a == 1;
  }
  if (!fits) {
    throw std::runtime_error(StrCat(name(), ": cannot broadcast ", in, " to ", out));
  }
  return true;
}

void BroadcastToKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const auto& in = input_.shape().sizes();
  const auto& out = out_.shape().sizes();
  std::vector<long> strides(out.size(), 0);
  const size_t lead = out.size() - in.size();
  for (size_t i = 0; i < in.size(); ++i) {
    strides[lead + i] = in[i] == 1 ? 0 : input_.shape().strides()[i];
  }
  AddMove(session, out_, ViewOf(input_, out, strides));
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<BroadcastToKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 Buffer&>("BroadcastTo");
};

}  // namespace cl
}  // namespace nerva
