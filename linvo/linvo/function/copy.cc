#include "linvo/function/copy.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {

void Copy(const Matrix& in, const Dims& in_offsets, const Dims& out_offsets, const Dims& block_size,
          Matrix& out) {
  bool ok = LINVO_CHECK(in_offsets.size() == in.ndim());
  ok = LINVO_CHECK(in_offsets.size() == out_offsets.size()) && ok;
  ok = LINVO_CHECK(block_size.size() == in.ndim()) && ok;
  ok = LINVO_CHECK(out.ndim() == in.ndim()) && ok;
  if (!ok) return;
  const Dims& in_dims = in.shape().dims();
  const Dims& out_dims = out.shape().dims();
  for (size_t i = 0; i < in_offsets.size(); ++i) {
    ok = LINVO_CHECK(in_offsets[i] < in_dims[i]) && ok;
    ok = LINVO_CHECK(in_offsets[i] + block_size[i] <= in_dims[i]) && ok;
    ok = LINVO_CHECK(out_offsets[i] < out_dims[i]) && ok;
    ok = LINVO_CHECK(out_offsets[i] + block_size[i] <= out_dims[i]) && ok;
  }
  if (!ok) return;
  CopyLayout layout{block_size, in.shape().strides(), out.shape().strides()};
  for (size_t i = 0; i < in_offsets.size(); ++i) {
    layout.in_offset += in_offsets[i] * layout.in_strides[i];
    layout.out_offset += out_offsets[i] * layout.out_strides[i];
  }
  StridedCopy(in, out, layout);
}

}  // namespace linvo
