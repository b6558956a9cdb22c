/*
 * LogSoftmax: x - max - log(sum exp(x - max)) along one axis; the kernels of
 * "softmax.cl" (listed after this text) with this finishing, named
 * logsoftmax_x, logsoftmax_x_online and logsoftmax. The local scratch keeps
 * the input, from which the result is computed.
 */
#define SOFTMAX_PREFIX logsoftmax
#define SOFTMAX_SCALE(sum) NERVA_LOG(sum)
#define SOFTMAX_FROM_X(x, m, c) ((x) - (m) - (c))
#define SOFTMAX_KEEP_INPUT
