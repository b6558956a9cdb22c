/*
 * Tile: a strided view of the source moved into the output (and a fill).
 */
// #include "layout.h"

LY_MOVE_KERNELS(Tile)
