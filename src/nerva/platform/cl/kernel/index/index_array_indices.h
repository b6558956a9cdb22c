#pragma once

// "IndexWithIndicesArray" (index_array_indices.cl): PyTorch's advanced indexing
// input[indices[0], indices[1], ...]. Entry t indexes input dimension t; an entry with an empty
// shape is left out (a full slice, like None in aten::index); dimensions after the list are
// kept whole. The given index tensors broadcast together to a shape B. The result has B in
// place of the indexed dimensions when these are adjacent, and B first followed by the kept
// dimensions otherwise (PyTorch's rule). Negative indices count from the end; an element whose
// index is outside [-size, size) reads 0 (PyTorch raises; nothing outside any buffer is read).
// Index tensors: int32 or int64 (no boolean masks), any layout; input any layout, any element
// type but double; out contiguous, result rank at most 8.

#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/kernel/index/index_frame.h"

namespace nerva {
namespace cl {

// The addressing of an advanced-indexing result for ix_array_offset.
struct ArrayPlan {
  std::vector<long> result;   // sizes of the result
  std::vector<long> table;    // the device table
  std::vector<Tensor> slots;  // the index tensors given, in table order
};
// `strides`: element strides of the tensor being addressed (input sizes). Throws naming `op`.
ArrayPlan PlanArrayIndices(const std::string& op, const std::vector<long>& sizes,
                           const std::vector<long>& strides, const std::vector<Tensor>& indices);
// The eight slot arguments (unused ones repeat `fallback`).
std::vector<IxArg> SlotArgs(const ArrayPlan& plan, const Tensor& fallback);

// Tensors of an in-list; an entry with an empty shape is a left-out one.
std::vector<Tensor> MakeTensors(const std::vector<TensorOption>& options,
                                const std::vector<Buffer>& buffers);

class IndexWithIndicesArrayKernel : public IndexFrameKernel {
 public:
  IndexWithIndicesArrayKernel(std::string name, Tensor input, std::vector<Tensor> indices,
                              Tensor out);
  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  Tensor input_;
  std::vector<Tensor> indices_;
  Tensor out_;
};

}  // namespace cl
}  // namespace nerva
