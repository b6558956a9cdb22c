#pragma once

#include <memory>
#include <vector>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/layout/layout_frame.h"

namespace nerva {
namespace cl {

// out = torch.cat(inputs, dim) ("Concat", concat.cl): inputs of one rank,
// of any types (out has their promoted type, JoinedType; inputs of another
// type are converted by the element-wise "StridedCopy" program), equal outside dim, any size along
// it; as in PyTorch, 1-D inputs of size 0 are skipped whatever the rank. One move per non-empty
// input.
class ConcatKernel : public LayoutKernel {
 public:
  ConcatKernel(const ConcatOption& option, const std::vector<TensorOption>& input_opts,
               const std::vector<Buffer>& inputs, const TensorOption& out_opt, Buffer& out);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::vector<Tensor> Joined() const;  // the inputs that take part
  // GPUs: contiguous pieces of out's type joined by ConcatRows launches (one
  // per eight pieces); false, with nothing added, when they do not qualify.
  bool CompileRows(const std::shared_ptr<SessionImpl>& session, const std::vector<Tensor>& joined,
                   int dim);

  ConcatOption option_;
  std::vector<Tensor> inputs_;
  Tensor out_;
};

// outs = torch.split(input, split_sizes, dim) ("Split", split.cl): one entry s
// cuts chunks of s (the last one smaller), several entries are the sizes of
// the pieces and add up to the dimension's size; one output per piece.
class SplitKernel : public LayoutKernel {
 public:
  SplitKernel(const SplitOption& option, const TensorOption& input_opt, const Buffer& input,
              const std::vector<TensorOption>& out_opts, const std::vector<Buffer>& outs);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  std::vector<long> Pieces() const;

  SplitOption option_;
  Tensor input_;
  std::vector<Tensor> outs_;
};

// Tensors from parallel descriptor and buffer lists (std::runtime_error when
// their lengths differ).
std::vector<Tensor> MakeTensorList(const std::string& op, const std::vector<TensorOption>& opts,
                                   const std::vector<Buffer>& buffers);

}  // namespace cl
}  // namespace nerva
