// Layout operators on sub-buffer inputs, half and int64 elements, every pad
// mode on several padded dims, and concatenation of mixed types.

#include <algorithm>
#include <cmath>
#include <cstring>

#include "linvo/conversion.h"
#include "nerva/platform/cl/layout/layout_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

constexpr long kOffset = 256;  // bytes before the sub-buffer's first byte

TEST(LayoutViews, SubBufferInputsOfHalfAndInt64) {
  for (DataType type : {kHalf, kInt64}) {
    // A transpose with whole and cut blocks, from a strided sub-buffer view.
    DevTensor m = OffsetTensor({70, 131}, type, {133, 1}, kOffset);
    DevTensor mt = OutTensor({131, 70}, type);
    TestQueue().Enqueue(
        Permute::Create(TestQueue(), PermuteOption{{1, 0}}, m.opt, m.buf, mt.opt, mt.buf));
    ExpectMoved(mt, m, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1], o[0]};
      return true;
    });
    DevTensor x = OffsetTensor({3, 5, 9}, type, {}, kOffset);
    DevTensor s = OutTensor({3, 2, 9}, type);
    TestQueue().Enqueue(Slice::Create(TestQueue(), SliceOption{{0, 1}, {3, 5}, {1, 2}}, x.opt,
                                      x.buf, s.opt, s.buf));
    ExpectMoved(s, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[0], 1 + 2 * o[1], o[2]};
      return true;
    });
    DevTensor f = OutTensor({3, 5, 9}, type);
    TestQueue().Enqueue(Flip::Create(TestQueue(), FlipOption{{1, 2}}, x.opt, x.buf, f.opt, f.buf));
    ExpectMoved(f, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[0], 4 - o[1], 8 - o[2]};
      return true;
    });
    DevTensor r = OutTensor({3, 5, 9}, type);
    TestQueue().Enqueue(
        Roll::Create(TestQueue(), RollOption{{-2, 4}, {1, 2}}, x.opt, x.buf, r.opt, r.buf));
    ExpectMoved(r, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[0], (o[1] + 2) % 5, (o[2] + 5) % 9};
      return true;
    });
    DevTensor rp = OutTensor({2, 3, 10, 9}, type);
    TestQueue().Enqueue(
        Repeat::Create(TestQueue(), RepeatOption{{2, 1, 2, 1}, 0}, x.opt, x.buf, rp.opt, rp.buf));
    ExpectMoved(rp, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1], o[2] % 5, o[3]};
      return true;
    });
    DevTensor b = OutTensor({2, 3, 5, 9}, type);
    TestQueue().Enqueue(BroadcastTo::Create(TestQueue(), x.opt, x.buf, b.opt, b.buf));
    ExpectMoved(b, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1], o[2], o[3]};
      return true;
    });
    DevTensor c = OutTensor({3, 10, 9}, type);
    TestQueue().Enqueue(
        Concat::Create(TestQueue(), ConcatOption{1}, {x.opt, x.opt}, {x.buf, x.buf}, c.opt, c.buf));
    ExpectMoved(c, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[0], o[1] % 5, o[2]};
      return true;
    });
  }
}

// Every mode with positive pads on up to three dims: the interior moves and
// the border slabs, corners included.
TEST(LayoutPad, EveryModeOnSeveralDims) {
  const std::vector<long> pads[] = {{2, 1, 3, 4}, {1, 2, 0, 3, 2, 1}, {0, 0, 1, 0}};
  const std::vector<long> sizes = {3, 5, 6};
  for (DataType type : {kHalf, kInt64}) {
    const size_t item = TypeTraitsHelper::GetSize(type);
    for (const auto& pad : pads) {
      for (int mode = 0; mode < 4; ++mode) {
        DevTensor in = OffsetTensor(sizes, type, {1, 18, 3}, kOffset);
        std::vector<long> before(3, 0), out_sizes = sizes;
        for (size_t k = 0; k < pad.size() / 2; ++k) {
          before[2 - k] = pad[2 * k];
          out_sizes[2 - k] += pad[2 * k] + pad[2 * k + 1];
        }
        DevTensor out = OutTensor(out_sizes, type);
        TestQueue().Enqueue(Pad::Create(TestQueue(),
                                        PadOption{pad, static_cast<PadMode>(mode), 3.0}, in.opt,
                                        in.buf, out.opt, out.buf));
        const auto map = [&](long c, long n) -> long {
          if (mode == 0) return c >= 0 && c < n ? c : -1;
          if (mode == 1) return c < 0 ? -c : (c >= n ? 2 * (n - 1) - c : c);
          if (mode == 2) return std::clamp(c, 0L, n - 1);
          return ((c % n) + n) % n;
        };
        std::vector<uint8_t> fill(item);
        const uint64_t bits = type == kHalf ? linvo::FloatToHalf(3.0f) : 3;
        std::memcpy(fill.data(), &bits, item);
        ExpectMoved(
            out, in,
            [&](const std::vector<long>& o, std::vector<long>* i) {
              i->resize(3);
              for (size_t d = 0; d < 3; ++d) {
                (*i)[d] = map(o[d] - before[d], sizes[d]);
                if ((*i)[d] < 0) return false;
              }
              return true;
            },
            fill);
      }
    }
  }
}

