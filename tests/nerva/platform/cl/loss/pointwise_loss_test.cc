// Element-wise losses and their gradients on the OpenCL device against
// double-precision references and finite differences of the forward.

#include <algorithm>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/loss/loss_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

enum class Op { kMse, kL1, kSoftMargin, kBce, kBceNoWeight, kLogits, kLogitsWeight, kLogitsPos };

double Softplus(double z) {
  return std::max(z, 0.0) + std::log1p(std::exp(-std::fabs(z)));
}

// The loss of one element with weight w and positive-class weight p.
double Term(Op op, double x, double t, double w, double p) {
  switch (op) {
    case Op::kMse:
      return (x - t) * (x - t);
    case Op::kL1:
      return std::fabs(x - t);
    case Op::kSoftMargin:
      return std::log(1 + std::exp(-t * x));
    case Op::kBce:
    case Op::kBceNoWeight:
      return -w * (t * std::max(std::log(x), -100.0) + (1 - t) * std::max(std::log(1 - x), -100.0));
    default:
      return w * ((1 - t) * x + (1 + (p - 1) * t) * Softplus(-x));
  }
}

bool IsBce(Op op) {
  return op == Op::kBce || op == Op::kBceNoWeight;
}
bool HasWeight(Op op) {
  return op == Op::kBce || op == Op::kLogitsWeight || op == Op::kLogitsPos;
}

struct Inputs {
  std::vector<long> sizes;
  std::vector<double> x, t, w, p;  // w and p broadcast along the last dimension
  long last = 1;
};

Inputs MakeInputs(Op op, std::vector<long> sizes, DataType type, unsigned seed) {
  Inputs in;
  in.sizes = sizes;
  in.last = sizes.back();
  const size_t n = static_cast<size_t>(Count(sizes));
  const bool prob = IsBce(op);
  in.x = RoundTrip(RandomValues(n, prob ? 0.02 : -3, prob ? 0.98 : 3, seed), type);
  if (op == Op::kSoftMargin) {
    in.t = RandomValues(n, -1, 1, seed + 1);
    for (auto& v : in.t) v = v < 0 ? -1 : 1;
  } else {
    in.t = RoundTrip(RandomValues(n, prob || op >= Op::kLogits ? 0 : -3,
                                  prob || op >= Op::kLogits ? 1 : 3, seed + 1),
                     type);
  }
  in.w = RoundTrip(RandomValues(static_cast<size_t>(in.last), 0.2, 2, seed + 2), type);
  in.p = RoundTrip(RandomValues(static_cast<size_t>(in.last), 0.2, 3, seed + 3), type);
  if (prob && n > 2) in.x[1] = 0, in.x[2] = 1;  // the clamped logarithms
  return in;
}

std::vector<double> Items(Op op, const Inputs& in) {
  std::vector<double> out(in.x.size());
  for (size_t i = 0; i < out.size(); ++i) {
    const size_t c = i % static_cast<size_t>(in.last);
    const double w = HasWeight(op) ? in.w[c] : 1.0;
    const double p = op == Op::kLogitsPos ? in.p[c] : 1.0;
    out[i] = Term(op, in.x[i], in.t[i], w, p);
  }
  return out;
}

