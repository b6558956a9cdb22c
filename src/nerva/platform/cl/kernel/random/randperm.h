#pragma once

// Random permutations ("RandPerm") and random row shuffles ("Shuffle").
//
// RandPerm draws one random key per position into `keys` (float, [n]; the
// uniform-integer program's words modulo 2^24, so any n works) from the session's
// generator (its offset advances by 4), then sorts the keys in place with
// their positions by the indexed bitonic sort: the sorted positions, written
// to `out` ([n], int64 or int32), are the permutation. temp ([m], float) and
// temp_indices ([m], int32 or int64) are the sort's scratch, m = 2^(p+1),
// p = max(ceil(log2(n / 2)), 0); rows of more than 2048 keys use them.
//
// Shuffle permutes the rows (the first dimension) of a contiguous input:
// indices ([n], int64 or int32) receives a RandPerm of n = input.size(0), and
// out (the input's shape, float, half or an integer type) row x = input row
// indices[x] ("shuffle_kernel", which clamps each index into [0, n - 1]).
// keys, temp and temp_indices are RandPerm's scratch.

#include <memory>

#include "nerva/platform/cl/kernel/sort/bitonicsort.h"

namespace nerva {
namespace cl {

class RandPermKernel : public KernelImpl {
 public:
  RandPermKernel(const TensorOption& out_opt, Buffer& out, const TensorOption& keys_opt,
                 Buffer& keys, const TensorOption& temp_opt, Buffer& temp,
                 const TensorOption& temp_indices_opt, Buffer& temp_indices);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 protected:
  RandPermKernel(const std::string& name, const TensorOption& out_opt, Buffer& out,
                 const TensorOption& keys_opt, Buffer& keys, const TensorOption& temp_opt,
                 Buffer& temp, const TensorOption& temp_indices_opt, Buffer& temp_indices);
  BitonicSortTensors sort_;  // keys sorted in place; indices = the permutation
};

class ShuffleKernel : public RandPermKernel {
 public:
  ShuffleKernel(const TensorOption& input_opt, const Buffer& input, const TensorOption& out_opt,
                Buffer& out, const TensorOption& indices_opt, Buffer& indices,
                const TensorOption& keys_opt, Buffer& keys, const TensorOption& temp_opt,
                Buffer& temp, const TensorOption& temp_indices_opt, Buffer& temp_indices);

  bool Verify() const override;
  void Compile(std::shared_ptr<SessionImpl> session) override;

 private:
  Tensor input_, out_;
};

}  // namespace cl
}  // namespace nerva
