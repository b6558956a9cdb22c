#pragma once

#include <memory>
#include <string>
#include <utility>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = input.permute(dims) made contiguous in out's layout ("Permute"):
// output dimension i is input dimension dims[i]; dims is a permutation of the
// input's dimensions, negative entries counting from the end. After merging
// dimensions that stay adjacent, a permutation that is a batched 2-D transpose
// runs permute_2d.cl (on GPUs tiles through local memory, on CPU devices
// 16 x 16 register blocks); any other the strided walk of permute.cl.
class PermuteKernel : public LayoutKernel {
 public:
  PermuteKernel(const PermuteOption& option, const TensorOption& input_opt, const Buffer& input,
                const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::vector<int> Order() const;  // dims normalised; throws on a bad permutation
  std::pair<Tensor, Tensor> Part(const Tensor& in, const ElementwiseLayout& layout, long x0,
                                 long x1, long y0, long y1) const;
  // A unit of the permute_2d.cl program.
  std::shared_ptr<KernelUnit> Permute2DUnit(const std::shared_ptr<SessionImpl>& session,
                                            const BuildOption& options, const std::string& entry);
  // CPU devices: whole 16 x 16 blocks in registers, the cut edges as moves.
  void AddWideTranspose(const std::shared_ptr<SessionImpl>& session, const Tensor& in,
                        const ElementwiseLayout& layout);

  PermuteOption option_;
  Tensor input_, out_;
};

}  // namespace cl
}  // namespace nerva
