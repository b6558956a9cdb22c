/*
 * The element-wise kernel frame. A program defines
 *   EW_ARITY      number of input tensors (1, 2 or 3);
 *   EW_OP(a0, ..) its function of one element of each input, each already
 *                 converted to the register type of ARG<i>_DTYPE;
 *   EW_PARAMS     its own kernel parameters, each with a leading comma
 *                 (empty when it has none);
 * and then expands EW_KERNELS(Name), which defines two kernels:
 *   Name          contiguous tensors of one shape seen as flat arrays, VEC_SIZE
 *                 consecutive elements per work item from element `base` (CPU
 *                 devices build VEC_SIZE 1 and launch one item per element: the
 *                 address stays affine in the work-item id, so the compiler
 *                 vectorises across items).
 *                 EW_SPREAD builds (GPUs) instead take (count, stride): item g
 *                 covers elements g + k * stride, k < VEC_SIZE, below count, so
 *                 neighbouring items touch neighbouring elements at every step
 *                 (coalesced) and one launch covers any length;
 *   Name##Strided one element per work item at (x, y, z) over byte strides per
 *                 tensor (0 on broadcast dimensions); dimensions 3 to 7 are
 *                 folded into z and recovered from the sizes in `dims`.
 * Build definitions from the host: OUT_DTYPE, IN<i>_DTYPE (element types),
 * ARG<i>_DTYPE (the type input i is converted to), IN<i>_CVT and OUT_CVT (the
 * conversion kind: WRAP, SAT or BOOL), EW_INT (1 when ARG0_DTYPE is an
 * integer or boolean type), VEC_SIZE, EW_FORM (the kernel built) and, for
 * the strided form, EW_XS_out, EW_XS_in<i> (see EW_XSTRIDE).
 */
#ifndef NERVA_ELEMENTWISE_H
#define NERVA_ELEMENTWISE_H

/* ---- conversions of one register value to the register type of T ----
 * WRAP: convert_<T> (modular between integers, round to nearest into floats);
 * SAT: floating point to integer, rounding toward zero, saturating, NaN to 0;
 * BOOL: nonzero (NaN included) gives 1. */
#define EW_CVT(MODE, T, v) NERVA_CAT(EW_CVT_, MODE)(T, v)
#define EW_CVT_WRAP(T, v) CONVERT_WRAP(T, 1, v)
#define EW_CVT_SAT(T, v) CONVERT(T, 1, v)
#define EW_CVT_BOOL(T, v) ((REG_TYPE(T))((v) != 0))

/* Register types of the arguments and of the output. */
#define EW_T0 REG_TYPE(ARG0_DTYPE)
#define EW_T1 REG_TYPE(ARG1_DTYPE)
#define EW_T2 REG_TYPE(ARG2_DTYPE)
#define EW_OUT_T REG_TYPE(OUT_DTYPE)

/* Element i of input `in<i>` at pointer p, converted to ARG<i>_DTYPE. */
#define EW_LOAD_ARG(i, p)                                                     \
  EW_CVT(NERVA_CAT3(IN, i, _CVT), NERVA_CAT3(ARG, i, _DTYPE),                \
         VLOAD(NERVA_CAT3(IN, i, _DTYPE), 1, p))
#define EW_IS_HALF_half 1
#if defined(NERVA_HOST_CPU_DEVICE) && NERVA_CAT(EW_IS_HALF_, OUT_DTYPE)
/* On CPU devices vstore_half is a library call per element, which keeps the
 * compiler from vectorising across work items; the same rounding (to nearest,
 * ties to even; overflow to infinity, NaN to a quiet NaN of its sign) in
 * integer arithmetic vectorises. */
#define EW_DEFINE_HALF_BITS(NAME, F, U)                                        \
  inline U NAME(F f) {                                                       \
    const U x = as_##U(f);                                                   \
    const U sign = (x >> 16) & 0x8000u;                                      \
    const U ax = x & 0x7fffffffu;                                            \
    /* normal results: rebias the exponent, round the mantissa to 10 bits */ \
    const U normal = (ax + 0xc8000fffu + ((ax >> 13) & 1u)) >> 13;           \
    /* below 2^-14: adding 0.5 leaves the half's subnormal units (2^-24) in  \
     * the float's low mantissa bits, rounded to even by the addition */     \
    const U small = as_##U(as_##F(ax) + 0.5f) - 0x3f000000u;                 \
    U h = ax < 0x38800000u ? small : normal;                                 \
    h = ax >= 0x47800000u ? (U)0x7c00u : h;                                  \
    h = ax > 0x7f800000u ? (U)0x7e00u : h;                                   \
    return sign | h;                                                         \
  }
