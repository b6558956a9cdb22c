#include "nerva/platform/cl/kernel/index/index_frame.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const IxArg& arg) {
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &arg.mem);
  return status == CL_SUCCESS ? clSetKernelArg(kernel, index++, sizeof(cl_ulong), &arg.offset)
                              : status;
}

void IndexFrameKernel::CheckIndexType(const std::string& arg, const Tensor& t) const {
  if (t.dtype() != kInt64 && t.dtype() != kInt32) {
    throw std::invalid_argument(StrCat(
        name(), ": ", arg, " must be DataType::kInt64 or DataType::kInt32, got ", t.dtype()));
  }
}

void IndexFrameKernel::CheckDataType(const std::string& arg, const Tensor& t, bool reduce) const {
  const DataType d = t.dtype();
  const bool movable = d == kFloat || d == kHalf || (d >= kInt8 && d <= kUInt64) || d == kBool;
  const bool reducible = d == kFloat || d == kHalf || (d >= kInt8 && d <= kInt64) || d == kUInt8;
  if (!(reduce ? reducible : movable)) {
    throw std::invalid_argument(
        StrCat(name(), ": unsupported ", arg, " type ", d, reduce ? " for a reduction" : ""));
  }
}

void IndexFrameKernel::CheckSameType(const std::string& arg, const Tensor& t, DataType type) const {
  if (t.dtype() != type) {
    throw std::invalid_argument(
        StrCat(name(), ": ", arg, " must have type ", type, ", got ", t.dtype()));
  }
}

void IndexFrameKernel::CheckSizes(const std::string& arg, const Tensor& t,
                                  const std::vector<long>& sizes) const {
  if (t.shape().sizes() != sizes) {
    throw std::runtime_error(
        StrCat(name(), ": ", arg, " must have shape ", Shape(sizes), ", got ", t.shape()));
  }
}

void IndexFrameKernel::CheckRank(const std::string& arg, const Tensor& t) const {
  if (t.shape().ndim() > 8) {
    throw std::invalid_argument(
        StrCat(name(), ": ", arg, " of shape ", t.shape(), " has a rank above 8"));
  }
}

void IndexFrameKernel::CheckOut(const std::string& arg, const Tensor& t,
                                const std::vector<long>& sizes, DataType type) const {
  CheckSameType(arg, t, type);
  CheckSizes(arg, t, sizes);
  if (!t.is_contiguous())
    throw std::invalid_argument(StrCat(name(), ": ", arg, " must be contiguous"));
}

int IndexFrameKernel::Dim(int dim, size_t rank) const {
  const int r = static_cast<int>(rank);
  if (dim < -r || dim >= r) {
    throw std::out_of_range(
        StrCat(name(), ": dim ", dim, " is out of range for a tensor of rank ", rank));
  }
  return dim < 0 ? dim + r : dim;
}

Tensor IndexFrameKernel::Dense(const std::shared_ptr<SessionImpl>& session, const Tensor& t) {
  Tensor dense = MakeContiguous(*this, session, t);
  keep_.push_back(dense);
  return dense;
}

Buffer IndexFrameKernel::Scratch(const std::shared_ptr<SessionImpl>& session, long bytes) {
  Buffer buffer = MakeScratchBuffer(session, bytes);
  scratch_.push_back(buffer);
  return buffer;
}

Buffer IndexFrameKernel::Table(const std::shared_ptr<SessionImpl>& session,
                               const std::vector<long>& values) {
  std::vector<cl_long> data(values.begin(), values.end());
  if (data.empty()) data.push_back(0);
  std::shared_ptr<ISessionImpl> base = session;
  MemoryFlags flags = kMemReadWrite;
  long size = static_cast<long>(data.size() * sizeof(cl_long));
  void* host = data.data();
  Buffer buffer = base->MakeBuffer("MakeBuffer", base, flags, size, host);
  scratch_.push_back(buffer);
  return buffer;
}

