#include "nerva/platform/cl/kernel_impl.h"

#include <algorithm>
#include <climits>
#include <limits>
#include <stdexcept>

#include "nerva/argument_check.h"
#include "nerva/platform/cl/buffer_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

// Contiguous byte strides of `sizes` (tensor order) for items of `item_size` bytes.
std::vector<long> ContiguousByteStrides(const std::vector<long>& sizes, long item_size) {
  std::vector<long> strides(sizes.size());
  long stride = item_size;
  for (size_t i = sizes.size(); i-- > 0;) {
    strides[i] = stride;
    // Saturates on a shape edited past its limits; the field check then refuses it.
    if (__builtin_mul_overflow(stride, sizes[i], &stride)) stride = LONG_MAX;
  }
  return strides;
}

}  // namespace

namespace {

thread_local const std::string* current_kernel_name = nullptr;

// A byte count for a 32-bit device field; refused rather than truncated.
uint32_t DeviceField(long value, const char* what) {
  if (value < 0 || value > static_cast<long>(std::numeric_limits<uint32_t>::max())) {
    throw std::runtime_error(StrCat(KernelNameScope::Current(), ": ", what, " ", value,
                                    " does not fit the device's 32-bit field"));
  }
  return static_cast<uint32_t>(value);
}

// The buffer must be an OpenCL buffer holding every byte the view can reach.
void CheckInBuffer(const Shape& shape, DataType dtype, const std::vector<long>& byte_strides,
                   long offset, const Buffer& buffer) {
  const auto fail = [&](const std::string& problem) {
    throw std::invalid_argument(StrCat(KernelNameScope::Current(), ": tensor ", dtype, " ", shape,
                                       " with byte strides ", byte_strides, " at byte offset ",
                                       offset, " ", problem));
  };
  if (byte_strides.size() != shape.ndim()) fail("has a stride count that differs from its rank");
  if (buffer && dynamic_cast<const BufferImpl*>(buffer.get()) == nullptr) {
    fail("is bound to a buffer that is not an OpenCL buffer");
  }
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(dtype));
  const ByteExtent extent = TensorByteExtent(shape.sizes(), byte_strides, item, offset);
  if (extent.first == extent.last) return;
  if (!buffer) fail(StrCat("reaches ", extent.last - extent.first, " bytes of a null buffer"));
  if (extent.first < 0 || extent.last > buffer.size()) {
    fail(StrCat("reaches bytes [", extent.first, ", ", extent.last, "), but its buffer holds ",
                buffer.size(), " bytes"));
  }
}

}  // namespace

KernelNameScope::KernelNameScope(const std::string& name) : previous_(current_kernel_name) {
  current_kernel_name = &name;
}

KernelNameScope::~KernelNameScope() {
  current_kernel_name = previous_;
}

const std::string& KernelNameScope::Current() {
  static const std::string kDefault = "CL tensor";
  return current_kernel_name ? *current_kernel_name : kDefault;
}

ClTensor::ClTensor(const Shape& shape, DataType dtype, const Buffer& buffer,
                   const std::vector<uint32_t>& steps, uint32_t offset, bool reversed,
                   std::optional<std::vector<long>> strides)
    : dtype_(dtype),
      shape_(reversed ? shape.Reverse() : shape),
      offset_(offset),
      reversed_(reversed),
      buffer_(buffer) {
  std::vector<long> byte_strides =
      strides ? *strides
              : ContiguousByteStrides(shape.sizes(),
                                      static_cast<long>(TypeTraitsHelper::GetSize(dtype)));
  std::vector<long> device_strides = byte_strides;
  if (reversed) std::reverse(device_strides.begin(), device_strides.end());
  for (size_t i = 0; i < device_strides.size(); ++i) {
    strides_.push_back(DeviceField(device_strides[i], "byte stride"));
    const uint32_t step = i < steps.size() ? steps[i] : 1;
    long step_bytes = 0;
    if (__builtin_mul_overflow(device_strides[i], static_cast<long>(step), &step_bytes)) {
      step_bytes = -1;  // reported as not fitting
    }
    steps_.push_back(DeviceField(step_bytes, "byte step"));
  }
  CheckInBuffer(shape, dtype, byte_strides, offset, buffer);
  mem_ = buffer ? static_cast<cl_mem>(buffer.UnsafeGetPtr()) : nullptr;
}

namespace {
const Tensor& DefinedTensor(const Tensor& tensor) {
  if (!tensor.defined()) throw std::runtime_error("Cannot convert undefined tensor to cltensor.");
  return tensor;
}
// The step list that puts `step` on the innermost dimension.
std::vector<uint32_t> InnermostStep(size_t rank, uint32_t step, bool reversed) {
  std::vector<uint32_t> steps(rank, 1);
  if (rank) steps[reversed ? 0 : rank - 1] = step;
  return steps;
}
}  // namespace

