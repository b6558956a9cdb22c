#include "linvo/function/fill.h"

#include "linvo/conversion.h"

namespace linvo {

void Fill(Matrix& mat, double value) {
  DispatchType(mat.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    Fill<E>(mat, ConvertElement<kDouble, E>(value));
  });
}

void Fill(Matrix& mat, long value) {
  DispatchType(mat.dtype(), [&](auto tag) {
    constexpr DataType E = decltype(tag)::value;
    Fill<E>(mat, ConvertElement<kInt64, E>(value));
  });
}

}  // namespace linvo
