// Build-option strings and the texts substituted into device programs:
// BuildOption with definitions of every value kind, FloatToString of any
// float at any precision, and the per-type texts of any type code.

#include <cstring>

#include "fuzz_util.h"
#include "nerva/platform/cl/program.h"
#include "nerva/type_traits.h"

namespace nerva::fuzz {
namespace {

float AnyFloat(FuzzedDataProvider& in) {
  const uint32_t bits = in.ConsumeIntegral<uint32_t>();
  float value;
  std::memcpy(&value, &bits, sizeof(value));
  return value;
}

void Step(FuzzedDataProvider& in, cl::BuildOption& options) {
  const std::string name = in.ConsumeRandomLengthString(32);
  switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0:
      options.AddOption(name);
      break;
    case 1:
      options.AddOptionIf(in.ConsumeBool(), name);
      break;
    case 2:
      options.AddDefinition(name, in.ConsumeRandomLengthString(32));
      break;
    case 3:
      options.AddDefinitionAutoType(name, in.ConsumeIntegral<int>());
      break;
    case 4:
      options.AddDefinitionAutoType(name, in.ConsumeIntegral<long>());
      break;
    case 5:
      options.AddDefinitionAutoType(name, AnyFloat(in));
      break;
    case 6:
      options.AddDefinitionAutoType(name, in.ConsumeBool());
      break;
    default:
      (void)FloatToString(AnyFloat(in), in.ConsumeIntegralInRange<size_t>(0, 64), in.ConsumeBool());
      break;
  }
}

void TypeTexts(FuzzedDataProvider& in) {
  const DataType type = static_cast<DataType>(TypeCode(in));
  switch (in.ConsumeIntegralInRange(0, 4)) {
    case 0:
      (void)cl::GetDataTypeCode(type);
      break;
    case 1:
      (void)TypeTraitsHelper::GetMaxValueStr(type);
      break;
    case 2:
      (void)TypeTraitsHelper::GetMinValueStr(type);
      break;
    case 3:
      (void)TypeTraitsHelper::Str(type);
      break;
    default:
      (void)TypeTraitsHelper::TypePromote(type, static_cast<DataType>(TypeCode(in)));
      break;
  }
}

}  // namespace
}  // namespace nerva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace nerva::fuzz;
  FuzzedDataProvider in(data, size);
  nerva::cl::BuildOption options;
  for (int step = 0; step < 32 && in.remaining_bytes() > 0; ++step) {
    AllowDocumentedErrors([&] { in.ConsumeBool() ? Step(in, options) : TypeTexts(in); });
  }
  (void)options.str();
  return 0;
}
