// IndexPut, IndexWithIndicesArray and IndexPutWithIndicesArray against host loops.

#include "index_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

const std::vector<long> kInput = {3, 5, 7};

TEST(IndexPutTest, EveryDimAccumulateAndReplace) {
  for (DataType data : {kFloat, kHalf, kInt32}) {
    const auto in = RandomValues(Count(kInput), data, 4);
    Tensor x = Put(in, kInput, data);
    for (int dim = 0; dim < 3; ++dim) {
      const long n = kInput[dim];
      const std::vector<long> index = {1, -1, 1, n, 0};  // a duplicate, a negative, one skipped
      std::vector<long> vsz = kInput;
      vsz[dim] = 5;
      const auto vals = RandomValues(Count(vsz), data, 50 + dim);
      Tensor idx = PutIndex(index, {5}, dim == 2 ? kInt32 : kInt64);
      Tensor v = Put(vals, vsz, data);
      for (bool accumulate : {true, false}) {
        std::vector<double> want = in;
        const auto st = Strides(kInput);
        std::vector<long> last(Count(kInput), -1);  // replace: the duplicate's two candidates
        for (long a = 0; a < vsz[0]; ++a)
          for (long b = 0; b < vsz[1]; ++b)
            for (long c = 0; c < vsz[2]; ++c) {
              long pos[3] = {a, b, c};
              long j = index[pos[dim]];
              if (j < 0) j += n;
              if (j < 0 || j >= n) continue;
              pos[dim] = j;
              const long p = pos[0] * st[0] + pos[1] * st[1] + pos[2] * st[2];
              const double value = vals[(a * vsz[1] + b) * vsz[2] + c];
              want[p] = accumulate ? want[p] + value : value;
            }
        Guarded out(kInput, data);
        TestQueue().Enqueue(IndexPut::Create(TestQueue(), IndexPutOption{dim, accumulate},
                                             x.option(), x.storage(), idx.option(), idx.storage(),
                                             v.option(), v.storage(), out.option(), out.buffer()));
        auto got = out.values();
        if (!accumulate) {
          // Index 1 appears twice (positions 0 and 2): either value is right.
          for (long p = 0; p < Count(kInput); ++p) {
            long pos[3] = {p / 35, (p / 7) % 5, p % 7};
            if (pos[dim] != 1) continue;
            pos[dim] = 0;
            const double first = vals[(pos[0] * vsz[1] + pos[1]) * vsz[2] + pos[2]];
            if (got[p] == first) got[p] = want[p];
          }
        }
        ExpectNear(got, want, data, 2);
        EXPECT_TRUE(out.GuardsIntact());
      }
    }
  }
}

TEST(IndexArrayTest, AdjacentSeparatedAndLeftOutIndices) {
  const auto in = RandomValues(Count(kInput), kFloat, 12);
  Tensor x = Put(in, kInput, kFloat);
  const auto st = Strides(kInput);
  // i0 [2, 1] and i2 [3] broadcast to [2, 3]; dims 0 and 2 are separated: result [2, 3, 5].
  const std::vector<long> i0 = {2, -3}, i2 = {6, -1, 9};
  Tensor t0 = PutIndex(i0, {2, 1}, kInt64), t2 = PutIndex(i2, {3}, kInt32);
  std::vector<double> want;
  for (long a = 0; a < 2; ++a)
    for (long c = 0; c < 3; ++c)
      for (long b = 0; b < 5; ++b) {
        const long r = i0[a] < 0 ? i0[a] + 3 : i0[a];
        const long k = i2[c] < 0 ? i2[c] + 7 : i2[c];
        want.push_back(k >= 7 ? 0 : in[r * st[0] + b * st[1] + k * st[2]]);
      }
  Guarded out({2, 3, 5}, kFloat);
  const std::vector<TensorOption> opts = {t0.option(), TensorOption{Shape(), kInt64}, t2.option()};
  const std::vector<Buffer> bufs = {t0.storage(), Buffer(), t2.storage()};
  TestQueue().Enqueue(
      Index::Create(TestQueue(), x.option(), x.storage(), opts, bufs, out.option(), out.buffer()));
  EXPECT_EQ(out.values(), want);
  EXPECT_TRUE(out.GuardsIntact());
  // Adjacent dims 1 and 2 with dim 0 left out: result [3, 4].
  const std::vector<long> j1 = {0, 4, -5, 2}, j2 = {6, 0, 3, -7};
  Tensor u1 = PutIndex(j1, {4}, kInt64), u2 = PutIndex(j2, {4}, kInt64);
  std::vector<double> want2;
  for (long a = 0; a < 3; ++a)
    for (long t = 0; t < 4; ++t)
      want2.push_back(in[a * st[0] + ((j1[t] + 5) % 5) * st[1] + ((j2[t] + 7) % 7) * st[2]]);
  Guarded out2({3, 4}, kFloat);
  TestQueue().Enqueue(Index::Create(TestQueue(), x.option(), x.storage(),
                                    {TensorOption{Shape(), kInt64}, u1.option(), u2.option()},
                                    {Buffer(), u1.storage(), u2.storage()}, out2.option(),
                                    out2.buffer()));
  EXPECT_EQ(out2.values(), want2);
  // Shapes that do not broadcast; a float index.
  Tensor bad = PutIndex({0, 1, 2}, {3}, kInt64), fl = Put({0, 1}, {2}, kFloat);
  EXPECT_THROW_HAS(
      Index::Create(TestQueue(), x.option(), x.storage(), {t0.option(), bad.option(), u1.option()},
                    {t0.storage(), bad.storage(), u1.storage()}, out.option(), out.buffer()),
      std::runtime_error, {"IndexWithIndicesArray", "broadcast"});
  EXPECT_THROW_HAS(Index::Create(TestQueue(), x.option(), x.storage(), {fl.option()},
                                 {fl.storage()}, out.option(), out.buffer()),
                   std::invalid_argument, {"IndexWithIndicesArray", "indices[0]"});
}

TEST(IndexArrayTest, PutWithAccumulateDuplicatesAndSkippedIndices) {
  for (DataType data : {kFloat, kInt64}) {
    const auto in = RandomValues(Count(kInput), data, 13);
    Tensor x = Put(in, kInput, data);
    const auto st = Strides(kInput);
    const std::vector<long> i0 = {0, 2, 0, -1, 3}, i1 = {4, 1, 4, -5, 0};
    Tensor t0 = PutIndex(i0, {5}, kInt32), t1 = PutIndex(i1, {5}, kInt64);
    const auto vals = RandomValues(7, data, 14);  // broadcast over the 5 tuples
    Tensor v = Put(vals, {7}, data);
    for (bool accumulate : {true, false}) {
      std::vector<double> want = in;
      for (long t = 0; t < 5; ++t) {
        const long a = i0[t] < 0 ? i0[t] + 3 : i0[t];
        if (a >= 3) continue;
        const long b = i1[t] < 0 ? i1[t] + 5 : i1[t];
        for (long c = 0; c < 7; ++c) {
          double& w = want[a * st[0] + b * st[1] + c * st[2]];
          w = accumulate ? w + vals[c] : vals[c];
        }
      }
      Guarded out(kInput, data);
      TestQueue().Enqueue(IndexPut::Create(TestQueue(), IndexPutOption{0, accumulate}, x.option(),
                                           x.storage(), {t0.option(), t1.option()},
                                           {t0.storage(), t1.storage()}, v.option(), v.storage(),
                                           out.option(), out.buffer()));
      ExpectNear(out.values(), want, data, 2);
      EXPECT_TRUE(out.GuardsIntact());
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
