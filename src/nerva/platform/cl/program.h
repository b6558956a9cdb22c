#pragma once

#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/type_traits.h"

namespace nerva {
namespace cl {

class KernelUnit;

// Device program texts compiled into the library, keyed by file name
// ("activation.cl", "common.h", "tensorcore/matmul.cl").
class SourceManager {
 public:
  static SourceManager& singleton();

  // A name already present keeps its first text; the duplicate is ignored.
  void AddClSource(const std::string& name, const char* text);
  // The texts of `names`, in order; an unknown name throws.
  std::vector<const char*> Load(const std::vector<std::string>& names) const;
  const std::map<std::string, const char*>& sources() const { return sources_; }

 private:
  SourceManager() = default;
  std::map<std::string, const char*> sources_;
};

// Fills the registry with every embedded text (generated at build time).
void RegisterClKernelSource(SourceManager& manager);

// A program build-option string; every item is appended with one leading blank.
class BuildOption {
 public:
  BuildOption() = default;
  // Not explicit: a list of items converts to the options it spells.
  BuildOption(std::vector<std::string> options);

  BuildOption& AddOption(const std::string& opt);
  BuildOption& AddOptionIf(bool cond, const std::string& opt);
  BuildOption& AddDefinition(const std::string& name, const std::string& value);
  template <typename T>
  BuildOption& AddDefinitionAutoType(const std::string& name, T value) {
    return AddDefinition(name, ValueText(value));
  }

  const std::string& str() const { return options_; }

 private:
  static std::string ValueText(bool value) { return value ? "1" : "0"; }
  static std::string ValueText(float value) { return FloatToString(value, 9, false); }
  template <typename T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
  static std::string ValueText(T value) {
    return std::to_string(value);
  }

  std::string options_;
};

// The OpenCL C spelling of an element type ("float", "half", "bhalf", ...).
std::string GetDataTypeCode(DataType type);

// A built program; kernel units are cut out of it by name.
class Program {
 public:
  virtual ~Program() = default;
  const std::string& name() const { return name_; }
  const ::cl::Program& program() const { return program_; }
  std::shared_ptr<KernelUnit> CreateKernel(const std::string& kernel_name) const;

 protected:
  explicit Program(std::string name) : name_(std::move(name)) {}
  std::string name_;
  ::cl::Program program_;
};

// A program compiled from registered sources, as one translation unit in list order.
class ClSourceProgram : public Program {
 public:
  ClSourceProgram(std::shared_ptr<SessionImpl> session, const std::string& name,
                  std::vector<std::string> sources, const BuildOption& options);
};

template <typename ProgramType>
std::shared_ptr<Program> SessionImpl::LoadOrBuildProgram(const std::string& key,
                                                         const std::vector<std::string>& sources,
                                                         const BuildOption& options) {
  if (auto cached = TryLoadCachedProgram(key)) return cached;
  auto program = std::make_shared<ProgramType>(shared_from_this(), key, sources, options);
  programs_[key] = program;
  return program;
}

}  // namespace cl
}  // namespace nerva
