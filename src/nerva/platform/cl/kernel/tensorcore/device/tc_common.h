/*
 * Shared definitions of the tensor-core programs.
 */
// #include "cl_nrv_tc_ext.h"

#ifndef TC_COMMON_H
#define TC_COMMON_H

/* Every tensor-core call completes before the next one starts. */
#define TC_EVENT ((tc_event_t)1)
#define TC_CALL_AND_WAIT(call) \
  do {                         \
    call;                      \
    tc_wait_event(TC_EVENT);   \
  } while (0)

#define TC_ALIGN_UP(x, a) ((((x) + (a)-1) / (a)) * (a))

/* Unsigned integer of a given byte size, for moving elements as raw bits. */
#define TC_BITS_TYPE_1 uchar
#define TC_BITS_TYPE_2 ushort
#define TC_BITS_TYPE_4 uint
#define TC_BITS_TYPE_(size) TC_BITS_TYPE_##size
#define TC_BITS_TYPE(size) TC_BITS_TYPE_(size)
#define TC_BITS_VEC4_1 uchar4
#define TC_BITS_VEC4_2 ushort4
#define TC_BITS_VEC4_4 uint4
#define TC_BITS_VEC4_(size) TC_BITS_VEC4_##size
#define TC_BITS_VEC4(size) TC_BITS_VEC4_(size)

#ifndef BLOCK_SIZE
#define BLOCK_SIZE 64
#endif
#ifndef MAX_LS_SIZE
#define MAX_LS_SIZE 65536
#endif
#ifndef LS_ALIGN_SIZE
#define LS_ALIGN_SIZE 64
#endif
#ifndef VEC_SIZE
#define VEC_SIZE 4
#endif

/* Raw bits of one DTYPE element (programs define DTYPE_SIZE). */
#define TC_BITS TC_BITS_TYPE(DTYPE_SIZE)
/* A local array of `count` elements, padded and aligned for the tensor unit. */
#define TC_LOCAL(type, name, count)                                                      \
  __local type name[TC_ALIGN_UP((count) * sizeof(type), LS_ALIGN_SIZE) / sizeof(type)] \
      __attribute__((aligned(LS_ALIGN_SIZE)))

#define TC_KERNEL_ATTRIBUTES                                  \
  __attribute__((nrv_max_local_size_per_cu(MAX_LS_SIZE))) \
  __attribute__((reqd_work_group_size(BLOCK_SIZE, 1, 1)))

#endif /* TC_COMMON_H */
