/*
 * Test-only emulation of the device compiler's tensor-core extension
 * (cl_nrv_tensorcore): types, constants, the fusion record and its stage macros.
 * Plain OpenCL C 1.2, no extension needed; the built-ins are in cl_nrv_tc_lib.h.
 *
 * Fragments. A fragment describes up to four dimensions, outermost first
 * (tc_dim_t = (d0, d1, d2, d3)), with byte strides (int4, same order), over
 * global or local memory. A size of 0 counts as 1. Element (i0, i1, i2, i3)
 * lies at pointer + i0 * stride.x + i1 * stride.y + i2 * stride.z + i3 * stride.w.
 * Element types: TC_DTYPE_<OpenCL C name>, or TC_DTYPE_OF(type name) when the
 * type comes from a macro (TC_DTYPE_OF(MAT1_DTYPE)). half is read and written
 * with vload_half/vstore_half, so no cl_khr_fp16 is needed.
 *
 * Collective calls. Every work-item of a work-group calls a built-in with the
 * same arguments; the group computes it once (the emulation spreads the output
 * elements over the work-items) and tc_wait_event is the group's barrier after
 * which the results are visible. Never call them under divergent control flow.
 *
 * Fusion. A tc_fusion_data_t is zero-initialised, given TC_FUSION_VERSION(f, 1),
 * then stages in the order they are to run (at most TC_FUSION_MAX_STAGES). All
 * stage parameters are integers. Semantics (v the value, c its channel,
 * rs(x, s) = rounding right shift (x + 2^(s-1)) >> s, x for s <= 0,
 * clamp to [min, max]; multipliers marked Q16 carry TC_FIXED_FRAC_BITS (16)
 * fraction bits; x2 the second input of tc_conv2d at the stage's position,
 * 0 outside its shape or without one (1 for MUL)):
 *   TRANSPOSE_INPUT_LAYOUT    the input is stored channels-last (H, W, C), packed
 *   RELU_1, RELU_2            max(v, 0)
 *   MAX_POOLING_2D(k, s)      max over k x k windows with step s, no padding
 *   MUL(x1_mul Q16, x2_shift, min, max)  clamp(rs(v * x2 * x1_mul, 16 + x2_shift))
 *   LUT                       table[clamp(v, -128, 127) + 128]
 *   STREAM_PROCESSOR          marks the stages after it; no effect on values
 *   ADD(a Q16, b Q16, c, min, max)       clamp(rs(a * v + b * x2, 16) + c)
 *   PRELU(min, max)           clamp(v >= 0 ? v : rs(v * slope[c] (Q16), 16))
 *   LEAKY_RELU(pos Q16, neg Q16, min, max) clamp(rs(v * (v >= 0 ? pos : neg), 16))
 *   DEPTH2SPACE(bh, bw)       (C, H, W) -> (C / (bh bw), H bh, W bw), as pixel_shuffle:
 *                             out[c][y][x] = in[c bh bw + (y % bh) bw + x % bw][y / bh][x / bw]
 *   RESCALE(mul, shift)       rs(v * mul, shift)
 *   RESCALE_PCQ(shift)        rs(v * mul[c], shift)
 * The floating-point path of tc_matmul (half or float operands) applies RELU as
 * above and RESCALE as v * mul / 2^shift; other stages need integer operands.
 * At most one MAX_POOLING_2D stage per fusion.
 *
 * Encoded coefficient (tc_conv2d). The coefficient fragment holds the weights
 * (OC, IC, KH, KW). From the next multiple of 4 bytes past its last element
 * follow int32 tables: OC biases, then for each engaged stage in fusion order
 * PRELU: OC slopes (Q16), LUT: 256 entries, RESCALE_PCQ: OC multipliers.
 */
#ifndef CL_NRV_TC_EXT_H
#define CL_NRV_TC_EXT_H

typedef int4 tc_dim_t;
typedef int tc_event_t;

#define TC_SPACE_SPEC_GLOBAL 0
#define TC_SPACE_SPEC_LOCAL 1

#define TC_DTYPE_char 0
#define TC_DTYPE_uchar 1
#define TC_DTYPE_short 2
#define TC_DTYPE_ushort 3
#define TC_DTYPE_int 4
#define TC_DTYPE_uint 5
#define TC_DTYPE_half 6
#define TC_DTYPE_float 7
#define TC_DTYPE_OF_(type) TC_DTYPE_##type
#define TC_DTYPE_OF(type) TC_DTYPE_OF_(type)

#define TC_PAD_MODE_CONST 0
#define TC_CACHE_MODE_NONE 0
#define TC_FIXED_FRAC_BITS 16

