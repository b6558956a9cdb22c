#include "nerva/kernel/base.h"

namespace nerva {

Kernel Activation::Create(const std::shared_ptr<IQueueImpl>& queue, const ActivationOption& option,
                          const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                          Buffer& out) {
  return queue->CreateKernel("ActivationV1", option, in_opt, in, out_opt, out);
}

Kernel Activation::Create(const std::shared_ptr<IQueueImpl>& queue, const ActivationOption& option,
                          const Tensor& in, const Tensor& out) {
  return queue->CreateKernel("Activation", option, in, out);
}

Kernel Permute::Create(const std::shared_ptr<IQueueImpl>& queue, const PermuteOption& option,
                       const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                       Buffer& out) {
  return queue->CreateKernel("Permute", option, in_opt, in, out_opt, out);
}

Kernel Slice::Create(const std::shared_ptr<IQueueImpl>& queue, const SliceOption& option,
                     const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                     Buffer& out) {
  return queue->CreateKernel("Slice", option, in_opt, in, out_opt, out);
}

}  // namespace nerva