EW_DEFINE_HALF_BITS(ew_half_word, float, uint)
EW_DEFINE_HALF_BITS(ew_half_words16, float16, uint16)
inline ushort ew_half_bits(float f) { return (ushort)ew_half_word(f); }
/* The half bits of a0 .. a15, b0 .. b15 packed two per word, in order. */
inline uint16 ew_half_pack32(float16 a, float16 b) {
  const uint16 ha = ew_half_words16(a), hb = ew_half_words16(b);
  return shuffle2(ha, hb, (uint16)(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30)) |
         (shuffle2(ha, hb, (uint16)(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31))
          << 16);
}
#define EW_STORE_OUT(v, p) \
  (*(__global ushort *)(p) = ew_half_bits(EW_CVT(OUT_CVT, OUT_DTYPE, v)))
#else
#define EW_STORE_OUT(v, p) VSTORE(OUT_DTYPE, 1, EW_CVT(OUT_CVT, OUT_DTYPE, v), p)
#endif

/* The tensors of a kernel, output first. */
#define EW_TENSORS(F) NERVA_CAT(EW_TENSORS_, EW_ARITY)(F)
#define EW_TENSORS_1(F) F(out) F(in0)
#define EW_TENSORS_2(F) F(out) F(in0) F(in1)
#define EW_TENSORS_3(F) F(out) F(in0) F(in1) F(in2)
/* The function applied to the inputs at their addresses A(i). */
#define EW_APPLY(A) NERVA_CAT(EW_APPLY_, EW_ARITY)(A)
#define EW_APPLY_1(A) EW_OP(EW_LOAD_ARG(0, A(0)))
#define EW_APPLY_2(A) EW_OP(EW_LOAD_ARG(0, A(0)), EW_LOAD_ARG(1, A(1)))
#define EW_APPLY_3(A) \
  EW_OP(EW_LOAD_ARG(0, A(0)), EW_LOAD_ARG(1, A(1)), EW_LOAD_ARG(2, A(2)))

/* ---- flat kernel ---- */
#define EW_FLAT_PARAM(t) , __global uchar *t##_ptr, uint t##_offset
#define EW_FLAT_BASE(t) __global uchar *t##_base = t##_ptr + t##_offset;
#define EW_FLAT_ADDR(i)                                                       \
  ((__global NERVA_CAT3(IN, i, _DTYPE) *)NERVA_CAT3(in, i, _base) + first + nerva_lane)

#if EW_SPREAD
#define EW_SPREAD_ADDR(i) ((__global NERVA_CAT3(IN, i, _DTYPE) *)NERVA_CAT3(in, i, _base) + at)
#define EW_FLAT_KERNEL(NAME)                                                  \
  __kernel void NAME(uint count, uint stride EW_TENSORS(EW_FLAT_PARAM) EW_PARAMS) { \
    const uint first = get_global_id(0);                                      \
    if (first >= stride) return;                                              \
    EW_TENSORS(EW_FLAT_BASE)                                                  \
    _Pragma("unroll") for (int nerva_lane = 0; nerva_lane < VEC_SIZE; ++nerva_lane) { \
      const uint at = first + nerva_lane * stride;                            \
      if (at < count) {                                                       \
        EW_STORE_OUT(EW_APPLY(EW_SPREAD_ADDR), (__global OUT_DTYPE *)out_base + at); \
      }                                                                       \
    }                                                                         \
  }
#else
#define EW_FLAT_KERNEL(NAME)                                                  \
  __kernel void NAME(uint base EW_TENSORS(EW_FLAT_PARAM) EW_PARAMS) {         \
    const size_t first = base + get_global_id(0) * VEC_SIZE;                  \
    EW_TENSORS(EW_FLAT_BASE)                                                  \
    _Pragma("unroll") for (int nerva_lane = 0; nerva_lane < VEC_SIZE; ++nerva_lane) { \
      EW_STORE_OUT(EW_APPLY(EW_FLAT_ADDR),                                    \
                   (__global OUT_DTYPE *)out_base + first + nerva_lane);     \
    }                                                                         \
  }
#endif

