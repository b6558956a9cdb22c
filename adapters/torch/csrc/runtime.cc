// Runtime of the PyTorch backend: allocator, device guard, tensor creation, views,
// copies between host and device, fills, the CPU fallback and the helper operators
// that the Python package calls.

#include <ATen/EmptyTensor.h>
#include <ATen/native/CPUFallback.h>
#include <ATen/ops/_reshape_alias_native.h>
#include <ATen/ops/as_strided_native.h>
#include <ATen/ops/unfold_native.h>
#include <ATen/ops/view_native.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>
#include <torch/library.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "backend.h"
#include "nerva/kernel/elementwise.h"

namespace nerva_torch {

namespace {

// OpenCL sub-buffers start at multiples of the device's base address alignment; 128
// bytes on the CPU devices, a divisor of the larger GPU alignments tried first.
constexpr long kSubBufferAlign = 128;

struct State {
  nerva::Session session;
  nerva::Queue queue;
  State() : session(0), queue(session.MakeQueue()) {}
};

State& GetState() {
  static State* state = new State();  // outlives every storage freed at exit
  return *state;
}

void DeleteBuffer(void* ctx) {
  delete static_cast<nerva::Buffer*>(ctx);
}

// Storages own their nerva Buffer through the DataPtr's context.
class NervaAllocator final : public c10::Allocator {
 public:
  c10::DataPtr allocate(size_t n) const override {
    if (n == 0) return c10::DataPtr(nullptr, Device());
    std::lock_guard<std::recursive_mutex> lock(QueueMutex());
    auto* buffer =
        new nerva::Buffer(GetSession().MakeBuffer(nerva::kMemReadWrite, static_cast<long>(n)));
    return c10::DataPtr(buffer->UnsafeGetPtr(), buffer, &DeleteBuffer, Device());
  }
  c10::DeleterFnPtr raw_deleter() const override { return nullptr; }
};

NervaAllocator g_allocator;
REGISTER_ALLOCATOR(c10::DeviceType::PrivateUse1, &g_allocator);

// One device, one in-order queue: the guard has nothing to switch.
struct NervaGuardImpl final : public c10::impl::DeviceGuardImplInterface {
  c10::DeviceType type() const override { return kDeviceType; }
  c10::Device exchangeDevice(c10::Device) const override { return Device(); }
  c10::Device getDevice() const override { return Device(); }
  void setDevice(c10::Device d) const override {
    TORCH_CHECK(d.index() <= 0, "nerva_torch: device index ", int(d.index()),
                " out of range (one device)");
  }
  void uncheckedSetDevice(c10::Device) const noexcept override {}
  c10::Stream getStream(c10::Device) const noexcept override {
    return c10::Stream(c10::Stream::DEFAULT, Device());
  }
  c10::Stream exchangeStream(c10::Stream) const noexcept override {
    return c10::Stream(c10::Stream::DEFAULT, Device());
  }
  c10::DeviceIndex deviceCount() const noexcept override { return 1; }
  bool queryStream(const c10::Stream&) const override { return true; }
  void synchronizeStream(const c10::Stream&) const override {
    std::lock_guard<std::recursive_mutex> lock(QueueMutex());
    GetQueue().Wait();
  }
};

C10_REGISTER_GUARD_IMPL(PrivateUse1, NervaGuardImpl);

long SpanBytes(const at::Tensor& t) {
  if (t.numel() == 0) return 0;
  long last = 0;
  for (int64_t d = 0; d < t.dim(); ++d) last += (t.size(d) - 1) * t.stride(d);
  return (last + 1) * static_cast<long>(t.element_size());
}

long OffsetBytes(const at::Tensor& t) {
  return static_cast<long>(t.storage_offset()) * static_cast<long>(t.element_size());
}

// The device tensor that a copy reads: `src` with self's type and shape.
bool DenseSameLayout(const at::Tensor& a, const at::Tensor& b) {
  return a.is_contiguous() && b.is_contiguous() && a.scalar_type() == b.scalar_type() &&
         a.sizes() == b.sizes();
}

std::atomic<bool> g_profiling{false};
std::mutex g_profile_mutex;
double g_kernel_seconds = 0.0, g_copy_seconds = 0.0;

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Adds the time from construction to destruction to the kernel or copy counter.
class ProfileScope {
 public:
  explicit ProfileScope(bool copy) : copy_(copy), start_(Profiling() ? Now() : 0.0) {}
  ~ProfileScope() {
    if (!Profiling()) return;
    if (!copy_) GetQueue().Wait();
    const double elapsed = Now() - start_;
    copy_ ? AddCopyTime(elapsed) : AddKernelTime(elapsed);
  }

