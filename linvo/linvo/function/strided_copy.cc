#include "linvo/function/strided_copy.h"

#include <algorithm>
#include <numeric>

#include <immintrin.h>

#include "linvo/conversion.h"
#include "linvo/util.h"

namespace linvo {
namespace {

constexpr int64_t kTile = 8;
constexpr int64_t kBlock = 256;

// Drops size-1 axes, orders axes by decreasing output stride and merges axes that are
// contiguous in both matrices. Returns false when there is nothing to copy.
bool Simplify(const CopyLayout& src, CopyLayout& dst) {
  std::vector<size_t> order;
  for (size_t d = 0; d < src.dims.size(); ++d) {
    if (src.dims[d] == 0) return false;
    if (src.dims[d] != 1) order.push_back(d);
  }
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t x, size_t y) { return src.out_strides[x] > src.out_strides[y]; });
  dst = CopyLayout{{}, {}, {}, src.in_offset, src.out_offset};
  for (size_t d : order) {
    int64_t n = src.dims[d];
    if (!dst.dims.empty() && dst.in_strides.back() == src.in_strides[d] * n &&
        dst.out_strides.back() == src.out_strides[d] * n) {
      dst.dims.back() *= n;
      dst.in_strides.back() = src.in_strides[d];
      dst.out_strides.back() = src.out_strides[d];
      continue;
    }
    dst.dims.push_back(n);
    dst.in_strides.push_back(src.in_strides[d]);
    dst.out_strides.push_back(src.out_strides[d]);
  }
  if (dst.dims.empty()) dst = CopyLayout{{1}, {0}, {0}, src.in_offset, src.out_offset};
  return true;
}

// When the output's innermost axis is strided in the input, moves the axis along which the input
// is contiguous to the second-last place so the last two axes can be copied in tiles.
bool PrepareTiles(CopyLayout& layout) {
  size_t rank = layout.dims.size();
  if (rank < 2 || layout.out_strides[rank - 1] != 1 || layout.in_strides[rank - 1] == 1) {
    return false;
  }
  for (size_t d = 0; d + 1 < rank; ++d) {
    if (layout.in_strides[d] != 1) continue;
    for (Dims* v : {&layout.dims, &layout.in_strides, &layout.out_strides}) {
      int64_t moved = (*v)[d];
      v->erase(v->begin() + d);
      v->insert(v->end() - 1, moved);
    }
    return true;
  }
  return false;
}

template <DataType S, DataType D>
void CopyRow(const Underlying<S>* in, int64_t is, Underlying<D>* out, int64_t os, int64_t n) {
  if (is == 1 && os == 1) {
    for (int64_t i = 0; i < n; ++i) out[i] = ConvertElement<S, D>(in[i]);
  } else if (is == 0) {
    Underlying<D> v = ConvertElement<S, D>(in[0]);
    for (int64_t i = 0; i < n; ++i) out[i * os] = v;
  } else {
    for (int64_t i = 0; i < n; ++i) out[i * os] = ConvertElement<S, D>(in[i * is]);
  }
}

// rows x cols block: input contiguous along rows, output contiguous along cols. Small tiles
// inside larger blocks keep the lines of both sides cached despite power-of-two strides.
template <DataType S, DataType D>
void CopyTile(const Underlying<S>* in, int64_t in_col_stride, Underlying<D>* out,
              int64_t out_row_stride, int64_t r0, int64_t r1, int64_t c0, int64_t c1) {
  for (int64_t r = r0; r < r1; ++r) {
    const Underlying<S>* src = in + r;
    Underlying<D>* dst = out + r * out_row_stride;
    for (int64_t c = c0; c < c1; ++c) dst[c] = ConvertElement<S, D>(src[c * in_col_stride]);
  }
}

