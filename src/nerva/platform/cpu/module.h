#pragma once

#include "nerva/module.h"
#include "nerva/platform/cpu/kernel_impl.h"

namespace nerva::cpu {

// The CPU platform's registry of kernels and allocators, named "CPU".
class CpuModule : public Module<KernelImpl> {
 public:
  static CpuModule& singleton();

 private:
  CpuModule() : Module<KernelImpl>("CPU") {}
};

}  // namespace nerva::cpu
