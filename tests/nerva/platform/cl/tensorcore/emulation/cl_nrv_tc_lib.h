/*
 * Test-only emulation of the device compiler's tensor-core built-ins (see
 * cl_nrv_tc_ext.h for the data model and the stage semantics):
 *   tc_wrap_fragment(space, dtype, shape, stride, pointer)
 *   TC_WRAP_FRAGMENT_2D(space, dtype, rows, cols, row_stride, pointer)
 *   TC_WRAP_FRAGMENT_3D(space, dtype, d1, d2, d3, stride1, stride2, pointer)
 *   TC_WRAP_FRAGMENT_4D(space, dtype, d0, d1, d2, d3, stride0, stride1, stride2, pointer)
 *     (the shorthands pack the innermost dimension at the element size)
 *   tc_matmul(a, b, transpose_a, transpose_b, zero_point_a, zero_point_b, fusion, out, event)
 *     out[m][n] = stages(sum_k (A[m][k] - zp_a) * (B[k][n] - zp_b)) over dims (2, 3);
 *     A is the fragment (M, K), or (K, M) read transposed with transpose_a; B (K, N), or
 *     (N, K) with transpose_b; dims 0 and 1 are batches (size 1 broadcasts). Integer
 *     operands accumulate in 64 bits, half/float operands in float. The result is
 *     converted to out's type (saturating, rounding to nearest for integers).
 *   tc_conv2d(in, coef, stride, pad, pad_mode, pad_const, in_zero_point, dilation,
 *             cache_mode, fusion, in2, out, event)
 *     integer convolution of in (d0 images or 1, C, H, W) with coef (OC, C, KH, KW):
 *     bias[o] + sum (x - in_zero_point) * w, x = pad_const outside the image;
 *     pad = (top, bottom, left, right); then the fusion stages; out holds the final
 *     (channels, height, width) after pooling and depth-to-space. in2 is the second
 *     input of ADD and MUL (TC_EMPTY_FRAGMENT when absent).
 *   tc_rescale(in, input_shift, multiplier, output_shift, out, event)
 *     out = rs((in << input_shift) * multiplier, output_shift), element-wise over
 *     out's shape (in has the same shape).
 *   tc_wait_event(event): the work-group barrier that completes a call.
 */
#ifndef CL_NRV_TC_LIB_H
#define CL_NRV_TC_LIB_H

int tc_emu_dtype_size(int dtype) {
  switch (dtype) {
    case TC_DTYPE_char:
    case TC_DTYPE_uchar:
      return 1;
    case TC_DTYPE_short:
    case TC_DTYPE_ushort:
    case TC_DTYPE_half:
      return 2;
    default:
      return 4;
  }
}

int tc_emu_is_float(int dtype) { return dtype == TC_DTYPE_half || dtype == TC_DTYPE_float; }

tc_fragment_handle_t tc_emu_wrap(int space, int dtype, tc_dim_t shape, int4 stride, ulong addr) {
  tc_fragment_handle_t f;
  f.space = space;
  f.dtype = dtype;
  f.shape = max(shape, (tc_dim_t)(1));
  f.stride = stride;
  f.addr = addr;
  return f;
}

#define tc_wrap_fragment(space, dtype, shape, stride, pointer) \
  tc_emu_wrap((space), (dtype), (shape), (stride), (ulong)(pointer))
#define TC_WRAP_FRAGMENT_2D(space, dtype, rows, cols, row_stride, pointer)              \
  tc_wrap_fragment(space, dtype, ((tc_dim_t)(1, 1, (rows), (cols))),                   \
                   ((int4)(0, 0, (row_stride), tc_emu_dtype_size(dtype))), pointer)
#define TC_WRAP_FRAGMENT_3D(space, dtype, d1, d2, d3, stride1, stride2, pointer)        \
  tc_wrap_fragment(space, dtype, ((tc_dim_t)(1, (d1), (d2), (d3))),                    \
                   ((int4)(0, (stride1), (stride2), tc_emu_dtype_size(dtype))), pointer)
#define TC_WRAP_FRAGMENT_4D(space, dtype, d0, d1, d2, d3, stride0, stride1, stride2, pointer) \
  tc_wrap_fragment(space, dtype, ((tc_dim_t)((d0), (d1), (d2), (d3))),                       \
                   ((int4)((stride0), (stride1), (stride2), tc_emu_dtype_size(dtype))), pointer)

long tc_emu_offset(tc_fragment_handle_t f, int i0, int i1, int i2, int i3) {
  return (long)i0 * f.stride.x + (long)i1 * f.stride.y + (long)i2 * f.stride.z +
         (long)i3 * f.stride.w;
}

