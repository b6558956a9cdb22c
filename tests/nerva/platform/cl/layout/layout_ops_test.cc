// Permute, Slice, BroadcastTo, Tile, Repeat, Flip, Roll and the CPU platform
// side by side with the OpenCL one.

#include <optional>

#include "nerva/platform/cl/layout/layout_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

const DataType kTypes[] = {kFloat, kHalf, kInt8, kInt64};

TEST(LayoutPermute, MatchesReferenceForEveryType) {
  const PermuteCase cases[] = {
      {{37, 45}, {}, {1, 0}},                        // 2-D transpose, partial tiles
      {{3, 33, 7}, {}, {0, 2, 1}},                   // batched transpose
      {{2, 5, 4, 3}, {}, {0, 2, 3, -3}},             // NCHW -> NHWC, negative dim
      {{4, 6}, {1, 4}, {1, 0}},                      // transposed input
      {{3, 4, 5}, {40, 10, 2}, {2, 0, 1}},           // sliced input
      {{2, 1, 3, 2, 2, 3}, {}, {5, 3, 1, 0, 4, 2}},  // rank 6
      {{5}, {}, {0}},
      {{0, 3}, {}, {1, 0}},
  };
  for (DataType type : kTypes) {
    for (const auto& c : cases) CheckPermute(c, type);
  }
}

// Transposes on CPU devices with both sides 256 or longer move 16 x 16
// blocks (elements of up to 4 bytes): whole and cut blocks on either edge,
// batched, strided rows; and thin shapes beside them. Each also with
// streaming stores (aligned output rows stream, others fall back).
TEST(LayoutPermute, WideTransposeBlocks) {
  const PermuteCase cases[] = {
      {{257, 300}, {}, {1, 0}},        // cut blocks on both edges
      {{256, 512}, {}, {1, 0}},        // whole blocks
      {{2, 270, 259}, {}, {0, 2, 1}},  // batched
      {{260, 270}, {280, 1}, {1, 0}},  // strided rows
      {{17, 33}, {}, {1, 0}},         {{1, 300}, {}, {1, 0}}, {{300, 1}, {}, {1, 0}},
  };
  for (bool stream : {false, true}) {
    std::optional<StreamStoresForTesting> streaming;
    if (stream) streaming.emplace();
    for (DataType type : {kFloat, kHalf, kInt8}) {
      for (const auto& c : cases) CheckPermute(c, type);
    }
  }
}

TEST(LayoutSlice, StepsNegativeBoundsAndClamping) {
  struct Case {
    std::vector<long> sizes, starts, ends, steps;
  } cases[] = {
      {{10}, {1}, {8}, {3}},
      {{6, 7}, {-4, 1}, {100, -1}, {2, 1}},
      {{5, 4, 3}, {0}, {5}, {}},
      {{4, 5}, {3}, {1}, {1}},  // empty
      {{2, 3, 2, 3, 2, 3}, {1, 0, 0, 1}, {2, 3, 2, 3}, {1, 2, 1, 2}},
  };
  for (DataType type : kTypes) {
    for (const auto& c : cases) {
      DevTensor in = RandomTensor(c.sizes, type);
      std::vector<long> out_sizes = c.sizes, start(c.sizes.size(), 0), step(c.sizes.size(), 1);
      for (size_t d = 0; d < c.starts.size(); ++d) {
        const long n = c.sizes[d];
        long s = c.starts[d] < 0 ? c.starts[d] + n : c.starts[d];
        long e = c.ends[d] < 0 ? c.ends[d] + n : c.ends[d];
        s = std::clamp(s, 0L, n);
        e = std::clamp(e, s, n);
        step[d] = c.steps.empty() ? 1 : c.steps[d];
        start[d] = s;
        out_sizes[d] = (e - s + step[d] - 1) / step[d];
      }
      DevTensor out = OutTensor(out_sizes, type);
      TestQueue().Enqueue(Slice::Create(TestQueue(), SliceOption{c.starts, c.ends, c.steps}, in.opt,
                                        in.buf, out.opt, out.buf));
      ExpectMoved(out, in, [&](const std::vector<long>& o, std::vector<long>* i) {
        *i = o;
        for (size_t d = 0; d < o.size(); ++d) (*i)[d] = start[d] + o[d] * step[d];
        return true;
      });
    }
  }
}