Kernel CreateForward(Op op, LossReduction r, const Tensor& x, const Tensor& t, const Tensor& w,
                     const Tensor& p, Tensor& out) {
  auto& q = TestQueue();
  switch (op) {
    case Op::kMse:
      return MseLoss::Create(q, MseLossOption{r}, x.option(), x.storage(), t.option(), t.storage(),
                             out.option(), out.storage());
    case Op::kL1:
      return L1Loss::Create(q, L1LossOption{r}, x.option(), x.storage(), t.option(), t.storage(),
                            out.option(), out.storage());
    case Op::kSoftMargin:
      return SoftMarginLoss::Create(q, SoftMarginLossOption{r}, x.option(), x.storage(), t.option(),
                                    t.storage(), out.option(), out.storage());
    case Op::kBce:
      return BCELoss::Create(q, BCELossOption{r}, x.option(), x.storage(), t.option(), t.storage(),
                             w.option(), w.storage(), out.option(), out.storage());
    case Op::kBceNoWeight:
      return BCELoss::Create(q, BCELossOption{r}, x.option(), x.storage(), t.option(), t.storage(),
                             out.option(), out.storage());
    case Op::kLogits:
      return BCEWithLogitsLoss::Create(q, BCEWithLogitsLossOption{r}, x.option(), x.storage(),
                                       t.option(), t.storage(), out.option(), out.storage());
    case Op::kLogitsWeight:
      return BCEWithLogitsLoss::Create(q, BCEWithLogitsLossOption{r}, x.option(), x.storage(),
                                       t.option(), t.storage(), w.option(), w.storage(),
                                       out.option(), out.storage());
    case Op::kLogitsPos:
      return BCEWithLogitsLoss::Create(q, BCEWithLogitsLossOption{r}, x.option(), x.storage(),
                                       t.option(), t.storage(), w.option(), w.storage(), p.option(),
                                       p.storage(), out.option(), out.storage());
  }
  throw std::logic_error("unknown op");
}

void RunForward(Op op, LossReduction r, std::vector<long> sizes, DataType type, unsigned seed) {
  SCOPED_TRACE(StrCat("op ", static_cast<int>(op), " reduction ", static_cast<int>(r), " sizes ",
                      Shape(sizes), " type ", type));
  const Inputs in = MakeInputs(op, sizes, type, seed);
  Tensor x = UploadAs(in.x, sizes, type), t = UploadAs(in.t, sizes, type);
  Tensor w = UploadAs(in.w, {in.last}, type), p = UploadAs(in.p, {in.last}, type);
  Tensor out = MakeOutput(LossSizes(sizes, r), type);
  TestQueue().Enqueue(CreateForward(op, r, x, t, w, p, out));
  const std::vector<double> want = r == LossReduction::kNone
                                       ? RoundTrip(Items(op, in), type)
                                       : RoundTrip(Reduce(Items(op, in), r, in.x.size()), type);
  ExpectClose(DownloadAs(out), want, type);
}

TEST(ClPointwiseLossTest, ForwardEveryReduction) {
  unsigned seed = 1800;
  for (Op op : {Op::kMse, Op::kL1, Op::kSoftMargin, Op::kBce, Op::kBceNoWeight, Op::kLogits,
                Op::kLogitsWeight, Op::kLogitsPos}) {
    for (LossReduction r : kAllReductions) {
      for (const auto& sizes : std::vector<std::vector<long>>{{1}, {3}, {5, 7}, {3, 1001}}) {
        RunForward(op, r, sizes, kFloat, seed++);
      }
    }
  }
}

TEST(ClPointwiseLossTest, HalfAndLargeSums) {
  unsigned seed = 1900;
  for (LossReduction r : kAllReductions) {
    RunForward(Op::kMse, r, {9, 5}, kHalf, seed++);
    RunForward(Op::kLogitsPos, r, {4, 33}, kHalf, seed++);
  }
  RunForward(Op::kMse, LossReduction::kMean, {200003}, kFloat, seed++);
  RunForward(Op::kL1, LossReduction::kSum, {3, 70001}, kFloat, seed++);
  // Lengths around the sixteen-lane steps and chunks of the host CPU programs.
  for (Op op : {Op::kMse, Op::kL1, Op::kLogitsWeight}) {
    for (long n : {15L, 16L, 17L, 4097L, 20011L}) {
      for (LossReduction r : kAllReductions) {
        RunForward(op, r, {n}, kHalf, seed++);
        RunForward(op, r, {n}, kFloat, seed++);
      }
    }
  }
}

