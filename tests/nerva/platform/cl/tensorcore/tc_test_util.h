#pragma once

// The one session of the tensor-core tests: its programs build against the test emulation
// of the device compiler's tensor-core headers (emulation/), and it reports the extension.

#include "nerva/platform/cl/cl_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace tensorcore_util {

inline Session& TcSession() {
  static Session session = [] {
    Session s("opencl", 0);
    std::dynamic_pointer_cast<SessionImpl>(s.impl())->EmulateTensorCoreForTesting(
        NERVA_TC_EMULATION_DIR);
    return s;
  }();
  return session;
}

inline Queue& TcQueue() {
  static Queue queue = TcSession().MakeQueue();
  return queue;
}

}  // namespace tensorcore_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
