#pragma once

// Host side of the element-wise operators, shared by every kernel of the family:
// argument checks, broadcasting, dimension coalescing, type rules, memory
// aliasing and the choice between the flat and the strided device kernel of
// "elementwise.h".

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// True when the element ranges of `a` and `b` overlap in device memory: the
// same buffer, or views (sub-buffers) of one buffer, with intersecting byte spans.
bool SharesMemory(const Tensor& a, const Tensor& b);
// The memory object that owns `buffer`'s memory (the root of a view) and the
// byte origin of `buffer` inside it.
std::pair<cl_mem, long> RootOf(const Buffer& buffer);

// Vector width of a flat element-wise kernel over `length` elements. Normally
// AdjustVecSize(requested, length): the last vector is shifted back to end at
// the tensor's end and overlaps the one before it. When the output aliases an
// input that overlap would re-read elements already written, so the width is
// the largest of 4, 2, 1 that divides `length` and nothing overlaps.
int ElementwiseVecSize(int requested, long length, bool aliased);

// A tensor from a descriptor and a buffer; a tensor without elements may have
// no buffer.
Tensor MakeTensor(const TensorOption& option, const Buffer& buffer);

// PyTorch's rule for writing a result of type `from` into an output of type
// `to`: no floating point into integers, nothing but bool into bool.
bool CanCast(DataType from, DataType to);
// The device conversion kind ("WRAP", "SAT", "BOOL") from `from` to `to`.
std::string ConversionKind(DataType from, DataType to);
// The promoted type of all `types` by the library's promotion table (which
// computes the small integer types in int32; written back to a narrower output
// the results wrap exactly as in the narrow type); bool with bool stays bool.
DataType PromoteTypes(const std::vector<DataType>& types);
bool IsFloat(DataType type);
// PyTorch's broadcast of two size lists (a size 0 against 1 gives 0) into
// `out`; false when they do not broadcast.
bool BroadcastTogether(const std::vector<long>& a, const std::vector<long>& b,
                       std::vector<long>* out);

// Sizes and byte strides of the tensors of one launch, innermost dimension
// first, after broadcasting every input to the output's shape, dropping
// dimensions of size 1 and merging dimensions that are contiguous in every
// tensor. strides[0] is the output's.
struct ElementwiseLayout {
  std::vector<long> sizes;
  std::vector<std::vector<long>> strides;
};
ElementwiseLayout CoalesceLayout(const Tensor& out, const std::vector<Tensor>& inputs);

// What an operator gives the frame to build its program.
struct ElementwiseSpec {
  std::string program;              // device program, e.g. "binary.cl"
  std::vector<DataType> arg_types;  // the type each input is converted to
  DataType result_type;             // the type of the program's EW_OP value
  BuildOption options;              // the operator's own definitions (OP=...)
  bool math = true;                 // the program uses "math.h"
  bool op16 = false;                // the program defines EW_OP16 (float16 lanes)
};

// The build definitions of an element-wise program: the operator's own, then
// VEC_SIZE, EW_FORM, the output's type and conversion, EW_INT and per input its type,
// argument type and conversion.
// The kernel a build holds: flat vectors, the strided walk, tensor lists in
// argument slots, or tensor lists chunked through a table (CPU devices).
enum class ElementwiseForm { kFlat = 0, kStrided = 1, kList = 2, kTable = 3 };
BuildOption ElementwiseOptions(const ElementwiseSpec& spec, DataType out,
                               const std::vector<DataType>& inputs, int vec, ElementwiseForm form);
// "common.h", "math.h" (when the program uses it), "elementwise.h", the program.
std::vector<std::string> ElementwiseSources(const ElementwiseSpec& spec);

// Base of the element-wise kernels: `inputs` broadcast to `out`'s shape.
class ElementwiseKernel : public KernelImpl {
 public:
  ElementwiseKernel(std::string name, std::vector<Tensor> inputs, Tensor out,
                    std::vector<std::string> input_names);

 protected:
  // Checks that every tensor has a supported type and a buffer (unless it is
  // empty), a rank of at most 8, that the inputs broadcast together and that the
  // output has the broadcast shape. Throws with the operator's name.
  void VerifyShapes() const;
  // Throws std::invalid_argument unless `result` may be written into the output.
  void VerifyOutputType(DataType result) const;
  // Throws std::invalid_argument naming `what` and the input types.
  [[noreturn]] void ThrowUnsupportedTypes(const std::string& what) const;
  // Builds the program and the unit for the output's layout; `bind` appends the
  // operator's own arguments (EW_PARAMS). Nothing is built for an empty output.
  void CompileElementwise(const std::shared_ptr<SessionImpl>& session, const ElementwiseSpec& spec,
                          const std::function<void(KernelUnit&)>& bind);

  const std::vector<Tensor>& inputs() const { return inputs_; }
  const Tensor& out() const { return out_; }
  DataType input_type(size_t i) const { return inputs_[i].dtype(); }

 private:
  std::vector<Tensor> inputs_;
  Tensor out_;
  std::vector<std::string> input_names_;
};

// Kernel arguments of the frame (found by SetKernelArg through the argument's namespace).
struct EwFlatArg {
  cl_mem mem;
  cl_uint offset;
  Buffer buffer;  // keeps `mem` alive while bound
};
struct EwStridedArg {
  cl_mem mem;
  cl_uint offset;
  cl_uint8 strides;
  Buffer buffer;  // keeps `mem` alive while bound
};
inline void KeepBound(std::vector<Buffer>& keep, const EwFlatArg& arg) {
  keep.push_back(arg.buffer);
}
inline void KeepBound(std::vector<Buffer>& keep, const EwStridedArg& arg) {
  keep.push_back(arg.buffer);
}
struct EwDims {
  cl_uint8 sizes;
};
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwFlatArg& arg);
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwStridedArg& arg);
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const EwDims& arg);

}  // namespace cl
}  // namespace nerva
