#pragma once

// Host pieces shared by the pooling, im2col/col2im and resampling kernels. Every
// operator sees its tensors as planes (batch x channels) of a 3-D volume
// (depth, height, width); a 2-D operator is the 3-D one with depth 1, so all
// of them share one geometry, one set of checks and one argument layout.

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "nerva/platform/cl/kernel/reduce/reduce_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/tensor.h"

namespace nerva {
namespace cl {

// A window along one spatial dimension.
struct PoolDim {
  long in = 1;
  long out = 1;
  long kernel = 1;
  long stride = 1;
  long pad = 0;
  long dilation = 1;
};

// Planes of (depth, height, width) volumes; dim[0] is depth.
struct PoolGeometry {
  long planes = 0;
  std::array<PoolDim, 3> dim;
  long InCount() const { return planes * dim[0].in * dim[1].in * dim[2].in; }
  long OutCount() const { return planes * dim[0].out * dim[1].out * dim[2].out; }
};

// The window parameters of a pooling or sliding-block operator.
struct WindowArgs {
  std::vector<long> kernel_size, stride, padding, dilation;
  bool ceil_mode = false;
};

// torch's pooling_output_shape: floor (or ceil) of the window count, and with
// ceil_mode the last window must start inside the input or the left padding.
long PoolOutputSize(long in, long kernel, long pad, long stride, long dilation, bool ceil_mode);

// `list` as `n` entries: one entry repeats; `fallback` replaces an empty list.
// Any other length throws std::invalid_argument
// "<op>: <arg> must either be a single int, or a tuple of <n> ints".
std::vector<long> ExpandList(const std::string& op, const std::string& arg,
                             const std::vector<long>& list, int n,
                             const std::vector<long>& fallback = {});

// Checks an (N, C, spatial...) or (C, spatial...) input of float or half with
// `spatial` trailing dimensions (`extra_rank` more leading ones allowed), every
// size but the batch positive; returns the leading sizes (batch, channels).
std::vector<long> CheckPlanes(const std::string& op, const std::string& arg, const Tensor& tensor,
                              int spatial, bool allow_batch = true);

// The geometry of a pooling operator over the last `spatial` dimensions of
// `sizes` with torch's checks: positive kernel, stride and dilation, padding
// at most half the kernel, an output of at least one element.
PoolGeometry MakePoolGeometry(const std::string& op, const std::vector<long>& sizes, int spatial,
                              const WindowArgs& window);

// The geometry of an adaptive pooling from `in` sizes to `out` sizes (their
// last `spatial` entries; the leading entries must match, else
// std::runtime_error naming `out_arg`).
PoolGeometry MakeAdaptiveGeometry(const std::string& op, const std::vector<long>& in,
                                  const std::string& out_arg, const std::vector<long>& out,
                                  int spatial);

// torch's nearest-neighbour coordinate scale (output to input) of one
// dimension: 1 for equal sizes, 0.5 for a doubled one, else 1 / scale_factor
// when it is positive, else in / out, in float as torch computes it.
float NearestScale(long in, long out, double scale_factor);

// The sizes of the pooled tensor: `sizes` with its last three (or two) set to
// the geometry's output.
std::vector<long> PooledSizes(const std::vector<long>& sizes, const PoolGeometry& geometry,
                              int spatial);
std::vector<long> InputSizes(const std::vector<long>& sizes, const PoolGeometry& geometry,
                             int spatial);

// A caller-made output: defined, contiguous, with `expected` sizes and `dtype`.
void CheckPoolOutput(const std::string& op, const std::string& arg, const Tensor& tensor,
                     const std::vector<long>& expected, DataType dtype);
// A float or half tensor.
void CheckPoolType(const std::string& op, const std::string& arg, const Tensor& tensor);

// DTYPE (and IDX_DTYPE, int64 unless `index_type` says int32).
BuildOption PoolBuildOption(DataType dtype, DataType index_type = kInt64);
// "common.h", "pool.h", then `program`.
std::vector<std::string> PoolSources(const std::string& program);

// The whole of a contiguous tensor as one device run.
ClTensor FlatView(const Tensor& tensor);

// Four 32-bit values passed by value as one int4 argument.
struct IntVector4 {
  cl_int4 value;
};
inline cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const IntVector4& vector) {
  return clSetKernelArg(kernel, index++, sizeof(cl_int4), &vector.value);
}
struct FloatVector4 {
  cl_float4 value;
};
inline cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const FloatVector4& vector) {
  return clSetKernelArg(kernel, index++, sizeof(cl_float4), &vector.value);
}

// Binds the geometry as six int4 arguments (depth, height, width, then the
// plane count for the sizes, 0 otherwise): input size, output size, kernel,
// stride, padding, dilation.
void BindGeometry(KernelUnit& unit, const PoolGeometry& geometry);
// The input and output sizes only.
void BindSizes(KernelUnit& unit, const PoolGeometry& geometry);
// Kernel, stride and padding only.
void BindWindow(KernelUnit& unit, const PoolGeometry& geometry);

// One unit of `program`'s kernel `kernel_name` with one work item per
// element of the geometry's input (`over_input`) or output volumes, over
// (width, height, depth * planes); arguments left to the caller.
std::shared_ptr<KernelUnit> MakePoolUnit(KernelImpl& kernel,
                                         const std::shared_ptr<SessionImpl>& session,
                                         const std::string& program, const std::string& kernel_name,
                                         const BuildOption& options, const PoolGeometry& geometry,
                                         bool over_input);

// One unit of `program`'s row-block kernel `kernel_name`: one work item per
// kBlockWidth consecutive outputs of the rows (`height` of them, `width`
// wide) of `planes` planes, over (blocks, height, planes), in work-groups of
// several rows of one plane.
constexpr long kBlockWidth = 8;
std::shared_ptr<KernelUnit> MakeRowBlockUnit(KernelImpl& kernel,
                                             const std::shared_ptr<SessionImpl>& session,
                                             const std::string& program,
                                             const std::string& kernel_name,
                                             const BuildOption& options, long planes, long height,
                                             long width);

// One unit of `program`'s whole-row kernel `kernel_name` (CPU devices): one
// work item per output row (`height` rows of each of `planes` planes), over
// (height, planes), in work-groups of kRowGroup rows (of kRowGroup planes
// when `height` is 1).
constexpr long kRowGroup = 8;
std::shared_ptr<KernelUnit> MakeRowUnit(KernelImpl& kernel,
                                        const std::shared_ptr<SessionImpl>& session,
                                        const std::string& program, const std::string& kernel_name,
                                        const BuildOption& options, long planes, long height);

// The GPU form of a row-block kernel (`kernel_name`, same arguments): one
// work item per output position of a plane (`positions` of them), over
// (positions, planes) in groups of 256 positions of one plane.
std::shared_ptr<KernelUnit> MakePlaneItemUnit(
    KernelImpl& kernel, const std::shared_ptr<SessionImpl>& session, const std::string& program,
    const std::string& kernel_name, const BuildOption& options, long planes, long positions);

// Binds one 2-D (height, width) geometry as scalar ints: input height and
// width, output height and width, the plane count,
// then, with `window`, kernel, stride, padding and dilation (height, width).
void BindRowGeometry(KernelUnit& unit, const PoolGeometry& geometry, bool window);

}  // namespace cl
}  // namespace nerva
