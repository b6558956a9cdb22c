/*
 * Activation: y = OP(x) over a flat tensor, VEC_SIZE elements per work item.
 * Build definitions: OP (RELU, GELU, ...), VEC_SIZE, VEC_SIZE_LEFTOVER
 * (n % VEC_SIZE), DTYPE (x), OUT_DTYPE (y) and CONV_DTYPE (arithmetic type).
 * x and y are contiguous (checked on the host), so elements are addressed as
 * a flat typed array from the first-element offset: the compiler then sees
 * unit-stride accesses and can vectorise across work items.
 */
// #include "common.h"
// #include "math.h"

#define ACT_LANES NERVA_LANES(VEC_SIZE)
#define ACT_VEC DECL_VEC_TYPE(CONV_DTYPE, ACT_LANES)
#define ACT_ZERO ((ACT_VEC)(0))

#define ACT_CELU(x) (fmax(x, 0.0f) + fmin(0.0f, alpha * (NERVA_EXP(x * inv_alpha) - 1.0f)))
#define ACT_ELU(x) select(alpha * (NERVA_EXP(x) - 1.0f), x, x > 0.0f)
/* A conditional rather than select(): RELU also runs in the integer types, and
 * a scalar select() whose condition is an int is ambiguous for char, short,
 * long and their unsigned forms. */
#define ACT_RELU(x) ((x) > ACT_ZERO ? (x) : ACT_ZERO)
#define ACT_RELU6(x) clamp(x, (CONV_DTYPE)0, (CONV_DTYPE)6)
#define ACT_SIGMOID(x) NERVA_SIGMOID(x)
#define ACT_HARD_SIGMOID(x) clamp(alpha * x + beta, 0.0f, 1.0f)
#define ACT_HARD_SWISH(x) (clamp(x + 3.0f, 0.0f, 6.0f) * x / 6.0f)
#define ACT_MISH(x) (x * NERVA_FAST_TANH(NERVA_LOG(1.0f + NERVA_EXP(x))))
#define ACT_HARD_TANH(x) clamp(x, alpha, beta)
#define ACT_LEAKY_RELU(x) select(alpha * x, x, x >= 0.0f)
#define ACT_GELU(x) (0.5f * x * (1.0f + NERVA_ERF(ACT_LANES, x * NERVA_SQRT1_2)))
#define ACT_GELUAPPROXIMATETANH(x) \
  (0.5f * x * (1.0f + tanh(0.7978845834732056f * (x + 0.044715f * x * x * x))))
#define ACT_SILU(x) (x * NERVA_SIGMOID(x))
#define ACT_SELU(x) \
  (1.0507009873554805f * select(1.6732632423543773f * (NERVA_EXP(x) - 1.0f), x, x > 0.0f))
#define ACT_SWISH(x) (x * NERVA_SIGMOID(alpha * x))
#define ACT_SRELU(x) select(ACT_ZERO, x * x, x >= ACT_ZERO)

__kernel void Activation(DECL_TENSOR1D(x), DECL_TENSOR1D(y), float alpha, float beta,
                         float inv_alpha, float inv_beta) {
#if VEC_SIZE_LEFTOVER == 0
  const size_t offset = get_global_id(0) * VEC_SIZE;
#else
  const int offset = VEC_OFFSET(get_global_id(0), VEC_SIZE, VEC_SIZE_LEFTOVER);
#endif
  __global const DTYPE* px = (__global const DTYPE*)TENSOR_BASE(x) + offset;
  __global OUT_DTYPE* py = (__global OUT_DTYPE*)TENSOR_BASE(y) + offset;
  ELEMENTWISE_MAP(DTYPE, CONV_DTYPE, OUT_DTYPE, VEC_SIZE, px, py, NERVA_CAT(ACT_, OP))
}
