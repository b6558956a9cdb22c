#pragma once

// Host side of the layout operators: argument checks with the
// operator's name, strided views over a tensor's storage, and the launches of
// the walk in "layout.h" (a move between two views of equal sizes, or a
// fill). Elements move as raw bits, so every element type of one size shares
// one build.

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// A view of `t`'s storage with element `sizes` and `strides` whose first
// element lies `offset` elements past t's first element.
Tensor ViewOf(const Tensor& t, const std::vector<long>& sizes, const std::vector<long>& strides,
              long offset = 0);

// The pixel-shuffle correspondence between `deep` (*, C * r * r, H, W) and
// `spatial` (*, C, H * r, W * r): channel c * r * r + i * r + j, row h, column w
// of deep is row h * r + i, column w * r + j of spatial. Both come back as views
// of the same sizes, (*, C, H, i, W, j) when `spatial_order`, else (*, C, i, j,
// H, W), so that a move walks the written tensor in its own order.
std::pair<Tensor, Tensor> PixelShuffleViews(const Tensor& deep, const Tensor& spatial, long r,
                                            bool spatial_order);

// Eight 32-bit lanes of a kernel argument (a uint8 or int8 on the device).
struct LayoutLanes {
  cl_uint8 lanes;
};
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LayoutLanes& arg);
// `values` in the first lanes (negative values wrap modulo 2^32), `fill` after.
LayoutLanes Lanes(const std::vector<long>& values, long fill);

// A tensor's dimensions for the walk, innermost first, all kept (no merging).
std::vector<long> InnerSizes(const Tensor& t);
std::vector<long> InnerByteStrides(const Tensor& t);
// The global range of a walk over `sizes` (innermost first): x, y, and the
// rest folded into z.
std::vector<size_t> WalkGlobal(const std::vector<long>& sizes);
// Elements of `item` bytes one work item of a move with a contiguous x run
// moves (LY_VEC), and the global range of such a move over `sizes`.
long MoveVector(size_t item);
std::vector<size_t> MoveGlobal(std::vector<long> sizes, long vec);

class LayoutKernel : public KernelImpl {
 public:
  // `program` is the device text ("slice.cl") and `entry` the name its
  // LY_MOVE_KERNELS expansion gives the kernels.
  LayoutKernel(std::string name, std::string program, std::string entry);

 protected:
  // A supported element type, rank at most 8, a buffer unless empty.
  void CheckTensor(const Tensor& t, const std::string& what) const;
  // std::runtime_error unless t's sizes are `expected` (the result's).
  void CheckShape(const Tensor& t, const std::vector<long>& expected,
                  const std::string& what) const;
  // std::invalid_argument unless `t` has the type `expected`.
  void CheckType(const Tensor& t, DataType expected, const std::string& what) const;
  // `axis` in [-rank, rank) normalised, else std::out_of_range naming it.
  int Axis(long axis, size_t rank, const std::string& what = "dim") const;

  // A unit moving `in` (a view with out's sizes) into `out`; dimensions are
  // coalesced first. Nothing for an empty `out`.
  void AddMove(const std::shared_ptr<SessionImpl>& session, const Tensor& out, const Tensor& in);
  // A unit moving between explicit layouts: sizes and byte strides innermost
  // first (in strides may be negative), byte offsets from each buffer's start.
  void AddMoveLayout(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                     const Tensor& in, std::vector<long> sizes, std::vector<long> out_strides,
                     std::vector<long> in_strides, long out_offset, long in_offset);
  // A unit converting `in` (a view with out's sizes, of another type) into
  // `out` through the element-wise "StridedCopy" program.
  void AddConvert(const std::shared_ptr<SessionImpl>& session, const Tensor& out, const Tensor& in);
  // A unit writing `bits` (the element's bit pattern) into every element of `out`.
  void AddFill(const std::shared_ptr<SessionImpl>& session, const Tensor& out, uint64_t bits);

  // The program's build options for elements of `item` bytes; `xc` when
  // both x strides are one element, `deep` for walks of rank above 3,
  // `stream` for streaming vector stores.
  BuildOption MoveOptions(size_t item, bool xc = false, bool deep = false,
                          bool stream = false) const;
  // The bytes the whole kernel writes, where its moves write parts of one
  // output (Concat): the size that decides streaming stores.
  void SetWrittenBytes(uint64_t bytes) { written_bytes_ = bytes; }
  // "common.h", "layout.h" then the program.
  std::vector<std::string> MoveSources() const;
  // The program's cache name (shared by every operator using the same text).
  std::string ProgramName() const;
  const std::string& entry() const { return entry_; }

 private:
  std::string program_;
  std::string entry_;
  uint64_t written_bytes_ = 0;
};

// A layout kernel with one input and one output of the input's type.
class UnaryMoveKernel : public LayoutKernel {
 public:
  UnaryMoveKernel(std::string name, std::string program, std::string entry,
                  const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                  const Buffer& out);

 protected:
  // Both tensors supported, out of the input's type and of shape `expected`.
  void CheckUnary(const std::vector<long>& expected) const;

  Tensor input_, out_;
};

// PyTorch's result type of joining tensors of `types` (torch.cat): bool
// only when all are bool, the floating promotion when any is floating, else
// the smallest integer type holding every input's range.
DataType JoinedType(const std::vector<DataType>& types);

// The bit pattern of `value` as an element of `type` (PyTorch's conversion
// of a Python number into the tensor's type: floating types round, integer
// types truncate toward zero).
uint64_t ElementBits(double value, DataType type);

}  // namespace cl
}  // namespace nerva
