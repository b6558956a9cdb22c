// Tensor descriptors and views over a small host buffer of a "cpu" session:
// construction from any shape, type and offset, reshape, as-strided,
// transpose, broadcast, stepped slices, split, buffer views, and tensors made
// by the session itself.

#include "fuzz_util.h"
#include "nerva/nerva.h"

namespace nerva::fuzz {
namespace {

Session& CpuSession() {
  static Session session("cpu", 0);
  return session;
}

std::optional<ArrayRef<long>> MaybeSteps(FuzzedDataProvider& in, std::vector<long>& steps) {
  if (!in.ConsumeBool()) return std::nullopt;
  steps = Extents(in);
  return ArrayRef<long>(steps);
}

// Reads what a tensor reports about itself, as a consumer would.
void Inspect(const Tensor& tensor) {
  if (!tensor.impl()) return;
  (void)tensor.defined();
  (void)tensor.is_contiguous();
  (void)tensor.option().bytes();
  (void)tensor.strides_in_bytes();
  if (tensor.shape().ndim()) (void)tensor.size(-1);
}

void Step(FuzzedDataProvider& in, Tensor& tensor) {
  switch (in.ConsumeIntegralInRange(0, 10)) {
    case 0:
      tensor = tensor.Reshape(Extents(in));
      break;
    case 1: {
      const std::vector<long> sizes = Extents(in);
      const std::vector<long> strides = in.ConsumeBool() ? Extents(in) : sizes;
      tensor = tensor.AsStrided(sizes, strides, Extent(in));
      break;
    }
    case 2:
      tensor = tensor.Transpose(Axes(in));
      break;
    case 3:
      tensor = tensor.BroadcastTo(Extents(in));
      break;
    case 4: {
      const std::vector<long> starts = Extents(in);
      std::vector<long> ends = Extents(in), steps;
      if (in.ConsumeBool()) ends.resize(starts.size(), 4);
      const auto step_list = MaybeSteps(in, steps);
      tensor = tensor.Slice(starts, ends, step_list);
      break;
    }
    case 5: {
      const std::vector<long> pieces = Extents(in);
      const long axis = Axis(in);
      // One chunk size may ask for billions of views of a long empty
      // dimension: valid, but beyond the fuzzer's memory limit.
      if (pieces.size() == 1 && pieces[0] > 0 && tensor.size(axis) / pieces[0] > 4096) break;
      std::vector<Tensor> parts = tensor.Split(pieces, axis);
      for (const Tensor& part : parts) Inspect(part);
      if (!parts.empty()) tensor = parts[in.ConsumeIntegralInRange<size_t>(0, parts.size() - 1)];
      break;
    }
    case 6:
      tensor.Reshape_(Extents(in));
      break;
    case 7: {
      const long offset = Extent(in);
      const Buffer view = tensor.storage().View(offset, Extent(in), kMemReadWrite);
      tensor = Tensor(tensor.option(), view, 0);
      break;
    }
    default: {
      const std::vector<long> sizes = Extents(in);
      const std::vector<long> strides = Extents(in);
      tensor.AsStrided_(sizes, strides, Extent(in));
      break;
    }
  }
  Inspect(tensor);
}

// Session::MakeTensor, for shapes whose allocation stays small; invalid
// shapes (negative or zero sizes) are always tried.
void MakeTensor(FuzzedDataProvider& in) {
  const std::vector<long> sizes = Extents(in, 4);
  const DataType dtype = static_cast<DataType>(TypeCode(in));
  bool small = true;
  long bytes = 8;
  for (long s : sizes) {
    if (s > 0 && (s > 64 || (bytes *= s) > (1L << 16))) small = false;
  }
  if (small) Inspect(CpuSession().MakeTensor(sizes, dtype));
}

}  // namespace
}  // namespace nerva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace nerva;
  using namespace nerva::fuzz;
  FuzzedDataProvider in(data, size);
  if (in.ConsumeBool()) {
    AllowDocumentedErrors([&] { MakeTensor(in); });
    return 0;
  }
  const long bytes = in.ConsumeIntegralInRange<long>(1, 256);
  const Buffer buffer = CpuSession().MakeBuffer(kMemReadWrite, bytes);
  Tensor tensor;
  AllowDocumentedErrors([&] {
    const std::vector<long> sizes = Extents(in);
    TensorOption option{Shape(sizes), static_cast<DataType>(TypeCode(in))};
    tensor = Tensor(option, buffer, in.ConsumeIntegralInRange<long>(0, bytes - 1));
  });
  if (!tensor.impl()) return 0;
  for (int step = 0; step < 12 && in.remaining_bytes() > 0; ++step) {
    AllowDocumentedErrors([&] { Step(in, tensor); });
  }
  return 0;
}
