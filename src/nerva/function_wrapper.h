#pragma once

#include <any>
#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "nerva/argument_check.h"
#include "nerva/type_traits.h"

namespace nerva {

// One call's arguments, held by reference for the duration of a dispatch,
// together with the signature text of their forwarded types.
class FunctionParameters {
 public:
  template <typename... Args>
  explicit FunctionParameters(Args&&... args)
      : values_(std::tuple<Args&...>(args...)),
        signature_(TypeSignatureHelper::GetSignatures<Args&...>(", ")),
        arguments_{MakeArgumentRef(args)...} {}

  std::any& values() { return values_; }
  const std::any& values() const { return values_; }
  const std::string& pretty_signature() const { return signature_; }
  // The arguments in order, for the memory checks of a new kernel.
  const std::vector<ArgumentRef>& arguments() const { return arguments_; }

 private:
  std::any values_;
  std::string signature_;
  std::vector<ArgumentRef> arguments_;
};

// A type-erased creator returning R.
template <typename R>
class FunctionWrapperBase {
 public:
  virtual ~FunctionWrapperBase() = default;
  virtual R Call(FunctionParameters& params) const = 0;
};

// Binds a platform function to a name and checks, on every call, that the
// packed arguments have exactly the types it was registered with.
template <typename R, typename... Args>
class FunctionWrapper : public FunctionWrapperBase<R> {
 public:
  FunctionWrapper(std::string name, std::function<R(Args...)> function)
      : name_(std::move(name)),
        function_(std::move(function)),
        signature_(TypeSignatureHelper::GetSignatures<Args&...>(", ")) {}

  R Call(FunctionParameters& params) const override {
    auto* values = std::any_cast<std::tuple<Args&...>>(&params.values());
    if (values == nullptr) {
      throw std::runtime_error("Kernel \"" + name_ + "\" Function signature mismatch: (" +
                               signature_ + ") vs (" + params.pretty_signature() + ").");
    }
    return std::apply(function_, *values);
  }

  const std::string& name() const { return name_; }
  const std::string& signature() const { return signature_; }

 private:
  std::string name_;
  std::function<R(Args...)> function_;
  std::string signature_;
};

template <typename R, typename... Args, typename F>
std::unique_ptr<FunctionWrapperBase<R>> MakeFunctionWrapper(const std::string& name, F&& f) {
  return std::make_unique<FunctionWrapper<R, Args...>>(
      name, std::function<R(Args...)>(std::forward<F>(f)));
}

}  // namespace nerva
