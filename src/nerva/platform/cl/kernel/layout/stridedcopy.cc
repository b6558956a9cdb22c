#include "nerva/platform/cl/kernel/layout/stridedcopy.h"

#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// The tensor of a descriptor whose first element lies `offset` elements into the buffer.
Tensor AtOffset(const TensorOption& opt, const Buffer& buffer, long offset) {
  return Tensor(opt, buffer, std::max(offset, 0L) * static_cast<long>(opt.item_size()));
}

}  // namespace

StridedCopyKernel::StridedCopyKernel(const CopyOption& option, const TensorOption& src_opt,
                                     const Buffer& src, const TensorOption& dst_opt, Buffer& dst)
    : ElementwiseKernel("StridedCopy", {AtOffset(src_opt, src, option.src_offset)},
                        AtOffset(dst_opt, dst, option.dst_offset), {"src"}),
      option_(option) {}

bool StridedCopyKernel::Verify() const {
  if (option_.src_offset < 0 || option_.dst_offset < 0) {
    throw std::out_of_range(StrCat(name(), ": negative element offset (src_offset ",
                                   option_.src_offset, ", dst_offset ", option_.dst_offset, ")"));
  }
  VerifyShapes();
  // Both views must lie inside their buffers, offsets included.
  for (const Tensor* t : {&inputs()[0], &out()}) {
    const std::string problem = DescribeOutOfBuffer(t->option(), t->storage_offset(), t->storage());
    if (!problem.empty()) {
      throw std::invalid_argument(StrCat(name(), ": ", t == &out() ? "dst " : "src ", problem));
    }
  }
  return true;
}

void StridedCopyKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const DataType in = input_type(0);
  CompileElementwise(session, ElementwiseSpec{"stridedcopy.cl", {in}, in, BuildOption(), false},
                     [](KernelUnit&) {});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<StridedCopyKernel, const CopyOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("StridedCopy");
};

}  // namespace cl
}  // namespace nerva
