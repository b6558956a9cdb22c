/*
 * Slice: the selected view of the input moved into the output.
 */
// #include "layout.h"

LY_MOVE_KERNELS(Slice)
