#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "nerva/kernel/elementwise_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// torch._foreach_* over lists of tensor tuples (outs[i] = op(inputs[i], ...)). Tuples
// whose element types agree run together, up to 16 per launch, through the
// multi-tensor kernel of their family's program (unary.cl, binary.cl, ternary.cl),
// so a list of equal types takes ceil(size / 16) launches; on CPU devices the
// tuples go in chunks through a table, one launch per 16 distinct buffers. The lists must have
// equal lengths; the tensors of a tuple equal shapes (no broadcasting) and be contiguous. Types and
// semantics are those of Unary, Binary and Ternary; in-place tuples (an output that is its input)
// are fine.
class ForEachKernel : public KernelImpl {
 public:
  // lists[0] are the outputs, then the inputs, each named in `names`.
  ForEachKernel(std::string name, std::string family, std::vector<std::vector<Tensor>> lists,
                std::vector<std::string> names);

 protected:
  // `spec_of(i)` gives the program description of tuple i (and throws for unsupported types).
  void VerifyLists(const std::function<ElementwiseSpec(size_t)>& spec_of) const;
  void CompileLists(const std::shared_ptr<SessionImpl>& session,
                    const std::function<ElementwiseSpec(size_t)>& spec_of,
                    const std::function<void(KernelUnit&)>& bind);
  DataType type(size_t list, size_t i) const { return lists_[list][i].dtype(); }

 private:
  // CPU devices: the tuples `members` (of one build) in chunks through the
  // table kernel, one launch per 16 distinct memory-object tuples.
  void CompileTable(const std::shared_ptr<SessionImpl>& session, const std::vector<size_t>& members,
                    const BuildOption& options, const std::vector<std::string>& sources,
                    const std::function<void(KernelUnit&)>& bind);
  static Buffer TableBuffer(const std::shared_ptr<SessionImpl>& session,
                            std::vector<cl_uint> values);

  std::string family_;
  std::vector<std::vector<Tensor>> lists_;
  std::vector<std::string> names_;
};

class ForEachUnaryKernel : public ForEachKernel {
 public:
  ForEachUnaryKernel(const ForEachUnaryOption& option, const std::vector<TensorOption>& inputs_opts,
                     const std::vector<Buffer>& inputs, const std::vector<TensorOption>& outs_opts,
                     const std::vector<Buffer>& outs);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ElementwiseSpec SpecOf(size_t i) const;
  ForEachUnaryOption option_;
};

class ForEachBinaryKernel : public ForEachKernel {
 public:
  ForEachBinaryKernel(const ForEachBinaryOption& option,
                      const std::vector<TensorOption>& inputs_opts,
                      const std::vector<Buffer>& inputs,
                      const std::vector<TensorOption>& others_opts,
                      const std::vector<Buffer>& others, const std::vector<TensorOption>& outs_opts,
                      const std::vector<Buffer>& outs);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ElementwiseSpec SpecOf(size_t i) const;
  ForEachBinaryOption option_;
};

class ForEachTernaryKernel : public ForEachKernel {
 public:
  ForEachTernaryKernel(const ForEachTernaryOption& option,
                       const std::vector<TensorOption>& inputs_opts,
                       const std::vector<Buffer>& inputs,
                       const std::vector<TensorOption>& tensors1_opts,
                       const std::vector<Buffer>& tensors1,
                       const std::vector<TensorOption>& tensors2_opts,
                       const std::vector<Buffer>& tensors2,
                       const std::vector<TensorOption>& outs_opts, const std::vector<Buffer>& outs);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ElementwiseSpec SpecOf(size_t i) const;
  ForEachTernaryOption option_;
};

}  // namespace cl
}  // namespace nerva
