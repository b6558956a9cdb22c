#include "linvo/function/slice.h"

#include <algorithm>

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {
namespace {

// Checks the arguments and gives the extent of the result along each axis (empty on failure).
bool SliceDims(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps,
               Dims& dims) {
  bool ok = LINVO_CHECK(starts.size() == in.ndim());
  ok = LINVO_CHECK(starts.size() == ends.size()) && ok;
  ok = LINVO_CHECK(starts.size() == steps.size()) && ok;
  if (!ok) return false;
  for (size_t i = 0; i < starts.size(); ++i) {
    if (!LINVO_CHECK(starts[i] < ends[i]) || !LINVO_CHECK(ends[i] - starts[i] >= steps[i]) ||
        !LINVO_CHECK(steps[i] > 0)) {
      return false;
    }
    int64_t end = std::min(ends[i], in.shape().dims()[i]);
    dims.push_back(std::max<int64_t>(0, (end - starts[i] + steps[i] - 1) / steps[i]));
  }
  return true;
}

}  // namespace

void Slice(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps, Matrix& out) {
  Dims dims;
  if (!LINVO_CHECK(in.ndim() == out.ndim()) || !SliceDims(in, starts, ends, steps, dims)) return;
  Dims in_strides = in.shape().strides();
  CopyLayout layout{{}, {}, out.shape().strides()};
  for (size_t i = 0; i < dims.size(); ++i) {
    layout.dims.push_back(std::min(dims[i], out.shape().dims()[i]));
    layout.in_strides.push_back(in_strides[i] * steps[i]);
    layout.in_offset += starts[i] * in_strides[i];
  }
  StridedCopy(in, out, layout);
}

Matrix Slice(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps) {
  Dims dims;
  if (!SliceDims(in, starts, ends, steps, dims)) return Matrix();
  Matrix out(Shape(dims), in.dtype());
  Slice(in, starts, ends, steps, out);
  return out;
}

}  // namespace linvo
