// Scatter, ScatterMean, IndexReduce and ScatterND against plain host loops, with guard regions
// around every output.

#include <limits>

#include "index_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

const std::vector<long> kInput = {3, 5, 7};

double Combine(double a, double b, ScatterReduceType op) {
  switch (op) {
    case ScatterReduceType::kProd:
      return a * b;
    case ScatterReduceType::kAmax:
      return std::max(a, b);
    case ScatterReduceType::kAmin:
      return std::min(a, b);
    case ScatterReduceType::kNone:
      return b;
    default:
      return a + b;
  }
}

// torch.scatter_reduce on the host: index and src of isz; indices outside [0, size) skipped.
std::vector<double> ScatterRef(const std::vector<double>& in, int dim, const std::vector<long>& isz,
                               const std::vector<long>& index, const std::vector<double>& src,
                               ScatterReduceType op, bool include_self, bool integral,
                               const std::vector<long>& shape = kInput) {
  const auto st = Strides(shape);
  std::vector<double> acc(in.size(), 0.0);
  std::vector<int> count(in.size(), 0);
  std::vector<double> out = in;
  for (long a = 0; a < isz[0]; ++a)
    for (long b = 0; b < isz[1]; ++b)
      for (long c = 0; c < isz[2]; ++c) {
        const long i = (a * isz[1] + b) * isz[2] + c;
        long pos[3] = {a, b, c};
        if (index[i] < 0 || index[i] >= shape[dim]) continue;
        pos[dim] = index[i];
        const long p = pos[0] * st[0] + pos[1] * st[1] + pos[2] * st[2];
        if (op == ScatterReduceType::kNone) {
          out[p] = src[i];
          continue;
        }
        acc[p] = count[p] ? Combine(acc[p], src[i], op) : src[i];
        ++count[p];
      }
  if (op == ScatterReduceType::kNone) return out;
  for (size_t p = 0; p < in.size(); ++p) {
    if (!count[p]) continue;
    if (op == ScatterReduceType::kMean) {
      const double sum = acc[p] + (include_self ? in[p] : 0);
      const double n = count[p] + include_self;
      out[p] = integral ? std::floor(sum / n) : sum / n;
    } else {
      out[p] = include_self ? Combine(in[p], acc[p], op) : acc[p];
    }
  }
  return out;
}

struct ScatterCase {
  DataType data;
  ScatterReduceType op;
  bool include_self;
};

class ScatterTest : public ::testing::TestWithParam<ScatterCase> {};

TEST_P(ScatterTest, EveryDimWithDuplicatesAndOutOfRangeIndices) {
  const auto [data, op, include_self] = GetParam();
  const bool integral = data != kFloat && data != kHalf;
  const auto in = RandomValues(Count(kInput), data, 21);
  Tensor x = Put(in, kInput, data);
  for (DataType itype : {kInt32, kInt64}) {
    for (int dim = 0; dim < 3; ++dim) {
      std::vector<long> isz = {2, 4, 6};
      isz[dim] = 9;  // more entries than positions: duplicates
      auto index = RandomIndices(Count(isz), 0, kInput[dim], 3 + dim);
      index[0] = -1;           // skipped
      index[5] = kInput[dim];  // skipped
      // src is larger than index on every dimension.
      std::vector<long> ssz = {isz[0] + 1, isz[1] + 1, isz[2]};
      const auto src_full = RandomValues(Count(ssz), data, 30 + dim);
      std::vector<double> src;  // the part index covers
      for (long a = 0; a < isz[0]; ++a)
        for (long b = 0; b < isz[1]; ++b)
          for (long c = 0; c < isz[2]; ++c) src.push_back(src_full[(a * ssz[1] + b) * ssz[2] + c]);
      Tensor idx = PutIndex(index, isz, itype);
      Tensor s = Put(src_full, ssz, data);
      Guarded out(kInput, data);
      Kernel k = op == ScatterReduceType::kMean && dim == 1
                     ? ScatterMean::Create(TestQueue(), ScatterMeanOption{dim, include_self},
                                           x.option(), x.storage(), idx.option(), idx.storage(),
                                           s.option(), s.storage(), TensorOption{Shape(), kInt32},
                                           Buffer(), out.option(), out.buffer())
                     : Scatter::Create(TestQueue(), ScatterOption{dim, op, include_self},
                                       x.option(), x.storage(), idx.option(), idx.storage(),
                                       s.option(), s.storage(), out.option(), out.buffer());
      TestQueue().Enqueue(k);
      const auto want = ScatterRef(in, dim, isz, index, src, op, include_self, integral);
      if (op == ScatterReduceType::kNone) {
        // Duplicates keep one of their values: check each position holds a candidate.
        const auto got = out.values();
        const auto st = Strides(kInput);
        for (size_t p = 0; p < in.size(); ++p) {
          bool ok = got[p] == in[p];
          for (long i = 0; i < Count(isz) && !ok; ++i) {
            long pos[3] = {i / (isz[1] * isz[2]), (i / isz[2]) % isz[1], i % isz[2]};
            if (index[i] < 0 || index[i] >= kInput[dim]) continue;
            pos[dim] = index[i];
            ok = pos[0] * st[0] + pos[1] * st[1] + pos[2] * st[2] == static_cast<long>(p) &&
                 got[p] == src[i];
          }
          // Positions no index reaches keep the input.
          EXPECT_TRUE(ok) << "dim " << dim << " at " << p;
        }
      } else {
        ExpectNear(out.values(), want, data, op == ScatterReduceType::kProd ? 20 : 4);
      }
      EXPECT_TRUE(out.GuardsIntact()) << dim;
    }
  }
}

