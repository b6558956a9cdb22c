#pragma once

#include <optional>
#include <vector>

#include "linvo/conversion.h"
#include "linvo/matrix.h"
#include "linvo/util.h"

namespace linvo {

// Output-contiguous walk of a broadcast: dims of the output with each input's element strides
// (0 on broadcast axes). Adjacent axes that are contiguous for all operands are merged.
struct BroadcastLayout {
  Dims dims;
  Dims a_strides;
  Dims b_strides;
};

BroadcastLayout MakeBroadcastLayout(const Shape& a, const Shape& b, const Shape& out);

// Calls row(a_offset, b_offset, out_offset, n, a_step, b_step) for every innermost row.
template <typename Row>
void ForEachBroadcastRow(const BroadcastLayout& layout, Row&& row) {
  size_t rank = layout.dims.size();
  int64_t n = layout.dims[rank - 1];
  int64_t rows = 1;
  for (size_t d = 0; d + 1 < rank; ++d) rows *= layout.dims[d];
  Dims index(rank, 0);
  int64_t a_off = 0, b_off = 0;
  for (int64_t r = 0; r < rows; ++r) {
    row(a_off, b_off, r * n, n, layout.a_strides[rank - 1], layout.b_strides[rank - 1]);
    for (size_t d = rank - 1; d-- > 0;) {  // advance the outer index like an odometer
      a_off += layout.a_strides[d];
      b_off += layout.b_strides[d];
      if (++index[d] < layout.dims[d]) break;
      a_off -= layout.a_strides[d] * layout.dims[d];
      b_off -= layout.b_strides[d] * layout.dims[d];
      index[d] = 0;
    }
  }
}

template <DataType E, typename Op>
void BroadcastElementWiseImpl(const Matrix& a, const Matrix& b, Matrix& out, Op op) {
  using T = Underlying<E>;
  const T* pa = a.data<T>();
  const T* pb = b.data<T>();
  T* po = out.data<T>();
  auto ld = [](T v) { return LoadCompute<E>(v); };
  auto st = [](ComputeType<E> v) { return StoreCompute<E>(v); };
  BroadcastLayout layout = MakeBroadcastLayout(a.shape(), b.shape(), out.shape());
  ForEachBroadcastRow(layout,
                      [&](int64_t ao, int64_t bo, int64_t oo, int64_t n, int64_t as, int64_t bs) {
                        const T* x = pa + ao;
                        const T* y = pb + bo;
                        T* o = po + oo;
                        if (as == 1 && bs == 1) {
                          for (int64_t i = 0; i < n; ++i) o[i] = st(op(ld(x[i]), ld(y[i])));
                        } else if (as == 1 && bs == 0) {
                          auto yv = ld(y[0]);
                          for (int64_t i = 0; i < n; ++i) o[i] = st(op(ld(x[i]), yv));
                        } else if (as == 0 && bs == 1) {
                          auto xv = ld(x[0]);
                          for (int64_t i = 0; i < n; ++i) o[i] = st(op(xv, ld(y[i])));
                        } else {
                          for (int64_t i = 0; i < n; ++i)
                            o[i] = st(op(ld(x[i * as]), ld(y[i * bs])));
                        }
                      });
}

// Inputs not already of the computation type are cast to it. The computation type is
// TypePromote(a, b); an output of another type is reported and then written in its own type.
Matrix PrepareOperand(const Matrix& m, DataType type);

template <typename Op>
void BroadcastElementWise(const Matrix& a, const Matrix& b, Matrix& out, Op op) {
  DataType convert_type = TypePromote(a.dtype(), b.dtype());
  LINVO_CHECK(out.dtype() == convert_type);
  if (out.size() == 0) return;
  Matrix ca = PrepareOperand(a, out.dtype());
  Matrix cb = PrepareOperand(b, out.dtype());
  DispatchType(out.dtype(),
               [&](auto tag) { BroadcastElementWiseImpl<decltype(tag)::value>(ca, cb, out, op); });
}

template <typename Op>
Matrix BroadcastElementWise(const Matrix& a, const Matrix& b, Op op) {
  Matrix out(BroadcastShape(a.shape(), b.shape()), TypePromote(a.dtype(), b.dtype()));
  BroadcastElementWise(a, b, out, op);
  return out;
}

// Single pass over the storage; each value is computed in float and stored in the matrix's own
// type (bool stores 1 for any non-zero result, NaN included).
template <typename Op>
void UnaryElementWise(const Matrix& in, Matrix& out, Op op) {
  if (!LINVO_CHECK(out.dtype() == in.dtype()) || !LINVO_CHECK(in.size() == out.size())) return;
  DispatchType(in.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    using T = Underlying<E>;
    const T* src = in.data<T>();
    T* dst = out.data<T>();
    int64_t n = in.size();
    for (int64_t i = 0; i < n; ++i) {
      dst[i] = ConvertElement<kFloat, E>(op(ConvertElement<E, kFloat>(src[i])));
    }
  });
}

template <typename Op>
Matrix UnaryElementWise(const Matrix& in, Op op) {
  Matrix out(in.shape(), in.dtype());
  UnaryElementWise(in, out, op);
  return out;
}

// Result of reducing `axes` of `shape` (all axes when empty): the axes removed, or kept as 1.
// Reducing everything without keepdims gives a single element of shape [1].
Matrix CreateReductionMatrix(const Shape& shape, DataType dtype, const std::vector<int>& axes,
                             bool keepdims);
Matrix CreateReductionMatrix(const Shape& shape, DataType dtype, std::optional<int> axis,
                             bool keepdims);
// Moves the given axes to the end (by Transpose) so each reduced group is one contiguous row.
Matrix TransposeReductionMatrix(const Matrix& m, const std::vector<int>& axes);
Matrix TransposeReductionMatrix(const Matrix& m, int axis);
std::vector<int> AxesOf(std::optional<int> axis);

// Rows to reduce: `count` contiguous rows of `length` elements of the matrix `rows`.
struct ReductionRows {
  Matrix rows;
  int64_t count;
  int64_t length;
};
ReductionRows MakeReductionRows(const Matrix& in, const std::vector<int>& axes);

// Sum of a contiguous row in type A; independent partial sums let the loop vectorise.
template <typename A, DataType E>
A SumRow(const Underlying<E>* p, int64_t n) {
  constexpr int kLanes = 16;
  A acc[kLanes] = {};
  int64_t i = 0;
  for (; i + kLanes <= n; i += kLanes) {
    for (int j = 0; j < kLanes; ++j) acc[j] += static_cast<A>(LoadCompute<E>(p[i + j]));
  }
  A total = 0;
  for (; i < n; ++i) total += static_cast<A>(LoadCompute<E>(p[i]));
  for (int j = 0; j < kLanes; ++j) total += acc[j];
  return total;
}

}  // namespace linvo
