// Pad, DepthToSpace, SpaceToDepth, Concat, Split, the scatters and backwards,
// Repeat_Interleave and StridedCopy.

#include "nerva/platform/cl/layout/layout_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

TEST(LayoutPad, EveryModeWithCrop) {
  const float value = 2.5f;
  std::vector<uint8_t> fill(4);
  std::memcpy(fill.data(), &value, 4);
  const long H = 5, W = 6;
  for (int mode = 0; mode < 4; ++mode) {
    DevTensor in = RandomTensor({2, H, W}, kFloat, {1, 12, 2});
    const std::vector<long> pad = {2, -1, 3, 4};  // W: (2, -1), H: (3, 4)
    DevTensor out = OutTensor({2, H + 7, W + 1}, kFloat);
    TestQueue().Enqueue(Pad::Create(TestQueue(), PadOption{pad, static_cast<PadMode>(mode), 2.5},
                                    in.opt, in.buf, out.opt, out.buf));
    const auto map = [&](long c, long n) -> long {
      if (mode == 0) return c >= 0 && c < n ? c : -1;
      if (mode == 1) return c < 0 ? -c : (c >= n ? 2 * (n - 1) - c : c);
      if (mode == 2) return std::clamp(c, 0L, n - 1);
      return ((c % n) + n) % n;
    };
    ExpectMoved(
        out, in,
        [&](const std::vector<long>& o, std::vector<long>* i) {
          const long h = map(o[1] - 3, H), w = map(o[2] - 2, W);
          *i = {o[0], h, w};
          return h >= 0 && w >= 0;
        },
        fill);
  }
  DevTensor in = RandomTensor({2, 3}, kFloat);
  DevTensor out = OutTensor({2, 9}, kFloat);
  EXPECT_THROW_HAS(Pad::Create(TestQueue(), PadOption{{3, 3}, PadMode::kReflect, 0}, in.opt, in.buf,
                               out.opt, out.buf),
                   std::runtime_error, {"Pad", "reflect", "[2, 3]"});
}

// Contiguous tensors padded on their last two dims (CPU devices write whole
// planes): every mode, rows with a 16-element middle and a rest, only the
// last dim padded, rank 4.
TEST(LayoutPad, WholePlanes) {
  const float value = -1.5f;
  std::vector<uint8_t> fill(4);
  std::memcpy(fill.data(), &value, 4);
  struct Case {
    std::vector<long> sizes, pad;
  } cases[] = {{{3, 5, 21}, {2, 3, 1, 2}}, {{2, 2, 4, 6}, {3, 0, 0, 3}}, {{4, 7}, {0, 5}}};
  for (const Case& c : cases) {
    const size_t rank = c.sizes.size();
    for (int mode = 0; mode < 4; ++mode) {
      SCOPED_TRACE(StrCat(Shape(c.sizes), " pad ", c.pad, " mode ", mode));
      std::vector<long> before(rank, 0), out_sizes = c.sizes;
      for (size_t k = 0; k < c.pad.size() / 2; ++k) {
        before[rank - 1 - k] = c.pad[2 * k];
        out_sizes[rank - 1 - k] += c.pad[2 * k] + c.pad[2 * k + 1];
      }
      DevTensor in = RandomTensor(c.sizes, kFloat);
      DevTensor out = OutTensor(out_sizes, kFloat);
      TestQueue().Enqueue(Pad::Create(TestQueue(),
                                      PadOption{c.pad, static_cast<PadMode>(mode), value}, in.opt,
                                      in.buf, out.opt, out.buf));
      const auto map = [&](long i, long n) -> long {
        if (i >= 0 && i < n) return i;
        if (mode == 0) return -1;
        if (mode == 1) return i < 0 ? -i : 2 * (n - 1) - i;
        if (mode == 2) return std::clamp(i, 0L, n - 1);
        return ((i % n) + n) % n;
      };
      ExpectMoved(
          out, in,
          [&](const std::vector<long>& o, std::vector<long>* i) {
            *i = o;
            for (size_t d = rank - 2; d < rank; ++d) {
              (*i)[d] = map(o[d] - before[d], c.sizes[d]);
              if ((*i)[d] < 0) return false;
            }
            return true;
          },
          fill);
    }
  }
}