using R = ScatterReduceType;
INSTANTIATE_TEST_SUITE_P(
    Reductions, ScatterTest,
    ::testing::Values(ScatterCase{kFloat, R::kNone, true}, ScatterCase{kInt64, R::kNone, true},
                      ScatterCase{kFloat, R::kSum, true}, ScatterCase{kHalf, R::kSum, false},
                      ScatterCase{kInt32, R::kSum, true}, ScatterCase{kFloat, R::kProd, false},
                      ScatterCase{kInt64, R::kProd, true}, ScatterCase{kFloat, R::kMean, true},
                      ScatterCase{kInt32, R::kMean, false}, ScatterCase{kHalf, R::kAmax, true},
                      ScatterCase{kInt64, R::kAmax, false}, ScatterCase{kFloat, R::kAmin, false},
                      ScatterCase{kInt32, R::kAmin, true}));

// An index of one value per row, expanded along the last dimension (stride 0): the row path,
// on both device classes. Rows of 37 (16-wide chunks on the host CPU, 4-wide on GPUs, and a
// tail), the index covering 35 columns of them.
TEST(ScatterTest, RowsOfAnExpandedIndex) {
  const std::vector<long> shape = {4, 3, 37};
  const long len = 35;
  const ScatterCase cases[] = {{kFloat, R::kSum, true},  {kHalf, R::kSum, false},
                               {kInt32, R::kSum, true},  {kInt64, R::kAmax, false},
                               {kFloat, R::kProd, true}, {kFloat, R::kAmin, false}};
  for (bool gpu : {false, true})
    for (const auto& [data, op, include_self] : cases) {
      const GpuPathsForTesting device(gpu);
      const bool integral = data != kFloat && data != kHalf;
      const auto in = RandomValues(Count(shape), data, 40);
      Tensor x = Put(in, shape, data);
      for (int dim = 0; dim < 2; ++dim) {
        std::vector<long> isz = {4, 3, len};
        isz[dim] = 9;  // duplicates
        const long rows = isz[0] * isz[1];
        auto per_row = RandomIndices(rows, 0, shape[dim], 50 + dim);
        per_row[1] = -1;          // skipped
        per_row[4] = shape[dim];  // skipped
        std::vector<long> index;
        for (long v : per_row) index.insert(index.end(), len, v);
        const std::vector<long> ssz = {isz[0] + 1, isz[1], shape[2]};
        const auto src_full = RandomValues(Count(ssz), data, 60 + dim);
        std::vector<double> src;
        for (long r = 0; r < rows; ++r)
          for (long c = 0; c < len; ++c) src.push_back(src_full[r * shape[2] + c]);
        Tensor base = PutIndex(per_row, {isz[0], isz[1], 1}, kInt64);
        Tensor idx = base.BroadcastTo(isz);
        Tensor sv = Put(src_full, ssz, data);
        Guarded out(shape, data);
        TestQueue().Enqueue(Scatter::Create(TestQueue(), ScatterOption{dim, op, include_self},
                                            x.option(), x.storage(), idx.option(), idx.storage(),
                                            sv.option(), sv.storage(), out.option(), out.buffer()));
        ExpectNear(out.values(),
                   ScatterRef(in, dim, isz, index, src, op, include_self, integral, shape), data,
                   op == R::kProd ? 20 : 4);
        EXPECT_TRUE(out.GuardsIntact()) << dim;
      }
    }
}

