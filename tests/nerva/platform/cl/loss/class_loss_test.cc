// NllLoss, CrossEntropyLoss and NllLossBackward on the OpenCL device against
// double-precision references and finite differences of the forward.

#include <cmath>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/loss/loss_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct ClassCase {
  std::vector<long> sizes;  // (N, C, d...) or (C)
  bool weighted = false;
  long ignore_index = -100;
  int ignored_every = 0;  // every k-th target is ignore_index (0: none)
  float smoothing = 0;
  DataType type = kFloat;
  DataType target_type = kInt64;
};

struct ClassData {
  long outer = 1, classes = 1, inner = 1;
  std::vector<long> target_sizes;
  std::vector<double> x, w, target;
};

ClassData MakeData(const ClassCase& c, unsigned seed) {
  ClassData d;
  if (c.sizes.size() == 1) {
    d.classes = c.sizes[0];
    d.target_sizes = {1};
  } else {
    d.outer = c.sizes[0];
    d.classes = c.sizes[1];
    d.target_sizes = {c.sizes[0]};
    for (size_t i = 2; i < c.sizes.size(); ++i) {
      d.inner *= c.sizes[i];
      d.target_sizes.push_back(c.sizes[i]);
    }
  }
  d.x = RoundTrip(RandomValues(Count(c.sizes), -4, 4, seed), c.type);
  d.w = c.weighted ? RoundTrip(RandomValues(d.classes, 0.1, 2, seed + 1), c.type)
                   : std::vector<double>(d.classes, 1.0);
  d.target = RandomValues(d.outer * d.inner, 0, static_cast<double>(d.classes), seed + 2, true);
  for (size_t i = 0; c.ignored_every && i < d.target.size(); i += c.ignored_every) {
    d.target[i] = static_cast<double>(c.ignore_index);
  }
  return d;
}

double X(const ClassData& d, long item, long cls) {
  return d.x[(item / d.inner) * d.classes * d.inner + cls * d.inner + item % d.inner];
}

// Per-item losses and weights; logits when `cross_entropy`.
void Reference(const ClassData& d, const ClassCase& c, bool cross_entropy,
               std::vector<double>* items, double* total_weight) {
  items->assign(d.target.size(), 0.0);
  *total_weight = 0;
  for (size_t i = 0; i < d.target.size(); ++i) {
    const long t = static_cast<long>(d.target[i]);
    if (t == c.ignore_index) continue;
    double lse = 0;
    if (cross_entropy) {
      double m = -INFINITY, s = 0;
      for (long k = 0; k < d.classes; ++k) m = std::max(m, X(d, i, k));
      for (long k = 0; k < d.classes; ++k) s += std::exp(X(d, i, k) - m);
      lse = m + std::log(s);
    }
    double loss = -d.w[t] * (X(d, i, t) - lse);
    if (cross_entropy && c.smoothing > 0) {
      double smooth = 0;
      for (long k = 0; k < d.classes; ++k) smooth -= d.w[k] * (X(d, i, k) - lse);
      loss = (1 - c.smoothing) * loss + c.smoothing / d.classes * smooth;
    }
    (*items)[i] = loss;
    *total_weight += d.w[t];
  }
}

void RunClassCase(const ClassCase& c, bool cross_entropy, LossReduction r, unsigned seed) {
  SCOPED_TRACE(StrCat(cross_entropy ? "CrossEntropyLoss" : "NllLoss", " sizes ", Shape(c.sizes),
                      " weighted ", c.weighted, " ignore ", c.ignore_index, "/", c.ignored_every,
                      " smoothing ", c.smoothing, " reduction ", static_cast<int>(r), " type ",
                      c.type, " target ", c.target_type));
  const ClassData d = MakeData(c, seed);
  Tensor x = UploadAs(d.x, c.sizes, c.type);
  Tensor t = UploadAs(d.target, d.target_sizes, c.target_type);
  Tensor w = UploadAs(d.w, {d.classes}, c.type);
  Tensor out = MakeOutput(LossSizes(d.target_sizes, r), c.type);
  Tensor tw = MakeOutput({1}, c.type);
  const TensorOption none = NoTensorOption(c.type);
  auto& q = TestQueue();
  if (cross_entropy) {
    CrossEntropyLossOption o{r, c.ignore_index, c.smoothing};
    q.Enqueue(c.weighted
                  ? CrossEntropyLoss::Create(q, o, x.option(), x.storage(), t.option(), t.storage(),
                                             w.option(), w.storage(), out.option(), out.storage())
                  : CrossEntropyLoss::Create(q, o, x.option(), x.storage(), t.option(), t.storage(),
                                             out.option(), out.storage()));
  } else {
    NllLossOption o{r, c.ignore_index};
    q.Enqueue(c.weighted ? NllLoss::Create(q, o, x.option(), x.storage(), t.option(), t.storage(),
                                           w.option(), w.storage(), out.option(), out.storage(),
                                           tw.option(), tw.storage())
                         : NllLoss::Create(q, o, x.option(), x.storage(), t.option(), t.storage(),
                                           out.option(), out.storage(), tw.option(), tw.storage()));
  }
  std::vector<double> items;
  double total = 0;
  Reference(d, c, cross_entropy, &items, &total);
  ExpectClose(DownloadAs(out), RoundTrip(Reduce(items, r, total), c.type), c.type);
  if (!cross_entropy) ExpectClose(DownloadAs(tw), RoundTrip({total}, c.type), c.type);
}