#define TC_EMU_LOAD(AS)                                     \
  AS char* p = (AS char*)(f.addr + off);                    \
  switch (f.dtype) {                                        \
    case TC_DTYPE_char: return *p;                          \
    case TC_DTYPE_uchar: return *(AS uchar*)p;              \
    case TC_DTYPE_short: return *(AS short*)p;              \
    case TC_DTYPE_ushort: return *(AS ushort*)p;            \
    case TC_DTYPE_int: return *(AS int*)p;                  \
    case TC_DTYPE_uint: return *(AS uint*)p;                \
    case TC_DTYPE_half: return vload_half(0, (AS half*)p);  \
    default: return *(AS float*)p;                          \
  }

/* Element at byte offset `off`, as float and as integer (floats rounded). */
float tc_emu_load_f(tc_fragment_handle_t f, long off) {
  if (f.space == TC_SPACE_SPEC_LOCAL) {
    TC_EMU_LOAD(__local)
  } else {
    TC_EMU_LOAD(__global)
  }
}
long tc_emu_load_i(tc_fragment_handle_t f, long off) {
  if (tc_emu_is_float(f.dtype)) return convert_long_sat_rte(tc_emu_load_f(f, off));
  if (f.dtype == TC_DTYPE_int || f.dtype == TC_DTYPE_uint) {
    const uint bits = f.space == TC_SPACE_SPEC_LOCAL ? *(__local uint*)(f.addr + off)
                                                     : *(__global uint*)(f.addr + off);
    return f.dtype == TC_DTYPE_int ? (long)(int)bits : (long)bits;
  }
  return (long)tc_emu_load_f(f, off); /* 8- and 16-bit values are exact in float */
}

#define TC_EMU_STORE(AS)                                                      \
  AS char* p = (AS char*)(f.addr + off);                                      \
  switch (f.dtype) {                                                          \
    case TC_DTYPE_char: *p = convert_char_sat(v); break;                      \
    case TC_DTYPE_uchar: *(AS uchar*)p = convert_uchar_sat(v); break;         \
    case TC_DTYPE_short: *(AS short*)p = convert_short_sat(v); break;         \
    case TC_DTYPE_ushort: *(AS ushort*)p = convert_ushort_sat(v); break;      \
    case TC_DTYPE_int: *(AS int*)p = convert_int_sat(v); break;               \
    case TC_DTYPE_uint: *(AS uint*)p = convert_uint_sat(v); break;            \
    case TC_DTYPE_half: vstore_half((float)v, 0, (AS half*)p); break;         \
    default: *(AS float*)p = (float)v; break;                                 \
  }

void tc_emu_store_i(tc_fragment_handle_t f, long off, long v) {
  if (f.space == TC_SPACE_SPEC_LOCAL) {
    TC_EMU_STORE(__local)
  } else {
    TC_EMU_STORE(__global)
  }
}
void tc_emu_store_f(tc_fragment_handle_t f, long off, float v) {
  if (!tc_emu_is_float(f.dtype)) {
    tc_emu_store_i(f, off, convert_long_sat_rte(v));
    return;
  }
  if (f.space == TC_SPACE_SPEC_LOCAL) {
    TC_EMU_STORE(__local)
  } else {
    TC_EMU_STORE(__global)
  }
}

int tc_emu_local_index(void) {
  return (int)((get_local_id(2) * get_local_size(1) + get_local_id(1)) * get_local_size(0) +
               get_local_id(0));
}
int tc_emu_local_count(void) {
  return (int)(get_local_size(0) * get_local_size(1) * get_local_size(2));
}

void tc_wait_event(tc_event_t event) {
  (void)event;
  barrier(CLK_LOCAL_MEM_FENCE | CLK_GLOBAL_MEM_FENCE);
}

long tc_emu_rs(long x, int s) { return s > 0 ? (x + (1L << (s - 1))) >> s : x; }
long tc_emu_clamp(long x, int lo, int hi) { return clamp(x, (long)lo, (long)hi); }

/* Sizes of a fragment's element count and of one batch index into it. */
int tc_emu_bidx(int size, int index) { return size > 1 ? index : 0; }

/* A point-wise integer stage at channel c and position (y, x). */
typedef struct {
  tc_fragment_handle_t in2;
  tc_fragment_handle_t coef; /* for its tables */
  long prelu_table, lut_table, pcq_table; /* byte offsets, -1 when absent */
  int image;
} tc_emu_tables_t;

