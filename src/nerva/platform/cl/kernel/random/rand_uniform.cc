#include "nerva/platform/cl/kernel/random/rand_uniform.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr const char* kTypeMismatch =
    "Rand uniform data type mismatch: Rand dtype must be float point type and RandInt must be "
    "the integer type.";

// Range check of the integer variant: low < high, high - low representable,
// and both bounds inside the output type.
void CheckIntRange(const std::string& op, long low, long high, DataType dtype) {
  long step = 0;
  if (low >= high || __builtin_sub_overflow(high, low, &step)) {
    throw std::invalid_argument(
        StrCat(op, ": need low < high with high - low below 2^63, got [", low, ", ", high, ")"));
  }
  const int bits = static_cast<int>(TypeTraitsHelper::GetBits(dtype));
  const bool is_signed = TypeTraitsHelper::IsSigned(dtype);
  if (bits >= 64) {
    if (!is_signed && low < 0) {
      throw std::invalid_argument(StrCat(op, ": low ", low, " is out of range for ", dtype));
    }
    return;
  }
  const long min = is_signed ? -(1L << (bits - 1)) : 0;
  const long max = is_signed ? (1L << (bits - 1)) - 1 : (1L << bits) - 1;
  if (low < min || high - 1 > max) {
    throw std::invalid_argument(
        StrCat(op, ": range [", low, ", ", high, ") is out of range for ", dtype));
  }
}

}  // namespace

template <bool kFloating, typename Option>
RandUniformKernel<kFloating, Option>::RandUniformKernel(const Option& option,
                                                        const TensorOption& out_opt, Buffer& out)
    : RandomFillKernel(kFloating ? "RandUniform" : "RandIntUniform", out_opt, out, option.use_seed,
                       option.seed),
      option_(option) {}

template <bool kFloating, typename Option>
bool RandUniformKernel<kFloating, Option>::Verify() const {
  const DataType dtype = out().dtype();
  const bool floating = dtype == kFloat || dtype == kHalf;
  const bool integral = TypeTraitsHelper::IsIntegral(dtype, false);
  if (kFloating ? !floating : !integral) throw std::invalid_argument(kTypeMismatch);
  VerifyOutput();
  if constexpr (kFloating) {
    if (!std::isfinite(option_.low) || !std::isfinite(option_.high) ||
        !(option_.low <= option_.high)) {
      throw std::invalid_argument(
          StrCat(name(), ": need finite low <= high, got [", option_.low, ", ", option_.high, ")"));
    }
  } else {
    CheckIntRange(name(), option_.low, option_.high, dtype);
  }
  return true;
}

template <bool kFloating, typename Option>
void RandUniformKernel<kFloating, Option>::Compile(std::shared_ptr<SessionImpl> session) {
  // The raw draws already cover [0, 1): the range is applied only when it differs.
  const bool update_range = std::fabs(static_cast<double>(option_.low)) > 1e-6 ||
                            std::fabs(static_cast<double>(option_.high) - 1.0) > 1e-6;
  BuildOption options;
  options.AddOptionIf(update_range, "-DUPDATE_RANGE");
  if constexpr (kFloating) {
    const float low = option_.low, step = option_.high - option_.low;
    if (update_range) {
      CompileFillWith(session, "random_uniform.cl", "random_uniform_philox",
                      "random_uniform_philox_cpu", options, UniformOffsetAdvance, low, step);
    } else {
      CompileFillWith(session, "random_uniform.cl", "random_uniform_philox",
                      "random_uniform_philox_cpu", options, UniformOffsetAdvance);
    }
  } else {
    const long low = option_.low, step = option_.high - option_.low;
    if (update_range) {
      CompileFill(session, "random_int_uniform.cl", "random_int_uniform_philox", options,
                  UniformOffsetAdvance, low, step);
    } else {
      CompileFill(session, "random_int_uniform.cl", "random_int_uniform_philox", options,
                  UniformOffsetAdvance);
    }
  }
}

template class RandUniformKernel<true, RandOption>;
template class RandUniformKernel<false, RandIntOption>;

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<RandFloatUniformKernel, const RandOption&, const TensorOption&, Buffer&>(
      "RandUniform");
  module.AddKernel<RandIntUniformKernel, const RandIntOption&, const TensorOption&, Buffer&>(
      "RandIntUniform");
};

}  // namespace cl
}  // namespace nerva
