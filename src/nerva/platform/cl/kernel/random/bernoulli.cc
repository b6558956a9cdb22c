#include "nerva/platform/cl/kernel/random/bernoulli.h"

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// Defined, contiguous, non-empty and of `shape` (when given).
void CheckTensor(const std::string& op, const char* what, const Tensor& t,
                 const Shape* shape = nullptr) {
  if (!t.defined()) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (!t.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be contiguous"));
  }
  if (t.shape().size() <= 0) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " has no elements"));
  }
  if (shape && t.shape().sizes() != shape->sizes()) {
    throw std::runtime_error(
        StrCat(op, ": ", what, " ", t.shape(), " must have the input's shape ", *shape));
  }
}

void CheckFloatType(const std::string& op, const char* what, DataType dtype) {
  if (dtype != kFloat && dtype != kHalf) {
    throw std::invalid_argument(StrCat(op, ": ", what, " type ", dtype,
                                       " is not supported (DataType::kFloat or DataType::kHalf)"));
  }
}

}  // namespace

BernoulliKernel::BernoulliKernel(const BernoulliOption& option, const TensorOption& in_opt,
                                 const Buffer& in, const TensorOption& out_opt, Buffer& out)
    : KernelImpl("Bernoulli"), option_(option), in_(in_opt, in, 0), out_(out_opt, out, 0) {}

bool BernoulliKernel::Verify() const {
  CheckTensor(name(), "input", in_);
  CheckTensor(name(), "output", out_, &in_.shape());
  CheckFloatType(name(), "input", in_.dtype());
  const DataType out = out_.dtype();
  if (out != kFloat && out != kHalf && !TypeTraitsHelper::IsIntegral(out, true)) {
    throw std::invalid_argument(StrCat(name(), ": output type ", out, " is not supported"));
  }
  CheckSeed(name(), option_.use_seed, option_.seed);
  return true;
}

void BernoulliKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = in_.shape().size();
  const int vec_size = AdjustVecSize(4, n);
  BuildOption options;
  options.AddDefinitionAutoType("VEC_SIZE", vec_size)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec_size))
      .AddDefinition("DTYPE", GetDataTypeCode(in_.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_.dtype()));
  const PhiloxDraw draw(session, option_.use_seed, option_.seed);
  MakeSubKernel(session, ConcatenateStrings(name(), "philox"),
                {"common.h", "random.h", "bernoulli.cl"}, options, "bernoulli")
      ->SetArgs(ClTensor(in_.Reshape({n}), vec_size), ClTensor(out_.Reshape({n}), vec_size),
                draw.state().seed, draw.state().offset)
      .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec_size)});
  draw.Advance(UniformOffsetAdvance(vec_size));
}

DropoutTrainKernel::DropoutTrainKernel(const DropoutTrainOption& option, const TensorOption& in_opt,
                                       const Buffer& in, const TensorOption& out_opt, Buffer& out,
                                       const TensorOption& mask_opt, Buffer& mask)
    : KernelImpl("DropoutTrain"),
      option_(option),
      in_(in_opt, in, 0),
      out_(out_opt, out, 0),
      mask_(mask_opt, mask, 0) {}

bool DropoutTrainKernel::Verify() const {
  CheckTensor(name(), "input", in_);
  CheckTensor(name(), "output", out_, &in_.shape());
  CheckTensor(name(), "mask", mask_, &in_.shape());
  CheckFloatType(name(), "input", in_.dtype());
  CheckFloatType(name(), "output", out_.dtype());
  const DataType mask = mask_.dtype();
  if (mask != kBool && mask != kInt8 && mask != kUInt8) {
    throw std::invalid_argument(StrCat(name(), ": mask type ", mask,
                                       " is not supported (DataType::kBool, kInt8 or kUInt8)"));
  }
  if (!(option_.p >= 0.0f && option_.p <= 1.0f)) {
    throw std::invalid_argument(StrCat(name(), ": p ", option_.p, " must lie in [0, 1]"));
  }
  CheckSeed(name(), option_.use_seed, option_.seed);
  return true;
}

void DropoutTrainKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = in_.shape().size();
  const int vec_size = AdjustVecSize(4, n);
  BuildOption options;
  options.AddDefinitionAutoType("VEC_SIZE", vec_size)
      .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec_size))
      .AddDefinitionAutoType("PROBABILITY", option_.p)
      .AddDefinition("DTYPE", GetDataTypeCode(in_.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_.dtype()));
  const PhiloxDraw draw(session, option_.use_seed, option_.seed);
  MakeSubKernel(session, ConcatenateStrings(name(), "philox"),
                {"common.h", "random.h", "dropout.cl"}, options, "dropout_train_generic")
      ->SetArgs(ClTensor(in_.Reshape({n}), vec_size), ClTensor(out_.Reshape({n}), vec_size),
                ClTensor(mask_.Reshape({n}), vec_size), draw.state().seed, draw.state().offset)
      .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec_size)});
  draw.Advance(UniformOffsetAdvance(vec_size));
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<BernoulliKernel, const BernoulliOption&, const TensorOption&, const Buffer&,
                   const TensorOption&, Buffer&>("Bernoulli");
  module.AddKernel<DropoutTrainKernel, const DropoutTrainOption&, const TensorOption&,
                   const Buffer&, const TensorOption&, Buffer&, const TensorOption&, Buffer&>(
      "DropoutTrain");
};

}  // namespace cl
}  // namespace nerva
