#pragma once

// Shared host pieces of the tensor-core kernels: the extension check, the build
// options every tensor-core program starts with, and the mapping of option-record
// floats to the integer constants of the fused stages.
//
// Mapping of float parameters to device constants (the stages compute on integers):
// - multipliers (leaky ReLU slopes, add a/b, mul x1) become Q16 fixed point,
//   round(v * 65536);
// - bounds, offsets and shifts (min, max, add c, mul x2 shift) are rounded to the
//   nearest integer;
// - a rescale (param, scale) becomes the output shift `param` and the multiplier
//   round(scale * 2^param): the integer parameter is the number of fraction bits
//   of the multiplier; a per-channel rescale passes `param` as the output shift
//   (its multipliers are part of the encoded coefficient).
// Every value saturates to the 32-bit range.

#include <cstdint>
#include <memory>
#include <string>

#include "nerva/platform/cl/program.h"

namespace nerva {
namespace cl {

class SessionImpl;

constexpr const char* kTensorCoreExtension = "cl_nrv_tensorcore";
constexpr long kTcLocalAlign = 64;  // LS_ALIGN_SIZE: staging buffers in local memory

// Throws std::runtime_error "<op>: the device lacks the cl_nrv_tensorcore extension"
// when the session's device has no tensor unit.
void RequireTensorCore(const SessionImpl& session, const std::string& op);

// "-cl-nrv-inline-all-func " and the work-group constants BLOCK_SIZE, MAX_LS_SIZE,
// LS_ALIGN_SIZE and VEC_SIZE.
BuildOption TensorCoreBuildOption(const SessionImpl& session, int block_size);

int32_t TcRound(double value);                        // nearest integer, saturated
int32_t TcFixedQ16(double value);                     // round(value * 2^16), saturated
int32_t TcRescaleMultiplier(int shift, float scale);  // round(scale * 2^shift), saturated

}  // namespace cl
}  // namespace nerva
