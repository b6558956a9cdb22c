#include "linvo/function/split.h"

#include <algorithm>

#include "linvo/function/copy.h"
#include "linvo/util.h"

namespace linvo {
namespace {

int64_t ChunkCount(const Matrix& in, int axis, int64_t chunk) {
  int64_t extent = in.shape().dims()[GetRealAxis(axis, in.ndim())];
  return chunk > 0 ? (extent + chunk - 1) / chunk : 0;
}

}  // namespace

void Split(const Matrix& in, int axis, int64_t chunk, std::vector<Matrix>& outs) {
  int64_t out_matrix_num = ChunkCount(in, axis, chunk);
  if (!LINVO_CHECK(out_matrix_num > 0) ||
      !LINVO_CHECK(out_matrix_num == static_cast<int64_t>(outs.size()))) {
    return;
  }
  int real = GetRealAxis(axis, in.ndim());
  Dims in_offsets(in.ndim(), 0), out_offsets(in.ndim(), 0);
  for (int64_t i = 0; i < out_matrix_num; ++i) {
    Dims block = in.shape().dims();
    in_offsets[real] = i * chunk;
    block[real] = std::min(chunk, block[real] - i * chunk);
    Copy(in, in_offsets, out_offsets, block, outs[i]);
  }
}

std::vector<Matrix> Split(const Matrix& in, int axis, int64_t chunk) {
  int64_t count = ChunkCount(in, axis, chunk);
  int real = GetRealAxis(axis, in.ndim());
  std::vector<Matrix> outs;
  for (int64_t i = 0; i < count; ++i) {
    Dims dims = in.shape().dims();
    dims[real] = std::min(chunk, dims[real] - i * chunk);
    outs.emplace_back(Shape(dims), in.dtype());
  }
  Split(in, axis, chunk, outs);
  return outs;
}

}  // namespace linvo
