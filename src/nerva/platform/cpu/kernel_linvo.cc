#include "nerva/platform/cpu/kernel_linvo.h"

#include "linvo/function/broadcast_to.h"
#include "linvo/function/slice.h"
#include "linvo/function/tile.h"
#include "linvo/function/transpose.h"
#include "nerva/linvo_type.h"
#include "nerva/platform/cpu/kernel_check.h"
#include "nerva/platform/cpu/module.h"

namespace nerva::cpu {
namespace {

linvo::Dims ToDims(const std::vector<long>& list) {
  return linvo::Dims(list.begin(), list.end());
}

linvo::Matrix MapMatrix(const TensorOption& option, void* data) {
  return linvo::Matrix(linvo::Shape(ToDims(option.shape.sizes())),
                       ConvertNervaTypeToLinvo(option.dtype), data);
}

NERVA_STATIC_REGISTER {
  auto& module = CpuModule::singleton();
  module.AddKernelImpl("Permute",
                       SimpleWrapKernelCreator("Permute", &PermuteCpuCall, &CheckPermuteArgs));
  module.AddKernelImpl("Slice", SimpleWrapKernelCreator("Slice", &SliceCpuCall, &CheckSliceArgs));
  module.AddKernelImpl("Tile", SimpleWrapKernelCreator("Tile", &TileCpuCall, &CheckTileArgs));
  module.AddKernelImpl("BroadcastTo", SimpleWrapKernelCreator("BroadcastTo", &BroadcastToCpuCall,
                                                              &CheckBroadcastToArgs));
};

}  // namespace

const linvo::Matrix ConstMapLinvoMatrix(const TensorOption& option, const Buffer& buffer) {
  return MapMatrix(option, buffer.UnsafeGetPtr());
}

linvo::Matrix MapLinvoMatrix(const TensorOption& option, Buffer& buffer) {
  return MapMatrix(option, buffer.UnsafeGetPtr());
}

void PermuteCpuCall(const PermuteOption& option, const TensorOption& in_opt, const Buffer& in,
                    const TensorOption& out_opt, Buffer& out) {
  linvo::Matrix out_mat = MapLinvoMatrix(out_opt, out);
  linvo::Transpose(ConstMapLinvoMatrix(in_opt, in), option.dims, out_mat);
}

void SliceCpuCall(const SliceOption& option, const TensorOption& in_opt, const Buffer& in,
                  const TensorOption& out_opt, Buffer& out) {
  linvo::Matrix out_mat = MapLinvoMatrix(out_opt, out);
  linvo::Slice(ConstMapLinvoMatrix(in_opt, in), ToDims(option.starts), ToDims(option.ends),
               ToDims(option.steps), out_mat);
}

void TileCpuCall(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                 Buffer& out) {
  linvo::Matrix out_mat = MapLinvoMatrix(out_opt, out);
  linvo::Tile(ConstMapLinvoMatrix(in_opt, in), out_mat);
}

void BroadcastToCpuCall(const TensorOption& in_opt, const Buffer& in, const TensorOption& out_opt,
                        Buffer& out) {
  linvo::Matrix out_mat = MapLinvoMatrix(out_opt, out);
  linvo::BroadcastTo(ConstMapLinvoMatrix(in_opt, in), out_mat);
}

}  // namespace nerva::cpu
