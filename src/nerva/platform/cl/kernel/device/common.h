/*
 * Shared definitions of every device program: token helpers, tensor
 * parameter declarations, addressing, typed vector loads, stores and
 * conversions.
 *
 * Element types are named as the host spells them (DTYPE=float, half, bhalf,
 * fp8_e4m3, char, ...). Every type has a register type used for arithmetic:
 * the type itself, except the 16- and 8-bit float formats, which compute in
 * float. half is always read and written through vload_half/vstore_half, so
 * half tensors work whether or not the device has cl_khr_fp16. bhalf (ushort
 * bits) and fp8 (uchar bits) exist under NERVA_OPENCL_BFLOAT16_ENABLED and
 * NERVA_OPENCL_FP8_ENABLED.
 *
 * Conversion conventions (CONVERT):
 *   - to an integer type: saturating; from floating point rounding toward
 *     zero, NaN giving 0 (convert_<T>_sat);
 *   - to a floating type: round to nearest even;
 *   - storing to half, bhalf and fp8: round to nearest even; fp8 saturates
 *     finite values to the largest finite value, NaN stays NaN.
 * CONVERT_WRAP is the plain, modular conversion (convert_<T>).
 */
#ifndef NERVA_COMMON_H
#define NERVA_COMMON_H

/* ---- token helpers ---- */
#define NERVA_CAT_(a, b) a##b
#define NERVA_CAT(a, b) NERVA_CAT_(a, b)
#define NERVA_CAT3(a, b, c) NERVA_CAT(NERVA_CAT(a, b), c)

/* The vector type of scalar type T with N lanes (N = 1 is T itself). */
#define NERVA_VEC(T, N) NERVA_CAT(NERVA_VEC_, N)(T)
#define NERVA_VEC_1(T) T
#define NERVA_VEC_2(T) NERVA_CAT(T, 2)
#define NERVA_VEC_3(T) NERVA_CAT(T, 3)
#define NERVA_VEC_4(T) NERVA_CAT(T, 4)
#define NERVA_VEC_8(T) NERVA_CAT(T, 8)
#define NERVA_VEC_16(T) NERVA_CAT(T, 16)

/* ---- storage-only types ---- */
#ifdef NERVA_OPENCL_BFLOAT16_ENABLED
typedef ushort bhalf;
#endif
#ifdef NERVA_OPENCL_FP8_ENABLED
typedef uchar fp8_e4m3;
typedef uchar fp8_e5m2;
#endif
#ifdef cl_khr_fp64
#pragma OPENCL EXTENSION cl_khr_fp64 : enable
#endif

/* Register (arithmetic) scalar type of each element type. */
#define REG_TYPE(T) NERVA_CAT(NERVA_REG_, T)
#define NERVA_REG_char char
#define NERVA_REG_uchar uchar
#define NERVA_REG_short short
#define NERVA_REG_ushort ushort
#define NERVA_REG_int int
#define NERVA_REG_uint uint
#define NERVA_REG_long long
#define NERVA_REG_ulong ulong
#define NERVA_REG_float float
#define NERVA_REG_double double
#define NERVA_REG_half float
#define NERVA_REG_bhalf float
#define NERVA_REG_fp8_e4m3 float
#define NERVA_REG_fp8_e5m2 float

/* The register vector type for N elements of T: DECL_VEC_TYPE(half, 4) is float4. */
#define DECL_VEC_TYPE(T, N) NERVA_VEC(REG_TYPE(T), N)

/* ---- tensor parameters ----
 * A rank-r tensor is 2 * r + 2 kernel parameters: a byte pointer, a byte
 * stride and a byte step per dimension (x innermost), and the byte offset of
 * the first element. */
#define DECL_TENSOR1D(name)                                                   \
  __global uchar *name##_ptr, uint name##_stride_x, uint name##_step_x,      \
      uint name##_offset_first_element_in_bytes
#define DECL_TENSOR2D(name)                                                   \
  __global uchar *name##_ptr, uint name##_stride_x, uint name##_step_x,      \
      uint name##_stride_y, uint name##_step_y,                              \
      uint name##_offset_first_element_in_bytes
