#include "nerva/platform/cl/kernel/index/scatter_mean.h"

#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

void ScatterKernel::CompileMean(const std::shared_ptr<SessionImpl>& session, const Tensor& input,
                                const Buffer& table, long n, long dsize, long dstride) {
  const long total = ElementCount(out_);
  const BuildOption options = TypeOptions(input_.dtype());
  const long acc_size = (input_.dtype() == kInt64) ? 8 : 4;
  Buffer acc = Scratch(session, total * acc_size);
  Buffer count = Scratch(session, total * 4);
  auto& pre = Unit(session, "scattermean_pre.cl", options, "scattermean_pre");
  pre.SetArgs(acc, count, static_cast<cl_ulong>(total));
  Launch(pre, total);
  if (n > 0) {
    auto& add = Unit(session, "scattermean_add.cl", options, "ScatterMean");
    add.SetArgs(Arg(src_), Arg(index_), Is64(index_), acc, count, table, static_cast<cl_ulong>(n),
                static_cast<cl_long>(dsize), static_cast<cl_long>(dstride));
    Launch(add, n);
  }
  const bool has_count = Defined(count_);
  const int kind = !has_count ? 0 : count_.dtype() == kInt32 ? 1 : count_.dtype() == kInt64 ? 2 : 3;
  auto& mean = Unit(session, "scattermean_mean.cl", options, "scattermean_mean");
  mean.SetArgs(Arg(input), acc, count, Arg(out_), Arg(has_count ? count_ : out_), kind,
               static_cast<cl_ulong>(total), static_cast<int>(include_self_));
  Launch(mean, total);
}

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const ScatterMeanOption&, TO, CB, TO, CB, TO, CB, TO, CB, TO, MB>(
      "ScatterMean", [](const std::string& n, const ScatterMeanOption& o, TO io, CB i, TO xo, CB x,
                        TO so, CB s, TO co, CB c, TO oo, MB out) {
        return std::make_shared<ScatterMeanKernel>(n, o.dim, o.include_self, MakeTensor(io, i),
                                                   MakeTensor(xo, x), MakeTensor(so, s),
                                                   MakeTensor(co, c), MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
