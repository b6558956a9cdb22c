/* Index: input[..., index, ...] on one dimension (PyTorch advanced indexing
 * with one index tensor; negative indices count from the end). */
IX_SELECT_KERNEL(Index)
IX_SELECT_GPU_KERNEL(Index_gpu)
