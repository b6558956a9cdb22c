/*
 * Permute: the input seen through the permuted strides moved into the output.
 */
// #include "layout.h"

LY_MOVE_KERNELS(Permute)
