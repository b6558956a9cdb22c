#include "nerva/util.h"

#include <cstdlib>

namespace nerva {

std::optional<std::string> EnvVar(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

}  // namespace nerva
