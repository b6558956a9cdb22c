/*
 * MatMulTiled: the register-blocked product for float and half operands.
 * out[b][m][n] = sum_k mat1[b][m][k] * mat2[b][k][n] (3-D descriptors: x
 * batch, y row, z column; transposes and broadcasts are strides), in float.
 * GEMM mode: out = alpha * acc + beta * input[b][m][n].
 *
 * Build definitions: MAT1_DTYPE, MAT2_DTYPE, OUT_DTYPE, GEMM_MODE, IN_DTYPE;
 * the tiles: WG_X x WG_Y work items per group, each computing TM rows by
 * RN vectors of TN columns (vector r of item tx covers columns
 * (r * WG_X + tx) * TN ...), so a group covers BM = WG_Y * TM rows and
 * BN = WG_X * TN * RN columns; TK is the depth of a local tile.
 * Switches: A_LOCAL stages mat1 in local memory too (GPUs; CPUs read it
 * straight from memory, as broadcast scalars); MAT2_N_CONTIG, OUT_N_CONTIG
 * and IN_N_CONTIG: the rows of mat2, out or input are contiguous, so they
 * move as vectors.
 *
 * Global ids: 0 column groups (one item per WG_X-th of BN), 1 row groups,
 * 2 batch.
 */
// #include "common.h"

#define BM (WG_Y * TM)
#define BN (WG_X * TN * RN)
#define ACCV NERVA_VEC(float, TN)
#define GROUP (WG_X * WG_Y)

#ifdef A_LOCAL
/* Local rows padded by 4 floats: a column of the tile written by consecutive
 * items spreads over the banks, and rows stay 16-byte aligned. */
#define A_STRIDE (BM + 4)
#define B_STRIDE (BN + 4)
#define A_PER_ITEM ((TK * BM + GROUP - 1) / GROUP)
#ifdef MAT2_N_CONTIG
#define B_PER_ITEM ((TK * (BN / TN) + GROUP - 1) / GROUP)
#else
#define B_PER_ITEM ((TK * BN + GROUP - 1) / GROUP)
#endif

/* Operand runs along k: dst[j] = element (k0 + e % TK, outer0 + e / TK) for
 * e = item + j * GROUP below TK * SPAN, zero outside K x LIMIT, so consecutive
 * items read consecutive k; AT(k, o) addresses the element. The store puts the
 * element at row e % TK, column e / TK of the local tile. */
#define LOAD_K_RUNS(dst, count, SPAN, k0, outer0, LIMIT, DTYPE, AT)                       \
  for (int j = 0; j < (count); ++j) {                                                     \
    const uint e = item + j * GROUP, k = (k0) + e % TK, o = (outer0) + e / TK;            \
    dst[j] = e < TK * (SPAN) && k < K && o < (LIMIT) ? VLOAD(DTYPE, 1, AT(k, o)) : 0.0f;  \
  }
#define STORE_K_RUNS(src, count, SPAN, tile, STRIDE)                                      \
  for (int j = 0; j < (count); ++j) {                                                     \
    const uint e = item + j * GROUP;                                                      \
    if (e < TK * (SPAN)) tile[(e % TK) * (STRIDE) + e / TK] = src[j];                     \
  }
#define MAT1_AT(k, m) TENSOR3D_PTR(mat1, MAT1_DTYPE, b, m, k)
#define MAT2_AT(k, n) TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k, n)

/* mat1[m_group .. m_group + BM)[k0 .. k0 + TK) into a_next. */
#define LOAD_A(k0) LOAD_K_RUNS(a_next, A_PER_ITEM, BM, k0, m_group, M, MAT1_DTYPE, MAT1_AT)
#define STORE_A() STORE_K_RUNS(a_next, A_PER_ITEM, BM, a_tile, A_STRIDE)
#ifdef MAT2_N_CONTIG
/* mat2[k0 .. k0 + TK)[n_group .. n_group + BN) as vectors of TN columns. */
#define LOAD_B(k0)                                                                        \
  for (int j = 0; j < B_PER_ITEM; ++j) {                                                  \
    const uint v = item + j * GROUP, kk = v / (BN / TN), nn = (v % (BN / TN)) * TN;       \
    const uint k = (k0) + kk, n = n_group + nn;                                           \
    b_next[j] = (ACCV)(0.0f);                                                             \
    if (v < TK * (BN / TN) && k < K && n + TN <= N) {                                     \
      b_next[j] = VLOAD(MAT2_DTYPE, TN, MAT2_AT(k, n));                                   \
    } else if (v < TK * (BN / TN) && k < K) {                                             \
      float lanes[TN];                                                                    \
      for (int l = 0; l < TN; ++l) {                                                      \
        lanes[l] = n + l < N ? VLOAD(MAT2_DTYPE, 1, MAT2_AT(k, n + l)) : 0.0f;            \
      }                                                                                   \
      b_next[j] = NERVA_LOADN(TN, lanes);                                                 \
    }                                                                                     \
  }