TEST(ClClassLossTest, NllAndCrossEntropy) {
  unsigned seed = 2100;
  const std::vector<ClassCase> cases = {
      {{5}},
      {{4, 3}, true},
      {{3, 5, 7}, false, -100, 3},
      {{2, 4, 3, 5}, true, 2, 4},
      {{7, 33}, true, -100, 0, 0.0f, kFloat, kInt32},
  };
  for (bool ce : {false, true}) {
    for (const ClassCase& c : cases) {
      for (LossReduction r : kAllReductions) RunClassCase(c, ce, r, seed++);
    }
  }
}

TEST(ClClassLossTest, GpuVariantsNllMean) {
  const GpuPathsForTesting gpu;
  unsigned seed = 2180;
  for (LossReduction r : {LossReduction::kMean, LossReduction::kSum}) {
    RunClassCase({{100003, 2}, true, -100, 7}, false, r, seed++);
  }
}

TEST(ClClassLossTest, LabelSmoothingHalfAndAllIgnored) {
  unsigned seed = 2200;
  for (LossReduction r : kAllReductions) {
    RunClassCase({{6, 9, 3}, false, -100, 0, 0.2f}, true, r, seed++);
    RunClassCase({{5, 11}, true, 1, 2, 0.35f}, true, r, seed++);
    RunClassCase({{5, 11}, true, -100, 2, 0.0f, kHalf}, true, r, seed++);
    RunClassCase({{3, 6, 5}, true, -100, 2, 0.0f, kHalf}, false, r, seed++);
  }
  // Long rows: one work group per item.
  for (LossReduction r : kAllReductions) {
    RunClassCase({{5, 300, 2}, true, 7, 3, 0.15f}, true, r, seed++);
    RunClassCase({{4, 1001}, false, -100, 0, 0.0f}, true, r, seed++);
  }
  // Every target ignored: 'mean' is 0 / 0.
  RunClassCase({{4, 3}, true, -100, 1}, false, LossReduction::kMean, seed++);
  RunClassCase({{4, 3}, false, -100, 1, 0.1f}, true, LossReduction::kMean, seed++);
}

// Row lengths around the sixteen-lane steps of the host CPU programs (one work item per run of
// rows, binary rows split into even and odd lanes), runs of rows across work items, weights,
// ignore_index, smoothing, half and int32 targets.
TEST(ClClassLossTest, RowLengthsAroundVectors) {
  unsigned seed = 2250;
  const std::vector<ClassCase> cases = {
      {{37, 2}, true, -100, 5},
      {{33, 2}, false, 1, 4, 0.0f, kHalf},
      {{20, 1}, false, -100, 3},
      {{19, 15}, true, -100, 4, 0.1f},
      {{18, 17}, false, 3, 5, 0.0f, kHalf, kInt32},
      {{3, 4097}, true, -100, 0, 0.2f},
      {{4, 4097}, false, -100, 3, 0.0f, kHalf},
      {{300, 17}, true, -100, 7},
      {{10007, 2}, true, -100, 7},
      {{9001, 3}, false, -100, 9, 0.0f, kFloat, kInt32},
  };
  for (bool ce : {false, true}) {
    for (const ClassCase& c : cases) {
      for (LossReduction r : kAllReductions) RunClassCase(c, ce, r, seed++);
    }
  }
}

