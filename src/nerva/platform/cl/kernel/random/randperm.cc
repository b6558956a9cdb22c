#include "nerva/platform/cl/kernel/random/randperm.h"

#include <stdexcept>

#include "nerva/platform/cl/kernel/random/philox.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

void CheckOneDim(const std::string& op, const char* what, const Tensor& t, long n) {
  if (!t.defined()) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (!t.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be contiguous"));
  }
  if (t.shape().ndim() != 1 || (n >= 0 && t.shape()[0] != n)) {
    throw std::runtime_error(
        StrCat(op, ": ", what, " ", t.shape(), " must be [", n >= 0 ? n : t.shape().size(), "]"));
  }
}

}  // namespace

RandPermKernel::RandPermKernel(const std::string& name, const TensorOption& out_opt, Buffer& out,
                               const TensorOption& keys_opt, Buffer& keys,
                               const TensorOption& temp_opt, Buffer& temp,
                               const TensorOption& temp_indices_opt, Buffer& temp_indices)
    : KernelImpl(name) {
  sort_.input = Tensor(keys_opt, keys, 0);
  sort_.out = sort_.input;
  sort_.temp = Tensor(temp_opt, temp, 0);
  sort_.temp_indices = Tensor(temp_indices_opt, temp_indices, 0);
  sort_.indices = Tensor(out_opt, out, 0);
  sort_.axis = 0;
}

RandPermKernel::RandPermKernel(const TensorOption& out_opt, Buffer& out,
                               const TensorOption& keys_opt, Buffer& keys,
                               const TensorOption& temp_opt, Buffer& temp,
                               const TensorOption& temp_indices_opt, Buffer& temp_indices)
    : RandPermKernel("RandPerm", out_opt, out, keys_opt, keys, temp_opt, temp, temp_indices_opt,
                     temp_indices) {}

bool RandPermKernel::Verify() const {
  CheckOneDim(name(), "permutation", sort_.indices, -1);
  const long n = sort_.indices.shape()[0];
  CheckOneDim(name(), "keys", sort_.input, n);
  if (sort_.input.dtype() != kFloat) {
    throw std::invalid_argument(
        StrCat(name(), ": keys type ", sort_.input.dtype(), " must be DataType::kFloat"));
  }
  VerifyBitonicSort(name(), sort_);
  return true;
}

void RandPermKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = sort_.input.shape().size();
  if (n == 0) return;
  const int vec_size = AdjustVecSize(4, n);
  BuildOption options;
  options.AddDefinitionAutoType("VEC_SIZE", vec_size)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec_size))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(kFloat))
      .AddOption("-DUPDATE_RANGE");
  // Keys word % 2^24: exact in float and below the sort's filler key.
  const long low = 0, step = 1L << 24;
  const PhiloxDraw draw(session, false, 0.0f);
  MakeSubKernel(session, ConcatenateStrings("RandIntUniform", "philox"),
                {"common.h", "random.h", "random_int_uniform.cl"}, options,
                "random_int_uniform_philox")
      ->SetArgs(ClTensor(sort_.input, vec_size), draw.state().seed, draw.state().offset, low, step)
      .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec_size)});
  AppendBitonicSort(*this, session, sort_);
  draw.Advance(UniformOffsetAdvance(vec_size));
}

ShuffleKernel::ShuffleKernel(const TensorOption& input_opt, const Buffer& input,
                             const TensorOption& out_opt, Buffer& out,
                             const TensorOption& indices_opt, Buffer& indices,
                             const TensorOption& keys_opt, Buffer& keys,
                             const TensorOption& temp_opt, Buffer& temp,
                             const TensorOption& temp_indices_opt, Buffer& temp_indices)
    : RandPermKernel("Shuffle", indices_opt, indices, keys_opt, keys, temp_opt, temp,
                     temp_indices_opt, temp_indices),
      input_(input_opt, input, 0),
      out_(out_opt, out, 0) {}

bool ShuffleKernel::Verify() const {
  for (const Tensor* t : {&input_, &out_}) {
    if (!t->defined()) throw std::runtime_error(StrCat(name(), ": input or output is empty"));
    if (!t->is_contiguous()) {
      throw std::runtime_error(StrCat(name(), ": tensor ", t->shape(), " must be contiguous"));
    }
  }
  if (input_.shape().ndim() == 0 || out_.shape().sizes() != input_.shape().sizes()) {
    throw std::runtime_error(
        StrCat(name(), ": output ", out_.shape(), " must have the input's shape ", input_.shape()));
  }
  for (DataType t : {input_.dtype(), out_.dtype()}) {
    if (t != kFloat && t != kHalf && !TypeTraitsHelper::IsIntegral(t, true)) {
      throw std::invalid_argument(StrCat(name(), ": type ", t, " is not supported"));
    }
  }
  CheckOneDim(name(), "indices", sort_.indices, input_.shape()[0]);
  return RandPermKernel::Verify();
}

void ShuffleKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long rows = input_.shape()[0];
  if (input_.shape().size() == 0) return;
  RandPermKernel::Compile(session);
  const long row = input_.shape().size() / rows;
  BuildOption options;
  options.AddDefinition("DTYPE_IN", GetDataTypeCode(input_.dtype()))
      .AddDefinition("DTYPE_OUT", GetDataTypeCode(out_.dtype()))
      .AddDefinition("DTYPE_INDICES", GetDataTypeCode(sort_.indices.dtype()));
  MakeSubKernel(session, ConcatenateStrings(name(), "gather"), {"common.h", "shuffle.cl"}, options,
                "shuffle_kernel")
      ->SetArgs(ClTensor(input_.Reshape({rows, row})), ClTensor(sort_.indices),
                ClTensor(out_.Reshape({rows, row})), static_cast<int>(rows))
      .SetGlobal({static_cast<size_t>(row), static_cast<size_t>(rows)});
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<RandPermKernel, const TensorOption&, Buffer&, const TensorOption&, Buffer&,
                   const TensorOption&, Buffer&, const TensorOption&, Buffer&>("RandPerm");
  module.AddKernel<ShuffleKernel, const TensorOption&, const Buffer&, const TensorOption&, Buffer&,
                   const TensorOption&, Buffer&, const TensorOption&, Buffer&, const TensorOption&,
                   Buffer&, const TensorOption&, Buffer&>("Shuffle");
};

}  // namespace cl
}  // namespace nerva
