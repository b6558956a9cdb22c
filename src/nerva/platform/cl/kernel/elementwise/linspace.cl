/*
 * Linspace: steps values from start to end. The first half counts up from
 * start, the second half down from end: i < steps / 2 ? start + step * i :
 * end - step * (steps - 1 - i). Floating-point outputs compute in float (step
 * computed on the host as (end - start) / (steps - 1) in float); integer
 * outputs in double where the device has it, truncated.
 */
// #include "common.h"
// #include "elementwise.h"

__kernel void Linspace(DECL_TENSOR1D(out), long steps, float start_f, float end_f,
                       float step_f, ulong start_bits, ulong end_bits, ulong step_bits) {
  const long i = get_global_id(0);
#if LIN_DOUBLE && defined(cl_khr_fp64)
  const double start = as_double(start_bits), end = as_double(end_bits),
               step = as_double(step_bits);
#else
  const float start = start_f, end = end_f, step = step_f;
#endif
  const long half_way = steps / 2;
  VSTORE(OUT_DTYPE, 1,
         EW_CVT(OUT_CVT, OUT_DTYPE, i < half_way ? start + step * i : end - step * (steps - i - 1)),
         TENSOR1D_PTR(out, OUT_DTYPE, i));
}