// The row path with more out rows than one tile of the GPU's bucket scan (4096), lists of
// even and odd lengths and empty ones, some rows skipped.
TEST(ScatterTest, RowsIntoManyTargets) {
  const long targets = 5000, width = 8, rows = 12001;
  const auto in = RandomValues(targets * width, kFloat, 70);
  Tensor x = Put(in, {targets, width}, kFloat);
  auto per_row = RandomIndices(rows, -1, targets, 71);  // -1: skipped
  const auto src = RandomValues(rows * width, kFloat, 72);
  Tensor sv = Put(src, {rows, width}, kFloat);
  Tensor idx = PutIndex(per_row, {rows, 1}, kInt32).BroadcastTo({rows, width});
  for (bool gpu : {false, true}) {
    const GpuPathsForTesting device(gpu);
    for (bool include_self : {true, false}) {
      std::vector<double> want = in, sum(in.size(), 0.0);
      std::vector<int> hit(targets, 0);
      for (long r = 0; r < rows; ++r) {
        if (per_row[r] < 0) continue;
        hit[per_row[r]] = 1;
        for (long c = 0; c < width; ++c) sum[per_row[r] * width + c] += src[r * width + c];
      }
      for (long t = 0; t < targets; ++t)
        for (long c = 0; hit[t] && c < width; ++c)
          want[t * width + c] = sum[t * width + c] + (include_self ? in[t * width + c] : 0.0);
      Guarded out({targets, width}, kFloat);
      TestQueue().Enqueue(Scatter::Create(TestQueue(), ScatterOption{0, R::kSum, include_self},
                                          x.option(), x.storage(), idx.option(), idx.storage(),
                                          sv.option(), sv.storage(), out.option(), out.buffer()));
      ExpectNear(out.values(), want, kFloat, 4);
      EXPECT_TRUE(out.GuardsIntact()) << gpu;
    }
  }
}

// The host CPU's row path: rows of 1 to 65 columns (64- and 16-wide sums, single columns),
// duplicate targets with lists longer than the prefetch distance, skipped rows, fewer rows than
// the bucketing's parts, and an index of no rows.
TEST(ScatterTest, RowWidthsOfTheCpuPath) {
  const long targets = 7;
  for (long rows : {0L, 3L, 301L}) {
    auto per_row = RandomIndices(rows, -1, targets + 1, 80);  // -1 and targets: skipped
    for (DataType data : {kFloat, kHalf, kInt32}) {
      for (long width : {1, 15, 17, 64, 65}) {
        const auto in = RandomValues(targets * width, data, 81);
        const auto src = RandomValues(rows * width, data, 82);
        Tensor x = Put(in, {targets, width}, data);
        Tensor sv = Put(src, {rows, width}, data);
        Tensor idx = PutIndex(per_row, {rows, 1}, kInt64).BroadcastTo({rows, width});
        std::vector<long> index;
        for (long v : per_row) index.insert(index.end(), width, v);
        for (R op : {R::kSum, R::kAmax}) {
          for (bool include_self : {true, false}) {
            Guarded out({targets, width}, data);
            TestQueue().Enqueue(Scatter::Create(TestQueue(), ScatterOption{0, op, include_self},
                                                x.option(), x.storage(), idx.option(),
                                                idx.storage(), sv.option(), sv.storage(),
                                                out.option(), out.buffer()));
            const bool integral = data == kInt32;
            ExpectNear(out.values(),
                       ScatterRef(in, 0, {rows, width, 1}, index, src, op, include_self, integral,
                                  {targets, width, 1}),
                       data, 40);
            EXPECT_TRUE(out.GuardsIntact()) << rows << " " << width;
          }
        }
      }
    }
  }
}

