#include "nerva/platform/cl/kernel/index/index.h"

#include "nerva/kernel/base_option.h"
#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {
using TO = const TensorOption&;
using CB = const Buffer&;
using MB = Buffer&;
}  // namespace

NERVA_STATIC_REGISTER {
  RegisterIndexKernel<const IndexOption&, TO, CB, TO, CB, TO, MB>(
      "Index",
      [](const std::string& n, const IndexOption& o, TO io, CB i, TO xo, CB x, TO oo, MB out) {
        return std::make_shared<IndexKernel>(n, o.dim, MakeTensor(io, i), MakeTensor(xo, x),
                                             MakeTensor(oo, out));
      });
};

}  // namespace cl
}  // namespace nerva
