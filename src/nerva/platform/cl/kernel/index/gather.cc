#include "nerva/platform/cl/kernel/index/gather.h"

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

GatherKernel::GatherKernel(std::string name, std::string program, int dim, Tensor input,
                           Tensor index, Tensor out)
    : IndexFrameKernel(std::move(name)),
      program_(std::move(program)),
      dim_(dim),
      input_(std::move(input)),
      index_(std::move(index)),
      out_(std::move(out)) {}

std::vector<long> GatherKernel::OutSizes() const {
  const auto& in = input_.shape().sizes();
  const int d = Dim(dim_, in.size());
  std::vector<long> sizes(in.begin(), in.begin() + d);
  for (long s : index_.shape().sizes()) sizes.push_back(s);
  sizes.insert(sizes.end(), in.begin() + d + 1, in.end());
  return sizes;
}

bool GatherKernel::Verify() const {
  CheckDataType("input", input_, false);
  CheckIndexType("index", index_);
  CheckRank("input", input_);
  CheckRank("index", index_);
  const std::vector<long> sizes = OutSizes();
  if (sizes.size() > 8) {
    throw std::invalid_argument(StrCat(name(), ": out rank ", sizes.size(), " exceeds 8"));
  }
  CheckOut("out", out_, sizes, input_.dtype());
  return true;
}

void GatherKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = ElementCount(out_);
  if (n == 0) return;
  const auto& in = input_.shape().sizes();
  const int d = Dim(dim_, in.size());
  const long inner = Product(in, d + 1, in.size());
  const long count = ElementCount(index_);
  const Tensor input = Dense(session, input_);
  const Tensor index = Dense(session, index_);
  const long rows = n / inner;
  if (!session->host_cpu()) {
    CompileGpu(session, input, index, rows,
               inner * static_cast<long>(TypeTraitsHelper::GetSize(input_.dtype())), count, in[d]);
    return;
  }
  const long row_bytes = inner * static_cast<long>(TypeTraitsHelper::GetSize(input_.dtype()));
  const long chunk = 16384;  // IX_CHUNK
  const long chunks = (row_bytes + chunk - 1) / chunk;
  auto& unit = Unit(session, program_, UnitOptions(1), name());
  unit.SetArgs(Arg(input), Arg(index), Is64(index), Arg(out_), static_cast<cl_ulong>(rows),
               static_cast<cl_ulong>(row_bytes), static_cast<cl_ulong>(count),
               static_cast<cl_long>(in[d]), 1, static_cast<cl_ulong>(chunks));
  Launch(unit, rows * chunks, kCpuRowLocal);
}

void GatherKernel::CompileGpu(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                              const Tensor& index, long rows, long row_bytes, long count,
                              long dsize) {
  // The widest unit (16, 8, 4, 2 or 1 bytes) that divides the row and both tensors' offsets.
  const IxArg in = Arg(input), out = Arg(out_);
  long unit_bytes = 16;
  while (unit_bytes > 1 && (row_bytes % unit_bytes || static_cast<long>(in.offset) % unit_bytes ||
                            static_cast<long>(out.offset) % unit_bytes)) {
    unit_bytes /= 2;
  }
  const long units = row_bytes / unit_bytes;
  auto& unit = Unit(session, program_, UnitOptions(unit_bytes), name() + "_gpu");
  unit.SetArgs(in, Arg(index), Is64(index), out, static_cast<cl_ulong>(rows),
               static_cast<cl_ulong>(units), static_cast<cl_ulong>(count),
               static_cast<cl_long>(dsize), 1);
  Launch(unit, rows * units);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const GatherOption&, TO, CB, TO, CB, TO, MB>(
      "Gather",
      [](const std::string& n, const GatherOption& o, TO io, CB i, TO xo, CB x, TO oo, MB out) {
        return std::make_shared<GatherKernel>(n, "gather.cl", o.dim, MakeTensor(io, i),
                                              MakeTensor(xo, x), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