ClTensor::ClTensor(const Tensor& tensor, uint32_t step, bool reversed)
    : ClTensor(DefinedTensor(tensor).shape(), DefinedTensor(tensor).dtype(),
               DefinedTensor(tensor).storage(),
               InnermostStep(DefinedTensor(tensor).shape().ndim(), step, reversed),
               DeviceField(DefinedTensor(tensor).storage_offset(), "byte offset"), reversed,
               DefinedTensor(tensor).strides_in_bytes()) {}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const Buffer& buffer) {
  cl_mem mem = static_cast<cl_mem>(buffer.UnsafeGetPtr());
  return clSetKernelArg(kernel, index++, sizeof(cl_mem), &mem);
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const ClTensor& tensor) {
  cl_mem mem = tensor.mem();
  cl_int status = clSetKernelArg(kernel, index++, sizeof(cl_mem), &mem);
  for (size_t i = 0; status == CL_SUCCESS && i < tensor.strides().size(); ++i) {
    status = SetKernelArgsHelper(kernel, index, tensor.strides()[i], tensor.steps()[i]);
  }
  return status == CL_SUCCESS ? SetKernelArg(kernel, index, tensor.offset()) : status;
}

cl_int SetKernelArg(cl_kernel kernel, unsigned& index, const std::vector<ClTensor>& tensors) {
  for (const auto& tensor : tensors) {
    cl_int status = SetKernelArg(kernel, index, tensor);
    if (status != CL_SUCCESS) return status;
  }
  return CL_SUCCESS;
}

KernelUnit::KernelUnit(const std::string& kernel_name, cl_program program) : name_(kernel_name) {
  cl_int status = CL_SUCCESS;
  cl_kernel kernel = clCreateKernel(program, kernel_name.c_str(), &status);
  CheckStatus(status, "Create CL kernel " + kernel_name + " program fail, reason: ");
  kernel_ = ::cl::Kernel(kernel);
}

void KernelUnit::CheckArgs(cl_int status) const {
  CheckStatus(status, "Set " + name_ + " kernel arguments fail, reason: ");
}

KernelUnit& KernelUnit::SetGlobal(const std::vector<size_t>& global,
                                  const std::vector<size_t>& steps) {
  if (steps.size() > global.size()) {
    throw std::invalid_argument(
        StrCat("Invalid step size ", steps.size(), " > global size ", global.size()));
  }
  if (global.size() > 3) {
    throw std::runtime_error("CL don't support ndrange size greater than 3.");
  }
  global_sizes_ = global;
  for (size_t i = 0; i < steps.size(); ++i) {
    global_sizes_[i] = (global_sizes_[i] + steps[i] - 1) / steps[i];
  }
  global_ = VectorToNDRange(global_sizes_);
  return *this;
}

KernelUnit& KernelUnit::SetLocal(const std::vector<size_t>& local) {
  if (local.size() > 3) throw std::runtime_error("CL don't support ndrange size greater than 3.");
  local_ = VectorToNDRange(local);
  global_sizes_ = AdjustGlobalSizeWithLocal(global_sizes_, local);
  global_ = VectorToNDRange(global_sizes_);
  return *this;
}

::cl::NDRange KernelUnit::VectorToNDRange(const std::vector<size_t>& sizes) {
  switch (sizes.size()) {
    case 0:
      return ::cl::NDRange();
    case 1:
      return ::cl::NDRange(sizes[0]);
    case 2:
      return ::cl::NDRange(sizes[0], sizes[1]);
    case 3:
      return ::cl::NDRange(sizes[0], sizes[1], sizes[2]);
    default:
      throw std::runtime_error("CL don't support ndrange size greater than 3.");
  }
}

std::shared_ptr<KernelUnit> KernelImpl::MakeSubKernel(std::shared_ptr<SessionImpl> session,
                                                      const std::string& program_name,
                                                      const std::vector<std::string>& sources,
                                                      const BuildOption& options,
                                                      const std::string& kernel_name) {
  const std::string key = program_name + "(" + options.str() + ")";
  auto program = session->LoadOrBuildProgram<ClSourceProgram>(key, sources, options);
  auto unit = program->CreateKernel(kernel_name);
  if (session_.expired()) session_ = session;
  units_.push_back(unit);
  return unit;
}

void KernelImpl::AppendUnits(const KernelImpl& part) {
  units_.insert(units_.end(), part.units_.begin(), part.units_.end());
  if (session_.expired()) session_ = part.session_;
}

}  // namespace cl
}  // namespace nerva
