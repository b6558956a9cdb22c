/* MseLoss: (x - t)^2 per element. */
#define LOSS_PARAMS LOSS_XT_PARAMS
#define LOSS_ARGS LOSS_XT_ARGS
inline float loss_item(long i, float* weight LOSS_PARAMS) {
  const float d = LOSS_LOAD(x, i) - LOSS_LOAD(t, i);
  *weight = 1.0f;
  return d * d;
}
#ifdef NERVA_HOST_CPU_DEVICE
inline float16 loss_vec16(long i, float16* weight LOSS_PARAMS) {
  const float16 d = LOSS_LOAD16(x, i) - LOSS_LOAD16(t, i);
  *weight = 1.0f;
  return d * d;
}
#endif
LOSS_FORWARD_KERNELS_VEC