#define STORE_B()                                                                         \
  for (int j = 0; j < B_PER_ITEM; ++j) {                                                  \
    const uint v = item + j * GROUP;                                                      \
    if (v < TK * (BN / TN)) {                                                             \
      NERVA_STOREN(TN, b_next[j], b_tile + v / (BN / TN) * B_STRIDE + (v % (BN / TN)) * TN); \
    }                                                                                     \
  }
#else
/* Columns of mat2 with k contiguous (a transposed operand): consecutive items
 * read consecutive k of a column. */
#define LOAD_B(k0) LOAD_K_RUNS(b_next, B_PER_ITEM, BN, k0, n_group, N, MAT2_DTYPE, MAT2_AT)
#define STORE_B() STORE_K_RUNS(b_next, B_PER_ITEM, BN, b_tile, B_STRIDE)
#endif
#define LOAD_TILES(k0) \
  LOAD_A(k0);          \
  LOAD_B(k0)
#define STORE_TILES() \
  STORE_A();          \
  STORE_B()
#else
#define B_STRIDE BN
#endif

__kernel __attribute__((reqd_work_group_size(WG_X, WG_Y, 1))) void MatMulTiled(
    DECL_TENSOR3D(mat1), DECL_TENSOR3D(mat2), DECL_TENSOR3D(out),
#if GEMM_MODE
    DECL_TENSOR3D(input), float alpha, float beta,
#endif
    uint B, uint M, uint N, uint K) {
  /* 16-byte aligned: rows are read as float4 vectors. */
  __local float b_tile[TK * B_STRIDE] __attribute__((aligned(16)));
#ifdef A_LOCAL
  __local float a_tile[TK * A_STRIDE] __attribute__((aligned(16)));
#endif
  const uint tx = get_local_id(0), ty = get_local_id(1);
  const uint b = get_global_id(2);
  const uint m_group = get_group_id(1) * BM, n_group = get_group_id(0) * BN;
  const uint item = ty * WG_X + tx;
  const uint m0 = m_group + ty * TM;

  ACCV acc[TM][RN];
#pragma unroll
  for (int i = 0; i < TM; ++i) {
#pragma unroll
    for (int r = 0; r < RN; ++r) acc[i][r] = (ACCV)(0.0f);
  }
#ifndef A_LOCAL
  /* Rows past M repeat the last row: their results are never stored. */
  __global const uchar* a_rows[TM];
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    a_rows[i] = (__global const uchar*)TENSOR3D_PTR(mat1, uchar, b, min(m0 + i, M - 1), 0);
  }
#endif

#ifdef A_LOCAL
  /* Both operands go through local tiles, loaded into registers one tile ahead:
   * the loads of tile t + 1 are in flight while tile t is multiplied. */
  float a_next[A_PER_ITEM];
#ifdef MAT2_N_CONTIG
  ACCV b_next[B_PER_ITEM];
#else
  float b_next[B_PER_ITEM];