typedef struct {
  int space;      /* TC_SPACE_SPEC_* */
  int dtype;      /* TC_DTYPE_*, -1 for TC_EMPTY_FRAGMENT */
  tc_dim_t shape; /* sizes, outermost first */
  int4 stride;    /* byte strides, outermost first */
  ulong addr;     /* the wrapped pointer */
} tc_fragment_handle_t;

#define TC_EMPTY_FRAGMENT \
  ((tc_fragment_handle_t){TC_SPACE_SPEC_GLOBAL, -1, (tc_dim_t)(0), (int4)(0), 0})

/* Fusion stages. */
#define TC_STAGE_TRANSPOSE_INPUT_LAYOUT 1
#define TC_STAGE_RELU_1 2
#define TC_STAGE_MAX_POOLING_2D 3
#define TC_STAGE_MUL 4
#define TC_STAGE_LUT 5
#define TC_STAGE_STREAM_PROCESSOR 6
#define TC_STAGE_ADD 7
#define TC_STAGE_PRELU 8
#define TC_STAGE_LEAKY_RELU 9
#define TC_STAGE_RELU_2 10
#define TC_STAGE_DEPTH2SPACE 11
#define TC_STAGE_RESCALE 12
#define TC_STAGE_RESCALE_PCQ 13

#define TC_FUSION_MAX_STAGES 16

typedef struct {
  int version;
  int count;
  int op[TC_FUSION_MAX_STAGES];
  int param[TC_FUSION_MAX_STAGES][5];
} tc_fusion_data_t;

/* Appends one stage (the emulation drops stages beyond TC_FUSION_MAX_STAGES). */
void tc_fusion_add(tc_fusion_data_t* f, int op, int p0, int p1, int p2, int p3, int p4) {
  if (f->count >= TC_FUSION_MAX_STAGES) return;
  f->op[f->count] = op;
  f->param[f->count][0] = p0;
  f->param[f->count][1] = p1;
  f->param[f->count][2] = p2;
  f->param[f->count][3] = p3;
  f->param[f->count][4] = p4;
  f->count++;
}

#define TC_FUSION_VERSION(f, v) ((f).version = (v))
#define TC_FUSION_TRANSPOSE_INPUT_LAYOUT(f) \
  tc_fusion_add(&(f), TC_STAGE_TRANSPOSE_INPUT_LAYOUT, 0, 0, 0, 0, 0)
#define TC_FUSION_RELU_1(f) tc_fusion_add(&(f), TC_STAGE_RELU_1, 0, 0, 0, 0, 0)
#define TC_FUSION_RELU_2(f) tc_fusion_add(&(f), TC_STAGE_RELU_2, 0, 0, 0, 0, 0)
#define TC_FUSION_MAX_POOLING_2D(f, ksize, step) \
  tc_fusion_add(&(f), TC_STAGE_MAX_POOLING_2D, (ksize), (step), 0, 0, 0)
#define TC_FUSION_MUL(f, x1_mul, x2_shift, lo, hi) \
  tc_fusion_add(&(f), TC_STAGE_MUL, (x1_mul), (x2_shift), (lo), (hi), 0)
#define TC_FUSION_LUT(f) tc_fusion_add(&(f), TC_STAGE_LUT, 0, 0, 0, 0, 0)
#define TC_FUSION_STREAM_PROCESSOR(f) \
  tc_fusion_add(&(f), TC_STAGE_STREAM_PROCESSOR, 0, 0, 0, 0, 0)
#define TC_FUSION_ADD(f, a, b, c, lo, hi) tc_fusion_add(&(f), TC_STAGE_ADD, (a), (b), (c), (lo), (hi))
#define TC_FUSION_PRELU(f, lo, hi) tc_fusion_add(&(f), TC_STAGE_PRELU, (lo), (hi), 0, 0, 0)
#define TC_FUSION_LEAKY_RELU(f, pos, neg, lo, hi) \
  tc_fusion_add(&(f), TC_STAGE_LEAKY_RELU, (pos), (neg), (lo), (hi), 0)
#define TC_FUSION_DEPTH2SPACE(f, bh, bw) tc_fusion_add(&(f), TC_STAGE_DEPTH2SPACE, (bh), (bw), 0, 0, 0)
#define TC_FUSION_RESCALE(f, mul, shift) tc_fusion_add(&(f), TC_STAGE_RESCALE, (mul), (shift), 0, 0, 0)
#define TC_FUSION_RESCALE_PCQ(f, shift) tc_fusion_add(&(f), TC_STAGE_RESCALE_PCQ, (shift), 0, 0, 0, 0)

#endif /* CL_NRV_TC_EXT_H */