TEST(LayoutShuffle, DepthToSpaceAndBack) {
  const long r = 2, C = 3, H = 3, W = 5;
  DevTensor in = RandomTensor({2, C * r * r, H, W}, kHalf);
  DevTensor out = OutTensor({2, C, H * r, W * r}, kHalf);
  TestQueue().Enqueue(
      DepthToSpace::Create(TestQueue(), DepthToSpaceOption{2}, in.opt, in.buf, out.opt, out.buf));
  ExpectMoved(out, in, [&](const std::vector<long>& o, std::vector<long>* i) {
    *i = {o[0], o[1] * r * r + (o[2] % r) * r + o[3] % r, o[2] / r, o[3] / r};
    return true;
  });
  DevTensor back = OutTensor({2, C * r * r, H, W}, kHalf);
  TestQueue().Enqueue(SpaceToDepth::Create(TestQueue(), SpaceToDepthOption{2}, out.opt, out.buf,
                                           back.opt, back.buf));
  EXPECT_EQ(Read(back), in.bytes);
}

TEST(LayoutConcat, ConcatThenSplitAnyDim) {
  for (DataType type : {kFloat, kInt64, kInt8}) {
    DevTensor a = RandomTensor({3, 2, 5}, type, {}, 1);
    DevTensor b = RandomTensor({3, 7, 5}, type, {1, 15, 3}, 2);  // strided
    DevTensor e = RandomTensor({0}, type, {}, 3);                // skipped
    DevTensor c = RandomTensor({3, 1, 5}, type, {}, 4);
    DevTensor out = OutTensor({3, 10, 5}, type);
    TestQueue().Enqueue(Concat::Create(TestQueue(), ConcatOption{-2}, {a.opt, b.opt, e.opt, c.opt},
                                       {a.buf, b.buf, e.buf, c.buf}, out.opt, out.buf));
    const std::vector<uint8_t> joined = Read(out);
    const size_t item = TypeTraitsHelper::GetSize(type);
    DevTensor* parts[] = {&a, &b, &c};
    const long starts[] = {0, 2, 9, 10};
    for (long i = 0; i < 3; ++i)
      for (long j = 0; j < 10; ++j)
        for (long k = 0; k < 5; ++k) {
          const int p = j < 2 ? 0 : (j < 9 ? 1 : 2);
          const auto& st = parts[p]->opt.shape.strides();
          const long at = i * st[0] + (j - starts[p]) * st[1] + k * st[2];
          ASSERT_TRUE(std::equal(joined.begin() + ((i * 10 + j) * 5 + k) * item,
                                 joined.begin() + ((i * 10 + j) * 5 + k + 1) * item,
                                 parts[p]->bytes.begin() + at * item));
        }
    DevTensor s0 = OutTensor({3, 4, 5}, type), s1 = OutTensor({3, 4, 5}, type),
              s2 = OutTensor({3, 2, 5}, type);
    std::vector<Buffer> outs = {s0.buf, s1.buf, s2.buf};
    TestQueue().Enqueue(Split::Create(TestQueue(), SplitOption{{4}, 1}, out.opt, out.buf,
                                      {s0.opt, s1.opt, s2.opt}, outs));
    DevTensor whole{out.opt, out.buf, joined};
    long base = 0;
    for (DevTensor* s : {&s0, &s1, &s2}) {
      ExpectMoved(*s, whole, [&](const std::vector<long>& o, std::vector<long>* i) {
        *i = {o[0], o[1] + base, o[2]};
        return true;
      });
      base += s->opt.shape.sizes()[1];
    }
  }
  DevTensor a = RandomTensor({3, 2}, kFloat), b = RandomTensor({4, 2}, kFloat);
  DevTensor out = OutTensor({3, 4}, kFloat);
  EXPECT_THROW_HAS(Concat::Create(TestQueue(), ConcatOption{1}, {a.opt, b.opt}, {a.buf, b.buf},
                                  out.opt, out.buf),
                   std::runtime_error, {"Concat", "[4, 2]", "[3, 2]"});
  std::vector<Buffer> outs = {a.buf};
  EXPECT_THROW_HAS(Split::Create(TestQueue(), SplitOption{{2, 2}, 0}, a.opt, a.buf, {a.opt}, outs),
                   std::runtime_error, {"Split", "[2, 2]"});
}