/* ---- explicit 16-lane flat kernel ----
 * EW_VEC16 builds (CPU devices, float inputs, a float output (or a half
 * one for flat launches), programs that also define EW_OP16(a0, ..), their
 * function on float16 values): item g maps elements base + 16 g .. base +
 * 16 g + 15 (32 for a half output) with whole-register loads, EW_OP16 and a
 * store (past the caches in NERVA_STREAM builds), which beats the compiler's
 * vectorisation across items. The launch covers whole vectors only, without
 * a branch; the host maps the last elements with the flat kernel.
 * Each element is read and written by one item, so in place is safe. */
#define EW_V16_LOAD(i) vload16(0, (__global const float *)in##i##_base + first)
#define EW_APPLY16() NERVA_CAT(EW_APPLY16_, EW_ARITY)()
#define EW_APPLY16_1() EW_OP16(EW_V16_LOAD(0))
#define EW_APPLY16_2() EW_OP16(EW_V16_LOAD(0), EW_V16_LOAD(1))
#define EW_APPLY16_3() EW_OP16(EW_V16_LOAD(0), EW_V16_LOAD(1), EW_V16_LOAD(2))
#if NERVA_CAT(EW_IS_HALF_, OUT_DTYPE) && defined(NERVA_HOST_CPU_DEVICE)
/* A half output: 32 elements per item, so that the packed half bits fill one
 * whole-register store. */
#define EW_FLAT16_KERNEL(NAME)                                                \
  __kernel void NAME(uint base EW_TENSORS(EW_FLAT_PARAM) EW_PARAMS) {         \
    const size_t first0 = base + get_global_id(0) * 32;                       \
    EW_TENSORS(EW_FLAT_BASE)                                                  \
    float16 lo, hi;                                                           \
    {                                                                         \
      const size_t first = first0;                                            \
      lo = EW_APPLY16();                                                      \
    }                                                                         \
    {                                                                         \
      const size_t first = first0 + 16;                                       \
      hi = EW_APPLY16();                                                      \
    }                                                                         \
    NERVA_STORE_STREAM(uint16, 16, ew_half_pack32(lo, hi),                    \
                       (__global uint *)((__global ushort *)out_base + first0)); \
  }
#else
#define EW_FLAT16_KERNEL(NAME)                                                \
  __kernel void NAME(uint base EW_TENSORS(EW_FLAT_PARAM) EW_PARAMS) {         \
    const size_t first = base + get_global_id(0) * 16;                        \
    EW_TENSORS(EW_FLAT_BASE)                                                  \
    NERVA_STORE_STREAM(float16, 16, EW_APPLY16(), (__global float *)out_base + first); \
  }
#endif

/* ---- strided kernel ---- */
#define EW_STRIDED_PARAM(t) , __global uchar *t##_ptr, uint t##_offset, uint8 t##_strides
/* The x stride of tensor t: the build's EW_XS_<t> when that is a byte count
 * (0 for a broadcast dimension, the item size for a contiguous one: a constant
 * lets the compiler vectorise across work items), else the argument. */
#define EW_XSTRIDE(t) (NERVA_CAT(EW_XS_, t) >= 0 ? (uint)NERVA_CAT(EW_XS_, t) : t##_strides.s0)
#define EW_STRIDED_START(t)                                                   \
  size_t t##_at = t##_offset + x * EW_XSTRIDE(t) + y * t##_strides.s1 + z * t##_strides.s2;
#define EW_WALK(k, s)                                                         \
  if (rank > k) {                                                             \
    const size_t c = rest % dims.s;                                           \
    rest /= dims.s;                                                           \
    EW_TENSORS(NERVA_CAT(EW_WALK_, s))                                        \
  }
#define EW_WALK_s3(t) t##_at += c * t##_strides.s3;
#define EW_WALK_s4(t) t##_at += c * t##_strides.s4;
#define EW_WALK_s5(t) t##_at += c * t##_strides.s5;
#define EW_WALK_s6(t) t##_at += c * t##_strides.s6;
#define EW_WALK_s7(t) t##_at += c * t##_strides.s7;
#define EW_STRIDED_ADDR(i)                                                    \
  ((__global NERVA_CAT3(IN, i, _DTYPE) *)(NERVA_CAT3(in, i, _ptr) + NERVA_CAT3(in, i, _at)))

/* Dimensions beyond the third exist only in EW_DEEP builds, so the common
 * kernel has no branches in the way of vectorisation. */
#if EW_DEEP
#define EW_STRIDED_SPLIT_Z                                                    \
  const size_t rest0 = z / dims.s2;                                           \
  z = z % dims.s2;                                                            \
  size_t rest = rest0;
