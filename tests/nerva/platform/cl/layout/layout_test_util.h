#pragma once

// Layout tests: element bits are random bytes and every reference is
// a map from output coordinates to input coordinates (or to a fill value),
// walked plainly on the host over the input's strides.

#include <functional>
#include <random>
#include <vector>

#include "nerva/platform/cl/cl_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
// Each family's helpers get their own link names: every family links into
// one test binary, and same-named helpers must not replace each other.
inline namespace layout_util {

// A device tensor over a buffer of random bytes: `sizes` with element
// `strides` (contiguous when empty) in a buffer of `span` elements.
struct DevTensor {
  TensorOption opt;
  Buffer buf;
  std::vector<uint8_t> bytes;  // the buffer's content
};

inline DevTensor RandomTensor(std::vector<long> sizes, DataType type,
                              std::vector<long> strides = {}, unsigned seed = 1) {
  Shape shape = strides.empty() ? Shape(sizes) : Shape(sizes, strides);
  long span = 1;
  for (size_t d = 0; d < sizes.size(); ++d) span += (sizes[d] - 1) * shape.strides()[d];
  for (long s : sizes) span = s == 0 ? 1 : span;
  const size_t item = TypeTraitsHelper::GetSize(type);
  DevTensor t{TensorOption{shape, type}, Buffer(), std::vector<uint8_t>(span * item)};
  std::mt19937 gen(seed);
  for (auto& b : t.bytes) b = static_cast<uint8_t>(gen() & 0x7F);  // no NaN half patterns
  t.buf = TestSession().MakeBuffer(kMemReadWrite, static_cast<long>(t.bytes.size()));
  TestQueue().CopyHostToDevice(t.buf, t.bytes.data(), static_cast<long>(t.bytes.size()));
  return t;
}

// RandomTensor's tensor seen through a sub-buffer that starts `offset` bytes
// into a larger buffer (whose leading bytes are random too).
inline DevTensor OffsetTensor(std::vector<long> sizes, DataType type, std::vector<long> strides,
                              long offset) {
  DevTensor t = RandomTensor(sizes, type, strides, 5);
  std::vector<uint8_t> whole(offset, 0x3C);
  whole.insert(whole.end(), t.bytes.begin(), t.bytes.end());
  Buffer parent = TestSession().MakeBuffer(kMemReadWrite, static_cast<long>(whole.size()));
  TestQueue().CopyHostToDevice(parent, whole.data(), static_cast<long>(whole.size()));
  t.buf = parent.View(offset, static_cast<long>(t.bytes.size()), 0);
  return t;
}

inline DevTensor OutTensor(std::vector<long> sizes, DataType type) {
  DevTensor t = RandomTensor(sizes, type, {}, 99);  // garbage that must be overwritten
  return t;
}

inline std::vector<uint8_t> Read(const DevTensor& t) {
  std::vector<uint8_t> out(t.bytes.size());
  TestQueue().CopyDeviceToHost(out.data(), t.buf, static_cast<long>(out.size()));
  return out;
}

// For output coordinates, the input coordinates it reads; false to expect `fill`.
using SourceMap = std::function<bool(const std::vector<long>& out, std::vector<long>* in)>;

// Compares every element of `out` (contiguous) with the reference.
inline void ExpectMoved(const DevTensor& out, const DevTensor& in, const SourceMap& map,
                        const std::vector<uint8_t>& fill = {}) {
  const std::vector<uint8_t> got = Read(out);
  const auto& sizes = out.opt.shape.sizes();
  const size_t item = out.opt.item_size();
  const long n = out.opt.shape.size();
  std::vector<long> c(sizes.size(), 0), src;
  for (long i = 0; i < n; ++i) {
    long rest = i;
    for (size_t d = sizes.size(); d-- > 0;) {
      c[d] = rest % sizes[d];
      rest /= sizes[d];
    }
    std::vector<uint8_t> want(item, 0);
    if (map(c, &src)) {
      long at = 0;
      for (size_t d = 0; d < src.size(); ++d) at += src[d] * in.opt.shape.strides()[d];
      std::copy_n(in.bytes.begin() + at * item, item, want.begin());
    } else {
      want = fill.empty() ? std::vector<uint8_t>(item, 0) : fill;
    }
    const std::vector<uint8_t> have(got.begin() + i * item, got.begin() + (i + 1) * item);
    ASSERT_EQ(have, want) << "element " << i << " of " << out.opt.shape;
  }
}

// A permutation case: the input's sizes, its strides (empty: contiguous) and dims.
struct PermuteCase {
  std::vector<long> sizes;
  std::vector<long> strides;
  std::vector<int> dims;
};

// Runs Permute on a random input of case `c` and compares every element.
inline void CheckPermute(const PermuteCase& c, DataType type) {
  SCOPED_TRACE(StrCat(Shape(c.sizes), " ", type));
  DevTensor in = RandomTensor(c.sizes, type, c.strides);
  std::vector<int> order;
  std::vector<long> out_sizes;
  for (int d : c.dims) order.push_back(d < 0 ? d + static_cast<int>(c.sizes.size()) : d);
  for (int d : order) out_sizes.push_back(c.sizes[d]);
  DevTensor out = OutTensor(out_sizes, type);
  TestQueue().Enqueue(
      Permute::Create(TestQueue(), PermuteOption{c.dims}, in.opt, in.buf, out.opt, out.buf));
  ExpectMoved(out, in, [&](const std::vector<long>& o, std::vector<long>* i) {
    i->assign(o.size(), 0);
    for (size_t d = 0; d < o.size(); ++d) (*i)[order[d]] = o[d];
    return true;
  });
}

}  // namespace layout_util
}  // namespace testing
}  // namespace cl
}  // namespace nerva
