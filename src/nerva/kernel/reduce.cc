#include "nerva/kernel/reduce.h"

namespace nerva {

Kernel ArgMax::Create(const std::shared_ptr<IQueueImpl>& queue, const ArgMaxOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("ArgMax", option, input_opt, input, out_opt, out);
}

Kernel ArgMin::Create(const std::shared_ptr<IQueueImpl>& queue, const ArgMinOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("ArgMin", option, input_opt, input, out_opt, out);
}

Kernel BitonicSort::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const BitonicSortOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& temp_opt, Buffer& temp,
                           const TensorOption& out_opt, Buffer& out,
                           const TensorOption& temp_indices_opt, Buffer& temp_indices,
                           const TensorOption& indices_opt, Buffer& indices) {
  return queue->CreateKernel("BitonicSortWithIndices", option, input_opt, input, temp_opt, temp,
                             out_opt, out, temp_indices_opt, temp_indices, indices_opt, indices);
}

Kernel BitonicSort::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const BitonicSortOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& temp_opt, Buffer& temp,
                           const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BitonicSort", option, input_opt, input, temp_opt, temp, out_opt, out);
}

Kernel Cumsum::Create(const std::shared_ptr<IQueueImpl>& queue, const CumsumOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Cumsum", option, input_opt, input, out_opt, out);
}

Kernel LinalgVectorNorm::Create(const std::shared_ptr<IQueueImpl>& queue,
                                const LinalgVectorNormOption& option, const TensorOption& input_opt,
                                const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("LinalgVectorNorm", option, input_opt, input, out_opt, out);
}

Kernel MaxNorm::Create(const std::shared_ptr<IQueueImpl>& queue, const MaxNormOption& option,
                       const TensorOption& weight_opt, const Buffer& weight,
                       const TensorOption& indices_opt, const Buffer& indices) {
  return queue->CreateKernel("MaxNorm", option, weight_opt, weight, indices_opt, indices);
}

Kernel Nonzero::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& flags_opt, const Buffer& flags,
                       const TensorOption& flat_indices_opt, const Buffer& flat_indices,
                       const TensorOption& count_opt, const Buffer& count,
                       const TensorOption& out_opt, const Buffer& out) {
  return queue->CreateKernel("Nonzero", input_opt, input, flags_opt, flags, flat_indices_opt,
                             flat_indices, count_opt, count, out_opt, out);
}

Kernel Reduce::Create(const std::shared_ptr<IQueueImpl>& queue, const ReduceOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Reduce", option, input_opt, input, out_opt, out);
}

Kernel ReduceWithIndices::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const ReduceWithIndicesOption& option,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& values_opt, Buffer& values,
                                 const TensorOption& indices_opt, Buffer& indices) {
  return queue->CreateKernel("ReduceWithIndices", option, input_opt, input, values_opt, values,
                             indices_opt, indices);
}

Kernel ReduceWithIndicesMedian::Create(const std::shared_ptr<IQueueImpl>& queue,
                                       const ReduceWithIndicesMedianOption& option,
                                       const TensorOption& input_opt, const Buffer& input,
                                       const TensorOption& values_opt, Buffer& values,
                                       const TensorOption& indices_opt, Buffer& indices,
                                       const TensorOption& temp_opt, Buffer& temp,
                                       const TensorOption& temp_indices_opt, Buffer& temp_indices) {
  return queue->CreateKernel("ReduceWithIndicesMedian", option, input_opt, input, values_opt,
                             values, indices_opt, indices, temp_opt, temp, temp_indices_opt,
                             temp_indices);
}

Kernel Renorm::Create(const std::shared_ptr<IQueueImpl>& queue, const RenormOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Renorm", option, input_opt, input, out_opt, out);
}

Kernel Softmax::Create(const std::shared_ptr<IQueueImpl>& queue, const SoftmaxOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Softmax", option, input_opt, input, out_opt, out);
}

Kernel TopK::Create(const std::shared_ptr<IQueueImpl>& queue, const TopKOption& option,
                    const TensorOption& input_opt, const Buffer& input,
                    const TensorOption& values_opt, Buffer& values, const TensorOption& indices_opt,
                    Buffer& indices) {
  return queue->CreateKernel("TopK", option, input_opt, input, values_opt, values, indices_opt,
                             indices);
}

}  // namespace nerva
