#pragma once

#include <memory>
#include <string>

#include "nerva/kernel/norm_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// torch.nn.functional.layer_norm over the trailing `normalized_shape`
// ("LayerNorm", program "layernorm.cl"): one group of 64 per row, epsilon
// baked into the build. Weight and bias may be left out; both, when given,
// hold the normalised size's element count in float or half.
class LayerNormKernel : public KernelImpl {
 public:
  LayerNormKernel(const LayerNormOption& option, const TensorOption& input_opt, const Buffer& input,
                  const TensorOption& weight_opt, const Buffer& weight,
                  const TensorOption& bias_opt, const Buffer& bias, const TensorOption& out_opt,
                  Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  LayerNormKernel(std::string name, const LayerNormOption& option, Tensor input, Tensor weight,
                  Tensor bias, Tensor output, Tensor mean, Tensor rstd);

 private:
  long Rows() const;
  long RowLength() const;
  // Host-CPU devices with many rows: items of a few rows, no barriers.
  void CompileRows(const std::shared_ptr<SessionImpl>& session, long rows, long length);
  // EPS and the switches of the optional tensors, shared by both programs.
  void AddSwitches(BuildOption& options) const;
  // Binds input, the optional tensors, output, the vector count and 1 / length.
  void BindRows(KernelUnit& unit, long rows, long length, long vectors) const;

  LayerNormOption option_;
  Tensor input_, weight_, bias_, output_, mean_, rstd_;
};

// "LayerNormWithTraining": also stores the per-row mean and rstd (float or
// half, one element per row, any shape of that count).
class LayerNormWithTrainingKernel : public LayerNormKernel {
 public:
  LayerNormWithTrainingKernel(const LayerNormOption& option, const TensorOption& input_opt,
                              const Buffer& input, const TensorOption& weight_opt,
                              const Buffer& weight, const TensorOption& bias_opt,
                              const Buffer& bias, const TensorOption& out_opt, Buffer& out,
                              const TensorOption& mean_opt, Buffer& mean,
                              const TensorOption& rstd_opt, Buffer& rstd);
};

// The number of rows and the row length of `sizes` normalised over the
// trailing `normalized_shape`; a mismatch throws std::runtime_error.
void LayerNormSplit(const std::string& op, const std::vector<long>& sizes,
                    const std::vector<long>& normalized_shape, long* rows, long* length);

}  // namespace cl
}  // namespace nerva
