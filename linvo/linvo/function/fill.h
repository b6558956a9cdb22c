#pragma once

#include "linvo/data_type.h"
#include "linvo/matrix.h"
#include "linvo/util.h"

namespace linvo {

// Sets every element to a raw value of the matrix's storage type.
template <DataType E>
void Fill(Matrix& mat, Underlying<E> value) {
  if (!LINVO_CHECK(mat.dtype() == E)) return;
  Underlying<E>* data = mat.data<Underlying<E>>();
  for (int64_t i = 0; i < mat.size(); ++i) data[i] = value;
}

// Sets every element to the value converted to the matrix's type.
void Fill(Matrix& mat, double value);
void Fill(Matrix& mat, long value);

}  // namespace linvo
