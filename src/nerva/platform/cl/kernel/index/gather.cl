/* Gather: whole slices along one dimension, by an index of any shape
 * (ONNX Gather; negative indices count from the end). */
IX_SELECT_KERNEL(Gather)
IX_SELECT_GPU_KERNEL(Gather_gpu)
