/*
 * ARange: out[i] = start + i * step, computed in double where the device has
 * it (start and step arrive as the bits of doubles and as floats), converted
 * to OUT_DTYPE by OUT_CVT.
 */
// #include "common.h"
// #include "elementwise.h"

__kernel void ARange(DECL_TENSOR1D(out), ulong start_bits, ulong step_bits, float start_f,
                     float step_f) {
  const size_t i = get_global_id(0);
#ifdef cl_khr_fp64
  const double v = as_double(start_bits) + (double)i * as_double(step_bits);
#else
  const float v = start_f + (float)i * step_f;
#endif
  VSTORE(OUT_DTYPE, 1, EW_CVT(OUT_CVT, OUT_DTYPE, v), TENSOR1D_PTR(out, OUT_DTYPE, i));
}