#define EW_STRIDED_WALKS EW_WALK(3, s3) EW_WALK(4, s4) EW_WALK(5, s5) EW_WALK(6, s6) EW_WALK(7, s7)
#else
#define EW_STRIDED_SPLIT_Z
#define EW_STRIDED_WALKS
#endif

/* EW_SPREAD builds run in fixed-size groups over a rounded-up range; `extent`
 * is the z extent (dimensions 2 to 7 folded), and items beyond return. */
#if EW_SPREAD
#define EW_STRIDED_BOUNDS                                                     \
  if (x >= dims.s0 || y >= dims.s1 || z >= extent) return;
#define EW_STRIDED_EXTENT , uint extent
#else
#define EW_STRIDED_BOUNDS
#define EW_STRIDED_EXTENT
#endif

#define EW_STRIDED_KERNEL(NAME)                                               \
  __kernel void NAME(uint8 dims, int rank EW_STRIDED_EXTENT EW_TENSORS(EW_STRIDED_PARAM) EW_PARAMS) { \
    const size_t x = get_global_id(0), y = get_global_id(1);                 \
    size_t z = get_global_id(2);                                              \
    EW_STRIDED_BOUNDS                                                         \
    EW_STRIDED_SPLIT_Z                                                        \
    EW_TENSORS(EW_STRIDED_START)                                              \
    EW_STRIDED_WALKS                                                          \
    EW_STORE_OUT(EW_APPLY(EW_STRIDED_ADDR), (__global OUT_DTYPE *)(out_ptr + out_at)); \
  }

/* EW_VEC16 strided builds (CPU devices, float tensors contiguous along x,
 * rank up to 3): item (g, y, z) maps the 16 elements from x = 16 g of row
 * (y, z), with the 16-lane loads, EW_OP16 and store of the flat form. The
 * launch covers whole vectors of every row; the host maps the rows' last
 * elements with the strided kernel. */
#define EW_ROW16_START(t)                                                     \
  const size_t t##_at = t##_offset + x * 4 + y * t##_strides.s1 + z * t##_strides.s2;
#define EW_ROW16_LOAD(i) vload16(0, (__global const float *)(in##i##_ptr + in##i##_at))
#define EW_APPLY_ROW16() NERVA_CAT(EW_APPLY_ROW16_, EW_ARITY)()
#define EW_APPLY_ROW16_1() EW_OP16(EW_ROW16_LOAD(0))
#define EW_APPLY_ROW16_2() EW_OP16(EW_ROW16_LOAD(0), EW_ROW16_LOAD(1))
#define EW_APPLY_ROW16_3() EW_OP16(EW_ROW16_LOAD(0), EW_ROW16_LOAD(1), EW_ROW16_LOAD(2))
#define EW_ROW16_KERNEL(NAME)                                                 \
  __kernel void NAME(uint8 dims, int rank EW_TENSORS(EW_STRIDED_PARAM) EW_PARAMS) { \
    const size_t x = get_global_id(0) * 16, y = get_global_id(1), z = get_global_id(2); \
    EW_TENSORS(EW_ROW16_START)                                                \
    NERVA_STORE_STREAM(float16, 16, EW_APPLY_ROW16(),                         \
                       (__global float *)(out_ptr + out_at));                 \
  }

/* One form per build (EW_FORM: 0 flat, 1 strided, 2 list, 3 list from a
 * table), so each build compiles one kernel. */
#if EW_FORM == 0 && defined(EW_VEC16)
#define EW_KERNELS(NAME) EW_FLAT16_KERNEL(NAME)
#elif EW_FORM == 0
#define EW_KERNELS(NAME) EW_FLAT_KERNEL(NAME)
#elif EW_FORM == 1 && defined(EW_VEC16)
#define EW_KERNELS(NAME) EW_ROW16_KERNEL(NAME##Strided)
#elif EW_FORM == 1
#define EW_KERNELS(NAME) EW_STRIDED_KERNEL(NAME##Strided)
#else
#define EW_KERNELS(NAME)
#endif

/* ---- multi-tensor kernel ----
 * NAME applies EW_OP to up to 16 contiguous tensor tuples in one launch:
 * work item (x, k) covers VEC_SIZE elements from x * VEC_SIZE of tuple k,
 * which has counts.s<k> elements; bounds-checked, so in-place tuples need no
 * care. Unused tuples repeat a used one with count 0. */
