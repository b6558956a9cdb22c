#pragma once

// Front-ends of the neural-network layers: pooling, sliding windows, dropout, log-softmax,
// padding and resizing. Each Create forwards its arguments, unchanged, to the queue's
// platform under the operator's registry name.

#include <cstdint>
#include <memory>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/kernel.h"
#include "nerva/queue.h"
#include "nerva/tensor_option.h"

#include "nerva/kernel/pool_option.h"
#include "nerva/kernel/random_option.h"

namespace nerva {

// torch.log_softmax(input, dim).
struct LogSoftmaxOption {
  int dim = -1;  // the normalised dimension
};

enum class PadMode : int32_t {
  kConstant = 0,   // fill with `value`
  kReflect = 1,    // mirror without repeating the edge
  kReplicate = 2,  // repeat the edge
  kCircular = 3,   // wrap around
};

// torch.nn.functional.pad(input, pad, mode, value).
struct PadOption {
  // (before, after) pairs starting from the last dimension, as torch orders them;
  // negative entries crop.
  std::vector<long> pad;
  PadMode mode = PadMode::kConstant;  // how the border is filled
  double value = 0.0;                 // kConstant fill value
};

enum class InterpolateMode : int32_t {
  kNearest = 0,
  kNearestExact = 1,
  kLinear = 2,
  kBilinear = 3,
  kBicubic = 4,
  kTrilinear = 5,
  kArea = 6,
};

// torch.nn.functional.interpolate(input, size, scale_factor, mode, align_corners); the
// output size is the output tensor's.
struct ResizeOption {
  InterpolateMode mode = InterpolateMode::kNearest;  // the interpolation
  // torch's scale_factor (output size / input size), one entry for every spatial dimension
  // or one per dimension; output coordinates map to input ones by 1 / scale_factor. Empty
  // (or 0): input size / output size.
  std::vector<double> scale_factor;
  bool align_corners = false;  // linear modes: corner pixels of input and output align
};

// torch.nn.functional.adaptive_avg_pool2d to the output's spatial size.
class AdaptiveAvgPool2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.adaptive_avg_pool3d to the output's spatial size.
class AdaptiveAvgPool3D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.adaptive_max_pool2d to the output's spatial size.
class AdaptiveMaxPool2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out);
  // "AdaptiveMaxPool2DWithIndices": also writes the flat spatial index of every maximum.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const TensorOption& input_opt,
                       const Buffer& input, const TensorOption& out_opt, Buffer& out,
                       const TensorOption& indices_opt, Buffer& indices);
};

// torch.nn.functional.avg_pool2d.
class AvgPool2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const AvgPool2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.avg_pool3d.
class AvgPool3D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const AvgPool3DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.fold: sums sliding blocks back into an image.
class Col2im {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const Col2imOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// Training-mode dropout: out = input * mask / (1 - p); mask holds the kept elements (0 or 1).
class DropoutTrain {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const DropoutTrainOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& mask_opt,
                       Buffer& mask);
};

// torch.nn.functional.unfold: extracts sliding blocks into columns.
class Im2col {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const Im2colOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.log_softmax along one dimension.
class LogSoftmax {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const LogSoftmaxOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.max_pool2d.
class MaxPool2D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
  // "MaxPool2DWithIndices": also writes the flat spatial index of every maximum.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool2DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt,
                       Buffer& indices);
};

// torch.nn.functional.max_pool3d.
class MaxPool3D {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool3DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
  // "MaxPool3DWithIndices": also writes the flat spatial index of every maximum.
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const MaxPool3DOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out, const TensorOption& indices_opt,
                       Buffer& indices);
};

// torch.nn.functional.pad.
class Pad {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const PadOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

// torch.nn.functional.interpolate to the output's spatial size.
class Resize {
 public:
  static Kernel Create(const std::shared_ptr<IQueueImpl>& queue, const ResizeOption& option,
                       const TensorOption& input_opt, const Buffer& input,
                       const TensorOption& out_opt, Buffer& out);
};

}  // namespace nerva