long tc_emu_table(tc_emu_tables_t t, long table, int index) {
  return *(__global int*)(t.coef.addr + table + 4L * index);
}

long tc_emu_x2(tc_emu_tables_t t, int c, int y, int x, long absent) {
  if (t.in2.dtype < 0) return absent;
  if (c >= t.in2.shape.y || y >= t.in2.shape.z || x >= t.in2.shape.w) return 0;
  return tc_emu_load_i(t.in2, tc_emu_offset(t.in2, tc_emu_bidx(t.in2.shape.x, t.image), c, y, x));
}

long tc_emu_stage_i(const tc_fusion_data_t* f, int s, long v, int c, int y, int x,
                    tc_emu_tables_t t) {
  const int* p = f->param[s];
  switch (f->op[s]) {
    case TC_STAGE_RELU_1:
    case TC_STAGE_RELU_2:
      return max(v, 0L);
    case TC_STAGE_MUL:
      return tc_emu_clamp(tc_emu_rs(v * tc_emu_x2(t, c, y, x, 1) * p[0], TC_FIXED_FRAC_BITS + p[1]),
                          p[2], p[3]);
    case TC_STAGE_LUT:
      return t.lut_table < 0 ? v : tc_emu_table(t, t.lut_table, (int)clamp(v, -128L, 127L) + 128);
    case TC_STAGE_ADD:
      return tc_emu_clamp(
          tc_emu_rs(v * p[0] + tc_emu_x2(t, c, y, x, 0) * p[1], TC_FIXED_FRAC_BITS) + p[2], p[3],
          p[4]);
    case TC_STAGE_PRELU:
      if (v < 0 && t.prelu_table >= 0) {
        v = tc_emu_rs(v * tc_emu_table(t, t.prelu_table, c), TC_FIXED_FRAC_BITS);
      }
      return tc_emu_clamp(v, p[0], p[1]);
    case TC_STAGE_LEAKY_RELU:
      return tc_emu_clamp(tc_emu_rs(v * (v >= 0 ? p[0] : p[1]), TC_FIXED_FRAC_BITS), p[2], p[3]);
    case TC_STAGE_RESCALE:
      return tc_emu_rs(v * p[0], p[1]);
    case TC_STAGE_RESCALE_PCQ:
      return t.pcq_table < 0 ? v : tc_emu_rs(v * tc_emu_table(t, t.pcq_table, c), p[0]);
    default:
      return v;
  }
}

float tc_emu_stage_f(const tc_fusion_data_t* f, int s, float v) {
  switch (f->op[s]) {
    case TC_STAGE_RELU_1:
    case TC_STAGE_RELU_2:
      return fmax(v, 0.0f);
    case TC_STAGE_RESCALE:
      return v * (float)f->param[s][0] / (float)(1L << f->param[s][1]);
    default:
      return v;
  }
}

void tc_matmul(tc_fragment_handle_t a, tc_fragment_handle_t b, bool transpose_a, bool transpose_b,
               int zero_point_a, int zero_point_b, tc_fusion_data_t fusion,
               tc_fragment_handle_t out, tc_event_t event) {
  (void)event;
  barrier(CLK_LOCAL_MEM_FENCE | CLK_GLOBAL_MEM_FENCE);
  const int rows = out.shape.z, cols = out.shape.w;
  const int depth = transpose_a ? a.shape.z : a.shape.w;
  const int total = out.shape.x * out.shape.y * rows * cols;
  const bool floating = tc_emu_is_float(a.dtype) || tc_emu_is_float(b.dtype);
  tc_emu_tables_t none;
  none.in2 = TC_EMPTY_FRAGMENT;
  none.prelu_table = none.lut_table = none.pcq_table = -1;
  none.image = 0;
  for (int i = tc_emu_local_index(); i < total; i += tc_emu_local_count()) {
    const int n = i % cols, m = (i / cols) % rows, b1 = (i / (cols * rows)) % out.shape.y;
    const int b0 = i / (cols * rows * out.shape.y);
    const int a0 = tc_emu_bidx(a.shape.x, b0), a1 = tc_emu_bidx(a.shape.y, b1);
    const int c0 = tc_emu_bidx(b.shape.x, b0), c1 = tc_emu_bidx(b.shape.y, b1);
    long acc_i = 0;
    float acc_f = 0.0f;
    for (int k = 0; k < depth; ++k) {
      const long oa = transpose_a ? tc_emu_offset(a, a0, a1, k, m) : tc_emu_offset(a, a0, a1, m, k);
      const long ob = transpose_b ? tc_emu_offset(b, c0, c1, n, k) : tc_emu_offset(b, c0, c1, k, n);
      if (floating) {
        acc_f += (tc_emu_load_f(a, oa) - zero_point_a) * (tc_emu_load_f(b, ob) - zero_point_b);
      } else {
        acc_i += (tc_emu_load_i(a, oa) - zero_point_a) * (tc_emu_load_i(b, ob) - zero_point_b);
      }
    }
    const long oo = tc_emu_offset(out, b0, b1, m, n);
    for (int s = 0; s < fusion.count; ++s) {
      if (floating) {
        acc_f = tc_emu_stage_f(&fusion, s, acc_f);
      } else {
        acc_i = tc_emu_stage_i(&fusion, s, acc_i, n, m, n, none);
      }
    }
    if (floating) {
      tc_emu_store_f(out, oo, acc_f);
    } else {
      tc_emu_store_i(out, oo, acc_i);
    }
  }
}

