#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel/norm/norm_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// Gradients of layer_norm from the saved mean and rstd ("LayerNormBackward",
// program "layernorm_backward.cl"). The input gradient runs one group per row
// (CompileGradX), the weight and bias gradients one item per column vector
// walking the rows (CompileGradWeightBias). An output is written when its
// output_mask entry is set and the caller gives it; weight and bias may be
// left out (bias is only checked).
class LayerNormBackwardKernel : public KernelImpl {
 public:
  LayerNormBackwardKernel(const LayerNormBackwardOption& option, const TensorOption& grad_opt,
                          const Buffer& grad, const TensorOption& input_opt, const Buffer& input,
                          const TensorOption& mean_opt, const Buffer& mean,
                          const TensorOption& rstd_opt, const Buffer& rstd,
                          const TensorOption& weight_opt, const Buffer& weight,
                          const TensorOption& bias_opt, const Buffer& bias,
                          const TensorOption& grad_input_opt, Buffer& grad_input,
                          const TensorOption& grad_weight_opt, Buffer& grad_weight,
                          const TensorOption& grad_bias_opt, Buffer& grad_bias);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
  void CompileGradX(std::shared_ptr<SessionImpl> session);
  void CompileGradWeightBias(std::shared_ptr<SessionImpl> session);
  // Devices that are not the host CPU: the rows split over many groups, each
  // writing float partial sums that the Reduce merge adds up.
  void CompileSplitGradWeightBias(std::shared_ptr<SessionImpl> session, const RunSplit& split,
                                  const ColumnSplit& rows);
  // Host-CPU devices: items stream chunks of whole rows into float partial
  // rows of the weight and bias gradients asked for, merged the same way;
  // `with_grad_input` writes the input gradient in the same pass.
  void CompileRowChunks(std::shared_ptr<SessionImpl> session, bool with_grad_input);

 private:
  bool WritesGradX() const;
  bool WritesGradWeight() const;
  bool WritesGradBias() const;
  // Float partial rows [parts][length] of the weight and bias gradients that
  // are written, bound to `unit` in that order, and their merge into the
  // gradients once the unit has run.
  struct Partials {
    Buffer weight, bias;
    long parts = 0;
  };
  Partials BindPartials(const std::shared_ptr<SessionImpl>& session, KernelUnit& unit,
                        long parts) const;
  void MergePartials(const std::shared_ptr<SessionImpl>& session, const Partials& partials);

  LayerNormBackwardOption option_;
  Tensor grad_, input_, mean_, rstd_, weight_, bias_, grad_input_, grad_weight_, grad_bias_;
  long rows_ = 0;
  long length_ = 0;
};

}  // namespace cl
}  // namespace nerva