KernelUnit& IndexFrameKernel::Unit(const std::shared_ptr<SessionImpl>& session,
                                   const std::string& program, const BuildOption& options,
                                   const std::string& kernel) {
  return *MakeSubKernel(session, "Index::" + program, {"common.h", "index.h", program}, options,
                        kernel);
}

void IndexFrameKernel::Launch(KernelUnit& unit, long n, size_t local) {
  unit.SetGlobal({static_cast<size_t>(std::max(n, 1L))}).SetLocal({local});
}

IxArg IndexFrameKernel::Arg(const Tensor& t) {
  return MakeIxArg(t);
}

IxArg MakeIxArg(const Tensor& t) {
  const ClTensor view(t);
  return IxArg{view.mem(), view.offset(), view.buffer()};
}

BuildOption IndexFrameKernel::MoveOptions(DataType type) {
  return UnitOptions(static_cast<long>(TypeTraitsHelper::GetSize(type)));
}

BuildOption IndexFrameKernel::UnitOptions(long bytes) {
  static const char* const kBySize[] = {"", "uchar", "ushort", "", "uint", "", "", "", "ulong"};
  BuildOption options;
  options.AddDefinition("DTYPE", bytes == 16 ? "uint4" : kBySize[bytes]);
  return options;
}

BuildOption IndexFrameKernel::TypeOptions(DataType type) {
  BuildOption options;
  options.AddDefinition("DTYPE", GetDataTypeCode(type));
  if (type == kFloat || type == kHalf) {
    options.AddDefinition("ACC_T", "float").AddDefinition("ACC_IS_FLOAT", "1");
  } else if (type == kInt64 || type == kUInt32 || type == kUInt64) {
    options.AddDefinition("ACC_T", "long")
        .AddDefinition("ACC_IS_FLOAT", "0")
        .AddOption("-DACC_IS_LONG");
  } else {
    options.AddDefinition("ACC_T", "int").AddDefinition("ACC_IS_FLOAT", "0");
  }
  return options;
}

void IndexFrameKernel::Copy(const std::shared_ptr<SessionImpl>& session, const Tensor& src,
                            const Tensor& dst) {
  const long count = ElementCount(dst);
  if (count == 0) return;
  const IxArg s = Arg(src), d = Arg(dst);
  if (s.mem == d.mem && s.offset == d.offset) return;
  const long bytes = count * static_cast<long>(TypeTraitsHelper::GetSize(dst.dtype()));
  auto& unit = Unit(session, "scatter_pre.cl", TypeOptions(dst.dtype()), "index_copy");
  unit.SetArgs(s, d, static_cast<cl_ulong>(bytes));
  Launch(unit, (bytes + 15) / 16);
}

IndexFrameKernel::Accumulator IndexFrameKernel::BeginAccumulate(
    const std::shared_ptr<SessionImpl>& session, const Tensor& out, int op, bool counted) {
  const long n = ElementCount(out);
  const long acc_size = (out.dtype() == kInt64 || out.dtype() == kUInt32) ? 8 : 4;
  Accumulator a;
  a.op = op;
  a.counted = counted;
  a.acc = Scratch(session, std::max(n, 1L) * acc_size);
  a.count = Scratch(session, counted ? std::max(n, 1L) * 4 : 4);
  auto& unit = Unit(session, "scatter_pre.cl", TypeOptions(out.dtype()), "acc_init");
  unit.SetArgs(a.acc, a.count, static_cast<cl_ulong>(n), op, static_cast<int>(counted));
  Launch(unit, n);
  return a;
}

void IndexFrameKernel::EndAccumulate(const std::shared_ptr<SessionImpl>& session,
                                     const Accumulator& a, const Tensor& input, const Tensor& out,
                                     bool include_self) {
  const long n = ElementCount(out);
  auto& unit = Unit(session, "scatter_pre.cl", TypeOptions(out.dtype()), "acc_store");
  unit.SetArgs(Arg(input), a.acc, a.count, Arg(out), static_cast<cl_ulong>(n), a.op,
               static_cast<int>(include_self), static_cast<int>(a.counted));
  Launch(unit, n);
}

}  // namespace cl
}  // namespace nerva
