// nerva-info: lists the OpenCL platforms and devices and describes the device
// that Session("opencl", 0) opens.

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using nerva::DataType;

std::string DeviceTypeText(cl_device_type type) {
  if (type & CL_DEVICE_TYPE_GPU) return "GPU";
  if (type & CL_DEVICE_TYPE_CPU) return "CPU";
  if (type & CL_DEVICE_TYPE_ACCELERATOR) return "accelerator";
  return "other";
}

void ListPlatforms(cl_device_id session_device) {
  std::vector<cl::Platform> platforms;
  cl::Platform::get(&platforms);
  std::cout << "OpenCL platforms: " << platforms.size() << "\n";
  for (size_t p = 0; p < platforms.size(); ++p) {
    std::cout << "  [" << p << "] " << platforms[p].getInfo<CL_PLATFORM_NAME>() << " ("
              << platforms[p].getInfo<CL_PLATFORM_VERSION>() << ")\n";
    std::vector<cl::Device> devices;
    platforms[p].getDevices(CL_DEVICE_TYPE_ALL, &devices);
    for (size_t d = 0; d < devices.size(); ++d) {
      const bool opened = devices[d]() == session_device;
      std::cout << "    " << (opened ? "* " : "  ") << "[" << d << "] "
                << devices[d].getInfo<CL_DEVICE_NAME>() << " ["
                << DeviceTypeText(devices[d].getInfo<CL_DEVICE_TYPE>()) << "] "
                << devices[d].getInfo<CL_DEVICE_VERSION>() << "\n";
    }
  }
}

void DescribeSession(const nerva::Session& session, const nerva::cl::SessionImpl& impl) {
  const cl::Device& device = impl.device();
  std::cout << "\nSession(\"opencl\", 0) device: " << device.getInfo<CL_DEVICE_NAME>() << "\n"
            << "  compute units:        " << impl.compute_units() << "\n"
            << "  max work-group size:  " << impl.max_work_group_size() << "\n"
            << "  local memory:         " << impl.local_mem_size() << " bytes\n"
            << "  global memory:        " << device.getInfo<CL_DEVICE_GLOBAL_MEM_SIZE>()
            << " bytes\n"
            << "  driver:               " << device.getInfo<CL_DRIVER_VERSION>() << "\n"
            << "  extension options:   "
            << (impl.BuildExtensionOptions().empty() ? " (none)" : impl.BuildExtensionOptions())
            << "\n  extensions:\n";
  std::istringstream extensions(device.getInfo<CL_DEVICE_EXTENSIONS>());
  for (std::string ext; extensions >> ext;) std::cout << "    " << ext << "\n";
  std::cout << "  supported element types:\n";
  for (int code = nerva::kHalf; code <= nerva::kBool; ++code) {
    const auto type = static_cast<DataType>(code);
    std::cout << "    " << type << ": " << (session.SupportType(type) ? "yes" : "no") << "\n";
  }
}

}  // namespace

int main() {
  try {
    nerva::Session session("opencl", 0);
    auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
    ListPlatforms(impl->device()());
    DescribeSession(session, *impl);
  } catch (const std::exception& e) {
    ListPlatforms(nullptr);
    std::cerr << "Cannot open Session(\"opencl\", 0): " << e.what() << "\n";
    return 1;
  }
  return 0;
}