TEST(LayoutBroadcastTile, BroadcastTileRepeatFlipRoll) {
  for (DataType type : {kFloat, kInt8}) {
    DevTensor in = RandomTensor({3, 1, 5}, type, {1, 7, 3});  // transposed-like strides
    DevTensor b = OutTensor({2, 3, 4, 5}, type);
    TestQueue().Enqueue(BroadcastTo::Create(TestQueue(), in.opt, in.buf, b.opt, b.buf));
    ExpectMoved(b, in, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1], 0, o[3]};
      return true;
    });
    DevTensor t = OutTensor({2, 6, 3, 10}, type);
    TestQueue().Enqueue(Tile::Create(TestQueue(), in.opt, in.buf, t.opt, t.buf));
    ExpectMoved(t, in, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1] % 3, 0, o[3] % 5};
      return true;
    });
    DevTensor r = OutTensor({2, 3, 2, 15}, type);
    TestQueue().Enqueue(
        Repeat::Create(TestQueue(), RepeatOption{{2, 1, 2, 3}, 0}, in.opt, in.buf, r.opt, r.buf));
    ExpectMoved(r, in, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {o[1], 0, o[3] % 5};
      return true;
    });
    DevTensor x = RandomTensor({4, 3, 7}, type, {1, 28, 4});
    DevTensor f = OutTensor({4, 3, 7}, type);
    TestQueue().Enqueue(Flip::Create(TestQueue(), FlipOption{{0, -1}}, x.opt, x.buf, f.opt, f.buf));
    ExpectMoved(f, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {3 - o[0], o[1], 6 - o[2]};
      return true;
    });
    DevTensor ro = OutTensor({4, 3, 7}, type);
    TestQueue().Enqueue(
        Roll::Create(TestQueue(), RollOption{{-5, 2, 1}, {2, 0, 2}}, x.opt, x.buf, ro.opt, ro.buf));
    ExpectMoved(ro, x, [](const std::vector<long>& o, std::vector<long>* i) {
      *i = {(o[0] + 2) % 4, o[1], (o[2] + 4) % 7};
      return true;
    });
    DevTensor rf = OutTensor({4, 3, 7}, type);
    TestQueue().Enqueue(
        Roll::Create(TestQueue(), RollOption{{10}, {}}, x.opt, x.buf, rf.opt, rf.buf));
    ExpectMoved(rf, x, [](const std::vector<long>& o, std::vector<long>* i) {
      const long flat = ((o[0] * 3 + o[1]) * 7 + o[2] + 84 - 10) % 84;
      *i = {flat / 21, flat / 7 % 3, flat % 7};
      return true;
    });
  }
}

TEST(LayoutCpu, CpuAndClAgree) {
  Session cpu("cpu", 0);
  Queue cpu_queue = cpu.MakeQueue();
  DevTensor in = RandomTensor({3, 4, 5}, kFloat);
  const long n = in.opt.shape.size();
  const auto run = [&](const std::function<Kernel(Queue&, const Buffer&, Buffer&)>& make,
                       std::vector<long> out_sizes) {
    Buffer cpu_in = cpu.MakeBuffer(kMemReadWrite, n * 4, in.bytes.data());
    long m = 1;
    for (long s : out_sizes) m *= s;
    Buffer cpu_out = cpu.MakeBuffer(kMemReadWrite, m * 4);
    cpu_queue.Enqueue(make(cpu_queue, cpu_in, cpu_out));
    std::vector<uint8_t> want(m * 4);
    cpu_queue.CopyDeviceToHost(want.data(), cpu_out, m * 4);
    DevTensor out = OutTensor(out_sizes, kFloat);
    TestQueue().Enqueue(make(TestQueue(), in.buf, out.buf));
    EXPECT_EQ(Read(out), want);
  };
  const TensorOption in_opt = in.opt;
  const TensorOption perm_opt{Shape({5, 3, 4}), kFloat};
  run(
      [&](Queue& q, const Buffer& i, Buffer& o) {
        return Permute::Create(q, PermuteOption{{2, 0, 1}}, in_opt, i, perm_opt, o);
      },
      {5, 3, 4});
  const TensorOption slice_opt{Shape({2, 2, 5}), kFloat};
  run(
      [&](Queue& q, const Buffer& i, Buffer& o) {
        return Slice::Create(q, SliceOption{{1, 0, 0}, {3, 4, 5}, {1, 2, 1}}, in_opt, i, slice_opt,
                             o);
      },
      {2, 2, 5});
  const TensorOption tile_opt{Shape({6, 4, 10}), kFloat};
  run([&](Queue& q, const Buffer& i, Buffer& o) { return Tile::Create(q, in_opt, i, tile_opt, o); },
      {6, 4, 10});
  const TensorOption bc_opt{Shape({2, 3, 4, 5}), kFloat};
  run([&](Queue& q, const Buffer& i,
          Buffer& o) { return BroadcastTo::Create(q, in_opt, i, bc_opt, o); },
      {2, 3, 4, 5});
}

TEST(LayoutErrors, AxesShapesAndOutputs) {
  DevTensor in = RandomTensor({3, 4}, kFloat);
  DevTensor out = OutTensor({4, 3}, kFloat);
  DevTensor bad = OutTensor({3, 4}, kFloat);
  EXPECT_THROW_HAS(
      Permute::Create(TestQueue(), PermuteOption{{1, 2}}, in.opt, in.buf, out.opt, out.buf),
      std::out_of_range, {"Permute", "dim 2"});
  EXPECT_THROW_HAS(
      Permute::Create(TestQueue(), PermuteOption{{1, 0}}, in.opt, in.buf, bad.opt, bad.buf),
      std::runtime_error, {"Permute", "[3, 4]", "[4, 3]"});
  EXPECT_THROW_HAS(Flip::Create(TestQueue(), FlipOption{{-3}}, in.opt, in.buf, bad.opt, bad.buf),
                   std::out_of_range, {"Flip", "-3"});
  EXPECT_THROW_HAS(Tile::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf), std::runtime_error,
                   {"Tile", "[4, 3]", "[3, 4]"});
  EXPECT_THROW_HAS(BroadcastTo::Create(TestQueue(), in.opt, in.buf, out.opt, out.buf),
                   std::runtime_error, {"BroadcastTo", "[3, 4]", "[4, 3]"});
  EXPECT_THROW_HAS(
      Slice::Create(TestQueue(), SliceOption{{0}, {2}, {0}}, in.opt, in.buf, bad.opt, bad.buf),
      std::invalid_argument, {"Slice", "step"});
  EXPECT_THROW_HAS(
      Roll::Create(TestQueue(), RollOption{{1, 2}, {0}}, in.opt, in.buf, bad.opt, bad.buf),
      std::runtime_error, {"Roll", "[1, 2]"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
