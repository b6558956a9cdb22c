/*
 * StridedCopy: dst = src converted to dst's type, both any strided view at an
 * element offset inside its buffer.
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS
#define EW_OP(x) (x)

EW_KERNELS(StridedCopy)
