#include "nerva/linvo_type.h"

#include <gtest/gtest.h>

#include "nerva/test_util.h"

namespace nerva {
namespace {

TEST(ConvertNervaTypeToLinvoTest, KeepsEveryTypeValue) {
  for (int value = kHalf; value <= kBool; ++value) {
    EXPECT_EQ(static_cast<int>(ConvertNervaTypeToLinvo(static_cast<DataType>(value))), value);
  }
}

TEST(ConvertNervaTypeToLinvoTest, RejectsValuesOutsideTheTable) {
  EXPECT_THROW_MSG(ConvertNervaTypeToLinvo(static_cast<DataType>(-1)), std::invalid_argument,
                   "Convert to linvo type fail, unsupport nerva type-1");
  EXPECT_THROW_MSG(ConvertNervaTypeToLinvo(static_cast<DataType>(15)), std::invalid_argument,
                   "Convert to linvo type fail, unsupport nerva type15");
}

}  // namespace
}  // namespace nerva
