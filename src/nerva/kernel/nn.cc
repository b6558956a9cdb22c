#include "nerva/kernel/nn.h"

namespace nerva {

Kernel AdaptiveAvgPool2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("AdaptiveAvgPool2D", input_opt, input, out_opt, out);
}

Kernel AdaptiveAvgPool3D::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("AdaptiveAvgPool3D", input_opt, input, out_opt, out);
}

Kernel AdaptiveMaxPool2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("AdaptiveMaxPool2D", input_opt, input, out_opt, out);
}

Kernel AdaptiveMaxPool2D::Create(const std::shared_ptr<IQueueImpl>& queue,
                                 const TensorOption& input_opt, const Buffer& input,
                                 const TensorOption& out_opt, Buffer& out,
                                 const TensorOption& indices_opt, Buffer& indices) {
  return queue->CreateKernel("AdaptiveMaxPool2DWithIndices", input_opt, input, out_opt, out,
                             indices_opt, indices);
}

Kernel AvgPool2D::Create(const std::shared_ptr<IQueueImpl>& queue, const AvgPool2DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("AvgPool2D", option, input_opt, input, out_opt, out);
}

Kernel AvgPool3D::Create(const std::shared_ptr<IQueueImpl>& queue, const AvgPool3DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("AvgPool3D", option, input_opt, input, out_opt, out);
}

Kernel Col2im::Create(const std::shared_ptr<IQueueImpl>& queue, const Col2imOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Col2im", option, input_opt, input, out_opt, out);
}

Kernel DropoutTrain::Create(const std::shared_ptr<IQueueImpl>& queue,
                            const DropoutTrainOption& option, const TensorOption& input_opt,
                            const Buffer& input, const TensorOption& out_opt, Buffer& out,
                            const TensorOption& mask_opt, Buffer& mask) {
  return queue->CreateKernel("DropoutTrain", option, input_opt, input, out_opt, out, mask_opt,
                             mask);
}

Kernel Im2col::Create(const std::shared_ptr<IQueueImpl>& queue, const Im2colOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Im2col", option, input_opt, input, out_opt, out);
}

Kernel LogSoftmax::Create(const std::shared_ptr<IQueueImpl>& queue, const LogSoftmaxOption& option,
                          const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("LogSoftmax", option, input_opt, input, out_opt, out);
}

Kernel MaxPool2D::Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool2DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("MaxPool2D", option, input_opt, input, out_opt, out);
}

Kernel MaxPool2D::Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool2DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt,
                         Buffer& indices) {
  return queue->CreateKernel("MaxPool2DWithIndices", option, input_opt, input, out_opt, out,
                             indices_opt, indices);
}

Kernel MaxPool3D::Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool3DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("MaxPool3D", option, input_opt, input, out_opt, out);
}

Kernel MaxPool3D::Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool3DOption& option,
                         const TensorOption& input_opt, const Buffer& input,
                         const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt,
                         Buffer& indices) {
  return queue->CreateKernel("MaxPool3DWithIndices", option, input_opt, input, out_opt, out,
                             indices_opt, indices);
}

Kernel Pad::Create(const std::shared_ptr<IQueueImpl>& queue, const PadOption& option,
                   const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                   Buffer& out) {
  return queue->CreateKernel("Pad", option, input_opt, input, out_opt, out);
}

Kernel Resize::Create(const std::shared_ptr<IQueueImpl>& queue, const ResizeOption& option,
                      const TensorOption& input_opt, const Buffer& input,
                      const TensorOption& out_opt, Buffer& out) {
  return queue->CreateKernel("Resize", option, input_opt, input, out_opt, out);
}

}  // namespace nerva