// The GPU partial sums: many groups, four-way folds with leftovers.
TEST(ClPointwiseLossTest, GpuVariantsLargeSums) {
  const GpuPathsForTesting gpu;
  unsigned seed = 1950;
  RunForward(Op::kMse, LossReduction::kMean, {200003}, kFloat, seed++);
  RunForward(Op::kMse, LossReduction::kSum, {7}, kFloat, seed++);
  RunForward(Op::kBce, LossReduction::kMean, {3, 70001}, kFloat, seed++);
  RunForward(Op::kMse, LossReduction::kMean, {9, 5}, kHalf, seed++);
}

TEST(ClPointwiseLossTest, LargeLogitsStayFinite) {
  Tensor x = UploadAs({-200, 200, 90, -90}, {4}, kFloat);
  Tensor t = UploadAs({1, 0, 1, 0}, {4}, kFloat);
  Tensor out = MakeOutput({4}, kFloat);
  TestQueue().Enqueue(BCEWithLogitsLoss::Create(TestQueue(), {LossReduction::kNone}, x.option(),
                                                x.storage(), t.option(), t.storage(), out.option(),
                                                out.storage()));
  ExpectClose(DownloadAs(out), {200, 200, Softplus(-90.0), Softplus(-90.0)}, kFloat);
}

TEST(ClPointwiseLossTest, EmptyInput) {
  Tensor x(TensorOption{Shape({0, 3}), kFloat}, TestSession().MakeBuffer(kMemReadWrite, 64), 0);
  Tensor out = MakeOutput({1}, kFloat);
  TestQueue().Enqueue(MseLoss::Create(TestQueue(), {LossReduction::kMean}, x.option(), x.storage(),
                                      x.option(), x.storage(), out.option(), out.storage()));
  EXPECT_TRUE(std::isnan(DownloadAs(out)[0]));
  TestQueue().Enqueue(MseLoss::Create(TestQueue(), {LossReduction::kSum}, x.option(), x.storage(),
                                      x.option(), x.storage(), out.option(), out.storage()));
  EXPECT_EQ(DownloadAs(out)[0], 0.0);
}

// ---- gradients ----

enum class Grad { kMse, kSoftMargin, kBce };

Op ForwardOf(Grad g) {
  return g == Grad::kMse ? Op::kMse : g == Grad::kSoftMargin ? Op::kSoftMargin : Op::kBce;
}

void RunBackward(Grad g, LossReduction r, std::vector<long> sizes, DataType type, bool weighted,
                 unsigned seed) {
  SCOPED_TRACE(StrCat("grad ", static_cast<int>(g), " reduction ", static_cast<int>(r), " sizes ",
                      Shape(sizes), " type ", type, " weighted ", weighted));
  const Op op = ForwardOf(g);
  Inputs in = MakeInputs(op, sizes, type, seed);
  if (op == Op::kBce) {
    for (auto& v : in.x) v = std::clamp(v, 0.05, 0.95);  // room for the finite differences
    in.x = RoundTrip(in.x, type);
  }
  if (!weighted) std::fill(in.w.begin(), in.w.end(), 1.0);
  const size_t n = in.x.size();
  const std::vector<long> loss_sizes = LossSizes(sizes, r);
  const std::vector<double> go =
      RoundTrip(RandomValues(static_cast<size_t>(Count(loss_sizes)), -2, 2, seed + 7), type);
  Tensor gout = UploadAs(go, loss_sizes, type);
  Tensor x = UploadAs(in.x, sizes, type), t = UploadAs(in.t, sizes, type);
  Tensor w = UploadAs(in.w, {in.last}, type);
  Tensor gi = MakeOutput(sizes, type);
  auto& q = TestQueue();
  if (g == Grad::kMse) {
    q.Enqueue(MseLossBackward::Create(q, MseLossBackwardOption{r}, gout.option(), gout.storage(),
                                      x.option(), x.storage(), t.option(), t.storage(), gi.option(),
                                      gi.storage()));
  } else if (g == Grad::kSoftMargin) {
    q.Enqueue(SoftMarginLossBackward::Create(q, SoftMarginLossBackwardOption{r}, gout.option(),
                                             gout.storage(), x.option(), x.storage(), t.option(),
                                             t.storage(), gi.option(), gi.storage()));
  } else {
    const TensorOption wo = weighted ? w.option() : NoTensorOption(type);
    q.Enqueue(BinaryCrossEntropyBackward::Create(
        q, BinaryCrossEntropyBackwardOption{r}, gout.option(), gout.storage(), x.option(),
        x.storage(), t.option(), t.storage(), wo, weighted ? w.storage() : Buffer(), gi.option(),
        gi.storage()));
  }
  // Central differences of the reference forward, weighted by grad_output.
  std::vector<double> want(n);
  const double h = 1e-5;
  for (size_t i = 0; i < n; ++i) {
    const double wi = in.w[i % static_cast<size_t>(in.last)];
    const double d =
        (Term(op, in.x[i] + h, in.t[i], wi, 1) - Term(op, in.x[i] - h, in.t[i], wi, 1)) / (2 * h);
    const double scale = r == LossReduction::kMean ? 1.0 / static_cast<double>(n) : 1.0;
    want[i] = d * (r == LossReduction::kNone ? go[i] : go[0]) * scale;
  }
  const std::vector<double> got = DownloadAs(gi);
  for (size_t i = 0; i < n; ++i) {
    EXPECT_NEAR(got[i], want[i], 10 * Tolerance(type) * (1e-3 + std::fabs(want[i]))) << "at " << i;
  }
}