// Rows whose first logits lie far below their maximum, large logits, a NaN logit and a maximum
// among the leftover classes, on both device classes.
TEST(ClClassLossTest, RowsFarFromTheirFirstLogits) {
  const long rows = 4, classes = 4097;
  std::vector<double> x = RandomValues(rows * classes, -3, 3, 2400);
  for (long k = 0; k < 300; ++k) x[k] = -100 + 0.01 * k;
  x[classes - 1] = -100;  // the leftover class
  x[3000] = 60;
  for (long k = 0; k < classes; ++k) x[classes + k] += 1000;
  x[2 * classes + 700] = NAN;
  x[4 * classes - 1] = 90;
  const std::vector<double> target = {5, 4000, 12, 4096};
  std::vector<double> want(rows);
  for (long i = 0; i < rows; ++i) {
    double m = -INFINITY, sum = 0;
    for (long k = 0; k < classes; ++k) m = std::max(m, x[i * classes + k]);
    for (long k = 0; k < classes; ++k) sum += std::exp(x[i * classes + k] - m);
    want[i] = m + std::log(sum) - x[i * classes + static_cast<long>(target[i])];
  }
  want[2] = NAN;
  for (bool gpu : {false, true}) {
    const GpuPathsForTesting paths(gpu);
    Tensor xt = UploadAs(x, {rows, classes}, kFloat), t = UploadAs(target, {rows}, kInt64);
    Tensor out = MakeOutput({rows}, kFloat);
    TestQueue().Enqueue(CrossEntropyLoss::Create(
        TestQueue(), CrossEntropyLossOption{LossReduction::kNone}, xt.option(), xt.storage(),
        t.option(), t.storage(), out.option(), out.storage()));
    ExpectClose(DownloadAs(out), want, kFloat);
  }
}

// Long rows are read once with a running maximum: rows whose maximum keeps growing,
// masked (-inf) classes ahead of and among the finite ones, on both device classes.
TEST(ClClassLossTest, LongRowsRescaleAndMaskedClasses) {
  const long rows = 3, classes = 1000;
  std::vector<double> x = RandomValues(rows * classes, -3, 3, 2300);
  for (long k = 0; k < classes; ++k) x[k] = 0.01 * k;
  for (long k = 0; k < 600; ++k) x[classes + k] = -INFINITY;
  for (long k = 0; k < classes; k += 7) x[2 * classes + k] = -INFINITY;
  const std::vector<double> target = {999, 700, 500};
  std::vector<double> want(rows);
  for (long i = 0; i < rows; ++i) {
    double m = -INFINITY, sum = 0;
    for (long k = 0; k < classes; ++k) m = std::max(m, x[i * classes + k]);
    for (long k = 0; k < classes; ++k) sum += std::exp(x[i * classes + k] - m);
    want[i] = m + std::log(sum) - x[i * classes + static_cast<long>(target[i])];
  }
  for (bool gpu : {false, true}) {
    const GpuPathsForTesting paths(gpu);
    Tensor xt = UploadAs(x, {rows, classes}, kFloat), t = UploadAs(target, {rows}, kInt64);
    Tensor out = MakeOutput({rows}, kFloat);
    TestQueue().Enqueue(CrossEntropyLoss::Create(
        TestQueue(), CrossEntropyLossOption{LossReduction::kNone}, xt.option(), xt.storage(),
        t.option(), t.storage(), out.option(), out.storage()));
    ExpectClose(DownloadAs(out), want, kFloat);
  }
}

TEST(ClClassLossTest, OutOfRangeTargetsGiveNaN) {
  Tensor x = UploadAs(RandomValues(12, -1, 1, 5), {4, 3}, kFloat);
  Tensor t = UploadAs({0, 3, -7, 2}, {4}, kInt64);
  Tensor out = MakeOutput({4}, kFloat), tw = MakeOutput({1}, kFloat);
  TestQueue().Enqueue(NllLoss::Create(TestQueue(), NllLossOption{LossReduction::kNone}, x.option(),
                                      x.storage(), t.option(), t.storage(), out.option(),
                                      out.storage(), tw.option(), tw.storage()));
  const std::vector<double> got = DownloadAs(out);
  EXPECT_FALSE(std::isnan(got[0]));
  EXPECT_TRUE(std::isnan(got[1]) && std::isnan(got[2]));
  EXPECT_TRUE(std::isnan(DownloadAs(tw)[0]));
}

TEST(ClClassLossTest, EmptyBatch) {
  Buffer memory = TestSession().MakeBuffer(kMemReadWrite, 64);
  Tensor x(TensorOption{Shape({0, 3}), kFloat}, memory, 0);
  Tensor t(TensorOption{Shape({0}), kInt64}, memory, 0);
  Tensor out(TensorOption{Shape({0}), kFloat}, memory, 0);
  Tensor mean = MakeOutput({1}, kFloat), tw = MakeOutput({1}, kFloat);
  auto& q = TestQueue();
  q.Enqueue(NllLoss::Create(q, NllLossOption{LossReduction::kNone}, x.option(), x.storage(),
                            t.option(), t.storage(), out.option(), out.storage(), tw.option(),
                            tw.storage()));
  EXPECT_EQ(DownloadAs(tw)[0], 0.0);
  q.Enqueue(CrossEntropyLoss::Create(q, CrossEntropyLossOption{}, x.option(), x.storage(),
                                     t.option(), t.storage(), mean.option(), mean.storage()));
  EXPECT_TRUE(std::isnan(DownloadAs(mean)[0]));
}

