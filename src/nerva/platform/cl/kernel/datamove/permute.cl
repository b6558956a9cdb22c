/*
 * Permute: the input seen through the permuted strides moved into the output.
 */
// #include "datamove.h"

DM_MOVE_KERNELS(Permute)
