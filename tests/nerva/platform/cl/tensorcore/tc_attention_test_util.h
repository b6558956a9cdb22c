#pragma once

// Helpers of the tensor-core attention tests: the emulating session as a target.

#include <string>
#include <vector>

#include "nerva/platform/cl/attention/sdpa_test_util.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
inline namespace tc_attention_util {

// The emulating session as an attention test target.
inline AttentionTarget TcTarget() {
  return AttentionTarget{&TcSession(), &TcQueue()};
}

}  // namespace tc_attention_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