// Same-type 32-bit transposition in 4x4 register blocks (pure shuffles, so the bits of any
// 4-byte type pass unchanged). rows and cols must be multiples of 4.
void Transpose32(const uint32_t* in, int64_t in_col_stride, uint32_t* out, int64_t out_row_stride,
                 int64_t rows, int64_t cols) {
  constexpr int64_t kBlock32 = 128;
  auto load = [](const uint32_t* p) {
    return _mm_castsi128_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p)));
  };
  auto store = [](uint32_t* p, __m128 v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm_castps_si128(v));
  };
  for (int64_t br = 0; br < rows; br += kBlock32) {
    for (int64_t bc = 0; bc < cols; bc += kBlock32) {
      for (int64_t r = br; r < std::min(rows, br + kBlock32); r += 4) {
        for (int64_t c = bc; c < std::min(cols, bc + kBlock32); c += 4) {
          const uint32_t* src = in + r + c * in_col_stride;
          __m128 a0 = load(src), a1 = load(src + in_col_stride);
          __m128 a2 = load(src + 2 * in_col_stride), a3 = load(src + 3 * in_col_stride);
          _MM_TRANSPOSE4_PS(a0, a1, a2, a3);
          uint32_t* dst = out + r * out_row_stride + c;
          store(dst, a0);
          store(dst + out_row_stride, a1);
          store(dst + 2 * out_row_stride, a2);
          store(dst + 3 * out_row_stride, a3);
        }
      }
    }
  }
}

template <DataType S, DataType D>
void CopyTiled(const Underlying<S>* in, int64_t in_col_stride, Underlying<D>* out,
               int64_t out_row_stride, int64_t rows, int64_t cols) {
  if constexpr (S == D && sizeof(Underlying<S>) == 4) {
    if (rows % 4 == 0 && cols % 4 == 0) {
      Transpose32(reinterpret_cast<const uint32_t*>(in), in_col_stride,
                  reinterpret_cast<uint32_t*>(out), out_row_stride, rows, cols);
      return;
    }
  }
  for (int64_t br = 0; br < rows; br += kBlock) {
    for (int64_t bc = 0; bc < cols; bc += kBlock) {
      int64_t br1 = std::min(rows, br + kBlock), bc1 = std::min(cols, bc + kBlock);
      for (int64_t r = br; r < br1; r += kTile) {
        for (int64_t c = bc; c < bc1; c += kTile) {
          CopyTile<S, D>(in, in_col_stride, out, out_row_stride, r, std::min(br1, r + kTile), c,
                         std::min(bc1, c + kTile));
        }
      }
    }
  }
}

template <DataType S, DataType D>
void StridedCopyImpl(const Matrix& in, Matrix& out, const CopyLayout& layout) {
  const Underlying<S>* src = in.data<Underlying<S>>() + layout.in_offset;
  Underlying<D>* dst = out.data<Underlying<D>>() + layout.out_offset;
  size_t rank = layout.dims.size();
  bool tiled = rank >= 2 && layout.in_strides[rank - 2] == 1 && layout.out_strides[rank - 1] == 1 &&
               layout.in_strides[rank - 1] != 1;
  size_t inner = tiled ? 2 : 1;
  int64_t outer = 1;
  for (size_t d = 0; d + inner < rank; ++d) outer *= layout.dims[d];
  Dims index(rank, 0);
  int64_t in_off = 0, out_off = 0;
  for (int64_t r = 0; r < outer; ++r) {
    if (tiled) {
      CopyTiled<S, D>(src + in_off, layout.in_strides[rank - 1], dst + out_off,
                      layout.out_strides[rank - 2], layout.dims[rank - 2], layout.dims[rank - 1]);
    } else {
      CopyRow<S, D>(src + in_off, layout.in_strides[rank - 1], dst + out_off,
                    layout.out_strides[rank - 1], layout.dims[rank - 1]);
    }
    for (size_t d = rank - inner; d-- > 0;) {  // odometer over the outer axes
      in_off += layout.in_strides[d];
      out_off += layout.out_strides[d];
      if (++index[d] < layout.dims[d]) break;
      in_off -= layout.in_strides[d] * layout.dims[d];
      out_off -= layout.out_strides[d] * layout.dims[d];
      index[d] = 0;
    }
  }
}

}  // namespace

void StridedCopy(const Matrix& in, Matrix& out, const CopyLayout& layout) {
  CopyLayout simple;
  if (!Simplify(layout, simple)) return;
  PrepareTiles(simple);
  DispatchTypePair(in.dtype(), out.dtype(), [&](auto s, auto d) {
    StridedCopyImpl<decltype(s)::value, decltype(d)::value>(in, out, simple);
  });
}

}  // namespace linvo