// torch.cat promotes: float with half and int64 gives float, int8 with
// uint8 gives int16, bool with int32 gives int32.
TEST(LayoutConcat, MixedTypesPromote) {
  struct Case {
    DataType a, b, out;
  } cases[] = {{kHalf, kFloat, kFloat},
               {kInt64, kHalf, kHalf},
               {kInt8, kUInt8, kInt16},
               {kBool, kInt32, kInt32}};
  const auto value = [](DataType type, const uint8_t* p) -> double {
    switch (type) {
      case kHalf: {
        uint16_t h;
        std::memcpy(&h, p, 2);
        return linvo::HalfToFloat(h);
      }
      case kFloat: {
        float f;
        std::memcpy(&f, p, 4);
        return f;
      }
      case kInt8:
        return static_cast<int8_t>(*p);
      case kUInt8:
        return *p;
      case kBool:
        return *p != 0;
      case kInt16: {
        int16_t v;
        std::memcpy(&v, p, 2);
        return v;
      }
      case kInt32: {
        int32_t v;
        std::memcpy(&v, p, 4);
        return v;
      }
      default: {
        int64_t v;
        std::memcpy(&v, p, 8);
        return static_cast<double>(v);
      }
    }
  };
  for (const Case& c : cases) {
    DevTensor a = RandomTensor({4, 3}, c.a, {}, 11);
    DevTensor b = OffsetTensor({4, 5}, c.b, {1, 4}, kOffset);  // transposed sub-buffer view
    if (c.a == kBool || c.a == kInt64) {  // bool bytes are 0 or 1; int64 fits a half
      for (size_t k = 0; k < a.bytes.size(); ++k) {
        a.bytes[k] &= c.a == kBool ? 1 : (k % 8 == 0 ? 0xFF : k % 8 == 1 ? 0x07 : 0);
      }
      TestQueue().CopyHostToDevice(a.buf, a.bytes.data(), static_cast<long>(a.bytes.size()));
    }
    DevTensor out = OutTensor({4, 8}, c.out);
    TestQueue().Enqueue(Concat::Create(TestQueue(), ConcatOption{1}, {a.opt, b.opt}, {a.buf, b.buf},
                                       out.opt, out.buf));
    const std::vector<uint8_t> got = Read(out);
    const size_t oi = TypeTraitsHelper::GetSize(c.out);
    for (long i = 0; i < 4; ++i)
      for (long j = 0; j < 8; ++j) {
        const DevTensor& src = j < 3 ? a : b;
        const auto& st = src.opt.shape.strides();
        const long at = i * st[0] + (j < 3 ? j : j - 3) * st[1];
        const double want = value(src.opt.dtype, src.bytes.data() + at * src.opt.item_size());
        const double have = value(c.out, got.data() + (i * 8 + j) * oi);
        if (std::isnan(want)) {  // random half bits may be NaN
          ASSERT_TRUE(std::isnan(have));
          continue;
        }
        ASSERT_DOUBLE_EQ(have, want) << c.a << "+" << c.b << " at " << i << "," << j;
      }
  }
  DevTensor a = RandomTensor({2, 3}, kInt8), b = RandomTensor({2, 3}, kUInt8);
  DevTensor wrong = OutTensor({4, 3}, kInt8);
  EXPECT_THROW_HAS(Concat::Create(TestQueue(), ConcatOption{0}, {a.opt, b.opt}, {a.buf, b.buf},
                                  wrong.opt, wrong.buf),
                   std::invalid_argument, {"Concat", "out"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
