#include "nerva/kernel/random.h"

namespace nerva {

Kernel Bernoulli::Create(const std::shared_ptr<IQueueImpl>& queue, const BernoulliOption& option,
                         const TensorOption& probability_opt, const Buffer& probability,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Bernoulli", option, probability_opt, probability, out_opt, out);
}

Kernel Exponential::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const ExponentialOption& option, const TensorOption& out_opt,
                           Buffer& out) {
  return queue->CreateKernel("Exponential", option, out_opt, out);
}

Kernel LogNormal::Create(const std::shared_ptr<IQueueImpl>& queue, const LogNormalOption& option,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("LogNormal", option, out_opt, out);
}

Kernel Rand::Create(const std::shared_ptr<IQueueImpl>& queue, const RandOption& option,
                    const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("RandUniform", option, out_opt, out);
}

Kernel RandInt::Create(const std::shared_ptr<IQueueImpl>& queue, const RandIntOption& option,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("RandIntUniform", option, out_opt, out);
}

Kernel RandN::Create(const std::shared_ptr<IQueueImpl>& queue, const RandNOption& option,
                     const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("RandNormal", option, out_opt, out);
}

Kernel RandPerm::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& out_opt,
                        Buffer& out, const TensorOption& keys_opt, Buffer& keys,
                        const TensorOption& temp_opt, Buffer& temp,
                        const TensorOption& temp_indices_opt, Buffer& temp_indices) {
  return queue->CreateKernel("RandPerm", out_opt, out, keys_opt, keys, temp_opt, temp,
                             temp_indices_opt, temp_indices);
}

Kernel Shuffle::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& indices_opt, Buffer& indices,
                       const TensorOption& keys_opt, Buffer& keys, const TensorOption& temp_opt,
                       Buffer& temp, const TensorOption& temp_indices_opt, Buffer& temp_indices) {
  return queue->CreateKernel("Shuffle", input_opt, input, out_opt, out, indices_opt, indices,
                             keys_opt, keys, temp_opt, temp, temp_indices_opt, temp_indices);
}

}  // namespace nerva
