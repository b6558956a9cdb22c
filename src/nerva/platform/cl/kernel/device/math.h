/*
 * Math helpers shared by the element-wise device programs. The expression
 * macros work on float scalars and float vectors of any width; the erf
 * polynomial needs locals, so it is a function per width, reached through
 * NERVA_ERF(N, x).
 *
 * e^y is computed as exp2(y * log2 e) and ln y as log2(y) / log2 e.
 */
#ifndef NERVA_MATH_H
#define NERVA_MATH_H

#define NERVA_LOG2E 1.4426950408889634f
#define NERVA_INV_LOG2E (1.0f / NERVA_LOG2E)
#define NERVA_SQRT1_2 0.70710678118654752f

#ifdef NERVA_HOST_CPU_DEVICE
/* 2^y = 2^i * 2^f with i = round(y) and f in [-0.5, 0.5]: adding 1.5 * 2^23
 * rounds y and leaves i in the low mantissa bits; 2^f is its Taylor series to
 * the sixth power (error about 1e-7). Results below 2^-126 flush to zero and
 * above 2^127 overflow to infinity; NaN stays NaN. Pure arithmetic, so the
 * compiler vectorises it across work items, which it cannot do with the
 * library exp2 call. One definition per float width. */
#define NERVA_DEFINE_EXP2(VT, IT)                                              \
  inline VT __attribute__((overloadable)) nerva_exp2(VT y) {                  \
    const VT c = clamp(y, -127.0f, 128.0f);                                  \
    const VT shifted = c + 12582912.0f;                                      \
    const IT i = as_##IT(shifted) - 0x4B400000;                              \
    const VT f = c - (shifted - 12582912.0f);                                \
    VT p = 1.5403530e-4f;                                                    \
    p = p * f + 1.3333558e-3f;                                               \
    p = p * f + 9.6181291e-3f;                                               \
    p = p * f + 5.5504109e-2f;                                               \
    p = p * f + 2.4022651e-1f;                                               \
    p = p * f + 6.9314718e-1f;                                               \
    p = p * f + 1.0f;                                                        \
    return select(p * as_##VT((i + 127) << 23), y, isnan(y));               \
  }
NERVA_DEFINE_EXP2(float, int)
NERVA_DEFINE_EXP2(float2, int2)
NERVA_DEFINE_EXP2(float3, int3)
NERVA_DEFINE_EXP2(float4, int4)
NERVA_DEFINE_EXP2(float8, int8)
NERVA_DEFINE_EXP2(float16, int16)
#define NERVA_EXP2(y) nerva_exp2(y)
#else
#define NERVA_EXP2(y) exp2(y)
#endif

/* 2^y for y <= 0 (and -inf), lane-wise, in pure arithmetic on every device:
 * y clamped below at -127, 2^round(y) built in the exponent bits (adding
 * 1.5 * 2^23 + 127 leaves round(y) + 127 in the low mantissa bits) times a
 * degree-5 fit of 2^f on [-0.5, 0.5] (relative error below 1e-7). NaN stays
 * NaN. Cheaper than NERVA_EXP2 where the argument cannot be positive. */
#define NERVA_DEFINE_EXP2_NONPOSITIVE(VT, IT)                                  \
  inline VT __attribute__((overloadable)) nerva_exp2_nonpositive(VT y) {      \
    y = select(y, (VT)(-127.0f), y < -127.0f);                               \
    const VT shifted = y + 12583039.0f;                                      \
    const VT f = y - (shifted - 12583039.0f);                                \
    VT p = 1.32669752e-3f;                                                   \
    p = p * f + 9.67546458e-3f;                                              \
    p = p * f + 5.55074265e-2f;                                              \
    p = p * f + 2.40221217e-1f;                                              \
    p = p * f + 6.93146949e-1f;                                              \
    p = p * f + 1.00000007f;                                                 \
    return p * as_##VT(as_##IT(shifted) << 23);                              \
  }
NERVA_DEFINE_EXP2_NONPOSITIVE(float, int)
NERVA_DEFINE_EXP2_NONPOSITIVE(float16, int16)

#define NERVA_EXP(y) NERVA_EXP2((y) * NERVA_LOG2E)
#define NERVA_LOG(y) (log2(y) * NERVA_INV_LOG2E)
/* tanh(y) = 2 / (1 + e^(-2y)) - 1. */
#define NERVA_FAST_TANH(y) (2.0f / (1.0f + NERVA_EXP2((y) * (-2.0f * NERVA_LOG2E))) - 1.0f)
#define NERVA_SIGMOID(y) (1.0f / (1.0f + NERVA_EXP(-(y))))

/* erf(x) = x * P(x^2) / Q(x^2) on x clamped to [-4, 4], single precision. */
#define NERVA_DEFINE_ERF(VT, SUFFIX)                                           \
  inline VT nerva_erf_##SUFFIX(VT x) {                                       \
    x = clamp(x, -4.0f, 4.0f);                                               \
    const VT t = x * x;                                                      \
    VT p = -2.72614225801306e-10f * t + 2.77068142495902e-08f;               \
    p = p * t - 2.10102402082508e-06f;                                       \
    p = p * t - 5.69250639462346e-05f;                                       \
    p = p * t - 7.34990630326855e-04f;                                       \
    p = p * t - 2.95459980854025e-03f;                                       \
    p = p * t - 1.60960333262415e-02f;                                       \
    VT q = -1.45660718464996e-05f * t - 2.13374055278905e-04f;               \
    q = q * t - 1.68282697438203e-03f;                                       \
    q = q * t - 7.37332916720468e-03f;                                       \
    q = q * t - 1.42647390514189e-02f;                                       \
    return x * p / q;                                                        \
  }
NERVA_DEFINE_ERF(float, 1)
NERVA_DEFINE_ERF(float2, 2)
NERVA_DEFINE_ERF(float3, 3)
NERVA_DEFINE_ERF(float4, 4)
NERVA_DEFINE_ERF(float8, 8)
NERVA_DEFINE_ERF(float16, 16)
#define NERVA_ERF(N, x) NERVA_CAT(nerva_erf_, N)(x)

#endif /* NERVA_MATH_H */