// Streamed moves: pieces whose rows start on whole vectors stream (one with
// a leftover run), the last one, off the vector grid, stores plainly.
TEST(LayoutConcat, StreamedPieces) {
  StreamStoresForTesting streaming;
  const long widths[] = {16, 24, 12, 4}, total = 56, rows = 3;
  std::vector<DevTensor> parts;
  std::vector<TensorOption> opts;
  std::vector<Buffer> bufs;
  for (long w : widths) {
    parts.push_back(RandomTensor({rows, w}, kFloat, {}, static_cast<unsigned>(w)));
    opts.push_back(parts.back().opt);
    bufs.push_back(parts.back().buf);
  }
  DevTensor out = OutTensor({rows, total}, kFloat);
  TestQueue().Enqueue(Concat::Create(TestQueue(), ConcatOption{1}, opts, bufs, out.opt, out.buf));
  const std::vector<uint8_t> got = Read(out);
  long start = 0;
  for (size_t p = 0; p < parts.size(); ++p) {
    for (long i = 0; i < rows; ++i) {
      const auto want = parts[p].bytes.begin() + i * widths[p] * 4;
      ASSERT_TRUE(std::equal(want, want + widths[p] * 4, got.begin() + (i * total + start) * 4))
          << "piece " << p << " row " << i;
    }
    start += widths[p];
  }
}

TEST(LayoutScatter, ScattersAndBackwards) {
  DevTensor in = RandomTensor({4, 6, 3}, kFloat, {}, 5);
  DevTensor src = RandomTensor({2, 6, 3}, kFloat, {}, 6);
  DevTensor out = OutTensor({4, 6, 3}, kFloat);
  TestQueue().Enqueue(SliceScatter::Create(TestQueue(), SliceOption{{1}, {4}, {2}}, in.opt, in.buf,
                                           src.opt, src.buf, out.opt, out.buf));
  std::vector<uint8_t> got = Read(out);
  for (long i = 0; i < 4; ++i)
    for (long j = 0; j < 18; ++j) {
      const bool hit = i % 2 == 1;
      const uint8_t* want = hit ? &src.bytes[((i / 2) * 18 + j) * 4] : &in.bytes[(i * 18 + j) * 4];
      ASSERT_TRUE(std::equal(want, want + 4, got.begin() + (i * 18 + j) * 4));
    }
  DevTensor row = RandomTensor({4, 3}, kFloat, {}, 7);
  DevTensor grad = OutTensor({4, 6, 3}, kFloat);
  TestQueue().Enqueue(SelectBackward::Create(TestQueue(), SelectBackwardOption{1, 4}, row.opt,
                                             row.buf, grad.opt, grad.buf));
  ExpectMoved(grad, row, [](const std::vector<long>& o, std::vector<long>* i) {
    *i = {o[0], o[2]};
    return o[1] == 4;
  });
  DevTensor g2 = RandomTensor({4, 2, 3}, kFloat, {}, 8);
  DevTensor grad2 = OutTensor({4, 6, 3}, kFloat);
  TestQueue().Enqueue(SliceBackward::Create(TestQueue(), SliceBackwardOption{-2, 1, -1, 3}, g2.opt,
                                            g2.buf, grad2.opt, grad2.buf));
  ExpectMoved(grad2, g2, [](const std::vector<long>& o, std::vector<long>* i) {
    *i = {o[0], (o[1] - 1) / 3, o[2]};
    return o[1] == 1 || o[1] == 4;
  });
  EXPECT_THROW_HAS(SelectBackward::Create(TestQueue(), SelectBackwardOption{3, 0}, row.opt, row.buf,
                                          grad.opt, grad.buf),
                   std::out_of_range, {"SelectBackward", "3"});
}

