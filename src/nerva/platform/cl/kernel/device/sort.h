/*
 * Shared definitions of the bitonic sort programs: the key that pads a row to
 * a power of two (it sorts after every real key in the build's direction) and
 * the exchange rule of the network.
 */
#ifndef NERVA_SORT_H
#define NERVA_SORT_H

#ifdef DESCENDING
#define FILLER_KEY (-2147483647.0f)
#else
#define FILLER_KEY 2147483647.0f
#endif

/* Whether the keys at left and right are exchanged in a block of direction
 * `signo`; no comparison with NaN is true, so a NaN never moves by itself. */
inline bool bitonic_exchange(float left, float right, uint signo) {
#ifdef DESCENDING
  return signo ? left > right : left < right;
#else
  return signo ? left < right : left > right;
#endif
}

#endif /* NERVA_SORT_H */