void tc_rescale(tc_fragment_handle_t in, int input_shift, int multiplier, int output_shift,
                tc_fragment_handle_t out, tc_event_t event) {
  (void)event;
  barrier(CLK_LOCAL_MEM_FENCE | CLK_GLOBAL_MEM_FENCE);
  const int total = out.shape.x * out.shape.y * out.shape.z * out.shape.w;
  for (int i = tc_emu_local_index(); i < total; i += tc_emu_local_count()) {
    const int i3 = i % out.shape.w, i2 = (i / out.shape.w) % out.shape.z;
    const int i1 = (i / (out.shape.w * out.shape.z)) % out.shape.y;
    const int i0 = i / (out.shape.w * out.shape.z * out.shape.y);
    const long v = tc_emu_load_i(in, tc_emu_offset(in, i0, i1, i2, i3)) << input_shift;
    tc_emu_store_i(out, tc_emu_offset(out, i0, i1, i2, i3), tc_emu_rs(v * multiplier, output_shift));
  }
}

/* One convolution value (before any stage) at channel o, position (y, x). */
typedef struct {
  int stride, dilation, pad_const, zero_point, channels_last;
  int4 pad;
  int conv_h, conv_w;
} tc_emu_conv_t;

long tc_emu_conv_point(tc_fragment_handle_t in, tc_fragment_handle_t coef, tc_emu_conv_t g,
                       long bias_table, int image, int o, int y, int x) {
  if (o < 0 || o >= coef.shape.x || y < 0 || y >= g.conv_h || x < 0 || x >= g.conv_w) return 0;
  const int channels = in.shape.y, height = in.shape.z, width = in.shape.w;
  long acc = *(__global int*)(coef.addr + bias_table + 4L * o);
  for (int c = 0; c < coef.shape.y; ++c) {
    for (int ky = 0; ky < coef.shape.z; ++ky) {
      for (int kx = 0; kx < coef.shape.w; ++kx) {
        const int iy = y * g.stride + ky * g.dilation - g.pad.x;
        const int ix = x * g.stride + kx * g.dilation - g.pad.z;
        long v = g.pad_const;
        if (iy >= 0 && iy < height && ix >= 0 && ix < width && c < channels) {
          const long off = g.channels_last
                               ? image * (long)in.stride.x +
                                     ((long)(iy * width + ix) * channels + c) *
                                         tc_emu_dtype_size(in.dtype)
                               : tc_emu_offset(in, image, c, iy, ix);
          v = tc_emu_load_i(in, off);
        }
        acc += (v - g.zero_point) * tc_emu_load_i(coef, tc_emu_offset(coef, o, c, ky, kx));
      }
    }
  }
  return acc;
}

/* Maps a position after a depth-to-space stage to the position before it. */
void tc_emu_back(const tc_fusion_data_t* f, int s, int* c, int* y, int* x) {
  if (f->op[s] != TC_STAGE_DEPTH2SPACE) return;
  const int bh = max(f->param[s][0], 1), bw = max(f->param[s][1], 1);
  *c = *c * bh * bw + (*y % bh) * bw + *x % bw;
  *y /= bh;
  *x /= bw;
}

