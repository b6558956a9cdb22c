/*
 * ReduceWithIndices: torch.max / torch.min along one axis, values and
 * indices; the kernels of "argmax.cl" (listed after this text) with
 * PyTorch's order: a NaN wins and propagates, equal values keep the earlier
 * index. OP is MAX or MIN.
 */
#define ARG_KERNEL_X reduce_with_indices_x
#define ARG_KERNEL reduce_with_indices
#define ARG_WITH_VALUES
/* x != x holds for NaN only (never for integers). */
#define RWI_MAX(a, b) ((a) > (b))
#define RWI_MIN(a, b) ((a) < (b))
#define RWI_BETTER(a, b) NERVA_CAT(RWI_, OP)(a, b)
/* float4 form for a later candidate b: a filled lane stays when it is NaN or
 * at least as good (ties keep the earlier index). */
#define RWI_KEEP_MAX(a, b) isgreaterequal(a, b)
#define RWI_KEEP_MIN(a, b) islessequal(a, b)
#define ARG_KEEP_VEC(a, ai, b) \
  (((ai) >= 0) & (isnan(a) | NERVA_CAT(RWI_KEEP_, OP)(a, b)))
#define ARG_REPLACE(a, ai, b, bi)                                              \
  (((b) != (b)) ? ((a) == (a) || (bi) < (ai))                                \
                : ((a) == (a) && (RWI_BETTER(b, a) || ((a) == (b) && (bi) < (ai)))))
