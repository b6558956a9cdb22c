#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/pool_option.h"
#include "nerva/platform/cl/kernel/pool/pool_frame.h"

namespace nerva {
namespace cl {

// torch max_pool2d / max_pool3d (with_indices) over the 2 or 3 trailing
// dimensions of an (N, C, ...) or (C, ...) float or half input: padding counts
// as -infinity, NaN wins, the first maximum is kept. Indices (int64, or int32
// when the caller's tensor says so) are flat within each plane
// (h * W + w, or (d * H + h) * W + w), as torch returns them. Output and
// indices are contiguous, of the pooled shape.
class MaxPoolKernel : public KernelImpl {
 public:
  MaxPoolKernel(std::string name, int spatial, WindowArgs window, Tensor input, Tensor output,
                Tensor indices);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  PoolGeometry Geometry() const;

  int spatial_;
  WindowArgs window_;
  Tensor input_, output_, indices_;
};

// "MaxPool2D" (program "maxpool2d.cl").
class MaxPool2DKernel : public MaxPoolKernel {
 public:
  MaxPool2DKernel(const MaxPool2DOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& out_opt, Buffer& out);
};

// "MaxPool2DWithIndices": also writes the index of every maximum.
class MaxPool2DWithIndicesKernel : public MaxPoolKernel {
 public:
  MaxPool2DWithIndicesKernel(const MaxPool2DOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& out_opt, Buffer& out,
                             const TensorOption& indices_opt, Buffer& indices);
};

WindowArgs MaxPoolWindow(const MaxPool2DOption& option);
WindowArgs MaxPoolWindow(const MaxPool3DOption& option);

}  // namespace cl
}  // namespace nerva