void tc_conv2d(tc_fragment_handle_t in, tc_fragment_handle_t coef, int stride, int4 pad,
               int pad_mode, int pad_const, int in_zero_point, int dilation, int cache_mode,
               tc_fusion_data_t fusion, tc_fragment_handle_t in2, tc_fragment_handle_t out,
               tc_event_t event) {
  (void)pad_mode;
  (void)cache_mode;
  (void)event;
  barrier(CLK_LOCAL_MEM_FENCE | CLK_GLOBAL_MEM_FENCE);
  tc_emu_conv_t g;
  g.stride = max(stride, 1);
  g.dilation = max(dilation, 1);
  g.pad_const = pad_const;
  g.zero_point = in_zero_point;
  g.pad = pad;
  g.channels_last = 0;
  g.conv_h = (in.shape.z + pad.x + pad.y - g.dilation * (coef.shape.z - 1) - 1) / g.stride + 1;
  g.conv_w = (in.shape.w + pad.z + pad.w - g.dilation * (coef.shape.w - 1) - 1) / g.stride + 1;
  /* Tables after the weights: biases, then per engaged stage. */
  const int oc = coef.shape.x;
  const long weights = tc_emu_offset(coef, oc - 1, coef.shape.y - 1, coef.shape.z - 1,
                                     coef.shape.w - 1) + tc_emu_dtype_size(coef.dtype);
  long table = (weights + 3) / 4 * 4;
  const long bias_table = table;
  table += 4L * oc;
  tc_emu_tables_t t;
  t.in2 = in2;
  t.coef = coef;
  t.prelu_table = t.lut_table = t.pcq_table = -1;
  int pool = -1;
  for (int s = 0; s < fusion.count; ++s) {
    switch (fusion.op[s]) {
      case TC_STAGE_TRANSPOSE_INPUT_LAYOUT: g.channels_last = 1; break;
      case TC_STAGE_PRELU: t.prelu_table = table; table += 4L * oc; break;
      case TC_STAGE_LUT: t.lut_table = table; table += 4L * 256; break;
      case TC_STAGE_RESCALE_PCQ: t.pcq_table = table; table += 4L * oc; break;
      case TC_STAGE_MAX_POOLING_2D: if (pool < 0) pool = s; break;
      default: break;
    }
  }
  const int pool_k = pool < 0 ? 1 : max(fusion.param[pool][0], 1);
  const int pool_s = pool < 0 ? 1 : max(fusion.param[pool][1], 1);
  const int images = in.shape.x;
  const int per_image = out.shape.y * out.shape.z * out.shape.w;
  for (int i = tc_emu_local_index(); i < images * per_image; i += tc_emu_local_count()) {
    int sc[TC_FUSION_MAX_STAGES + 1], sy[TC_FUSION_MAX_STAGES + 1], sx[TC_FUSION_MAX_STAGES + 1];
    const int image = i / per_image, r = i % per_image;
    t.image = image;
    const int n = fusion.count;
    sc[n] = r / (out.shape.z * out.shape.w);
    sy[n] = (r / out.shape.w) % out.shape.z;
    sx[n] = r % out.shape.w;
    /* Positions at the input of each stage after the pool (or of all stages). */
    const int first = pool < 0 ? 0 : pool + 1;
    for (int s = n - 1; s >= first; --s) {
      sc[s] = sc[s + 1], sy[s] = sy[s + 1], sx[s] = sx[s + 1];
      tc_emu_back(&fusion, s, &sc[s], &sy[s], &sx[s]);
    }
    long best = 0;
    for (int w = 0; w < pool_k * pool_k; ++w) {
      if (pool >= 0) {
        sc[pool] = sc[pool + 1];
        sy[pool] = sy[pool + 1] * pool_s + w / pool_k;
        sx[pool] = sx[pool + 1] * pool_s + w % pool_k;
        for (int s = pool - 1; s >= 0; --s) {
          sc[s] = sc[s + 1], sy[s] = sy[s + 1], sx[s] = sx[s + 1];
          tc_emu_back(&fusion, s, &sc[s], &sy[s], &sx[s]);
        }
      }
      long v = tc_emu_conv_point(in, coef, g, bias_table, image, sc[0], sy[0], sx[0]);
      for (int s = 0; s < (pool < 0 ? n : pool); ++s) {
        v = tc_emu_stage_i(&fusion, s, v, sc[s], sy[s], sx[s], t);
      }
      best = w == 0 ? v : max(best, v);
    }
    /* Without a pool every stage ran above, once per (single) window. */
    for (int s = pool < 0 ? n : first; s < n; ++s) {
      best = tc_emu_stage_i(&fusion, s, best, sc[s], sy[s], sx[s], t);
    }
    tc_emu_store_i(out, tc_emu_offset(out, tc_emu_bidx(out.shape.x, image), sc[n], sy[n], sx[n]),
                   best);
  }
}

#endif /* CL_NRV_TC_LIB_H */
