#pragma once

// Shared frame of the random-number kernels: the generator state of a launch
// and the base of the kernels that fill one flat output with VEC_SIZE-wide
// draws (device header "random.h").

#include <cstdint>
#include <memory>
#include <string>

#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

// The (seed, offset) pair every random device program receives as two ulongs.
struct PhiloxState {
  uint64_t seed = 0;
  uint64_t offset = 0;
};

// Offset advance of a launch drawing uniform words: 4 * floor(((vec + 4) - 1) * 0.25),
// in single precision (4 for every width of 1 to 4).
uint64_t UniformOffsetAdvance(int vec_size);
// Offset advance of a launch drawing normal values: the vector width.
uint64_t NormalOffsetAdvance(int vec_size);

// The generator state of one launch. With `use_seed` it is (seed truncated to an
// integer, 0) and the session is left alone; otherwise it is the session's seed
// and offset, and Advance moves the session's offset on.
class PhiloxDraw {
 public:
  PhiloxDraw(const std::shared_ptr<SessionImpl>& session, bool use_seed, float seed);
  const PhiloxState& state() const { return state_; }
  void Advance(uint64_t count) const;

 private:
  std::shared_ptr<SessionImpl> session_;
  bool own_seed_;
  PhiloxState state_;
};

// A per-option seed must be a finite, non-negative value below 2^64.
void CheckSeed(const std::string& op, bool use_seed, float seed);

// Base of the kernels that write one contiguous output of `n` elements, one
// VEC_SIZE-wide vector per work item (the first two vectors overlap when n is
// not a multiple of the width). The device kernel takes (out, seed, offset,
// extra...).
class RandomFillKernel : public KernelImpl {
 protected:
  RandomFillKernel(const std::string& name, const TensorOption& out_opt, const Buffer& out,
                   bool use_seed, float seed);

  // Output defined, contiguous, non-empty; then the per-option seed.
  void VerifyOutput() const;
  // Builds `program` (after "common.h" and "random.h") with `options` plus
  // VEC_SIZE, VEC_SIZE_LEFTOVER and OUT_DTYPE, binds (out, seed, offset,
  // extra...) and advances the session's offset by `advance(vec_size)`.
  // With `cpu_kernel` on a CPU device (and the full width of 4), that kernel
  // runs instead: it takes n after the extra arguments and each work item
  // fills runs of whole streams, kCpuStreamsPerItem of them.
  template <typename... Extra>
  void CompileFill(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                   const std::string& kernel, BuildOption options, uint64_t (*advance)(int),
                   const Extra&... extra) {
    CompileFillWith(session, program, kernel, "", options, advance, extra...);
  }
  template <typename... Extra>
  void CompileFillWith(const std::shared_ptr<SessionImpl>& session, const std::string& program,
                       const std::string& kernel, const std::string& cpu_kernel,
                       BuildOption options, uint64_t (*advance)(int), const Extra&... extra) {
    const long n = out_.shape().size();
    const int vec_size = AdjustedWidth();
    const Tensor flat = out_.Reshape({n});
    options.AddDefinitionAutoType("VEC_SIZE", vec_size)
        .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec_size))
        .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_.dtype()));
    const PhiloxDraw draw(session, use_seed_, seed_);
    const bool cpu = !cpu_kernel.empty() && vec_size == 4 && session->host_cpu();
    auto unit =
        MakeSubKernel(session, ConcatenateStrings(name(), "philox"),
                      {"common.h", "random.h", program}, options, cpu ? cpu_kernel : kernel);
    if (cpu) {
      const size_t streams = static_cast<size_t>((n + 3) / 4);
      unit->SetArgs(ClTensor(flat, vec_size), draw.state().seed, draw.state().offset, extra...,
                    static_cast<int64_t>(n))
          .SetGlobal({streams}, {kCpuStreamsPerItem})
          .SetLocal({1});
    } else {
      unit->SetArgs(ClTensor(flat, vec_size), draw.state().seed, draw.state().offset, extra...)
          .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec_size)});
    }
    draw.Advance(advance(vec_size));
  }
  // Streams (of four values) per work item of the CPU kernels: a multiple of 8.
  static constexpr size_t kCpuStreamsPerItem = 512;
  int AdjustedWidth() const;
  const Tensor& out() const { return out_; }

 private:
  Tensor out_;
  bool use_seed_;
  float seed_;
};

}  // namespace cl
}  // namespace nerva
