#include "linvo/function/tile.h"

#include "linvo/function/strided_copy.h"
#include "linvo/util.h"

namespace linvo {

void Tile(const Matrix& in, Matrix& out) {
  const Dims& dims = out.shape().dims();
  if (!LINVO_CHECK(dims.size() >= in.ndim()) || !LINVO_CHECK(out.dtype() == in.dtype())) return;
  Shape padded = in.shape().ExpandTo(0, out.ndim());
  Dims in_strides = padded.strides();
  Dims out_strides = out.shape().strides();
  // Each output axis splits into (repeat, input axis): the repeat steps a whole input extent in
  // the output and nothing in the input.
  CopyLayout layout;
  for (size_t i = 0; i < dims.size(); ++i) {
    int64_t size = padded.dims()[i];
    if (!LINVO_CHECK(size > 0 && dims[i] % size == 0)) return;
    layout.dims.insert(layout.dims.end(), {dims[i] / size, size});
    layout.in_strides.insert(layout.in_strides.end(), {0, in_strides[i]});
    layout.out_strides.insert(layout.out_strides.end(), {out_strides[i] * size, out_strides[i]});
  }
  StridedCopy(in, out, layout);
}

Matrix Tile(const Matrix& in, const Dims& dims) {
  if (!LINVO_CHECK(dims.size() >= in.ndim())) return Matrix();
  size_t repeats = dims.size() - in.ndim();
  Dims out_dims(dims.begin(), dims.begin() + repeats);
  for (size_t i = 0; i < static_cast<size_t>(in.ndim()); ++i) {
    if (!LINVO_CHECK(dims[repeats + i] > 0)) return Matrix();
    out_dims.push_back(dims[repeats + i] * in.shape().dims()[i]);
  }
  Matrix out(Shape(out_dims), in.dtype());
  Tile(in, out);
  return out;
}

}  // namespace linvo
