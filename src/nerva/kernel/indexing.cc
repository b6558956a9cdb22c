#include "nerva/kernel/indexing.h"

namespace nerva {

Kernel EmbeddingBag::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const EmbeddingBagOption& option, const TensorOption& weight_opt,
                            const Buffer& weight, const TensorOption& indices_opt,
                            const Buffer& indices, const TensorOption& offsets_opt,
                            const Buffer& offsets, const TensorOption& per_sample_weights_opt,
                            const Buffer& per_sample_weights, const TensorOption& out_opt,
                            Buffer& out) {
  return queue->CreateKernel("EmbeddingBag", option, weight_opt, weight, indices_opt, indices,
                             offsets_opt, offsets, per_sample_weights_opt, per_sample_weights,
                             out_opt, out);
}

Kernel EmbeddingBagBackward::Create(const std::shared_ptr<IQueueImpl>& queue,
                                    const EmbeddingBagBackwardOption& option,
                                    const TensorOption& grad_opt, const Buffer& grad,
                                    const TensorOption& indices_opt, const Buffer& indices,
                                    const TensorOption& offsets_opt, const Buffer& offsets,
                                    const TensorOption& offset2bag_opt, const Buffer& offset2bag,
                                    const TensorOption& max_indices_opt, const Buffer& max_indices,
                                    const TensorOption& per_sample_weights_opt,
                                    const Buffer& per_sample_weights,
                                    const TensorOption& grad_weight_opt, Buffer& grad_weight) {
  return queue->CreateKernel("EmbeddingBagBackward", option, grad_opt, grad, indices_opt, indices,
                             offsets_opt, offsets, offset2bag_opt, offset2bag, max_indices_opt,
                             max_indices, per_sample_weights_opt, per_sample_weights,
                             grad_weight_opt, grad_weight);
}

Kernel Gather::Create(const std::shared_ptr<IQueueImpl>& queue, const GatherOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& index_opt, const Buffer& index,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Gather", option, input_opt, input, index_opt, index, out_opt, out);
}

Kernel GatherElement::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const GatherElementOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& index_opt,
                             const Buffer& index, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("GatherElement", option, input_opt, input, index_opt, index, out_opt,
                             out);
}

Kernel Index::Create(const std::shared_ptr<IQueueImpl>& queue, const IndexOption& option,
                     const TensorOption& input_opt, const Buffer& input,
                     const TensorOption& index_opt, const Buffer& index,
                     const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Index", option, input_opt, input, index_opt, index, out_opt, out);
}

Kernel Index::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                     const Buffer& input, const std::vector<TensorOption>& indices_opts,
                     const std::vector<Buffer>& indices, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("IndexWithIndicesArray", input_opt, input, indices_opts, indices,
                             out_opt, out);
}

Kernel IndexPut::Create(const std::shared_ptr<IQueueImpl>& queue, const IndexPutOption& option,
                        const TensorOption& input_opt, const Buffer& input,
                        const TensorOption& index_opt, const Buffer& index,
                        const TensorOption& values_opt, const Buffer& values,
                        const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("IndexPut", option, input_opt, input, index_opt, index, values_opt,
                             values, out_opt, out);
}

Kernel IndexPut::Create(const std::shared_ptr<IQueueImpl>& queue, const IndexPutOption& option,
                        const TensorOption& input_opt, const Buffer& input,
                        const std::vector<TensorOption>& indices_opts,
                        const std::vector<Buffer>& indices, const TensorOption& values_opt,
                        const Buffer& values, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("IndexPutWithIndicesArray", option, input_opt, input, indices_opts,
                             indices, values_opt, values, out_opt, out);
}

Kernel IndexReduce::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const IndexReduceOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& index_opt, const Buffer& index,
                           const TensorOption& source_opt, const Buffer& source,
                           const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("IndexReduce", option, input_opt, input, index_opt, index, source_opt,
                             source, out_opt, out);
}

Kernel Scatter::Create(const std::shared_ptr<IQueueImpl>& queue, const ScatterOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& index_opt, const Buffer& index,
                       const TensorOption& src_opt, const Buffer& src, const TensorOption& out_opt,
                       Buffer& out) {
  return queue->CreateKernel("Scatter", option, input_opt, input, index_opt, index, src_opt, src,
                             out_opt, out);
}

Kernel ScatterMean::Create(const std::shared_ptr<IQueueImpl>& queue,
                           const ScatterMeanOption& option, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& index_opt, const Buffer& index,
                           const TensorOption& src_opt, const Buffer& src,
                           const TensorOption& count_opt, const Buffer& count,
                           const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("ScatterMean", option, input_opt, input, index_opt, index, src_opt,
                             src, count_opt, count, out_opt, out);
}

Kernel ScatterND::Create(const std::shared_ptr<IQueueImpl>& queue, const ScatterNDOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& indices_opt, const Buffer& indices,
                         const TensorOption& updates_opt, const Buffer& updates,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("ScatterND", option, input_opt, input, indices_opt, indices,
                             updates_opt, updates, out_opt, out);
}

Kernel SelectScatter::Create(const std::shared_ptr<IQueueImpl>& queue,
                             const SelectScatterOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& src_opt, const Buffer& src,
                             const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("SelectScatter", option, input_opt, input, src_opt, src, out_opt, out);
}

}  // namespace nerva
