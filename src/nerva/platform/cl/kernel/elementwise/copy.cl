/*
 * Copy: out = x converted to the output's type (the Cast operator). x stays in
 * its own register type; OUT_CVT picks the conversion (WRAP, SAT, BOOL).
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 1
#define EW_PARAMS
#define EW_OP(x) (x)
#define EW_OP16(x) (x)

EW_KERNELS(Copy)
