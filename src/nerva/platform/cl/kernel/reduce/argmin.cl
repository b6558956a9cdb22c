/*
 * ArgMin: the index of the smallest element along one axis; the kernels of
 * "argmax.cl" with the comparison mirrored (kept only when strictly smaller,
 * ties to the later index, a NaN never sticks). Listed ahead of it.
 */
#define ARG_KERNEL_X argmin_x
#define ARG_KERNEL argmin
#define ARG_REPLACE(a, ai, b, bi) (!((a) < (b) || ((a) == (b) && (ai) > (bi))))
#define ARG_KEEP_VEC(a, ai, b) isless(a, b)
