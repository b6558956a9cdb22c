/*
 * Slice: the selected view of the input moved into the output.
 */
// #include "datamove.h"

DM_MOVE_KERNELS(Slice)
