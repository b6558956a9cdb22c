/*
 * Where: out = condition ? x : y; the condition arrives as 0 or 1, x and y in
 * their promoted type.
 */
// #include "common.h"
// #include "elementwise.h"

#define EW_ARITY 3
#define EW_PARAMS
#define EW_OP(c, x, y) ((c) ? (x) : (y))

EW_KERNELS(Where)
