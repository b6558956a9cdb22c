#pragma once

#include <memory>

#include "nerva/kernel/base.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

namespace nerva {
namespace cl {

// Kernels that write a sequence into their output, any view of it: the shared
// output checks and program build.
class GeneratorKernel : public ElementwiseKernel {
 public:
  GeneratorKernel(std::string name, const TensorOption& out_opt, Buffer& out);

 protected:
  // Output type and buffer as any element-wise output, and its sizes `expected`.
  void VerifyOutput(const std::vector<long>& expected) const;
  // The unit of `program` writing the output from a value of type `value_type`;
  // null for an empty output.
  std::shared_ptr<KernelUnit> MakeGenerator(const std::shared_ptr<SessionImpl>& session,
                                            const std::string& program, DataType value_type,
                                            BuildOption options);
};

// torch.arange(start, end, step) ("ARange", arange.cl): out[i] = start + i * step in
// double, converted to the output type. The output is one-dimensional with
// ceil((end - start) / step) elements; a zero step or one pointing away from end is
// an invalid argument.
class ARangeKernel : public GeneratorKernel {
 public:
  ARangeKernel(const ARangeOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  ARangeOption option_;
};

// torch.linspace(start, end, steps) ("Linspace", linspace.cl): PyTorch's two-sided
// evaluation; floating-point outputs compute in float, integer outputs in double and
// truncate. The output is one-dimensional with `steps` elements.
class LinspaceKernel : public GeneratorKernel {
 public:
  LinspaceKernel(const LinspaceOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  LinspaceOption option_;
};

// torch.eye(n, m) ("Eye", eye.cl): ones on the diagonal of an [n, m] output.
class EyeKernel : public GeneratorKernel {
 public:
  EyeKernel(const EyeOption& option, const TensorOption& out_opt, Buffer& out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  EyeOption option_;
};

}  // namespace cl
}  // namespace nerva
