#pragma once

// Host-side pieces shared by the reduction, softmax, scan and norm kernels:
// axis normalisation, folding a tensor around its reduced axes into the
// 1-D/2-D/3-D views the device programs take, output checks and scratch memory.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "nerva/buffer.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

class SessionImpl;

// The work-group size of every reduction program.
constexpr int kReduceBlockSize = 64;

// A tensor folded around the consecutive dimensions [first, last]:
// outer (dimensions before) x reduced x inner (dimensions after).
struct AxisFold {
  long outer = 1;
  long reduced = 1;
  long inner = 1;
};
AxisFold FoldAxes(const std::vector<long>& sizes, int first, int last);

// Positive, sorted axes; an empty list means every axis. An axis outside the
// rank throws std::out_of_range, a repeated one std::invalid_argument.
std::vector<int> NormalizeAxes(const std::string& op, const std::vector<int>& axes, size_t rank);
// One axis made positive; outside [-rank, rank) throws std::out_of_range.
int NormalizeAxis(const std::string& op, int axis, size_t rank);
// True when the sorted axes are consecutive.
bool AxesConsecutive(const std::vector<int>& axes);

// Sizes after reducing `axes`: kept with size 1 under keepdim, else dropped;
// [1] when nothing is left (a scalar result).
std::vector<long> ReducedSizes(const std::vector<long>& sizes, const std::vector<int>& axes,
                               bool keepdim);
long Product(const std::vector<long>& sizes, size_t begin, size_t end);
long ElementCount(const Tensor& tensor);

// Argument checks that throw with "<op>: <arg> ..." messages.
void CheckDefined(const std::string& op, const std::string& arg, const Tensor& tensor);
void CheckContiguous(const std::string& op, const std::string& arg, const Tensor& tensor);
void CheckSizes(const std::string& op, const std::string& arg, const Tensor& tensor,
                const std::vector<long>& expected, const std::string& what);
void CheckSameSizes(const std::string& op, const std::string& arg, const Tensor& tensor,
                    const std::string& other_arg, const Tensor& other);
// Storage types the reduction programs read and write: half, float, the
// integer types and bool (when `allow_integral`); double and the extension
// types are refused with std::invalid_argument.
void CheckType(const std::string& op, const std::string& arg, DataType type, bool allow_integral);
// int64 or int32, for index outputs.
void CheckIndexType(const std::string& op, const std::string& arg, DataType type);

// A contiguous device view of `tensor`'s memory with `sizes` (tensor order,
// innermost on x) and `step` elements per work item along x.
ClTensor ContiguousView(const Tensor& tensor, const std::vector<long>& sizes, uint32_t step = 1);

// Eight 64-bit values passed by value as one long8 argument.
struct LongVector8 {
  cl_long8 value;
};
inline cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const LongVector8& vector) {
  return clSetKernelArg(kernel, index++, sizeof(cl_long8), &vector.value);
}

// `tensor` itself when contiguous; otherwise a contiguous copy in fresh device
// memory, made by a unit that this call appends to `kernel` (so it runs
// first). The returned tensor keeps that memory alive.
Tensor MakeContiguous(KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session,
                      const Tensor& tensor);

// A fold of `height` reduced rows per kept column, split for devices that are
// not the host CPU: `splits` chunks of `rows` rows each (the last may be
// shorter), each folded by its own work items into a partial result that a
// second pass merges. Enough chunks to give about 2048 items per compute unit
// from `items` column items, each chunk at least 32 rows; one chunk (no
// split) when that leaves fewer than two.
struct ColumnSplit {
  long splits = 1;
  long rows = 1;
};
ColumnSplit SplitColumns(const SessionImpl& session, long items, long height);

// The row chunks of a column fold on CPU devices, where one item streams
// whole rows of a chunk: enough chunks over `outer` slices for every compute
// unit to take several, each at least 16 rows. Folds of fewer than
// kMinRowsForRowChunks rows keep the column items, which read them directly.
constexpr long kMinRowsForRowChunks = 8;
ColumnSplit SplitRows(const SessionImpl& session, long outer, long height);

// Device memory of `bytes` bytes for a kernel's intermediate results.
Buffer MakeScratchBuffer(const std::shared_ptr<SessionImpl>& session, long bytes);

}  // namespace cl
}  // namespace nerva
