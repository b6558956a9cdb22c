/*
 * LogSoftmaxBackward: grad_input = g - exp(y) * sum(g) along one axis, from
 * the forward output y (log-probabilities) and the output gradient g; the
 * kernels of "softmax_backward.cl" (listed after this text), named
 * log_softmax_backward_x and log_softmax_backward.
 */
#define SMB_PREFIX log_softmax_backward
#define SMB_TERM(g, y) (g)
#define SMB_OUT(g, y, s) ((g) - NERVA_EXP(y) * (s))
