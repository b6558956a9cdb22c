// The argument checks of OpenCL operators, reached through their front-ends
// with random shapes, strides, types, axes and buffers. The queue below only
// creates and verifies kernels (nothing is built or run on a device); an
// operator that the platform does not register yet is skipped by its message.

#include <cstring>

#include "fuzz_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/module.h"

namespace nerva::fuzz {
namespace {

class VerifyOnlyQueue : public IQueueImpl {
 public:
  Event Enqueue(const Kernel&) override { return Event(); }
  Event Enqueue(const Kernel&, const std::vector<Event>&) override { return Event(); }
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
  std::string GetPlatform() const override { return "opencl"; }

  Kernel CreateKernelImpl(const std::string& name, FunctionParameters& params) override {
    const auto* creator = cl::ClModule::singleton().FindKernel(name);
    if (creator == nullptr) throw std::runtime_error("CL not support kernel: " + name);
    std::shared_ptr<cl::KernelImpl> kernel = creator->Call(params);
    if (!kernel->Verify()) throw std::runtime_error("CL kernel '" + name + "' verify fail.");
    return Kernel(kernel);
  }
};

Session& CpuSession() {
  static Session session("cpu", 0);
  return session;
}

float AnyFloat(FuzzedDataProvider& in) {
  const uint32_t bits = in.ConsumeIntegral<uint32_t>();
  float value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

// A descriptor (sizes, optional strides, type) and a host buffer that may be
// missing, too small or just right.
struct Operand {
  TensorOption option;
  Buffer buffer;
  Tensor tensor() const { return Tensor(option, buffer, 0); }
};

Operand MakeOperand(FuzzedDataProvider& in) {
  Operand operand;
  const std::vector<long> sizes = Extents(in, 8);
  if (in.ConsumeBool()) {
    std::vector<long> strides = Extents(in, 8);
    strides.resize(sizes.size(), 1);
    operand.option.shape = Shape(sizes, ArrayRef<long>(strides));
  } else {
    operand.option.shape = Shape(sizes);
  }
  operand.option.dtype = static_cast<DataType>(TypeCode(in));
  switch (in.ConsumeIntegralInRange(0, 3)) {
    case 0:
      break;  // the null buffer
    case 1:
      operand.buffer = CpuSession().MakeBuffer(kMemReadWrite, in.ConsumeIntegralInRange(1, 64));
      break;
    default: {
      // Room for the descriptor's element count when that is small.
      long bytes = 16;
      for (long s : sizes) {
        if (s > 0 && s <= 4096 && bytes <= 4096) bytes *= s;
      }
      operand.buffer = CpuSession().MakeBuffer(kMemReadWrite, bytes < 4096 ? bytes : 4096);
      break;
    }
  }
  return operand;
}

void Activation(const std::shared_ptr<IQueueImpl>& queue, FuzzedDataProvider& in) {
  ActivationOption option;
  option.op_type = static_cast<ActivationType>(in.ConsumeIntegralInRange(-2, 17));
  option.alpha = AnyFloat(in);
  option.beta = AnyFloat(in);
  Operand x = MakeOperand(in), y = MakeOperand(in);
  if (in.ConsumeBool()) {
    nerva::Activation::Create(queue, option, x.tensor(), y.tensor());
  } else {
    nerva::Activation::Create(queue, option, x.option, x.buffer, y.option, y.buffer);
  }
}

void Reduce(const std::shared_ptr<IQueueImpl>& queue, FuzzedDataProvider& in) {
  ReduceOption option;
  option.op_type = static_cast<ReduceType>(in.ConsumeIntegralInRange(0, 12));
  for (long axis : Axes(in, 5)) option.axes.push_back(static_cast<int>(axis));
  option.keepdim = in.ConsumeBool();
  option.correction = AnyFloat(in);
  Operand x = MakeOperand(in), y = MakeOperand(in);
  nerva::Reduce::Create(queue, option, x.option, x.buffer, y.option, y.buffer);
}

void Binary(const std::shared_ptr<IQueueImpl>& queue, FuzzedDataProvider& in) {
  BinaryOption option;
  option.op_type = static_cast<BinaryType>(in.ConsumeIntegralInRange(-1, 40));
  option.alpha = AnyFloat(in);
  Operand a = MakeOperand(in), b = MakeOperand(in), out = MakeOperand(in);
  nerva::Binary::Create(queue, option, a.option, a.buffer, b.option, b.buffer, out.option,
                        out.buffer);
}

}  // namespace
}  // namespace nerva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace nerva::fuzz;
  static const std::shared_ptr<nerva::IQueueImpl> queue = std::make_shared<VerifyOnlyQueue>();
  FuzzedDataProvider in(data, size);
  AllowDocumentedErrors([&] {
    switch (in.ConsumeIntegralInRange(0, 2)) {
      case 0:
        Activation(queue, in);
        break;
      case 1:
        Reduce(queue, in);
        break;
      default:
        Binary(queue, in);
        break;
    }
  });
  return 0;
}
