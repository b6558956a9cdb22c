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

Kernel ARange::Create(const std::shared_ptr<IQueueImpl>& queue, const ARangeOption& option,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("ARange", option, out_opt, out);
}

Kernel Concat::Create(const std::shared_ptr<IQueueImpl>& queue, const ConcatOption& option,
                      const std::vector<TensorOption>& inputs_opts,
                      const std::vector<Buffer>& inputs, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Concat", option, inputs_opts, inputs, out_opt, out);
}

Kernel BroadcastTo::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                           const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("BroadcastTo", input_opt, input, out_opt, out);
}

Kernel Copy::Create(const std::shared_ptr<IQueueImpl>& queue, const CopyOption& option,
                    const TensorOption& src_opt, const Buffer& src, const TensorOption& dst_opt,
                    Buffer& dst) {
  return queue->CreateKernel("StridedCopy", option, src_opt, src, dst_opt, dst);
}

Kernel DepthToSpace::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const DepthToSpaceOption& option, const TensorOption& input_opt,
                            const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("DepthToSpace", option, input_opt, input, out_opt, out);
}

Kernel Eye::Create(const std::shared_ptr<IQueueImpl>& queue, const EyeOption& option,
                   const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Eye", option, out_opt, out);
}

Kernel Flip::Create(const std::shared_ptr<IQueueImpl>& queue, const FlipOption& option,
                    const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                    Buffer& out) {
  return queue->CreateKernel("Flip", option, input_opt, input, out_opt, out);
}

Kernel Linspace::Create(const std::shared_ptr<IQueueImpl>& queue, const LinspaceOption& option,
                        const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Linspace", option, out_opt, out);
}

Kernel MatMul::Create(const std::shared_ptr<IQueueImpl>& queue, const MatMulOption& option,
                      const TensorOption& mat1_opt, const Buffer& mat1,
                      const TensorOption& mat2_opt, const Buffer& mat2, const TensorOption& out_opt,
                      Buffer& out) {
  return queue->CreateKernel("MatMul", option, mat1_opt, mat1, mat2_opt, mat2, out_opt, out);
}

Kernel MatMul::Create(const std::shared_ptr<IQueueImpl>& queue, const MatMulOption& option,
                      const TensorOption& mat1_opt, const Buffer& mat1,
                      const TensorOption& mat2_opt, const Buffer& mat2,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Gemm", option, mat1_opt, mat1, mat2_opt, mat2, input_opt, input,
                             out_opt, out);
}

Kernel Repeat::Create(const std::shared_ptr<IQueueImpl>& queue, const RepeatOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Repeat", option, input_opt, input, out_opt, out);
}

Kernel Repeat::Create(const std::shared_ptr<IQueueImpl>& queue, const RepeatOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& repeats_opt, const Buffer& repeats,
                      const TensorOption& repeats_cumsum_opt, const Buffer& repeats_cumsum,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Repeat_Interleave", option, input_opt, input, repeats_opt, repeats,
                             repeats_cumsum_opt, repeats_cumsum, out_opt, out);
}

Kernel Roll::Create(const std::shared_ptr<IQueueImpl>& queue, const RollOption& option,
                    const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                    Buffer& out) {
  return queue->CreateKernel("Roll", option, input_opt, input, out_opt, out);
}

Kernel SliceScatter::Create(const std::shared_ptr<IQueueImpl>& queue, const SliceOption& option,
                            const TensorOption& input_opt, const Buffer& input,
                            const TensorOption& src_opt, const Buffer& src,
                            const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("SliceScatter", option, input_opt, input, src_opt, src, out_opt, out);
}

Kernel SpaceToDepth::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const SpaceToDepthOption& option, const TensorOption& input_opt,
                            const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("SpaceToDepth", option, input_opt, input, out_opt, out);
}

Kernel Split::Create(const std::shared_ptr<IQueueImpl>& queue, const SplitOption& option,
                     const TensorOption& input_opt, const Buffer& input,
                     const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs) {
  return queue->CreateKernel("Split", option, input_opt, input, outs_opts, outs);
}

Kernel Tile::Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                    const Buffer& input, const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Tile", input_opt, input, out_opt, out);
}

}  // namespace nerva