TEST(ScatterMeanTest, CountsAndEmptyIndex) {
  const auto in = RandomValues(15, kFloat, 2);
  Tensor x = Put(in, {3, 5}, kFloat);
  const std::vector<long> index = {0, 2, 2, 2, 1, 0};
  Tensor idx = PutIndex(index, {1, 6}, kInt64);
  Tensor s = Put(RandomValues(6, kFloat, 3), {1, 6}, kFloat);
  Tensor count = TestSession().MakeTensor({3, 5}, kInt32);
  Guarded out({3, 5}, kFloat);
  TestQueue().Enqueue(ScatterMean::Create(TestQueue(), ScatterMeanOption{1, false}, x.option(),
                                          x.storage(), idx.option(), idx.storage(), s.option(),
                                          s.storage(), count.option(), count.storage(),
                                          out.option(), out.buffer()));
  const std::vector<double> want_count = {2, 1, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(Get(count), want_count);
  // Row 0 only; without include_self the positions hit average src alone.
  const auto src = Get(s);
  std::vector<double> want = in, sum(5, 0.0);
  for (size_t j = 0; j < index.size(); ++j) sum[index[j]] += src[j];
  for (long c = 0; c < 3; ++c) want[c] = sum[c] / want_count[c];
  ExpectNear(out.values(), want, kFloat);
  // An empty index copies the input.
  Tensor none = PutIndex({}, {0, 0}, kInt32);
  Guarded same({3, 5}, kFloat);
  TestQueue().Enqueue(Scatter::Create(TestQueue(), ScatterOption{0, R::kSum, true}, x.option(),
                                      x.storage(), none.option(), none.storage(), s.option(),
                                      s.storage(), same.option(), same.buffer()));
  EXPECT_EQ(same.values(), in);
  EXPECT_TRUE(same.GuardsIntact());
}

TEST(ScatterTest, Errors) {
  Tensor x = Put(RandomValues(105, kFloat, 1), kInput, kFloat);
  Tensor idx = PutIndex(std::vector<long>(105, 0), kInput, kInt64);
  Tensor fidx = Put(std::vector<double>(105, 0), kInput, kFloat);
  Tensor small = Put(RandomValues(4, kFloat, 2), {1, 2, 2}, kFloat);
  Tensor out = TestSession().MakeTensor(kInput, kFloat);
  EXPECT_THROW_HAS(
      Scatter::Create(TestQueue(), ScatterOption{}, x.option(), x.storage(), fidx.option(),
                      fidx.storage(), x.option(), x.storage(), out.option(), out.storage()),
      std::invalid_argument, {"Scatter", "index", "DataType::kFloat"});
  EXPECT_THROW_HAS(
      Scatter::Create(TestQueue(), ScatterOption{5}, x.option(), x.storage(), idx.option(),
                      idx.storage(), x.option(), x.storage(), out.option(), out.storage()),
      std::out_of_range, {"Scatter", "dim 5"});
  EXPECT_THROW_HAS(
      Scatter::Create(TestQueue(), ScatterOption{}, x.option(), x.storage(), idx.option(),
                      idx.storage(), small.option(), small.storage(), out.option(), out.storage()),
      std::runtime_error, {"Scatter", "src", "[1, 2, 2]"});
  Tensor b = Put(std::vector<double>(105, 1), kInput, kBool);
  Tensor bo = TestSession().MakeTensor(kInput, kBool);
  EXPECT_THROW_HAS(
      Scatter::Create(TestQueue(), ScatterOption{0, R::kSum}, b.option(), b.storage(), idx.option(),
                      idx.storage(), b.option(), b.storage(), bo.option(), bo.storage()),
      std::invalid_argument, {"Scatter", "DataType::kBool"});
}

// torch.index_reduce on the host.
std::vector<double> IndexReduceRef(const std::vector<double>& in, int dim,
                                   const std::vector<long>& index, const std::vector<double>& src,
                                   ScatterReduceType op, bool include_self, bool integral) {
  std::vector<long> isz = kInput;
  isz[dim] = static_cast<long>(index.size());
  std::vector<long> full;  // index expanded to source's shape
  for (long a = 0; a < isz[0]; ++a)
    for (long b = 0; b < isz[1]; ++b)
      for (long c = 0; c < isz[2]; ++c) {
        const long pos[3] = {a, b, c};
        const long v = index[pos[dim]];
        full.push_back(v < 0 ? v + kInput[dim] : v);
      }
  return ScatterRef(in, dim, isz, full, src, op, include_self, integral);
}

TEST(IndexReduceTest, EveryReductionAndDim) {
  for (DataType data : {kFloat, kInt64}) {
    const auto in = RandomValues(Count(kInput), data, 5);
    Tensor x = Put(in, kInput, data);
    for (R op : {R::kProd, R::kMean, R::kAmax, R::kAmin}) {
      for (bool self : {true, false}) {
        for (int dim = 0; dim < 3; ++dim) {
          const long n = kInput[dim];
          const std::vector<long> index = {0, n - 1, -1, 1, 0, n + 2};
          std::vector<long> ssz = kInput;
          ssz[dim] = 6;
          const auto src = RandomValues(Count(ssz), data, 40 + dim);
          Tensor idx = PutIndex(index, {6}, dim == 1 ? kInt32 : kInt64);
          Tensor s = Put(src, ssz, data);
          Guarded out(kInput, data);
          TestQueue().Enqueue(IndexReduce::Create(
              TestQueue(), IndexReduceOption{dim, op, self}, x.option(), x.storage(), idx.option(),
              idx.storage(), s.option(), s.storage(), out.option(), out.buffer()));
          ExpectNear(out.values(), IndexReduceRef(in, dim, index, src, op, self, data != kFloat),
                     data, 10);
          EXPECT_TRUE(out.GuardsIntact());
        }
      }
    }
  }
}

TEST(ScatterNDTest, ReplaceAndReductionsWithNegativeAndOutOfRangeTuples) {
  const auto in = RandomValues(Count(kInput), kFloat, 8);
  Tensor x = Put(in, kInput, kFloat);
  // Four tuples of 2 indices address rows of 7: one negative, one duplicate, one out of range.
  const std::vector<long> index = {0, 1, 2, -1, 0, 1, 3, 0};
  Tensor idx = PutIndex(index, {4, 2}, kInt32);
  const auto upd = RandomValues(28, kFloat, 9);
  Tensor u = Put(upd, {4, 7}, kFloat);
  for (R op : {R::kNone, R::kSum, R::kProd, R::kAmax, R::kAmin}) {
    std::vector<double> want = in;
    for (long t = 0; t < 4; ++t) {
      long a = index[2 * t], b = index[2 * t + 1];
      if (b < 0) b += 5;
      if (a >= 3) continue;
      for (long c = 0; c < 7; ++c) {
        double& w = want[(a * 5 + b) * 7 + c];
        // The duplicate with kNone: the later tuple is one valid outcome; see below.
        w = Combine(w, upd[t * 7 + c], op);
      }
    }
    Guarded out(kInput, kFloat);
    TestQueue().Enqueue(ScatterND::Create(TestQueue(), ScatterNDOption{op}, x.option(), x.storage(),
                                          idx.option(), idx.storage(), u.option(), u.storage(),
                                          out.option(), out.buffer()));
    auto got = out.values();
    if (op == R::kNone) {
      // Row (0, 1) receives tuple 0 or tuple 2.
      for (long c = 0; c < 7; ++c) {
        const double v = got[(0 * 5 + 1) * 7 + c];
        EXPECT_TRUE(v == upd[c] || v == upd[14 + c]);
        got[(0 * 5 + 1) * 7 + c] = want[(0 * 5 + 1) * 7 + c];
      }
    }
    ExpectNear(got, want, kFloat, 4);
    EXPECT_TRUE(out.GuardsIntact());
  }
  EXPECT_THROW_HAS(ScatterND::Create(TestQueue(), ScatterNDOption{R::kMean}, x.option(),
                                     x.storage(), idx.option(), idx.storage(), u.option(),
                                     u.storage(), x.option(), x.storage()),
                   std::invalid_argument, {"ScatterND", "reduction"});
  Tensor bad = Put(RandomValues(8, kFloat, 1), {4, 2}, kFloat);
  EXPECT_THROW_HAS(
      ScatterND::Create(TestQueue(), ScatterNDOption{}, x.option(), x.storage(), idx.option(),
                        idx.storage(), bad.option(), bad.storage(), x.option(), x.storage()),
      std::runtime_error, {"ScatterND", "updates", "[4, 7]"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
