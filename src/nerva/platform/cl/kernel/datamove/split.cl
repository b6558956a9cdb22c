/*
 * Split: a strided view of the source moved into the output (and a fill).
 */
// #include "datamove.h"

DM_MOVE_KERNELS(Split)