#endif
  LOAD_TILES(0);
  for (uint k0 = 0; k0 < K; k0 += TK) {
    const uint depth = min((uint)TK, K - k0);
    STORE_TILES();
    barrier(CLK_LOCAL_MEM_FENCE);
    if (k0 + TK < K) LOAD_TILES(k0 + TK);
    for (uint kk = 0; kk < (m0 < M ? depth : 0); ++kk) {
      ACCV bv[RN];
#pragma unroll
      for (int r = 0; r < RN; ++r) {
        bv[r] = NERVA_LOADN(TN, b_tile + kk * B_STRIDE + (r * WG_X + tx) * TN);
      }
      /* This item's TM rows sit side by side: read them as float4 vectors. */
      __local const float4* a_rows4 = (__local const float4*)(a_tile + kk * A_STRIDE + ty * TM);
#pragma unroll
      for (int q = 0; q < TM / 4; ++q) {
        const float4 a4 = a_rows4[q];
        const float a_q[4] = {a4.x, a4.y, a4.z, a4.w};
#pragma unroll
        for (int j = 0; j < 4; ++j) {
#pragma unroll
          for (int r = 0; r < RN; ++r) {
            acc[q * 4 + j][r] = fma((ACCV)(a_q[j]), bv[r], acc[q * 4 + j][r]);
          }
        }
      }
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }
#else
  for (uint k0 = 0; k0 < K; k0 += TK) {
    const uint depth = min((uint)TK, K - k0);
    /* Stage mat2[k0 .. k0 + TK)[n_group .. n_group + BN), zero outside. */
#ifdef MAT2_N_CONTIG
    for (uint v = item; v < TK * (BN / TN); v += WG_X * WG_Y) {
      const uint kk = v / (BN / TN), nn = (v % (BN / TN)) * TN;
      const uint k = k0 + kk, n = n_group + nn;
      ACCV value = (ACCV)(0.0f);
      if (k < K && n + TN <= N) {
        value = VLOAD(MAT2_DTYPE, TN, TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k, n));
      } else if (k < K) {
        float lanes[TN];
        for (int l = 0; l < TN; ++l) {
          lanes[l] =
              n + l < N ? VLOAD(MAT2_DTYPE, 1, TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k, n + l)) : 0.0f;
        }
        value = NERVA_LOADN(TN, lanes);
      }
      NERVA_STOREN(TN, value, b_tile + kk * B_STRIDE + nn);
    }
#else
    for (uint e = item; e < TK * BN; e += WG_X * WG_Y) {
      const uint kk = e % TK, nn = e / TK;
      const uint k = k0 + kk, n = n_group + nn;
      b_tile[kk * B_STRIDE + nn] =
          k < K && n < N ? VLOAD(MAT2_DTYPE, 1, TENSOR3D_PTR(mat2, MAT2_DTYPE, b, k, n)) : 0.0f;
    }
#endif
    barrier(CLK_LOCAL_MEM_FENCE);

    /* Items whose rows all lie past M only help to stage. */
    for (uint kk = 0; kk < (m0 < M ? depth : 0); ++kk) {
      ACCV bv[RN];
#pragma unroll
      for (int r = 0; r < RN; ++r) {
        bv[r] = NERVA_LOADN(TN, b_tile + kk * B_STRIDE + (r * WG_X + tx) * TN);
      }
#pragma unroll
      for (int i = 0; i < TM; ++i) {
        const float a = VLOAD(MAT1_DTYPE, 1,
                              (__global const MAT1_DTYPE*)(a_rows[i] + (k0 + kk) * mat1_stride_z));
#pragma unroll
        for (int r = 0; r < RN; ++r) acc[i][r] = fma((ACCV)(a), bv[r], acc[i][r]);
      }
    }
    barrier(CLK_LOCAL_MEM_FENCE);
  }

#endif

  if (b >= B) return;
#pragma unroll
  for (int i = 0; i < TM; ++i) {
    const uint m = m0 + i;
    if (m >= M) break;
#pragma unroll
    for (int r = 0; r < RN; ++r) {
      const uint n = n_group + (r * WG_X + tx) * TN;
#ifdef OUT_N_CONTIG
      if (n + TN <= N) {
#if GEMM_MODE
#ifdef IN_N_CONTIG
        const ACCV in = VLOAD(IN_DTYPE, TN, TENSOR3D_PTR(input, IN_DTYPE, b, m, n));
#else
        float in_lanes[TN];
        for (int l = 0; l < TN; ++l) {
          in_lanes[l] = VLOAD(IN_DTYPE, 1, TENSOR3D_PTR(input, IN_DTYPE, b, m, n + l));
        }
        const ACCV in = NERVA_LOADN(TN, in_lanes);
#endif
        const ACCV value = alpha * acc[i][r] + beta * in;
#else
        const ACCV value = acc[i][r];
#endif
        VSTORE(OUT_DTYPE, TN, CONVERT(OUT_DTYPE, TN, value), TENSOR3D_PTR(out, OUT_DTYPE, b, m, n));
        continue;
      }
#endif
      float lanes[TN];
      NERVA_STOREN(TN, acc[i][r], lanes);
      for (int l = 0; l < TN && n + l < N; ++l) {
#if GEMM_MODE
        const float value = alpha * lanes[l] +
                            beta * VLOAD(IN_DTYPE, 1, TENSOR3D_PTR(input, IN_DTYPE, b, m, n + l));
#else
        const float value = lanes[l];
#endif
        VSTORE(OUT_DTYPE, 1, CONVERT(OUT_DTYPE, 1, value),
               TENSOR3D_PTR(out, OUT_DTYPE, b, m, n + l));
      }
    }
  }
}
