#pragma once

// A test-only platform that records what reaches it: the registry name and
// signature of every kernel request, and the arguments of allocations.

#include <memory>
#include <string>
#include <vector>

#include "nerva/nerva.h"

namespace nerva::test {

class FakeKernelImpl : public IKernelImpl {
 public:
  FakeKernelImpl(std::string name, std::string signature, bool valid = true)
      : name_(std::move(name)), signature_(std::move(signature)), valid_(valid) {}
  std::string name() const override { return name_; }
  bool Verify() const override { return valid_; }
  const std::string& signature() const { return signature_; }

 private:
  std::string name_;
  std::string signature_;
  bool valid_;
};

class FakeModule : public Module<FakeKernelImpl> {
 public:
  FakeModule() : Module<FakeKernelImpl>("FAKE") {}
  static FakeModule& singleton() {
    static FakeModule module;
    return module;
  }
};

struct FakeBufferImpl : IBufferImpl {
  explicit FakeBufferImpl(long bytes) : bytes_(bytes), data_(bytes > 0 ? bytes : 0) {}
  long size() const override { return bytes_; }
  void* UnsafeGetPtr() const override { return const_cast<char*>(data_.data()); }
  Buffer View(long, long size, unsigned long) const override {
    return Buffer(std::make_shared<FakeBufferImpl>(size));
  }
  long bytes_;
  std::vector<char> data_;
};

struct FakeEventImpl : IEventImpl {};

// Requests for registered names go through the module; any other name is
// answered with a FakeKernelImpl carrying the name and packed signature.
class FakeQueueImpl : public IQueueImpl, public std::enable_shared_from_this<FakeQueueImpl> {
 public:
  Event Enqueue(const Kernel&) override { return MakeEvent<FakeEventImpl>(); }
  Event Enqueue(const Kernel&, const std::vector<Event>&) override {
    return MakeEvent<FakeEventImpl>();
  }
  Event CopyDeviceToHost(void*, const Buffer&, long) override { return Event(); }
  Event CopyHostToDevice(Buffer, const void*, long) override { return Event(); }
  Event CopyDeviceToDevice(Buffer, const Buffer&, long) override { return Event(); }
  // The copies at byte offsets keep the base forms.
  using IQueueImpl::CopyDeviceToDevice;
  using IQueueImpl::CopyDeviceToHost;
  using IQueueImpl::CopyHostToDevice;
  Event FillBuffer(Buffer, const void*, unsigned long, long, long) override { return Event(); }
  void Wait() const override {}
  void WaitFor(const std::vector<Event>&) const override {}
  std::string GetPlatform() const override { return "fake"; }

  Kernel CreateKernelImpl(const std::string& name, FunctionParameters& params) override {
    last_name = name;
    last_signature = params.pretty_signature();
    const auto* creator = FakeModule::singleton().FindKernel(name);
    if (creator == nullptr) return Kernel(std::make_shared<FakeKernelImpl>(name, last_signature));
    auto kernel = creator->Call(params);
    if (!kernel->Verify()) throw std::runtime_error("FAKE kernel \"" + name + "\" verify fail.");
    return Kernel(kernel);
  }

  std::string last_name;
  std::string last_signature;
};

class FakeSessionImpl : public ISessionImpl {
 public:
  Queue MakeQueue() override { return Queue(std::make_shared<FakeQueueImpl>()); }
  Queue WrapQueue(void*) override { return Queue(); }
  Buffer WrapBuffer(void*) override { return Buffer(); }
  Buffer MakeBufferImpl(const std::string& name, FunctionParameters& params) override {
    last_allocator = name;
    last_signature = params.pretty_signature();
    const auto* allocator = FakeModule::singleton().FindAllocator(name);
    if (allocator == nullptr) throw std::runtime_error("FAKE not support Allocator: " + name);
    return allocator->Call(params);
  }
  std::shared_ptr<EncodedCoef> EncodeCoefImpl(const std::string& name,
                                              FunctionParameters&) override {
    throw std::runtime_error("FAKE not support CoefEncoder: " + name);
  }
  void SetRandomSeed(unsigned long, unsigned long) override {}
  bool GetInfo(PlatformInfo info, unsigned long param_size, void* param,
               unsigned long*) const override {
    last_info = info;
    last_param_size = param_size;
    last_type = param ? *static_cast<int32_t*>(param) : -1;
    return info == kPlatformInfoSupportType && last_type == kFloat;
  }

  std::string last_allocator;
  std::string last_signature;
  mutable int last_info = -1;
  mutable unsigned long last_param_size = 0;
  mutable int32_t last_type = -1;
};

}  // namespace nerva::test