 private:
  bool copy_;
  double start_;
};

}  // namespace

bool Profiling() {
  return g_profiling.load(std::memory_order_relaxed);
}
void AddKernelTime(double seconds) {
  std::lock_guard<std::mutex> lock(g_profile_mutex);
  g_kernel_seconds += seconds;
}
void AddCopyTime(double seconds) {
  std::lock_guard<std::mutex> lock(g_profile_mutex);
  g_copy_seconds += seconds;
}

nerva::Session& GetSession() {
  return GetState().session;
}
nerva::Queue& GetQueue() {
  return GetState().queue;
}
std::recursive_mutex& QueueMutex() {
  static auto* mutex = new std::recursive_mutex();
  return *mutex;
}

nerva::DataType ToNervaType(at::ScalarType type, const char* op) {
  switch (type) {
    case at::kFloat:
      return nerva::kFloat;
    case at::kHalf:
      return nerva::kHalf;
    case at::kBFloat16:
      return nerva::kBFloat;
    case at::kInt:
      return nerva::kInt32;
    case at::kLong:
      return nerva::kInt64;
    case at::kShort:
      return nerva::kInt16;
    case at::kChar:
      return nerva::kInt8;
    case at::kByte:
      return nerva::kUInt8;
    case at::kBool:
      return nerva::kBool;
    case at::kDouble:
      TORCH_CHECK_TYPE(false, "nerva_torch: ", op,
                       ": float64 is not supported on the nerva device; use float32");
    default:
      TORCH_CHECK_TYPE(false, "nerva_torch: ", op, ": ", c10::toString(type),
                       " is not supported on the nerva device");
  }
}

at::Tensor Empty(at::IntArrayRef sizes, at::ScalarType type) {
  ToNervaType(type, "empty");
  return at::detail::empty_generic(
      sizes, &g_allocator, c10::DispatchKeySet(c10::DispatchKey::PrivateUse1), type, c10::nullopt);
}

at::Tensor EmptyLike(const at::Tensor& t) {
  return Empty(t.sizes(), t.scalar_type());
}

nerva::Buffer StorageBuffer(const at::Tensor& t) {
  auto* ctx = static_cast<nerva::Buffer*>(t.storage().data_ptr().get_context());
  return ctx ? *ctx : nerva::Buffer();
}

Call::Call(const char* op) : op_(op), lock_(QueueMutex()) {}

Call::~Call() {
  try {
    Finish();
  } catch (...) {
  }
}

Operand Call::None() {
  return Operand{nerva::TensorOption{}, nerva::Buffer()};
}

Operand Call::In(const at::Tensor& t) {
  if (OnDevice(t)) return Bind(t, false);
  // A CPU operand (a wrapped scalar): uploaded once for this call.
  at::Tensor dev = Empty(t.sizes(), t.scalar_type());
  at::Tensor host = t.contiguous();
  ToNervaType(t.scalar_type(), op_);
  if (host.numel() > 0) {
    GetQueue().CopyHostToDevice(StorageBuffer(dev), 0, host.data_ptr(),
                                static_cast<long>(host.nbytes()));
  }
  keep_.push_back(dev);
  return Bind(dev, false);
}

Operand Call::InAs(const at::Tensor& t, at::ScalarType type) {
  if (t.scalar_type() == type) return In(t);
  if (!OnDevice(t)) return In(t.to(type));
  at::Tensor converted = Empty(t.sizes(), type);
  DeviceCopy(converted, t, op_);
  keep_.push_back(converted);
  return Bind(converted, false);
}

Operand Call::Out(const at::Tensor& t) {
  TORCH_CHECK(OnDevice(t), "nerva_torch: ", op_, ": output on ", t.device(),
              ", expected the nerva device");
  return Bind(t, true);
}

Operand Call::Bind(const at::Tensor& t, bool write) {
  TORCH_CHECK(OnDevice(t), "nerva_torch: ", op_, ": tensor on ", t.device(),
              ", expected the nerva device");
  Operand operand;
  operand.opt.dtype = ToNervaType(t.scalar_type(), op_);
  if (t.dim() == 0) {
    operand.opt.shape = nerva::Shape({1});
  } else {
    std::vector<long> sizes(t.sizes().begin(), t.sizes().end());
    std::vector<long> strides(t.strides().begin(), t.strides().end());
    operand.opt.shape = nerva::Shape(sizes, strides);
  }
  nerva::Buffer root = StorageBuffer(t);
  const long offset = OffsetBytes(t);
  const long bytes = SpanBytes(t);
  if (!root || bytes == 0) {
    operand.buf = root;
    return operand;
  }
  if (offset == 0) {
    operand.buf = root;
    return operand;
  }
  if (offset % kSubBufferAlign == 0) {
    try {
      operand.buf = root.View(offset, bytes, nerva::kMemReadWrite);
      return operand;
    } catch (const std::exception&) {
      // Misaligned for this device: staged below.
    }
  }
  nerva::Buffer temp = GetSession().MakeBuffer(nerva::kMemReadWrite, bytes);
  GetQueue().CopyDeviceToDevice(temp, 0, root, offset, bytes);
  if (write) writeback_.push_back(Stage{root, offset, temp, bytes});
  operand.buf = temp;
  return operand;
}

void Call::Run(const nerva::Kernel& kernel) {
  ProfileScope scope(false);
  GetQueue().Enqueue(kernel);
}

void Call::Finish() {
  for (const Stage& s : writeback_) {
    GetQueue().CopyDeviceToDevice(s.root, s.offset, s.temp, 0, s.bytes);
  }
  writeback_.clear();
}

void DeviceCopy(const at::Tensor& dst, const at::Tensor& src, const char* op) {
  if (dst.numel() == 0) return;
  Call call(op);
  at::Tensor from = src.expand_as(dst);
  if (DenseSameLayout(dst, from)) {
    ProfileScope scope(false);
    nerva::Buffer d = StorageBuffer(dst), s = StorageBuffer(from);
    const long dst_off = OffsetBytes(dst), src_off = OffsetBytes(from);
    const long bytes = static_cast<long>(dst.nbytes());
    if (d == s && dst_off == src_off) return;
    if (d == s && std::abs(dst_off - src_off) < bytes) {
      // clEnqueueCopyBuffer refuses overlapping regions: go through a temporary.
      nerva::Buffer temp = GetSession().MakeBuffer(nerva::kMemReadWrite, bytes);
      GetQueue().CopyDeviceToDevice(temp, 0, s, src_off, bytes);
      GetQueue().CopyDeviceToDevice(d, dst_off, temp, 0, bytes);
      return;
    }
    GetQueue().CopyDeviceToDevice(d, dst_off, s, src_off, bytes);
    return;
  }
  if (dst.is_same(from) || (StorageBuffer(dst) == StorageBuffer(from) && StorageBuffer(dst))) {
    // Overlapping views of one storage: read everything before writing.
    at::Tensor temp = Empty(from.sizes(), from.scalar_type());
    DeviceCopy(temp, from, op);
    from = temp;
  }
  Operand in = call.In(from);
  Operand out = call.Out(dst);
  call.Run(nerva::Cast::Create(GetQueue(), in.opt, in.buf, out.opt, out.buf));
}

at::Tensor& ToOut(at::Tensor& out, const at::Tensor& result, const char* op) {
  if (out.sizes() != result.sizes()) out.resize_(result.sizes());
  DeviceCopy(out, result, op);
  return out;
}

namespace {

// copy_: host to device, device to host and device to device, any layouts.
at::Tensor& Copy(at::Tensor& self, const at::Tensor& src, bool non_blocking) {
  if (self.numel() == 0) return self;
  if (OnDevice(self) && OnDevice(src)) {
    DeviceCopy(self, src, "copy_");
    return self;
  }
  if (OnDevice(self)) {
    ProfileScope scope(true);
    // Host to device: convert and lay out on the host, one write of the bytes.
    ToNervaType(self.scalar_type(), "copy_");
    at::Tensor host = src.to(self.scalar_type()).expand_as(self).contiguous();
    std::lock_guard<std::recursive_mutex> lock(QueueMutex());
    at::Tensor target = self.is_contiguous() ? self : Empty(self.sizes(), self.scalar_type());
    GetQueue().CopyHostToDevice(StorageBuffer(target), OffsetBytes(target), host.data_ptr(),
                                static_cast<long>(host.nbytes()));
    if (!target.is_same(self)) DeviceCopy(self, target, "copy_");
    return self;
  }
  TORCH_CHECK(OnDevice(src), "nerva_torch: copy_ between ", self.device(), " and ", src.device());
  // Device to host: make the source dense on the device, one read of the bytes.
  std::lock_guard<std::recursive_mutex> lock(QueueMutex());
  ProfileScope scope(true);
  at::Tensor dense = src.expand_as(self);
  if (!dense.is_contiguous()) {
    at::Tensor temp = Empty(dense.sizes(), dense.scalar_type());
    DeviceCopy(temp, dense, "copy_");
    dense = temp;
  }
  at::Tensor host = at::empty(dense.sizes(), dense.options().device(at::kCPU));
  GetQueue().CopyDeviceToHost(host.data_ptr(), StorageBuffer(dense), OffsetBytes(dense),
                              static_cast<long>(host.nbytes()));
  self.copy_(host);
  return self;
}

at::Tensor CopyFrom(const at::Tensor& self, const at::Tensor& dst, bool non_blocking) {
  at::Tensor out = dst;
  Copy(out, self, non_blocking);
  return dst;
}

at::Tensor CopyFromAndResize(const at::Tensor& self, const at::Tensor& dst) {
  if (dst.sizes() != self.sizes()) dst.resize_(self.sizes());
  at::Tensor out = dst;
  Copy(out, self, false);
  return dst;
}

at::Tensor EmptyMemoryFormat(c10::SymIntArrayRef size, c10::optional<at::ScalarType> dtype,
                             c10::optional<at::Layout> layout, c10::optional<at::Device> device,
                             c10::optional<bool> pin_memory,
                             c10::optional<at::MemoryFormat> memory_format) {
  const auto type = dtype.value_or(at::get_default_dtype_as_scalartype());
  ToNervaType(type, "empty");
  return at::detail::empty_generic(c10::asIntArrayRefSlow(size), &g_allocator,
                                   c10::DispatchKeySet(c10::DispatchKey::PrivateUse1), type,
                                   memory_format);
}

at::Tensor EmptyStrided(c10::SymIntArrayRef size, c10::SymIntArrayRef stride,
                        c10::optional<at::ScalarType> dtype, c10::optional<at::Layout> layout,
                        c10::optional<at::Device> device, c10::optional<bool> pin_memory) {
  const auto type = dtype.value_or(at::get_default_dtype_as_scalartype());
  ToNervaType(type, "empty_strided");
  return at::detail::empty_strided_generic(
      c10::asIntArrayRefSlow(size), c10::asIntArrayRefSlow(stride), &g_allocator,
      c10::DispatchKeySet(c10::DispatchKey::PrivateUse1), type);
}

at::Tensor AsStrided(const at::Tensor& self, c10::SymIntArrayRef size, c10::SymIntArrayRef stride,
                     c10::optional<c10::SymInt> storage_offset) {
  c10::optional<int64_t> offset;
  if (storage_offset) offset = storage_offset->expect_int();
  return at::native::as_strided_tensorimpl(self, c10::asIntArrayRefSlow(size),
                                           c10::asIntArrayRefSlow(stride), offset);
}

at::Tensor View(const at::Tensor& self, c10::SymIntArrayRef size) {
  return at::native::view(self, c10::asIntArrayRefSlow(size));
}

at::Tensor ReshapeAlias(const at::Tensor& self, c10::SymIntArrayRef size,
                        c10::SymIntArrayRef stride) {
  return at::native::_reshape_alias(self, c10::asIntArrayRefSlow(size),
                                    c10::asIntArrayRefSlow(stride));
}

at::Tensor Unfold(const at::Tensor& self, int64_t dimension, int64_t size, int64_t step) {
  return at::native::unfold(self, dimension, size, step);
}

// resize_: a larger storage is a new buffer holding the old bytes.
const at::Tensor& Resize(const at::Tensor& self, c10::SymIntArrayRef size,
                         c10::optional<at::MemoryFormat> memory_format) {
  std::lock_guard<std::recursive_mutex> lock(QueueMutex());
  auto sizes = c10::asIntArrayRefSlow(size);
  auto* impl = self.unsafeGetTensorImpl();
  impl->set_sizes_contiguous(sizes);
  const auto format = memory_format.value_or(at::MemoryFormat::Contiguous);
  if (format != at::MemoryFormat::Preserve) impl->empty_tensor_restride(format);
  int64_t numel = 1;
  for (auto s : sizes) numel *= s;
  const size_t needed =
      numel == 0 ? 0 : static_cast<size_t>(self.storage_offset() + numel) * self.element_size();
  auto storage = self.storage();
  if (needed > storage.nbytes()) {
    c10::DataPtr fresh = g_allocator.allocate(needed);
    nerva::Buffer old = StorageBuffer(self);
    if (old && storage.nbytes() > 0) {
      GetQueue().CopyDeviceToDevice(*static_cast<nerva::Buffer*>(fresh.get_context()), 0, old, 0,
                                    static_cast<long>(storage.nbytes()));
    }
    storage.set_data_ptr_noswap(std::move(fresh));
    storage.set_nbytes(needed);
  }
  return self;
}

// The bytes of `value` as `type`, for a fill pattern.
std::vector<uint8_t> ScalarBytes(const at::Scalar& value, at::ScalarType type) {
  at::Tensor host = at::scalar_tensor(value, at::TensorOptions().dtype(type));
  const auto* p = static_cast<const uint8_t*>(host.data_ptr());
  return std::vector<uint8_t>(p, p + host.element_size());
}

at::Tensor& Fill(at::Tensor& self, const at::Scalar& value) {
  if (self.numel() == 0) return self;
  ToNervaType(self.scalar_type(), "fill_");
  std::lock_guard<std::recursive_mutex> lock(QueueMutex());
  at::Tensor target = self.is_non_overlapping_and_dense() && self.is_contiguous()
                          ? self
                          : Empty(self.sizes(), self.scalar_type());
  const auto pattern = ScalarBytes(value, self.scalar_type());
  GetQueue().FillBuffer(StorageBuffer(target), pattern.data(), pattern.size(), OffsetBytes(target),
                        static_cast<long>(target.nbytes()));
  if (!target.is_same(self)) DeviceCopy(self, target, "fill_");
  return self;
}

at::Tensor& FillTensor(at::Tensor& self, const at::Tensor& value) {
  TORCH_CHECK(value.dim() == 0, "nerva_torch: fill_ only supports 0-dimension value tensor");
  return Fill(self, value.item());
}

at::Tensor& Zero(at::Tensor& self) {
  return Fill(self, 0);
}

at::Scalar LocalScalarDense(const at::Tensor& self) {
  at::Tensor host = at::empty({}, self.options().device(at::kCPU));
  Copy(host, self, false);
  return host.item();
}

// The CPU fallback: a one-time warning per operator, an error under
// NERVA_TORCH_NO_FALLBACK=1; the operators seen are kept for the tests.
std::mutex g_fallback_mutex;
std::set<std::string>& FallbackOps() {
  static auto* ops = new std::set<std::string>();
  return *ops;
}

void Fallback(const c10::OperatorHandle& op, torch::jit::Stack* stack) {
  const auto& schema = op.schema();
  std::string name = schema.name();
  if (!schema.overload_name().empty()) name += "." + schema.overload_name();
  NoteFallback(name);
  at::native::cpu_fallback(op, stack);
}

std::vector<std::string> FallbackOpList() {
  std::lock_guard<std::mutex> lock(g_fallback_mutex);
  return std::vector<std::string>(FallbackOps().begin(), FallbackOps().end());
}

void ResetFallbackOps() {
  std::lock_guard<std::mutex> lock(g_fallback_mutex);
  FallbackOps().clear();
}

void Synchronize() {
  std::lock_guard<std::recursive_mutex> lock(QueueMutex());
  GetQueue().Wait();
}

void Seed(int64_t seed) {
  ManualSeed(static_cast<uint64_t>(seed));
}

int64_t DeviceCount() {
  return 1;
}

void SetProfiling(bool on) {
  Synchronize();
  g_profiling = on;
}

std::vector<double> ProfileCounters() {
  std::lock_guard<std::mutex> lock(g_profile_mutex);
  return {g_kernel_seconds, g_copy_seconds};
}

void ResetProfile() {
  std::lock_guard<std::mutex> lock(g_profile_mutex);
  g_kernel_seconds = g_copy_seconds = 0.0;
}

}  // namespace

void NoteFallback(const std::string& name) {
  const char* forbid = std::getenv("NERVA_TORCH_NO_FALLBACK");
  TORCH_CHECK(!(forbid && std::strcmp(forbid, "1") == 0), "nerva_torch: ", name,
              " has no nerva kernel and NERVA_TORCH_NO_FALLBACK=1 forbids the CPU fallback");
  bool first = false;
  {
    std::lock_guard<std::mutex> lock(g_fallback_mutex);
    first = FallbackOps().insert(name).second;
  }
  if (first) TORCH_WARN("nerva_torch: ", name, " has no nerva kernel; it runs on the CPU");
}

void ManualSeed(uint64_t seed) {
  std::lock_guard<std::recursive_mutex> lock(QueueMutex());
  GetSession().SetRandomSeed(static_cast<unsigned long>(seed), 0);
}

TORCH_LIBRARY(nerva, m) {
  m.def("fallback_ops() -> str[]", &FallbackOpList);
  m.def("reset_fallback_ops() -> ()", &ResetFallbackOps);
  m.def("synchronize() -> ()", &Synchronize);
  m.def("manual_seed(int seed) -> ()", &Seed);
  m.def("device_count() -> int", &DeviceCount);
  m.def("set_profiling(bool on) -> ()", &SetProfiling);
  m.def("profile() -> float[]", &ProfileCounters);
  m.def("reset_profile() -> ()", &ResetProfile);
}

TORCH_LIBRARY_IMPL(_, PrivateUse1, m) {
  m.fallback(torch::CppFunction::makeFromBoxedFunction<&Fallback>());
}

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  m.impl("empty.memory_format", TORCH_FN(EmptyMemoryFormat));
  m.impl("empty_strided", TORCH_FN(EmptyStrided));
  m.impl("as_strided", TORCH_FN(AsStrided));
  m.impl("view", TORCH_FN(View));
  m.impl("_reshape_alias", TORCH_FN(ReshapeAlias));
  m.impl("unfold", TORCH_FN(Unfold));
  m.impl("resize_", TORCH_FN(Resize));
  m.impl("copy_", TORCH_FN(Copy));
  m.impl("_copy_from", TORCH_FN(CopyFrom));
  m.impl("_copy_from_and_resize", TORCH_FN(CopyFromAndResize));
  m.impl("fill_.Scalar", TORCH_FN(Fill));
  m.impl("fill_.Tensor", TORCH_FN(FillTensor));
  m.impl("zero_", TORCH_FN(Zero));
  m.impl("_local_scalar_dense", TORCH_FN(LocalScalarDense));
}

}  // namespace nerva_torch
