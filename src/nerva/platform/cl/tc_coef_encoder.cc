#include "nerva/platform/cl/module.h"

namespace nerva {
namespace cl {

// No coefficient encoder is offered on this platform yet; every encoding
// request fails in SessionImpl::EncodeCoefImpl.
void RegisterTCCoefEncoder(ClModule& /*module*/) {}

}  // namespace cl
}  // namespace nerva