TEST(ClPointwiseLossTest, GradientsMatchFiniteDifferences) {
  unsigned seed = 2000;
  for (Grad g : {Grad::kMse, Grad::kSoftMargin, Grad::kBce}) {
    for (LossReduction r : kAllReductions) {
      for (const auto& sizes : std::vector<std::vector<long>>{{1}, {5}, {7, 3}, {1001}}) {
        RunBackward(g, r, sizes, kFloat, g == Grad::kBce && sizes.size() == 2, seed++);
      }
    }
  }
  RunBackward(Grad::kBce, LossReduction::kMean, {6, 9}, kFloat, false, seed++);
  RunBackward(Grad::kMse, LossReduction::kNone, {6, 9}, kHalf, false, seed++);
}

TEST(ClPointwiseLossTest, BadArguments) {
  Tensor x = UploadAs({0.5, 0.5, 0.5, 0.5, 0.5, 0.5}, {2, 3}, kFloat);
  Tensor t3 = UploadAs({1, 0, 1}, {3}, kFloat);
  Tensor xi = UploadAs({1, 2, 3, 4, 5, 6}, {2, 3}, kInt32);
  Tensor out = MakeOutput({1}, kFloat);
  Tensor w2 = UploadAs({1, 2}, {2}, kFloat);
  auto& q = TestQueue();
  EXPECT_THROW(MseLoss::Create(q, {LossReduction::kMean}, x.option(), x.storage(), t3.option(),
                               t3.storage(), out.option(), out.storage()),
               std::runtime_error);
  EXPECT_THROW(MseLoss::Create(q, {LossReduction::kMean}, xi.option(), xi.storage(), xi.option(),
                               xi.storage(), out.option(), out.storage()),
               std::invalid_argument);
  EXPECT_THROW(MseLoss::Create(q, {LossReduction::kNone}, x.option(), x.storage(), x.option(),
                               x.storage(), out.option(), out.storage()),
               std::runtime_error);
  EXPECT_THROW(MseLoss::Create(q, MseLossOption{static_cast<LossReduction>(7)}, x.option(),
                               x.storage(), x.option(), x.storage(), out.option(), out.storage()),
               std::invalid_argument);
  try {
    BCELoss::Create(q, {LossReduction::kSum}, x.option(), x.storage(), x.option(), x.storage(),
                    w2.option(), w2.storage(), out.option(), out.storage());
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "BCELoss: weight of shape [2] does not broadcast to [2, 3]");
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
