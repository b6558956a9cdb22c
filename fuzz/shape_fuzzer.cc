// Shape construction and every shape operation on sizes, strides and axes
// from the input: reshape (with -1), transpose, slice, expand, insert, erase,
// reverse, broadcasting and axis normalisation.

#include <sstream>

#include "fuzz_util.h"
#include "nerva/shape.h"

namespace nerva::fuzz {
namespace {

Shape MakeShape(FuzzedDataProvider& in) {
  const std::vector<long> sizes = Extents(in);
  if (!in.ConsumeBool()) return Shape(sizes);
  std::vector<long> strides = Extents(in);
  if (in.ConsumeBool()) strides.resize(sizes.size(), 1);
  return Shape(sizes, ArrayRef<long>(strides));
}

std::vector<int> Order(FuzzedDataProvider& in, size_t ndim) {
  std::vector<int> order(in.ConsumeBool() ? ndim : in.ConsumeIntegralInRange<size_t>(0, 9));
  for (int& axis : order) axis = Axis(in);
  return order;
}

void Step(FuzzedDataProvider& in, Shape& shape) {
  switch (in.ConsumeIntegralInRange(0, 15)) {
    case 0:
      shape = shape.Reshape(Extents(in));
      break;
    case 1:
      shape.Reshape_(Extents(in));
      break;
    case 2:
      shape = shape.Transpose(Order(in, shape.ndim()));
      break;
    case 3: {
      const int start = Axis(in);
      shape = shape.Slice(start, Axis(in));
      break;
    }
    case 4:
      shape = shape.Expand(Axis(in));
      break;
    case 5: {
      const int axis = Axis(in);
      shape = shape.ExpandTo(axis, in.ConsumeIntegralInRange<size_t>(0, 12));
      break;
    }
    case 6: {
      const int axis = Axis(in);
      shape = shape.Insert(axis, Extent(in));
      break;
    }
    case 7:
      shape = shape.Erase(Axis(in));
      break;
    case 8:
      shape = shape.Reverse();
      break;
    case 9: {
      const int axis = Axis(in);
      (void)shape[axis];
      (void)shape.stride(axis);
      break;
    }
    case 10: {
      const Shape other = MakeShape(in);
      if (CanBroadcastShape(shape, other)) shape = BroadcastShape(shape, other);
      break;
    }
    case 11: {
      const std::vector<long> other = Extents(in);
      if (CanBroadcast(shape.sizes(), other)) shape = Shape(BroadcastSizes(shape.sizes(), other));
      break;
    }
    case 12: {
      const int axis = Axis(in);
      const size_t ndim = in.ConsumeIntegralInRange<size_t>(0, 12);
      (void)(GetRealAxis(axis, ndim) + GetRealAxisWithMaxDim(axis, ndim));
      break;
    }
    case 13: {
      std::ostringstream os;
      os << shape << shape.Str() << shape.size();
      break;
    }
    case 14:
      shape.ContiguousStrides();
      break;
    default:
      shape = MakeShape(in);
      break;
  }
}

}  // namespace
}  // namespace nerva::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace nerva::fuzz;
  FuzzedDataProvider in(data, size);
  nerva::Shape shape;
  AllowDocumentedErrors([&] { shape = MakeShape(in); });
  for (int step = 0; step < 16 && in.remaining_bytes() > 0; ++step) {
    AllowDocumentedErrors([&] { Step(in, shape); });
  }
  return 0;
}
