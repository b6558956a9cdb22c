#pragma once

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "nerva/buffer.h"
#include "nerva/encoded_coef.h"
#include "nerva/function_wrapper.h"

namespace nerva {

// A platform's registry: kernel creators, allocators and coefficient encoders,
// keyed by name. Filled by static initialisers at load, read-only afterwards.
template <typename KernelImpl>
class Module {
 public:
  using KernelCreator = FunctionWrapperBase<std::shared_ptr<KernelImpl>>;
  using Allocator = FunctionWrapperBase<Buffer>;
  using CoefEncoder = FunctionWrapperBase<std::shared_ptr<EncodedCoef>>;

  explicit Module(std::string platform) : platform_(std::move(platform)) {}
  virtual ~Module() = default;
  Module(const Module&) = delete;
  Module& operator=(const Module&) = delete;

  const std::string& platform() const { return platform_; }

  void AddKernelImpl(const std::string& name, std::unique_ptr<KernelCreator> creator) {
    Add(kernels_, "kernel", name, std::move(creator));
  }
  void AddAllocatorImpl(const std::string& name, std::unique_ptr<Allocator> allocator) {
    Add(allocators_, "allocator", name, std::move(allocator));
  }
  void AddCoefEncoderImpl(const std::string& name, std::unique_ptr<CoefEncoder> encoder) {
    Add(encoders_, "encoder", name, std::move(encoder));
  }

  // Registers a creator that constructs `Kernel` from arguments of types Args.
  template <typename Kernel, typename... Args>
  void AddKernel(const std::string& name) {
    AddKernelImpl(name, MakeFunctionWrapper<std::shared_ptr<KernelImpl>, Args...>(
                            name, [](Args... args) -> std::shared_ptr<KernelImpl> {
                              return std::make_shared<Kernel>(args...);
                            }));
  }

  // Null when nothing is registered under the name.
  const KernelCreator* FindKernel(const std::string& name) const { return Find(kernels_, name); }
  const Allocator* FindAllocator(const std::string& name) const { return Find(allocators_, name); }
  const CoefEncoder* FindCoefEncoder(const std::string& name) const {
    return Find(encoders_, name);
  }

  const std::map<std::string, std::unique_ptr<KernelCreator>>& kernels() const { return kernels_; }
  const std::map<std::string, std::unique_ptr<Allocator>>& allocators() const {
    return allocators_;
  }
  const std::map<std::string, std::unique_ptr<CoefEncoder>>& encoders() const { return encoders_; }

 private:
  template <typename T>
  void Add(std::map<std::string, std::unique_ptr<T>>& table, const char* what,
           const std::string& name, std::unique_ptr<T> entry) {
    if (table.count(name)) {
      throw std::runtime_error(std::string("Duplicate registration of ") + what + " \"" + name +
                               "\" on platform " + platform_);
    }
    table.emplace(name, std::move(entry));
  }

  template <typename T>
  static const T* Find(const std::map<std::string, std::unique_ptr<T>>& table,
                       const std::string& name) {
    auto it = table.find(name);
    return it == table.end() ? nullptr : it->second.get();
  }

  std::string platform_;
  std::map<std::string, std::unique_ptr<KernelCreator>> kernels_;
  std::map<std::string, std::unique_ptr<Allocator>> allocators_;
  std::map<std::string, std::unique_ptr<CoefEncoder>> encoders_;
};

// Runs `register_fn` once during static initialisation of the defining file.
struct StaticRegistrar {
  template <typename F>
  StaticRegistrar(F&& register_fn) {  // NOLINT: implicit on purpose
    register_fn();
  }
};

#define NERVA_CONCAT_IMPL(a, b) a##b
#define NERVA_CONCAT(a, b) NERVA_CONCAT_IMPL(a, b)
// NERVA_STATIC_REGISTER { module.AddKernel<...>("Name"); }
#define NERVA_STATIC_REGISTER \
  static const ::nerva::StaticRegistrar NERVA_CONCAT(nerva_registrar_, __LINE__) = []()

}  // namespace nerva
