#include "nerva/kernel/elementwise.h"

namespace nerva {

Kernel Binary::Create(const std::shared_ptr<IQueueImpl>& queue, const BinaryOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& other_opt, const Buffer& other,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Binary", option, input_opt, input, other_opt, other, out_opt, out);
}

Kernel Cast::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                    const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Copy", input_opt, input, out_opt, out);
}

Kernel Clamp::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                     const Buffer& input, const TensorOption& min_value_opt,
                     const Buffer& min_value, const TensorOption& max_value_opt,
                     const Buffer& max_value, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Clamp", input_opt, input, min_value_opt, min_value, max_value_opt,
                             max_value, out_opt, out);
}

Kernel Digamma::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Digamma", input_opt, input, out_opt, out);
}

Kernel ForEachBinary::Create(
    const std::shared_ptr<IQueueImpl>& queue, const ForEachBinaryOption& option,
    const std::vector<TensorOption>& inputs_opts, const std::vector<Buffer>& inputs,
    const std::vector<TensorOption>& others_opts, const std::vector<Buffer>& others,
    const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs) {
  return queue->CreateKernel("ForEachBinary", option, inputs_opts, inputs, others_opts, others,
                             outs_opts, outs);
}

Kernel ForEachTernary::Create(
    const std::shared_ptr<IQueueImpl>& queue, const ForEachTernaryOption& option,
    const std::vector<TensorOption>& inputs_opts, const std::vector<Buffer>& inputs,
    const std::vector<TensorOption>& tensors1_opts, const std::vector<Buffer>& tensors1,
    const std::vector<TensorOption>& tensors2_opts, const std::vector<Buffer>& tensors2,
    const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs) {
  return queue->CreateKernel("ForEachTernary", option, inputs_opts, inputs, tensors1_opts, tensors1,
                             tensors2_opts, tensors2, outs_opts, outs);
}

Kernel ForEachUnary::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const ForEachUnaryOption& option,
                            const std::vector<TensorOption>& inputs_opts,
                            const std::vector<Buffer>& inputs,
                            const std::vector<TensorOption>& outs_opts,
                            const std::vector<Buffer>& outs) {
  return queue->CreateKernel("ForEachUnary", option, inputs_opts, inputs, outs_opts, outs);
}

Kernel Gcd::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                   const Buffer& input, const TensorOption& other_opt, const Buffer& other,
                   const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Gcd", input_opt, input, other_opt, other, out_opt, out);
}

Kernel Logit::Create(const std::shared_ptr<IQueueImpl>& queue, const LogitOption& option,
                     const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Logit", option, input_opt, input, out_opt, out);
}

Kernel MaskedFill::Create(const std::shared_ptr<IQueueImpl>& queue, const MaskedFillOption& option,
                          const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& mask_opt, const Buffer& mask,
                          const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("MaskedFill", option, input_opt, input, mask_opt, mask, out_opt, out);
}

Kernel Ternary::Create(const std::shared_ptr<IQueueImpl>& queue, const TernaryOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& tensor1_opt, const Buffer& tensor1,
                       const TensorOption& tensor2_opt, const Buffer& tensor2,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Ternary", option, input_opt, input, tensor1_opt, tensor1, tensor2_opt,
                             tensor2, out_opt, out);
}

Kernel Threshold::Create(const std::shared_ptr<IQueueImpl>& queue, const ThresholdOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Threshold", option, input_opt, input, out_opt, out);
}

Kernel Unary::Create(const std::shared_ptr<IQueueImpl>& queue, const UnaryOption& option,
                     const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Unary", option, input_opt, input, out_opt, out);
}

Kernel Where::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& condition_opt,
                     const Buffer& condition, const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& other_opt, const Buffer& other,
                     const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Where", condition_opt, condition, input_opt, input, other_opt, other,
                             out_opt, out);
}

}  // namespace nerva
