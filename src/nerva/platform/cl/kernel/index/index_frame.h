#pragma once

// Host side shared by the gather, scatter, index and embedding-bag kernels: argument checks
// with the operator's name, dense inputs, metadata tables, launches, registration and the
// accumulation frame of "scatter_pre.cl" (scratch of the accumulation type, reduction with the
// input afterwards).
//
// Index values are device data, so the host cannot check them: every program bounds each index
// on the device. An index outside its dimension never reads or writes outside a buffer; what
// happens instead (a zero read, or the element skipped) is stated by each operator's header.

#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/tensor.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

// A tensor as the index programs take it: buffer and byte offset (IX_PARAM).
struct IxArg {
  cl_mem mem;
  cl_ulong offset;
  Buffer buffer;  // keeps `mem` alive while bound
};
inline void KeepBound(std::vector<Buffer>& keep, const IxArg& arg) {
  keep.push_back(arg.buffer);
}
cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const IxArg& arg);
IxArg MakeIxArg(const Tensor& t);

class IndexFrameKernel : public KernelImpl {
 public:
  using KernelImpl::KernelImpl;

 protected:
  // Argument checks; each throws naming the operator and the argument.
  void CheckIndexType(const std::string& arg, const Tensor& t) const;  // int32/int64
  // Element types the programs read and write: float, half, the integer types and bool; with
  // `reduce` only float, half, int8, int16, int32, int64 and uint8.
  void CheckDataType(const std::string& arg, const Tensor& t, bool reduce) const;
  void CheckSameType(const std::string& arg, const Tensor& t, DataType type) const;
  void CheckSizes(const std::string& arg, const Tensor& t, const std::vector<long>& sizes) const;
  void CheckRank(const std::string& arg, const Tensor& t) const;  // at most 8
  // An output: `type`, `sizes`, contiguous.
  void CheckOut(const std::string& arg, const Tensor& t, const std::vector<long>& sizes,
                DataType type) const;
  // `dim` made positive; outside [-rank, rank) throws std::out_of_range.
  int Dim(int dim, size_t rank) const;

  // `t` in contiguous memory (a copy unit when it is not); kept alive by the kernel.
  Tensor Dense(const std::shared_ptr<SessionImpl>& session, const Tensor& t);
  Buffer Scratch(const std::shared_ptr<SessionImpl>& session, long bytes);
  // A device table of 64-bit values, written once at compile time.
  Buffer Table(const std::shared_ptr<SessionImpl>& session, const std::vector<long>& values);
  // A unit of `program` ("common.h", "index.h" and the program).
  KernelUnit& Unit(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                   const BuildOption& options, const std::string& kernel);
  // One work item per element of `n`, in groups of IX_LOCAL (or `local`).
  static void Launch(KernelUnit& unit, long n, size_t local = 64);
  // The group size of the CPU kernels that prefetch rows some work items ahead: the last items
  // of a group prefetch for the next group, which may run on another core, so long groups
  // waste fewer of those prefetches.
  static constexpr size_t kCpuRowLocal = 512;
  static IxArg Arg(const Tensor& t);
  static int Is64(const Tensor& index) { return index.dtype() == kInt64 ? 1 : 0; }

  // DTYPE as the unsigned type of the element's size (pure data movement).
  static BuildOption MoveOptions(DataType type);
  // DTYPE as an unsigned unit of `bytes` bytes (1, 2, 4, 8 or 16: uint4).
  static BuildOption UnitOptions(long bytes);
  // DTYPE and its accumulation type ACC_T.
  static BuildOption TypeOptions(DataType type);

  // dst = src (dense tensors of one type and count); nothing when they are the same memory.
  void Copy(const std::shared_ptr<SessionImpl>& session, const Tensor& src, const Tensor& dst);

  // The accumulation frame: values combine into a scratch array of ACC_T (starting at the
  // reduction's identity) and, when `counted`, a per-position count; EndAccumulate then writes
  // out = reduce(input, scratch) where a position was hit (mean: floor division for integers),
  // or the input where it was not.
  struct Accumulator {
    Buffer acc, count;
    int op = 0;
    bool counted = false;
  };
  Accumulator BeginAccumulate(const std::shared_ptr<SessionImpl>& session, const Tensor& out,
                              int op, bool counted);
  void EndAccumulate(const std::shared_ptr<SessionImpl>& session, const Accumulator& acc,
                     const Tensor& input, const Tensor& out, bool include_self);

 private:
  std::vector<Tensor> keep_;
  std::vector<Buffer> scratch_;
};

// The optional-input convention: an empty shape means "left out".
inline bool Defined(const Tensor& t) {
  return !t.shape().sizes().empty();
}

// Registers `name` on the OpenCL platform with the creator `make(name, args...)`.
template <typename... Args, typename F>
void RegisterIndexKernel(const std::string& name, F make) {
  ClModule::singleton().AddKernelImpl(
      name, MakeFunctionWrapper<std::shared_ptr<KernelImpl>, Args...>(
                name, [make, name](Args... a) -> std::shared_ptr<KernelImpl> {
                  return make(name, a...);
                }));
}

}  // namespace cl
}  // namespace nerva
