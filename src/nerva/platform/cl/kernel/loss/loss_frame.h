#pragma once

// Host side of the loss kernels: argument checks, contiguous inputs, weights
// broadcast to the input's shape, and the units of "loss_frame.cl" (one value
// per item, or a two-pass sum with 'mean' and 'sum').

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nerva/kernel/train_option.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

class LossKernel : public KernelImpl {
 public:
  LossKernel(std::string name, LossReduction reduction)
      : KernelImpl(std::move(name)), reduction_(reduction) {}

 protected:
  LossReduction reduction() const { return reduction_; }
  bool Reduced() const { return reduction_ != LossReduction::kNone; }
  // Throws std::invalid_argument unless the reduction is one of the three.
  void CheckReduction() const;
  // Throws std::invalid_argument unless `tensor` is float or half.
  void CheckFloat(const std::string& arg, const Tensor& tensor) const;
  // Throws std::invalid_argument unless `tensor` has type `type`.
  void CheckSameType(const std::string& arg, const Tensor& tensor, DataType type) const;
  // Throws std::runtime_error unless `tensor` has `sizes`, naming `what` was expected.
  void CheckShape(const std::string& arg, const Tensor& tensor,
                  const std::vector<long>& sizes) const;
  // Throws std::runtime_error unless `tensor` (when defined) broadcasts to `sizes`.
  void CheckBroadcast(const std::string& arg, const Tensor& tensor,
                      const std::vector<long>& sizes) const;
  // The output sizes of a reduction over `sizes`: `sizes` for 'none', else [1].
  std::vector<long> ResultSizes(const std::vector<long>& sizes) const;

  // `tensor` expanded to `sizes` and made contiguous (a copy unit when needed).
  Tensor Dense(const std::shared_ptr<SessionImpl>& session, const Tensor& tensor,
               const std::vector<long>& sizes);

  // The device sources of a loss program: the shared headers, the frame and `program`.
  static std::vector<std::string> LossSources(const std::string& program);
  // Build definitions of a loss program over `dtype` values.
  static BuildOption LossOptions(DataType dtype);
  // Units of a forward program over `count` items: loss_none, or loss_partial
  // (loss_chunks on host CPU devices) and loss_final. `divisor` is the 'mean' divisor, negative for
  // the summed item weights; `total_weight` (when not null) receives the summed weights. `bind`
  // appends the program's own arguments (LOSS_PARAMS).
  void CompileForward(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                      const BuildOption& options, long count, float divisor, const Tensor& out,
                      const Tensor* total_weight, const std::function<void(KernelUnit&)>& bind);
  // Host CPU devices: the loss_chunks unit over `count` items (one work item per
  // contiguous chunk) and the loss_final unit folding its partial sums.
  void CompileChunks(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                     const BuildOption& options, long count, float divisor, const Tensor& out,
                     const Tensor* total_weight, const std::function<void(KernelUnit&)>& bind);
  // Device memory for the (loss, weight) sums of `groups` groups or items.
  Buffer PartialSums(const std::shared_ptr<SessionImpl>& session, long groups);
  // The loss_final unit folding `groups` (loss, weight) pairs of `part` into out (and the
  // weights into total_weight when not null).
  void CompileFinal(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                    const BuildOption& options, long groups, const Buffer& part, float divisor,
                    const Tensor& out, const Tensor* total_weight);
  // The loss_backward unit over `count` items of a gradient program.
  void CompileBackward(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                       const BuildOption& options, long count, const Tensor& grad_output,
                       const Tensor& grad_input, const std::function<void(KernelUnit&)>& bind);

 private:
  LossReduction reduction_;
  std::vector<Tensor> keep_;     // dense copies the units read
  std::vector<Buffer> scratch_;  // partial sums
};

// A tensor as the loss programs take it: buffer and byte offset.
struct LossArg {
  cl_mem mem;
  cl_ulong offset;
  Buffer buffer;  // keeps `mem` alive while bound
};
inline void KeepBound(std::vector<Buffer>& keep, const LossArg& arg) {
  keep.push_back(arg.buffer);
}
LossArg MakeLossArg(const Tensor& tensor);
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LossArg& arg);

}  // namespace cl
}  // namespace nerva
