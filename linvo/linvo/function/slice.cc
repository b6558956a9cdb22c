#include "linvo/function/slice.h"

#include <algorithm>

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {
namespace {

// Logs every failed check, in order, and gives the extent of the result along
// each axis; false (and nothing copied) when any check failed. `out_matrix` may be
// null when the caller makes the result itself.
bool SliceDims(const Matrix& in, const Matrix* out_matrix, const Dims& starts, const Dims& ends,
               const Dims& steps, Dims& dims) {
  bool ok = LINVO_CHECK(starts.size() == in.ndim());
  ok = LINVO_CHECK(starts.size() == ends.size()) && ok;
  ok = LINVO_CHECK(starts.size() == steps.size()) && ok;
  if (out_matrix) {
    const Matrix& out = *out_matrix;
    ok = LINVO_CHECK(in.ndim() == out.ndim()) && ok;
  }
  const size_t count =
      std::min({starts.size(), ends.size(), steps.size(), static_cast<size_t>(in.ndim())});
  for (size_t i = 0; i < count; ++i) {
    ok = LINVO_CHECK(starts[i] < ends[i]) && ok;
    ok = LINVO_CHECK(ends[i] - starts[i] >= steps[i]) && ok;
    // A slice never reads outside its input.
    ok = LINVO_CHECK(starts[i] >= 0) && ok;
    ok = LINVO_CHECK(steps[i] > 0) && ok;
  }
  if (!ok) return false;
  for (size_t i = 0; i < count; ++i) {
    const int64_t end = std::min(ends[i], in.shape().dims()[i]);
    dims.push_back(std::max<int64_t>(0, (end - starts[i] + steps[i] - 1) / steps[i]));
  }
  return true;
}

}  // namespace

void Slice(const Matrix& in, const Dims& starts, const Dims& ends, const Dims& steps, Matrix& out) {
  Dims dims;
  if (!SliceDims(in, &out, starts, ends, steps, dims)) return;
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
  if (!SliceDims(in, nullptr, starts, ends, steps, dims)) return Matrix();
  Matrix out(Shape(dims), in.dtype());
  Slice(in, starts, ends, steps, out);
  return out;
}

}  // namespace linvo
