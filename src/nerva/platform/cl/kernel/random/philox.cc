#include "nerva/platform/cl/kernel/random/philox.h"

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

uint64_t UniformOffsetAdvance(int vec_size) {
  const float words = static_cast<float>((vec_size + 4) - 1) * 0.25f;
  return 4 * static_cast<uint64_t>(std::floor(words));
}

uint64_t NormalOffsetAdvance(int vec_size) {
  return static_cast<uint64_t>(vec_size);
}

void CheckSeed(const std::string& op, bool use_seed, float seed) {
  if (use_seed && !(seed >= 0.0f && seed < 18446744073709551616.0f)) {
    throw std::invalid_argument(
        StrCat(op, ": seed ", seed, " must be a finite value in [0, 2^64)"));
  }
}

PhiloxDraw::PhiloxDraw(const std::shared_ptr<SessionImpl>& session, bool use_seed, float seed)
    : session_(session), own_seed_(use_seed) {
  if (own_seed_) {
    state_.seed = static_cast<uint64_t>(seed);  // truncation of the stored float
    state_.offset = 0;
  } else {
    state_.seed = session_->random_seed();
    state_.offset = session_->random_offset();
  }
}

void PhiloxDraw::Advance(uint64_t count) const {
  if (own_seed_) return;
  session_->SetRandomSeed(session_->random_seed(), session_->random_offset() + count);
}

RandomFillKernel::RandomFillKernel(const std::string& name, const TensorOption& out_opt,
                                   const Buffer& out, bool use_seed, float seed)
    : KernelImpl(name), out_(out_opt, out, 0), use_seed_(use_seed), seed_(seed) {}

void RandomFillKernel::VerifyOutput() const {
  if (!out_.defined()) throw std::runtime_error(StrCat(name(), ": output is empty"));
  if (!out_.is_contiguous()) {
    throw std::runtime_error(StrCat(name(), ": output ", out_.shape(), " must be contiguous"));
  }
  if (out_.shape().size() <= 0) {
    throw std::runtime_error(StrCat(name(), ": output ", out_.shape(), " has no elements"));
  }
  CheckSeed(name(), use_seed_, seed_);
}

int RandomFillKernel::AdjustedWidth() const {
  return AdjustVecSize(4, out_.shape().size());
}

}  // namespace cl
}  // namespace nerva
