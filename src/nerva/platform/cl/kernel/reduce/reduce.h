#pragma once

#include <memory>
#include <string>
#include <vector>

#include "nerva/kernel/reduce_option.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"

namespace nerva {
namespace cl {

// The device view a reduction runs on, chosen from the reduced axes.
enum class ReduceVariant { kGlobal, kRow, kCol, kMiddle, kXZ };

// A reduction folded to its device view: the variant and the sizes of the view.
struct ReducePlan {
  ReduceVariant variant = ReduceVariant::kRow;
  long outer = 1;    // kept rows (row), outer index (middle), reduced slices z (xz)
  long reduced = 1;  // number of reduced elements
  long height = 1;   // reduced rows walked per column (col, middle)
  long run = 1;      // contiguous run folded by a group (row, xz) or kept columns (col, middle)
  long kept = 1;     // kept positions (xz: kept index y)
};

// Folds `sizes` around the normalised `axes`: consecutive axes, or [0, 2] of a
// rank-3 / [0, 2, 3] of a rank-4 tensor. `global_ok` allows the two-pass path
// for full reductions of more than 4096 elements. Returns false for any other
// axis set.
bool PlanReduce(const std::vector<long>& sizes, const std::vector<int>& axes, bool global_ok,
                ReducePlan* plan);

// The second pass of a split column sum, for kernels that fold columns in
// chunks of rows themselves (the normalisation gradients): appends to
// `kernel` the Reduce program's merge, which sums `partial`, float sums laid
// out [splits][run], into `out` (run contiguous elements, float or half).
void AppendSplitColumnSum(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                          const Buffer& partial, long splits, long run, const Tensor& out);

// torch.amax/amin/sum/mean/var/prod/all/any/count_nonzero over a set of axes ("Reduce").
// The kind sets OP, ACCUM_DTYPE and INIT of "reduce.cl"; the axes pick the
// variant: two-pass global, row, column, middle axis or [0,2]/[0,2,3].
class ReduceKernel : public KernelImpl {
 public:
  ReduceKernel(const ReduceOption& option, const TensorOption& input, const Buffer& input_buf,
               const TensorOption& output, Buffer& output_buf);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;
  void CompileGlobalReduce(std::shared_ptr<SessionImpl> session);
  // Column and middle-axis folds on devices that are not the host CPU: the
  // reduced rows split over many groups, partials merged by a second pass.
  void CompileSplitColumns(std::shared_ptr<SessionImpl> session, const ReducePlan& plan,
                           const ColumnSplit& split, BuildOption options, float based_coeff,
                           float inv_reduction_size);

  // The device OP word of the kind; the accumulation type and start value of
  // the kind for input `type`. Each throws for a kind outside 0..8.
  std::string GetOpCode() const;
  DataType GetAccumType(DataType type) const;
  std::string GetInit(DataType type) const;

 protected:
  // A reduction registered under another name (the vector norm).
  ReduceKernel(std::string name, const ReduceOption& option, const TensorOption& input,
               const Buffer& input_buf, const TensorOption& output, Buffer& output_buf);
  // Options common to every variant: OP .. VEC_SIZE_LEFTOVER, BLOCK_SIZE.
  BuildOption CommonOptions(int vec_size, long run) const;
  // The kind's switch (-DENABLE_REDUCE_MEAN, ...), if any.
  void AddKindSwitch(BuildOption& options) const;
  // Program name, sources and the device view of the reduction; the vector
  // norm substitutes its own element map and finishing.
  virtual std::string ProgramName() const { return "Reduce::reduce"; }
  virtual std::vector<std::string> Sources() const { return {"common.h", "reduce.h", "reduce.cl"}; }
  virtual void AddExtraOptions(BuildOption& /*options*/) const {}
  virtual const char* AxesMessage() const {
    return "Reduce only support consecutive axes or axes is [0,2] or [0,2,3]";
  }
  virtual bool GlobalAllowed() const { return option_.op_type != ReduceType::kVar; }

  ReduceOption option_;
  Tensor input_;
  Tensor output_;
  Buffer partial_;
};

}  // namespace cl
}  // namespace nerva
