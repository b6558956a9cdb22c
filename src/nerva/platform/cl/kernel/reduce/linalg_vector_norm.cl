/*
 * LinalgVectorNorm: the element map and finishing of the vector norm, ahead
 * of "reduce.cl", whose variants it runs. One switch picks the order:
 * NORM_ORD_0 (count of non-zeros, OP SUM), NORM_ORD_1 (sum of |x|, SUM),
 * NORM_ORD_2 (sqrt of the sum of squares, SUM), NORM_ORD_P with NORM_P
 * ((sum |x|^p)^(1/p), SUM), NORM_ORD_INF (max |x|, OP MAX) and
 * NORM_ORD_NEG_INF (min |x|, OP MIN). Computed in float.
 */
#define NORM_F(N, v) fabs(CONVERT(float, N, v))
#if defined(NORM_ORD_0)
#define REDUCE_MAP(N, v) \
  CONVERT_WRAP(float, N, NERVA_TRUTH(N, (v) != (DECL_VEC_TYPE(DTYPE, N))(0)))
#define REDUCE_FINISH(N, a, a2) (a)
#elif defined(NORM_ORD_2)
#define REDUCE_MAP(N, v) (NORM_F(N, v) * NORM_F(N, v))
#define REDUCE_FINISH(N, a, a2) sqrt(a)
#elif defined(NORM_ORD_P)
#define REDUCE_MAP(N, v) pow(NORM_F(N, v), (NERVA_VEC(float, N))(NORM_P))
#define REDUCE_FINISH(N, a, a2) pow(a, (float)(1.0f / (NORM_P)))
#else /* NORM_ORD_1, NORM_ORD_INF, NORM_ORD_NEG_INF */
#define REDUCE_MAP(N, v) NORM_F(N, v)
#define REDUCE_FINISH(N, a, a2) (a)
#endif
