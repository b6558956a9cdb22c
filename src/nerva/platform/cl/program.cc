#include "nerva/platform/cl/program.h"

#include <algorithm>
#include <cctype>
#include <stdexcept>

#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {

SourceManager& SourceManager::singleton() {
  static SourceManager manager = [] {
    SourceManager filled;
    RegisterClKernelSource(filled);
    return filled;
  }();
  return manager;
}

void SourceManager::AddClSource(const std::string& name, const char* text) {
  if (sources_.count(name)) {
    // Deliberately ignored: the first registration wins.
    std::runtime_error ignored("Source \"" + name + "\" has been added.");
    (void)ignored;
    return;
  }
  sources_.emplace(name, text);
}

std::vector<const char*> SourceManager::Load(const std::vector<std::string>& names) const {
  std::vector<const char*> texts;
  texts.reserve(names.size());
  for (const auto& name : names) {
    auto it = sources_.find(name);
    if (it == sources_.end()) {
      throw std::runtime_error("Source \"" + name + "\" was not found.");
    }
    texts.push_back(it->second);
  }
  return texts;
}

BuildOption::BuildOption(std::vector<std::string> options) {
  for (const auto& opt : options) AddOption(opt);
}

BuildOption& BuildOption::AddOption(const std::string& opt) {
  options_ += " " + opt;
  return *this;
}

BuildOption& BuildOption::AddOptionIf(bool cond, const std::string& opt) {
  return cond ? AddOption(opt) : *this;
}

BuildOption& BuildOption::AddDefinition(const std::string& name, const std::string& value) {
  return AddOption("-D" + name + "=" + value);
}

namespace {
bool IsBlank(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return std::isspace(static_cast<unsigned char>(c)); });
}
}  // namespace

std::string GetDataTypeCode(DataType type) {
  static const char* const kNames[] = {"half",  "bhalf", "float",    "double",   "char",
                                       "short", "int",   "long",     "uchar",    "ushort",
                                       "uint",  "ulong", "fp8_e4m3", "fp8_e5m2", "char"};
  const int code = static_cast<int>(type);
  if (code < 0 || code > 14) {
    throw std::invalid_argument("Unsupport data_type: " + std::to_string(code));
  }
  return kNames[code];
}

std::shared_ptr<KernelUnit> Program::CreateKernel(const std::string& kernel_name) const {
  if (program_() == nullptr) {
    throw std::runtime_error("Create kernel " + kernel_name + ", program " + name_ + " is invalid");
  }
  return std::make_shared<KernelUnit>(kernel_name, program_());
}

ClSourceProgram::ClSourceProgram(std::shared_ptr<SessionImpl> session, const std::string& name,
                                 std::vector<std::string> sources, const BuildOption& options)
    : Program(name) {
  std::vector<const char*> texts = SourceManager::singleton().Load(sources);
  cl_int status = CL_SUCCESS;
  cl_program program = clCreateProgramWithSource(
      session->context()(), static_cast<cl_uint>(texts.size()), texts.data(), nullptr, &status);
  CheckStatus(status, "Create CL kernel " + name + " program fail, reason: ");
  ::cl::Program holder(program);  // released on every exit
  const std::string flags = session->BuildFlags(options.str());
  cl_device_id device = session->device()();
  status = clBuildProgram(program, 1, &device, flags.c_str(), nullptr, nullptr);
  // A failure without a single diagnostic is the driver's, not the source's
  // (seen on a loaded machine with several processes filling one program
  // cache): build once more before reporting it.
  if (status == CL_BUILD_PROGRAM_FAILURE && IsBlank(session->GetBuildLog(program))) {
    status = clBuildProgram(program, 1, &device, flags.c_str(), nullptr, nullptr);
  }
  if (status != CL_SUCCESS) {
    throw std::runtime_error("Compile CL kernel " + name +
                             " program fail, reason:\nerrcode: " + StrErrcode(status) +
                             "\nflags: " + flags + "\n" + session->GetBuildLog(program));
  }
  program_ = holder;
}

}  // namespace cl
}  // namespace nerva
