#pragma once

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "nerva/function_wrapper.h"
#include "nerva/kernel.h"

namespace nerva::cpu {

// Base of every CPU kernel: a named operation that the queue runs at enqueue.
class KernelImpl : public IKernelImpl {
 public:
  explicit KernelImpl(std::string name) : name_(std::move(name)) {}

  std::string name() const override { return name_; }
  bool Verify() const override { return true; }
  virtual void Run() = 0;

 private:
  std::string name_;
};

// A call function bound to the arguments it was created with. The arguments
// reach the kernel as references valid only during creation, so the kernel
// keeps copies of them (buffer handles share the memory) and packs those
// anew for every run.
template <typename... Args>
class CpuKernelImpl : public KernelImpl {
 public:
  using Function = std::function<void(Args...)>;

  CpuKernelImpl(const std::string& name, Function function, Args... args)
      : KernelImpl(name), wrapper_(name, std::move(function)), args_(args...) {}

  void Run() override { RunWith(std::index_sequence_for<Args...>{}); }

 private:
  template <size_t... I>
  void RunWith(std::index_sequence<I...>) {
    // Each stored copy is forwarded with exactly the qualifiers of the call
    // function's parameter, as the wrapper's signature check requires.
    FunctionParameters params(static_cast<Args&>(std::get<I>(args_))...);
    wrapper_.Call(params);
  }

  FunctionWrapper<void, Args...> wrapper_;
  std::tuple<std::decay_t<Args>...> args_;
};

// Turns a plain call function into a registry creator of CpuKernelImpl that
// stores the name, the function and the arguments. `check`, when given, sees
// the same arguments first and throws on any that the call cannot serve.
template <typename... Args>
std::unique_ptr<FunctionWrapperBase<std::shared_ptr<KernelImpl>>> SimpleWrapKernelCreator(
    const std::string& name, void (*function)(Args...), void (*check)(Args...) = nullptr) {
  return MakeFunctionWrapper<std::shared_ptr<KernelImpl>, Args...>(
      name, [name, function, check](Args... args) -> std::shared_ptr<KernelImpl> {
        if (check) check(args...);
        return std::make_shared<CpuKernelImpl<Args...>>(name, function, args...);
      });
}

}  // namespace nerva::cpu
