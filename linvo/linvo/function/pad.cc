#include "linvo/function/pad.h"

#include "linvo/function/copy.h"
#include "linvo/function/fill.h"
#include "linvo/util.h"

namespace linvo {
namespace {

template <typename V>
Matrix PadImpl(const Matrix& in, const Dims& sizes, V value) {
  if (!LINVO_CHECK(sizes.size() % 2 == 0) ||
      !LINVO_CHECK(static_cast<int64_t>(sizes.size() / 2) <= in.ndim())) {
    return Matrix();
  }
  Dims dims = in.shape().dims();
  Dims offsets(dims.size(), 0);
  for (size_t pair = 0; pair < sizes.size() / 2; ++pair) {
    size_t axis = dims.size() - 1 - pair;
    if (!LINVO_CHECK(sizes[2 * pair] >= 0 && sizes[2 * pair + 1] >= 0)) return Matrix();
    offsets[axis] = sizes[2 * pair];
    dims[axis] += sizes[2 * pair] + sizes[2 * pair + 1];
  }
  Matrix out(Shape(dims), in.dtype());
  Fill(out, value);
  if (in.size() > 0) Copy(in, Dims(dims.size(), 0), offsets, in.shape().dims(), out);
  return out;
}

}  // namespace

Matrix Pad(const Matrix& in, const Dims& sizes, double value) {
  return PadImpl(in, sizes, value);
}

Matrix Pad(const Matrix& in, const Dims& sizes, long value) {
  return PadImpl(in, sizes, value);
}

}  // namespace linvo
