#include "nerva/platform/cl/event_impl.h"

namespace nerva {
namespace cl {

const ::cl::Event kNullEvent;

::cl::Event ToClEvent(const Event& event) {
  auto* impl = dynamic_cast<const EventImpl*>(event.get());
  return impl ? impl->event() : kNullEvent;
}

ClEventVector ToClEventVector(const std::vector<Event>& events) {
  ClEventVector out;
  out.reserve(events.size());
  for (const Event& event : events) out.push_back(ToClEvent(event));
  return out;
}

}  // namespace cl
}  // namespace nerva
