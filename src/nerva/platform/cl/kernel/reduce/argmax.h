#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {

// The index (and optionally the value) of the best element along one axis:
// a group per row for the innermost axis, an item per column otherwise.
// Shared by ArgMax, ArgMin and ReduceWithIndices, which differ in their
// comparison (the program placed ahead of "argmax.cl").
class ArgReduceKernel : public KernelImpl {
 public:
  struct Program {
    std::string name;                  // program cache name
    std::vector<std::string> sources;  // ahead of and including "argmax.cl"
    std::string row_kernel;            // innermost axis
    std::string column_kernel;         // any other axis
  };

  ArgReduceKernel(std::string name, Program program, int dim, bool keepdim, const Tensor& input,
                  const Tensor& indices, const Tensor& values);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  // The program of an operator: `file` ahead of "argmax.cl" (nothing ahead for
  // "argmax.cl" itself) and its two kernel names.
  static Program MakeProgram(const std::string& op, const std::string& file,
                             const std::string& row_kernel, const std::string& column_kernel);
  // Definitions of the comparison beyond the types (OP for max/min with indices).
  virtual void AddExtraOptions(BuildOption& /*options*/) const {}

 private:
  Program program_;
  int dim_;
  bool keepdim_;
  Tensor input_;
  Tensor indices_;
  Tensor values_;  // undefined for ArgMax / ArgMin
};

// torch.argmax(input, dim, keepdim) ("ArgMax"), ties to the later index.
class ArgMaxKernel : public ArgReduceKernel {
 public:
  ArgMaxKernel(const ArgMaxOption& option, const TensorOption& input, const Buffer& input_buf,
               const TensorOption& output, Buffer& output_buf);
};

}  // namespace cl
}  // namespace nerva