TEST(LayoutScatter, SelectScatterRowIsSrc) {
  DevTensor in = RandomTensor({4, 6, 3}, kFloat, {}, 5);
  DevTensor row = RandomTensor({4, 3}, kFloat, {}, 7);
  DevTensor sel = OutTensor({4, 6, 3}, kFloat);
  TestQueue().Enqueue(SelectScatter::Create(TestQueue(), SelectScatterOption{1, -2}, in.opt, in.buf,
                                            row.opt, row.buf, sel.opt, sel.buf));
  const std::vector<uint8_t> got = Read(sel);
  for (long i = 0; i < 4; ++i)
    for (long j = 0; j < 6; ++j)
      for (long k = 0; k < 3; ++k) {
        const uint8_t* want =
            j == 4 ? &row.bytes[(i * 3 + k) * 4] : &in.bytes[((i * 6 + j) * 3 + k) * 4];
        ASSERT_TRUE(std::equal(want, want + 4, got.begin() + ((i * 6 + j) * 3 + k) * 4));
      }
}

TEST(LayoutRepeat, RepeatInterleaveTensorAndScalar) {
  DevTensor in = RandomTensor({3, 4}, kFloat);
  const std::vector<int64_t> reps = {2, 0, 1, 3}, cum = {2, 2, 3, 6};
  Tensor r = Upload(reps, {4}, kInt64), c = Upload(cum, {4}, kInt64);
  DevTensor out = OutTensor({3, 6}, kFloat);
  TestQueue().Enqueue(Repeat::Create(TestQueue(), RepeatOption{{}, 1}, in.opt, in.buf, r.option(),
                                     r.storage(), c.option(), c.storage(), out.opt, out.buf));
  const long src[] = {0, 0, 2, 3, 3, 3};
  ExpectMoved(out, in, [&](const std::vector<long>& o, std::vector<long>* i) {
    *i = {o[0], src[o[1]]};
    return true;
  });
  const std::vector<int32_t> one = {2};
  Tensor r1 = Upload(one, {1}, kInt32);
  DevTensor out2 = OutTensor({6, 4}, kFloat);
  TestQueue().Enqueue(Repeat::Create(TestQueue(), RepeatOption{{}, 0}, in.opt, in.buf, r1.option(),
                                     r1.storage(), r1.option(), r1.storage(), out2.opt, out2.buf));
  ExpectMoved(out2, in, [](const std::vector<long>& o, std::vector<long>* i) {
    *i = {o[0] / 2, o[1]};
    return true;
  });
}

TEST(LayoutCopy, StridedCopyWithOffsetsAndConversion) {
  DevTensor in = RandomTensor({5, 7}, kFloat, {1, 5});  // transposed
  const long offset = 3;
  DevTensor out = OutTensor({5 * 7 + offset}, kFloat);
  TensorOption dst{Shape({5, 7}), kFloat};
  TestQueue().Enqueue(
      Copy::Create(TestQueue(), CopyOption{0, offset}, in.opt, in.buf, dst, out.buf));
  const std::vector<uint8_t> got = Read(out);
  for (long i = 0; i < 5; ++i)
    for (long j = 0; j < 7; ++j) {
      const uint8_t* want = &in.bytes[(i + j * 5) * 4];
      ASSERT_TRUE(std::equal(want, want + 4, got.begin() + (offset + i * 7 + j) * 4));
    }
  TensorOption too_far{Shape({5, 7}), kFloat};
  EXPECT_THROW(Copy::Create(TestQueue(), CopyOption{0, 4}, in.opt, in.buf, too_far, out.buf),
               std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