#define DECL_TENSOR3D(name)                                                   \
  __global uchar *name##_ptr, uint name##_stride_x, uint name##_step_x,      \
      uint name##_stride_y, uint name##_step_y, uint name##_stride_z,        \
      uint name##_step_z, uint name##_offset_first_element_in_bytes

/* Address of the first element. */
#define TENSOR_BASE(name) (name##_ptr + name##_offset_first_element_in_bytes)
/* Address of the element at indices (x[, y[, z]]), as a pointer to T. */
#define TENSOR1D_PTR(name, T, x) ((__global T *)(TENSOR_BASE(name) + (x) * name##_stride_x))
#define TENSOR2D_PTR(name, T, x, y)                                            \
  ((__global T *)(TENSOR_BASE(name) + (x) * name##_stride_x + (y) * name##_stride_y))
#define TENSOR3D_PTR(name, T, x, y, z)                                         \
  ((__global T *)(TENSOR_BASE(name) + (x) * name##_stride_x +                \
                  (y) * name##_stride_y + (z) * name##_stride_z))
/* Address of this work item's first element: global id times the step. */
#define TENSOR1D_WI_PTR(name, T)                                               \
  ((__global T *)(TENSOR_BASE(name) + get_global_id(0) * name##_step_x))
#define TENSOR2D_WI_PTR(name, T)                                               \
  ((__global T *)(TENSOR_BASE(name) + get_global_id(0) * name##_step_x +     \
                  get_global_id(1) * name##_step_y))
#define TENSOR3D_WI_PTR(name, T)                                               \
  ((__global T *)(TENSOR_BASE(name) + get_global_id(0) * name##_step_x +     \
                  get_global_id(1) * name##_step_y +                         \
                  get_global_id(2) * name##_step_z))

/* ---- element-wise lanes ----
 * A device whose compiler targets the host CPU (PoCL and the like) runs the
 * work items of a group as a loop that it vectorises across work items, but
 * only over scalar code: vector-typed arithmetic stays at its own width (four
 * lanes of a sixteen-lane unit for a float4). There each work item therefore
 * walks its elements one lane at a time; other devices use whole vectors.
 * NERVA_LANES(VEC) is the width of one such step. */
#if defined(__x86_64__) || defined(__i386__) || defined(__aarch64__) || \
    defined(__arm__) || defined(__riscv) || defined(__powerpc__)
#define NERVA_HOST_CPU_DEVICE 1
#define NERVA_LANES(VEC) 1
#else
#define NERVA_LANES(VEC) VEC
#endif

/* ---- prefetch ----
 * NERVA_PREFETCH(p): a hint that the cache line at p is read soon, into the
 * outer caches (locality 1: more misses stay in flight than with the first
 * level as target). Latency-bound reads on CPUs (random rows, pages of a
 * cache) keep several lines in flight that way. Nothing on other devices. */
#if defined(NERVA_HOST_CPU_DEVICE) && defined(__clang__)
#define NERVA_PREFETCH(p) __builtin_prefetch(p, 0, 1)
#else
#define NERVA_PREFETCH(p)
#endif
/* Every line of the n bytes at p. */
#define NERVA_PREFETCH_BYTES(p, n)                                            \
  for (ulong nerva_at = 0; nerva_at < (ulong)(n); nerva_at += 64)            \
  NERVA_PREFETCH((__global const uchar *)(p) + nerva_at)

/* ---- streaming stores ----
 * Programs built with NERVA_STREAM 1 (the host's choice for outputs larger
 * than the caches, on CPU devices) write whole vectors past the caches:
 * NERVA_STORE_STREAM(VT, N, v, p) stores v, a vector of type VT with N
 * elements of a plain type, at p (a pointer to its elements) with a
 * non-temporal store. Lines written that
 * way are not read first and do not displace the program's inputs. The host
 * sets NERVA_STREAM only where every such p is aligned to the vector's size
 * (a run-time check would cost more than the stores gain). */
#ifndef NERVA_STREAM
#define NERVA_STREAM 0
#endif
#if NERVA_STREAM && defined(NERVA_HOST_CPU_DEVICE)
#define NERVA_STORE_STREAM(VT, N, v, p) __builtin_nontemporal_store((VT)(v), (__global VT *)(p))
#else
#define NERVA_STORE_STREAM(VT, N, v, p) NERVA_STOREN(N, v, p)
#endif

/* Maps VEC consecutive elements: loads IN_T at px, converts to CONV_T,
 * applies FN (which must accept NERVA_LANES(VEC)-wide CONV_T values),
 * converts to OUT_T and stores at py. The lane loop must be unrolled before
 * the work-group loop is vectorised, hence the pragma. */
#define ELEMENTWISE_MAP(IN_T, CONV_T, OUT_T, VEC, px, py, FN)                 \
  _Pragma("unroll") for (int nerva_lane = 0; nerva_lane < (VEC); nerva_lane += NERVA_LANES(VEC)) { \
    const DECL_VEC_TYPE(CONV_T, NERVA_LANES(VEC)) nerva_in = CONVERT(         \
        CONV_T, NERVA_LANES(VEC), VLOAD(IN_T, NERVA_LANES(VEC), (px) + nerva_lane)); \
    VSTORE(OUT_T, NERVA_LANES(VEC), CONVERT(OUT_T, NERVA_LANES(VEC), FN(nerva_in)), \
           (py) + nerva_lane);                                                \
  }

/* ---- flat element-wise indexing ----
 * First element of work item g when n elements are covered by VEC-wide
 * vectors and n % VEC == LEFTOVER: every vector after the first is shifted
 * back so that the last one ends exactly at n; the first overlaps the second.
 * With LEFTOVER 0 this is g * VEC. */
#define VEC_OFFSET(g, VEC, LEFTOVER)                                           \
  max((int)(g) * (VEC) - (((VEC) - (LEFTOVER)) % (VEC)), 0)

/* ---- scalar helpers for the narrow float formats ---- */
#ifdef NERVA_OPENCL_BFLOAT16_ENABLED
/* bfloat16 bits to float and back (round to nearest even, NaN kept quiet). */
#define NERVA_BF16_TO_FLOAT(N, v)                                              \
  NERVA_CAT(as_, NERVA_VEC(float, N))(NERVA_CAT(convert_, NERVA_VEC(uint, N))(v) << 16)
#define NERVA_BF16_FROM_FLOAT(N, f)                                            \
  NERVA_CAT(convert_, NERVA_VEC(ushort, N))(                                 \
      select((NERVA_CAT(as_, NERVA_VEC(uint, N))(f) +                        \
              (0x7FFFu + ((NERVA_CAT(as_, NERVA_VEC(uint, N))(f) >> 16) & 1u))) >> 16, \
             (NERVA_VEC(uint, N))(0x7FC0u),                                  \
             NERVA_CAT(as_, NERVA_VEC(uint, N))(isnan(f))))
#endif

#ifdef NERVA_OPENCL_FP8_ENABLED
inline float nerva_fp8_e4m3_to_float(uchar v) {
  uint e = (v >> 3) & 0xFu, m = v & 7u;
  float mag = e == 0 ? (float)m * 0x1p-9f
                     : (e == 15 && m == 7 ? NAN : as_float(((e + 120u) << 23) | (m << 20)));
  return (v & 0x80) ? -mag : mag;
}
inline float nerva_fp8_e5m2_to_float(uchar v) {
  uint e = (v >> 2) & 0x1Fu, m = v & 3u;
  float mag = e == 0 ? (float)m * 0x1p-16f
                     : (e == 31 ? (m ? NAN : INFINITY) : as_float(((e + 112u) << 23) | (m << 21)));
  return (v & 0x80) ? -mag : mag;
}
inline uchar nerva_float_to_fp8_e4m3(float f) {
  uchar sign = (as_uint(f) >> 24) & 0x80;
  if (isnan(f)) return sign | 0x7F;
  float a = fmin(fabs(f), 448.0f);
  if (a < 0x1p-6f) return sign | (uchar)rint(a * 512.0f);
  uint b = as_uint(a);
  b += 0x7FFFFu + ((b >> 20) & 1u);
  return sign | (uchar)((((b >> 23) - 120u) << 3) | ((b >> 20) & 7u));
}
inline uchar nerva_float_to_fp8_e5m2(float f) {
  uchar sign = (as_uint(f) >> 24) & 0x80;
  if (isnan(f)) return sign | 0x7F;
  if (isinf(f)) return sign | 0x7C;
  float a = fmin(fabs(f), 57344.0f);
  if (a < 0x1p-14f) return sign | (uchar)rint(a * 65536.0f);
  uint b = as_uint(a);
  b += 0xFFFFFu + ((b >> 21) & 1u);
  return sign | (uchar)((((b >> 23) - 112u) << 2) | ((b >> 21) & 3u));
}
/* Lane-wise forms for every width: nerva_<from>_to_<to><N>. */
#define NERVA_FP8_LANES(KIND)                                                  \
  inline float2 nerva_##KIND##_to_float2(uchar2 v) {                         \
    return (float2)(nerva_##KIND##_to_float(v.s0), nerva_##KIND##_to_float(v.s1)); \
  }                                                                          \
  inline float3 nerva_##KIND##_to_float3(uchar3 v) {                         \
    return (float3)(nerva_##KIND##_to_float2(v.s01), nerva_##KIND##_to_float(v.s2)); \
  }                                                                          \
  inline float4 nerva_##KIND##_to_float4(uchar4 v) {                         \
    return (float4)(nerva_##KIND##_to_float2(v.lo), nerva_##KIND##_to_float2(v.hi)); \
  }                                                                          \
  inline float8 nerva_##KIND##_to_float8(uchar8 v) {                         \
    return (float8)(nerva_##KIND##_to_float4(v.lo), nerva_##KIND##_to_float4(v.hi)); \
  }                                                                          \
  inline float16 nerva_##KIND##_to_float16(uchar16 v) {                      \
    return (float16)(nerva_##KIND##_to_float8(v.lo), nerva_##KIND##_to_float8(v.hi)); \
  }                                                                          \
  inline uchar2 nerva_float_to_##KIND##2(float2 v) {                         \
    return (uchar2)(nerva_float_to_##KIND(v.s0), nerva_float_to_##KIND(v.s1)); \
  }                                                                          \
  inline uchar3 nerva_float_to_##KIND##3(float3 v) {                         \
    return (uchar3)(nerva_float_to_##KIND##2(v.s01), nerva_float_to_##KIND(v.s2)); \
  }                                                                          \
  inline uchar4 nerva_float_to_##KIND##4(float4 v) {                         \
    return (uchar4)(nerva_float_to_##KIND##2(v.lo), nerva_float_to_##KIND##2(v.hi)); \
  }                                                                          \
  inline uchar8 nerva_float_to_##KIND##8(float8 v) {                         \
    return (uchar8)(nerva_float_to_##KIND##4(v.lo), nerva_float_to_##KIND##4(v.hi)); \
  }                                                                          \
  inline uchar16 nerva_float_to_##KIND##16(float16 v) {                      \
    return (uchar16)(nerva_float_to_##KIND##8(v.lo), nerva_float_to_##KIND##8(v.hi)); \
  }
NERVA_FP8_LANES(fp8_e4m3)
NERVA_FP8_LANES(fp8_e5m2)
#define NERVA_FP8_NAME(KIND, N) NERVA_CAT(NERVA_FP8_NAME_, N)(KIND)
#define NERVA_FP8_NAME_1(KIND) nerva_##KIND##_to_float
#define NERVA_FP8_NAME_2(KIND) nerva_##KIND##_to_float2
#define NERVA_FP8_NAME_3(KIND) nerva_##KIND##_to_float3
#define NERVA_FP8_NAME_4(KIND) nerva_##KIND##_to_float4
#define NERVA_FP8_NAME_8(KIND) nerva_##KIND##_to_float8
#define NERVA_FP8_NAME_16(KIND) nerva_##KIND##_to_float16
#define NERVA_FP8_ENC(KIND, N) NERVA_CAT(NERVA_FP8_ENC_, N)(KIND)
#define NERVA_FP8_ENC_1(KIND) nerva_float_to_##KIND
#define NERVA_FP8_ENC_2(KIND) nerva_float_to_##KIND##2
#define NERVA_FP8_ENC_3(KIND) nerva_float_to_##KIND##3
#define NERVA_FP8_ENC_4(KIND) nerva_float_to_##KIND##4
#define NERVA_FP8_ENC_8(KIND) nerva_float_to_##KIND##8
#define NERVA_FP8_ENC_16(KIND) nerva_float_to_##KIND##16
#endif

/* ---- raw vector access on a pointer to N consecutive elements ---- */
#define NERVA_LOADN(N, p) NERVA_CAT(NERVA_LOADN_, N)(p)
#define NERVA_LOADN_1(p) (*(p))
#define NERVA_LOADN_2(p) vload2(0, p)
#define NERVA_LOADN_3(p) vload3(0, p)
#define NERVA_LOADN_4(p) vload4(0, p)
#define NERVA_LOADN_8(p) vload8(0, p)
#define NERVA_LOADN_16(p) vload16(0, p)
#define NERVA_STOREN(N, v, p) NERVA_CAT(NERVA_STOREN_, N)(v, p)
#define NERVA_STOREN_1(v, p) (*(p) = (v))
#define NERVA_STOREN_2(v, p) vstore2(v, 0, p)
#define NERVA_STOREN_3(v, p) vstore3(v, 0, p)
#define NERVA_STOREN_4(v, p) vstore4(v, 0, p)
#define NERVA_STOREN_8(v, p) vstore8(v, 0, p)
#define NERVA_STOREN_16(v, p) vstore16(v, 0, p)
#define NERVA_LOADH(N, p) NERVA_CAT(NERVA_LOADH_, N)(p)
#define NERVA_LOADH_1(p) vload_half(0, p)
#define NERVA_LOADH_2(p) vload_half2(0, p)
#define NERVA_LOADH_3(p) vload_half3(0, p)
#define NERVA_LOADH_4(p) vload_half4(0, p)
#define NERVA_LOADH_8(p) vload_half8(0, p)
#define NERVA_LOADH_16(p) vload_half16(0, p)
#define NERVA_STOREH(N, v, p) NERVA_CAT(NERVA_STOREH_, N)(v, p)
#define NERVA_STOREH_1(v, p) vstore_half_rte(v, 0, p)
#define NERVA_STOREH_2(v, p) vstore_half2_rte(v, 0, p)
#define NERVA_STOREH_3(v, p) vstore_half3_rte(v, 0, p)
#define NERVA_STOREH_4(v, p) vstore_half4_rte(v, 0, p)
#define NERVA_STOREH_8(v, p) vstore_half8_rte(v, 0, p)
#define NERVA_STOREH_16(v, p) vstore_half16_rte(v, 0, p)

/* ---- typed loads and stores ----
 * VLOAD(T, N, p): N elements of type T at p (a __global T*), as
 * DECL_VEC_TYPE(T, N). VSTORE(T, N, v, p): stores a DECL_VEC_TYPE(T, N). */
#define VLOAD(T, N, p) NERVA_CAT(NERVA_VLOAD_, T)(N, p)
#define VSTORE(T, N, v, p) NERVA_CAT(NERVA_VSTORE_, T)(N, v, p)
#define NERVA_VLOAD_char NERVA_LOADN
#define NERVA_VLOAD_uchar NERVA_LOADN
#define NERVA_VLOAD_short NERVA_LOADN
#define NERVA_VLOAD_ushort NERVA_LOADN
#define NERVA_VLOAD_int NERVA_LOADN
#define NERVA_VLOAD_uint NERVA_LOADN
#define NERVA_VLOAD_long NERVA_LOADN
#define NERVA_VLOAD_ulong NERVA_LOADN
#define NERVA_VLOAD_float NERVA_LOADN
#define NERVA_VLOAD_double NERVA_LOADN
#define NERVA_VLOAD_half NERVA_LOADH
#define NERVA_VLOAD_bhalf(N, p) NERVA_BF16_TO_FLOAT(N, NERVA_LOADN(N, p))
#define NERVA_VLOAD_fp8_e4m3(N, p) NERVA_FP8_NAME(fp8_e4m3, N)(NERVA_LOADN(N, p))
#define NERVA_VLOAD_fp8_e5m2(N, p) NERVA_FP8_NAME(fp8_e5m2, N)(NERVA_LOADN(N, p))
#define NERVA_VSTORE_char NERVA_STOREN
#define NERVA_VSTORE_uchar NERVA_STOREN
#define NERVA_VSTORE_short NERVA_STOREN
#define NERVA_VSTORE_ushort NERVA_STOREN
#define NERVA_VSTORE_int NERVA_STOREN
#define NERVA_VSTORE_uint NERVA_STOREN
#define NERVA_VSTORE_long NERVA_STOREN
#define NERVA_VSTORE_ulong NERVA_STOREN
#define NERVA_VSTORE_float NERVA_STOREN
#define NERVA_VSTORE_double NERVA_STOREN
#define NERVA_VSTORE_half NERVA_STOREH
#define NERVA_VSTORE_bhalf(N, v, p) NERVA_STOREN(N, NERVA_BF16_FROM_FLOAT(N, v), p)
#define NERVA_VSTORE_fp8_e4m3(N, v, p) NERVA_STOREN(N, NERVA_FP8_ENC(fp8_e4m3, N)(v), p)
#define NERVA_VSTORE_fp8_e5m2(N, v, p) NERVA_STOREN(N, NERVA_FP8_ENC(fp8_e5m2, N)(v), p)

/* ---- conversions ----
 * CONVERT(T, N, v): v (any N-lane register vector) as DECL_VEC_TYPE(T, N). */
#define CONVERT(T, N, v) NERVA_CAT(NERVA_CONVERT_, T)(N, v)
#define CONVERT_WRAP(T, N, v) NERVA_CAT(convert_, DECL_VEC_TYPE(T, N))(v)
#define NERVA_CONVERT_SAT(T, N, v) NERVA_CAT3(convert_, NERVA_VEC(T, N), _sat)(v)
#define NERVA_CONVERT_FLT(T, N, v) NERVA_CAT(convert_, NERVA_VEC(T, N))(v)
#define NERVA_CONVERT_char(N, v) NERVA_CONVERT_SAT(char, N, v)
#define NERVA_CONVERT_uchar(N, v) NERVA_CONVERT_SAT(uchar, N, v)
#define NERVA_CONVERT_short(N, v) NERVA_CONVERT_SAT(short, N, v)
#define NERVA_CONVERT_ushort(N, v) NERVA_CONVERT_SAT(ushort, N, v)
#define NERVA_CONVERT_int(N, v) NERVA_CONVERT_SAT(int, N, v)
#define NERVA_CONVERT_uint(N, v) NERVA_CONVERT_SAT(uint, N, v)
#define NERVA_CONVERT_long(N, v) NERVA_CONVERT_SAT(long, N, v)
#define NERVA_CONVERT_ulong(N, v) NERVA_CONVERT_SAT(ulong, N, v)
#define NERVA_CONVERT_float(N, v) NERVA_CONVERT_FLT(float, N, v)
#define NERVA_CONVERT_double(N, v) NERVA_CONVERT_FLT(double, N, v)
#define NERVA_CONVERT_half(N, v) NERVA_CONVERT_FLT(float, N, v)
#define NERVA_CONVERT_bhalf(N, v) NERVA_CONVERT_FLT(float, N, v)
#define NERVA_CONVERT_fp8_e4m3(N, v) NERVA_CONVERT_FLT(float, N, v)
#define NERVA_CONVERT_fp8_e5m2(N, v) NERVA_CONVERT_FLT(float, N, v)

#endif /* NERVA_COMMON_H */
