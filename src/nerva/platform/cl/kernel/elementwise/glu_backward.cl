/*
 * GLUBackward: one work item per element of grad_output g, at (x, y, z) over
 * the strided layout of the element-wise frame (dimensions 3 to 7 folded into
 * z), reads g and the halves a and b of the input and writes both halves of
 * grad_input: ga = s * g and gb = (1 - s) * s * a * g with s = sigmoid(b).
 * IN0 is g's type, IN1 the input's, OUT grad_input's.
 */
// #include "common.h"
// #include "math.h"
// #include "elementwise.h"

/* The frame's strided walk over this kernel's five tensors. */
#define EW_ARITY GLU
#define EW_TENSORS_GLU(F) F(ga) F(gb) F(go) F(a) F(b)
#define GLU_AT(t, T) ((__global T *)(t##_ptr + t##_at))
/* Every x stride comes from the arguments. */
#define EW_XS_ga -1
#define EW_XS_gb -1
#define EW_XS_go -1
#define EW_XS_a -1
#define EW_XS_b -1

__kernel void GLUBackward(uint8 dims, int rank EW_TENSORS(EW_STRIDED_PARAM)) {
  const uint x = get_global_id(0), y = get_global_id(1);
  uint z = get_global_id(2), rest = 0;
  if (rank > 3) {
    rest = z / dims.s2;
    z = z % dims.s2;
  }
  EW_TENSORS(EW_STRIDED_START)
  EW_WALK(3, s3)
  EW_WALK(4, s4)
  EW_WALK(5, s5)
  EW_WALK(6, s6)
  EW_WALK(7, s7)
  const float g = EW_LOAD_ARG(0, GLU_AT(go, IN0_DTYPE));
  const float va = EW_LOAD_ARG(1, GLU_AT(a, IN1_DTYPE));
  const float s = NERVA_SIGMOID(EW_LOAD_ARG(1, GLU_AT(b, IN1_DTYPE)));
  EW_STORE_OUT(s * g, GLU_AT(ga, OUT_DTYPE));
  EW_STORE_OUT((1.0f - s) * s * va * g, GLU_AT(gb, OUT_DTYPE));
}
