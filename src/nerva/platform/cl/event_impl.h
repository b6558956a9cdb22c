#pragma once

#include <vector>

#include "nerva/event.h"
#include "nerva/platform/cl/cl_api.h"

namespace nerva {
namespace cl {

// A front-end event over one OpenCL event.
class EventImpl : public IEventImpl {
 public:
  explicit EventImpl(const ::cl::Event& event) : event_(event) {}
  const ::cl::Event& event() const { return event_; }

 private:
  ::cl::Event event_;
};

using ClEventVector = std::vector<::cl::Event>;

// Stands for the absence of an event.
extern const ::cl::Event kNullEvent;

// The OpenCL event inside `event`; empty for a null event or another platform's event.
::cl::Event ToClEvent(const Event& event);
ClEventVector ToClEventVector(const std::vector<Event>& events);

}  // namespace cl
}  // namespace nerva