void RunNllBackward(const ClassCase& c, LossReduction r, unsigned seed) {
  SCOPED_TRACE(StrCat("sizes ", Shape(c.sizes), " weighted ", c.weighted, " reduction ",
                      static_cast<int>(r)));
  ClassData d = MakeData(c, seed);
  std::vector<double> items;
  double total = 0;
  Reference(d, c, false, &items, &total);
  const std::vector<long> loss_sizes = LossSizes(d.target_sizes, r);
  const std::vector<double> go =
      RoundTrip(RandomValues(Count(loss_sizes), -2, 2, seed + 5), c.type);
  Tensor gout = UploadAs(go, loss_sizes, c.type);
  Tensor x = UploadAs(d.x, c.sizes, c.type);
  Tensor t = UploadAs(d.target, d.target_sizes, c.target_type);
  Tensor w = UploadAs(d.w, {d.classes}, c.type);
  Tensor tw = UploadAs({total}, {1}, c.type);
  Tensor gi = MakeOutput(c.sizes, c.type);
  auto& q = TestQueue();
  NllLossBackwardOption o{r, c.ignore_index};
  q.Enqueue(c.weighted ? NllLossBackward::Create(q, o, gout.option(), gout.storage(), x.option(),
                                                 x.storage(), t.option(), t.storage(), w.option(),
                                                 w.storage(), tw.option(), tw.storage(),
                                                 gi.option(), gi.storage())
                       : NllLossBackward::Create(q, o, gout.option(), gout.storage(), x.option(),
                                                 x.storage(), t.option(), t.storage(), tw.option(),
                                                 tw.storage(), gi.option(), gi.storage()));
  // The forward is linear in the input: differences with a step of 1 are exact.
  std::vector<double> want(d.x.size());
  for (size_t e = 0; e < d.x.size(); ++e) {
    ClassData up = d;
    up.x[e] += 1;
    std::vector<double> items_up;
    double ignored;
    Reference(up, c, false, &items_up, &ignored);
    double dot = 0;
    for (size_t i = 0; i < items.size(); ++i) {
      dot += (items_up[i] - items[i]) * (r == LossReduction::kNone ? go[i] : go[0]);
    }
    want[e] = r == LossReduction::kMean ? dot / total : dot;
  }
  ExpectClose(DownloadAs(gi), want, c.type);
}

TEST(ClClassLossTest, NllBackwardMatchesDifferences) {
  unsigned seed = 2300;
  for (LossReduction r : kAllReductions) {
    RunNllBackward({{5}, true}, r, seed++);
    RunNllBackward({{4, 3}, false, -100, 3}, r, seed++);
    RunNllBackward({{3, 5, 7}, true, 2, 4}, r, seed++);
  }
}

TEST(ClClassLossTest, BadArguments) {
  Tensor x = UploadAs(RandomValues(12, -1, 1, 7), {4, 3}, kFloat);
  Tensor tf = UploadAs({0, 1, 2, 0}, {4}, kFloat);
  Tensor t3 = UploadAs({0, 1, 2}, {3}, kInt64);
  Tensor w4 = UploadAs({1, 1, 1, 1}, {4}, kFloat);
  Tensor out = MakeOutput({1}, kFloat);
  auto& q = TestQueue();
  try {
    CrossEntropyLoss::Create(q, CrossEntropyLossOption{}, x.option(), x.storage(), tf.option(),
                             tf.storage(), out.option(), out.storage());
    ADD_FAILURE() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_NE(std::string(e.what()).find("CrossEntropyLossNoWeight: target"), std::string::npos)
        << e.what();
  }
  EXPECT_THROW(CrossEntropyLoss::Create(q, CrossEntropyLossOption{}, x.option(), x.storage(),
                                        t3.option(), t3.storage(), out.option(), out.storage()),
               std::runtime_error);
  EXPECT_THROW(CrossEntropyLoss::Create(q, CrossEntropyLossOption{}, x.option(), x.storage(),
                                        tf.option(), tf.storage(), w4.option(), w4.storage(),
                                        out.option(), out.storage()),
               std::invalid_argument);
  Tensor t4 = UploadAs({0, 1, 2, 0}, {4}, kInt64);
  EXPECT_THROW(CrossEntropyLoss::Create(q, CrossEntropyLossOption{}, x.option(), x.storage(),
                                        t4.option(), t4.storage(), w4.option(), w4.storage(),
                                        out.option(), out.storage()),
               std::runtime_error);
  EXPECT_THROW(CrossEntropyLoss::Create(q, CrossEntropyLossOption{LossReduction::kMean, -100, 1.5f},
                                        x.option(), x.storage(), t4.option(), t4.storage(),
                                        out.option(), out.storage()),
               std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