#define EW_TENSORS_AT(F, k) NERVA_CAT(EW_TENSORS_AT_, EW_ARITY)(F, k)
#define EW_TENSORS_AT_1(F, k) F(out, k) F(in0, k)
#define EW_TENSORS_AT_2(F, k) F(out, k) F(in0, k) F(in1, k)
#define EW_TENSORS_AT_3(F, k) F(out, k) F(in0, k) F(in1, k) F(in2, k)
#define EW_SLOTS(M)                                                           \
  M(0, s0) M(1, s1) M(2, s2) M(3, s3) M(4, s4) M(5, s5) M(6, s6) M(7, s7)   \
  M(8, s8) M(9, s9) M(10, sa) M(11, sb) M(12, sc) M(13, sd) M(14, se) M(15, sf)
#define EW_SLOT_PARAM(t, k) , __global uchar *t##_##k
#define EW_SLOT_PARAMS(k, s) EW_TENSORS_AT(EW_SLOT_PARAM, k)
#define EW_SLOT_TAKE(t, k) t = t##_##k;
#define EW_SLOT_PICK(k, s)                                                    \
  if (slot == k) {                                                            \
    EW_TENSORS_AT(EW_SLOT_TAKE, k)                                            \
    count = counts.s;                                                         \
  }
#define EW_SLOT_DECL(t) __global uchar *t = 0;
#define EW_LIST_ADDR(i) ((__global NERVA_CAT3(IN, i, _DTYPE) *)NERVA_CAT(in, i) + at)

/* ---- multi-tensor kernel from a table (EW_FORM 3, CPU devices) ----
 * NAME walks one chunk of one tuple per work item, a plain loop the compiler
 * vectorises. `table` holds EW_TABLE_STRIDE uints per chunk: its element
 * count, the slot of the memory objects its tensors live in, then per tensor
 * (output first) the byte offset of the chunk's first element there. Up to 16
 * slots of memory objects per launch, so a list of views of a few buffers
 * takes one launch however long it is. */
#define EW_TABLE_STRIDE (EW_ARITY + 3)
#define EW_TABLE_TAKE(t, k) t = t##_##k;
#define EW_TABLE_PICK(k, s)                                                   \
  if (slot == k) {                                                            \
    EW_TENSORS_AT(EW_TABLE_TAKE, k)                                           \
  }
#define EW_TABLE_OFFSET(t) t += entry[offset_at++];

#if EW_FORM == 3
#define EW_FOREACH_KERNEL(NAME)                                               \
  __kernel void NAME(__global const uint *table EW_SLOTS(EW_SLOT_PARAMS) EW_PARAMS) { \
    __global const uint *entry = table + get_global_id(0) * EW_TABLE_STRIDE;  \
    const uint count = entry[0], slot = entry[1];                            \
    EW_TENSORS(EW_SLOT_DECL)                                                  \
    EW_SLOTS(EW_TABLE_PICK)                                                   \
    uint offset_at = 2;                                                       \
    EW_TENSORS(EW_TABLE_OFFSET)                                               \
    for (uint at = 0; at < count; ++at) {                                     \
      EW_STORE_OUT(EW_APPLY(EW_LIST_ADDR), (__global OUT_DTYPE *)out + at);   \
    }                                                                         \
  }
#elif EW_FORM != 2
#define EW_FOREACH_KERNEL(NAME)
#else
#define EW_FOREACH_KERNEL(NAME)                                               \
  __kernel void NAME(uint16 counts EW_SLOTS(EW_SLOT_PARAMS) EW_PARAMS) {     \
    const uint slot = get_global_id(1);                                       \
    uint count = 0;                                                           \
    EW_TENSORS(EW_SLOT_DECL)                                                  \
    EW_SLOTS(EW_SLOT_PICK)                                                    \
    const uint first = get_global_id(0) * VEC_SIZE;                           \
    if (first + VEC_SIZE <= count) {                                          \
      _Pragma("unroll") for (int nerva_lane = 0; nerva_lane < VEC_SIZE; ++nerva_lane) { \
        const uint at = first + nerva_lane;                                   \
        EW_STORE_OUT(EW_APPLY(EW_LIST_ADDR), (__global OUT_DTYPE *)out + at); \
      }                                                                       \
    } else {                                                                  \
      for (uint at = first; at < count; ++at) {                               \
        EW_STORE_OUT(EW_APPLY(EW_LIST_ADDR), (__global OUT_DTYPE *)out + at); \
      }                                                                       \
    }                                                                         \
  }
#endif

#endif /* NERVA_ELEMENTWISE_H */
