// The activation gradients: each against its derivative written in double precision on
// random data plus the points where PyTorch picks a one-sided derivative, contiguous,
// strided and broadcast; a few in half; and against a central difference of the
// matching Activation forward.

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

double Sigmoid(double x) {
  return 1 / (1 + std::exp(-x));
}

using Create = std::function<Kernel(const Operand& g, const Operand& saved, Operand& out)>;

// Creates a gradient kernel without option record.
template <typename Op>
Create Plain() {
  return [](const Operand& g, const Operand& s, Operand& o) {
    return Op::Create(TestQueue(), g.opt, g.buf, s.opt, s.buf, o.opt, o.buf);
  };
}
template <typename Op, typename Option>
Create With(Option option) {
  return [option](const Operand& g, const Operand& s, Operand& o) {
    return Op::Create(TestQueue(), option, g.opt, g.buf, s.opt, s.buf, o.opt, o.buf);
  };
}

struct GradCase {
  const char* name;
  Create create;
  std::function<double(double x)> derivative;         // of the forward, at its input x
  double lo, hi;                                      // range of random inputs
  std::vector<double> points;                         // kinks and extremes, always tested
  std::function<double(double x)> forward = nullptr;  // when the gradient takes the output
};

const ELUBackwardOption kElu{1.5f, 1.25f, 0.5f, false};
const ELUBackwardOption kEluResult{1.5f, 1.25f, 0.5f, true};

double EluDerivative(double x) {
  return x <= 0 ? 0.5 * 1.5 * 1.25 * std::exp(0.5 * x) : 1.25;
}

double MishDerivative(double x) {
  const double t = std::tanh(std::log1p(std::exp(x))), s = Sigmoid(x);
  return t + x * s * (1 - t * t);
}

const std::vector<GradCase>& Cases() {
  static const std::vector<GradCase> cases = {
      {"ReLU", Plain<ReLUBackward>(), [](double x) { return x > 0 ? 1.0 : 0.0; }, -4, 4, {0}},
      {"Sigmoid",
       Plain<SigmoidBackward>(),
       [](double x) { return Sigmoid(x) * (1 - Sigmoid(x)); },
       -8,
       8,
       {0, 20, -20},
       Sigmoid},
      {"Silu",
       Plain<SiluBackward>(),
       [](double x) { return Sigmoid(x) * (1 + x * (1 - Sigmoid(x))); },
       -8,
       8,
       {0, 40, -40}},
      {"TanH",
       Plain<TanHBackward>(),
       [](double x) { return 1 - std::tanh(x) * std::tanh(x); },
       -4,
       4,
       {0, 10},
       [](double x) { return std::tanh(x); }},
      {"GeLU",
       Plain<GeLUBackward>(),
       [](double x) {
         return 0.5 * (1 + std::erf(x / std::sqrt(2.0))) +
                x * std::exp(-0.5 * x * x) / std::sqrt(2 * M_PI);
       },
       -6,
       6,
       {0, 10, -10}},
      {"ELU", With<ELUBackward>(kElu), EluDerivative, -5, 3, {0}},
      {"ELUResult",
       With<ELUBackward>(kEluResult),
       EluDerivative,
       -5,
       3,
       {0},
       [](double x) { return x <= 0 ? 1.5 * 1.25 * (std::exp(0.5 * x) - 1) : 1.25 * x; }},
      {"HardSigmoid",
       With<HardSigmoidBackward>(HardSigmoidBackwardOption{}),
       [](double x) { return x > -3 && x < 3 ? 1 / 6.0 : 0.0; },
       -5,
       5,
       {-3, 3, 0}},
      {"HardSigmoidScaled",
       With<HardSigmoidBackward>(HardSigmoidBackwardOption{-0.5f, 0.25f}),
       [](double x) { return x > -1.5 && x < 0.5 ? -0.5 : 0.0; },
       -3,
       3,
       {-1.5, 0.5}},
      {"HardSwish",
       Plain<HardSwishBackward>(),
       [](double x) { return x < -3 ? 0 : (x <= 3 ? x / 3 + 0.5 : 1); },
       -5,
       5,
       {-3, 3}},
      {"HardTanH",
       With<HardTanHBackward>(HardTanHBackwardOption{-0.5f, 2.0f}),
       [](double x) { return x <= -0.5 || x >= 2 ? 0.0 : 1.0; },
       -3,
       3,
       {-0.5, 2}},
      {"LeakyRelu",
       With<LeakyReluBackward>(LeakyReluBackwardOption{0.2f, false}),
       [](double x) { return x > 0 ? 1.0 : double(0.2f); },
       -3,
       3,
       {0}},
      {"LogSigmoid",
       Plain<LogSigmoidBackward>(),
       [](double x) { return Sigmoid(-x); },
       -10,
       10,
       {0, 100, -100, 30, -30}},
      {"Logit",
       With<LogitBackward>(LogitBackwardOption{}),
       [](double x) {
         if (x < 0 || x > 1) return double(NAN);
         return x == 0 || x == 1 ? double(INFINITY) : 1 / (x * (1 - x));
       },
       0.01,
       0.99,
       {0, 1, -0.25, 1.5}},
      {"LogitEps",
       With<LogitBackward>(LogitBackwardOption{0.125f}),
       [](double x) { return x < 0.125 || x > 0.875 ? 0 : 1 / (x * (1 - x)); },
       -0.1,
       1.1,
       {0.125, 0.875, 0, 1}},
      {"Mish", Plain<MishBackward>(), MishDerivative, -6, 6, {0, 30, -30, 90, -90}},
      {"SReLU", Plain<SReLUBackward>(), [](double x) { return x >= 0 ? 2 * x : 0; }, -3, 3, {0}},
      {"Swish",
       With<SwishBackward>(SwishBackwardOption{1.5f}),
       [](double x) { return Sigmoid(1.5 * x) * (1 + 1.5 * x * (1 - Sigmoid(1.5 * x))); },
       -6,
       6,
       {0, 60, -60}},
      {"Threshold",
       With<ThresholdBackward>(ThresholdBackwardOption{0.5}),
       [](double x) { return x <= 0.5 ? 0.0 : 1.0; },
       -2,
       2,
       {0.5}},
  };
  return cases;
}

// Random inputs of `c` with its special points first, as stored in `t`.
std::vector<double> InputsFor(const GradCase& c, size_t n, DataType t, unsigned seed) {
  std::vector<double> x = RandomValues(n, t, c.lo, c.hi, seed);
  for (size_t i = 0; i < c.points.size() && i < n; ++i) x[i] = Quantize(c.points[i], t);
  return x;
}

// Runs the case on grad_output values g and forward inputs x laid out as asked, and
// compares with g * f'(x). `x_sizes` broadcasts to `g_sizes`.
void Check(const GradCase& c, DataType t, const std::vector<long>& g_sizes, Layout g_layout,
           const std::vector<long>& x_sizes, Layout x_layout, unsigned seed) {
  const std::vector<double> x = InputsFor(c, CountOf(x_sizes), t, seed);
  std::vector<double> saved = x;
  if (c.forward) {
    for (double& v : saved) v = Quantize(c.forward(v), t);
  }
  const Operand g = RandomOperand(g_sizes, t, -2, 2, seed + 1, g_layout);
  const Operand s = MakeOperand(x_sizes, t, saved, x_layout);
  const Operand xs = MakeOperand(x_sizes, t, x);
  const std::vector<long>& out_sizes = g_sizes;
  Operand out = OutputOperand(out_sizes, t);
  TestQueue().Enqueue(c.create(g, s, out));
  const auto expected = BroadcastReference(out_sizes, {&g, &xs}, [&](const std::vector<double>& v) {
    return Quantize(v[0] * c.derivative(v[1]), t);
  });
  const double rtol = t == kHalf ? 3e-3 : (c.forward ? 2e-5 : 1e-5);
  ExpectClose(ReadBack(out), expected, rtol, t == kHalf ? 2e-3 : 1e-6,
              StrCat(c.name, " ", t, " ", g_sizes.size(), "-d"));
}

TEST(ActivationBackwardTest, FloatContiguousStridedAndBroadcast) {
  unsigned seed = 10;
  for (const GradCase& c : Cases()) {
    for (long n : {1L, 5L, 37L})
      Check(c, kFloat, {n}, Layout::kContiguous, {n}, Layout::kContiguous, ++seed);
    Check(c, kFloat, {6, 5}, Layout::kTransposed, {6, 5}, Layout::kStepped, ++seed);
    Check(c, kFloat, {4, 3, 5}, Layout::kContiguous, {3, 1}, Layout::kContiguous, ++seed);
  }
}

TEST(ActivationBackwardTest, HalfOnSome) {
  unsigned seed = 100;
  for (const GradCase& c : Cases()) {
    const std::string name = c.name;
    if (name != "GeLU" && name != "Silu" && name != "HardSwish" && name != "Logit") continue;
    Check(c, kHalf, {67}, Layout::kContiguous, {67}, Layout::kContiguous, ++seed);
    Check(c, kHalf, {6, 5}, Layout::kTransposed, {6, 5}, Layout::kContiguous, ++seed);
  }
}

TEST(ActivationBackwardTest, LongTensors) {
  for (const GradCase& c : Cases()) {
    const std::string name = c.name;
    if (name == "ReLU" || name == "GeLU") {
      Check(c, kFloat, {1000003}, Layout::kContiguous, {1000003}, Layout::kContiguous, 7);
    }
  }
}

TEST(ActivationBackwardTest, IntegerReluAndThreshold) {
  for (DataType t : {kInt32}) {
    const Operand g = RandomOperand({9}, t, -50, 50, 3);
    const Operand x = MakeOperand({9}, t, {-3, -1, 0, 1, 2, 3, -2, 5, 0});
    for (int op = 0; op < 2; ++op) {
      Operand out = OutputOperand({9}, t);
      TestQueue().Enqueue(
          op == 0 ? ReLUBackward::Create(TestQueue(), g.opt, g.buf, x.opt, x.buf, out.opt, out.buf)
                  : ThresholdBackward::Create(TestQueue(), ThresholdBackwardOption{1.7}, g.opt,
                                              g.buf, x.opt, x.buf, out.opt, out.buf));
      const double th = op == 0 ? 0 : 1;  // 1.7 truncated in the integer type
      std::vector<double> expected;
      for (size_t i = 0; i < 9; ++i) expected.push_back(x.values[i] <= th ? 0 : g.values[i]);
      EXPECT_EQ(ReadBack(out), expected) << op;
    }
  }
}

TEST(ActivationBackwardTest, NanPropagatesAsInTorch) {
  const Operand g = MakeOperand({4}, kFloat, {1.5, 1.5, 1.5, 1.5});
  const Operand x = MakeOperand({4}, kFloat, {NAN, NAN, NAN, NAN});
  struct {
    Create create;
    bool nan;  // NaN result, else the gradient passes (1.5)
  } rows[] = {{Plain<ReLUBackward>(), false},
              {With<HardTanHBackward>(HardTanHBackwardOption{}), false},
              {Plain<GeLUBackward>(), true},
              {Plain<LogSigmoidBackward>(), true}};
  for (auto& row : rows) {
    Operand out = OutputOperand({4}, kFloat);
    TestQueue().Enqueue(row.create(g, x, out));
    const double got = ReadBack(out)[3];
    if (row.nan) {
      EXPECT_TRUE(std::isnan(got));
    } else {
      EXPECT_EQ(got, 1.5);
    }
  }
}

// Central differences of the forward on the device: (f(x + h) - f(x - h)) / 2h.
TEST(ActivationBackwardTest, MatchesDifferencesOfTheForward) {
  struct Row {
    ActivationType op;
    float alpha, beta;
    const char* name;  // the case in Cases() with the same function
  } rows[] = {{kGelu, 1, 0, "GeLU"},
              {kSilu, 1, 0, "Silu"},
              {kMish, 1, 0, "Mish"},
              {kSwish, 1.5f, 0, "Swish"},
              {kHardSwish, 1, 0, "HardSwish"}};
  const long n = 257;
  const double h = 1e-2;
  std::vector<double> x = RandomValues(n, kFloat, -4, 4, 5);
  std::vector<double> xp(x), xm(x);
  for (long i = 0; i < n; ++i) xp[i] = float(x[i] + h), xm[i] = float(x[i] - h);
  const Operand in = MakeOperand({n}, kFloat, x), inp = MakeOperand({n}, kFloat, xp),
                inm = MakeOperand({n}, kFloat, xm),
                ones = MakeOperand({n}, kFloat, std::vector<double>(n, 1));
  for (const Row& row : rows) {
    const GradCase* c = nullptr;
    for (const GradCase& k : Cases()) {
      if (std::string(k.name) == row.name) c = &k;
    }
    ASSERT_NE(c, nullptr);
    ActivationOption option;
    option.op_type = row.op, option.alpha = row.alpha, option.beta = row.beta;
    Operand fp = OutputOperand({n}, kFloat), fm = OutputOperand({n}, kFloat),
            grad = OutputOperand({n}, kFloat);
    TestQueue().Enqueue(Activation::Create(TestQueue(), option, inp.opt, inp.buf, fp.opt, fp.buf));
    TestQueue().Enqueue(Activation::Create(TestQueue(), option, inm.opt, inm.buf, fm.opt, fm.buf));
    TestQueue().Enqueue(c->create(ones, in, grad));
    const auto up = ReadBack(fp), down = ReadBack(fm), got = ReadBack(grad);
    for (long i = 0; i < n; ++i) {
      if (row.op == kHardSwish && std::fabs(std::fabs(x[i]) - 3) < 2 * h) continue;
      const double diff = (up[i] - down[i]) / (xp[i] - xm[i]);
      EXPECT_NEAR(got[i], diff, 2e-3 + 2e-3 * std::fabs(diff)) << row.name << " at x=" << x[i];
    }
  }
}

TEST(ActivationBackwardTest, EmptyTensorsRunNothing) {
  const Operand g = OutputOperand({0, 3}, kFloat), x = OutputOperand({0, 3}, kFloat);
  Operand out = OutputOperand({0, 3}, kFloat);
  Kernel k = GeLUBackward::Create(TestQueue(), g.opt, g.buf, x.opt, x.buf, out.opt, out.buf);
  TestQueue().Enqueue(k);
  TestQueue().Wait();
}

TEST(ActivationBackwardTest, InPlaceOnGradOutput) {
  Operand g = RandomOperand({1001}, kFloat, -2, 2, 8);
  const Operand x = RandomOperand({1001}, kFloat, -3, 3, 9);
  TestQueue().Enqueue(SiluBackward::Create(TestQueue(), g.opt, g.buf, x.opt, x.buf, g.opt, g.buf));
  std::vector<double> expected;
  for (size_t i = 0; i < x.values.size(); ++i) {
    const double s = Sigmoid(x.values[i]);
    expected.push_back(g.values[i] * s * (1 + x.values[i] * (1 - s)));
  }
  ExpectClose(ReadBack(g), expected, 1e-5, 1e-6, "in place");
}

TEST(ActivationBackwardTest, GeLUSixteenLaneFlatKernel) {
  // CPU devices map contiguous float GeLU gradients 16 lanes per item: whole
  // vectors, the tail after them, special values inside a vector, in place.
  const GradCase* gelu = nullptr;
  for (const GradCase& k : Cases()) {
    if (std::string(k.name) == "GeLU") gelu = &k;
  }
  ASSERT_NE(gelu, nullptr);
  unsigned seed = 300;
  for (long n : {15L, 16L, 17L, 4097L})
    Check(*gelu, kFloat, {n}, Layout::kContiguous, {n}, Layout::kContiguous, ++seed);
  std::vector<double> xs = RandomValues(40, kFloat, -9, 9, ++seed);
  xs[3] = NAN, xs[5] = INFINITY, xs[6] = -INFINITY, xs[7] = 0, xs[20] = -30, xs[21] = 30;
  Operand g = RandomOperand({40}, kFloat, -2, 2, ++seed);
  const Operand x = MakeOperand({40}, kFloat, xs);
  std::vector<double> expected;
  for (size_t i = 0; i < xs.size(); ++i) expected.push_back(g.values[i] * gelu->derivative(xs[i]));
  TestQueue().Enqueue(GeLUBackward::Create(TestQueue(), g.opt, g.buf, x.opt, x.buf, g.opt, g.buf));
  const std::vector<double> got = ReadBack(g);
  EXPECT_TRUE(std::isnan(got[3]));
  // x = +inf: Phi = 1, x phi = inf * 0 = NaN, as the formula gives in float.
  for (size_t i = 0; i < xs.size(); ++i) {
    if (i == 3 || i == 5 || i == 6) continue;
    EXPECT_NEAR(got[i], expected[i], 1e-6 + 1e-5 * std::fabs(expected[i])) << "at " << i;
  }
}

TEST(ActivationBackwardTest, GpuVariants) {
  const GpuPathsForTesting gpu;
  unsigned seed = 200;
  for (const GradCase& c : Cases()) {
    const std::string name = c.name;
    if (name != "ReLU" && name != "GeLU" && name != "Silu") continue;
    for (long n : {3L, 1000003L})
      Check(c, kFloat, {n}, Layout::kContiguous, {n}, Layout::kContiguous, ++seed);
    Check(c, kFloat, {4, 3, 5}, Layout::kContiguous, {3, 1}, Layout::kContiguous, ++seed);
    if (name == "GeLU")
      Check(c, kHalf, {67}, Layout::kContiguous, {67}, Layout::kContiguous, ++seed);
  }
}

TEST(ActivationBackwardTest, Errors) {
  Operand f = OutputOperand({4}, kFloat), i = OutputOperand({4}, kInt32),
          wrong = OutputOperand({5}, kFloat);
  // Float-only gradients reject integer tensors and integer outputs.
  EXPECT_THROW(GeLUBackward::Create(TestQueue(), i.opt, i.buf, i.opt, i.buf, i.opt, i.buf),
               std::invalid_argument);
  EXPECT_THROW(ReLUBackward::Create(TestQueue(), f.opt, f.buf, f.opt, f.buf, i.opt, i.buf),
               std::invalid_argument);
  try {
    SiluBackward::Create(TestQueue(), f.opt, f.buf, f.opt, f.buf, wrong.opt, wrong.buf);
    ADD_FAILURE() << "no error for a wrong output shape";
  } catch (const std::runtime_error& e) {
    EXPECT_NE(std::string(e.what()).find("SiluBackward"), std::string::npos) << e.what();
  }
  EXPECT_THROW(TanHBackward::Create(TestQueue(), f.opt, f.buf, wrong.opt, wrong.buf, f.opt, f.buf),
               std::runtime_error);
  EXPECT_THROW(ELUBackward::Create(TestQueue(), ELUBackwardOption{-1, 1, 1, true}, f.opt, f.buf,
                                   f.opt, f.buf, f.opt, f.buf),
               std::invalid_argument);
  EXPECT_THROW(LeakyReluBackward::Create(TestQueue(), LeakyReluBackwardOption{-0.1f, true}, f.opt,
                                         f.buf, f.opt, f.buf, f.opt, f.buf),
               std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva

namespace nerva {
namespace cl {
namespace testing {
namespace {

// grad_input of glu along `dim` of `in` (row-major values) for grad_output values g.
std::vector<double> GluGrad(const std::vector<long>& sizes, int dim, const std::vector<double>& in,
                            const std::vector<double>& g) {
  long outer = 1, inner = 1;
  for (int d = 0; d < dim; ++d) outer *= sizes[d];
  for (size_t d = dim + 1; d < sizes.size(); ++d) inner *= sizes[d];
  const long n = sizes[dim] / 2;
  std::vector<double> out(in.size());
  for (long o = 0; o < outer; ++o) {
    for (long j = 0; j < n; ++j) {
      for (long i = 0; i < inner; ++i) {
        const long ia = (o * 2 * n + j) * inner + i, ib = ia + n * inner;
        const double s = 1 / (1 + std::exp(-in[ib])), gv = g[(o * n + j) * inner + i];
        out[ia] = s * gv;
        out[ib] = (1 - s) * s * in[ia] * gv;
      }
    }
  }
  return out;
}

TEST(GLUBackwardTest, DimsLayoutsAndTypes) {
  struct Case {
    std::vector<long> sizes;
    int dim;
    Layout layout;  // of the input
    DataType type;
  } cases[] = {
      {{4, 6}, -1, Layout::kContiguous, kFloat},
      {{3, 4, 5}, 1, Layout::kTransposed, kFloat},
      {{2, 3, 5}, 0, Layout::kStepped, kFloat},
      {{2}, 0, Layout::kContiguous, kFloat},
      {{3, 2, 4, 5, 2}, 2, Layout::kTransposed, kFloat},
      {{5, 8}, 1, Layout::kContiguous, kHalf},
  };
  unsigned seed = 300;
  for (const Case& c : cases) {
    const Operand in = RandomOperand(c.sizes, c.type, -4, 4, ++seed, c.layout);
    std::vector<long> half = c.sizes;
    const int dim = c.dim < 0 ? c.dim + static_cast<int>(half.size()) : c.dim;
    half[dim] /= 2;
    const Operand g = RandomOperand(half, c.type, -2, 2, ++seed);
    Operand out = OutputOperand(c.sizes, c.type);
    TestQueue().Enqueue(GLUBackward::Create(TestQueue(), GLUBackwardOption{c.dim}, g.opt, g.buf,
                                            in.opt, in.buf, out.opt, out.buf));
    std::vector<double> expected = GluGrad(c.sizes, dim, in.values, g.values);
    for (double& v : expected) v = Quantize(v, c.type);
    ExpectClose(ReadBack(out), expected, c.type == kHalf ? 3e-3 : 1e-5,
                c.type == kHalf ? 1e-3 : 1e-6, StrCat("glu ", c.sizes.size(), "-d dim ", c.dim));
  }
}

TEST(GLUBackwardTest, Errors) {
  Operand in = OutputOperand({4, 5}, kFloat), g = OutputOperand({2, 5}, kFloat),
          bad = OutputOperand({4, 2}, kFloat), ints = OutputOperand({4, 5}, kInt32);
  Operand out = OutputOperand({4, 5}, kFloat);
  auto create = [&](int dim, const Operand& go, const Operand& x, Operand& gi) {
    return GLUBackward::Create(TestQueue(), GLUBackwardOption{dim}, go.opt, go.buf, x.opt, x.buf,
                               gi.opt, gi.buf);
  };
  EXPECT_NO_THROW(create(0, g, in, out));
  EXPECT_THROW(create(1, bad, in, out), std::runtime_error);  // 5 is odd
  EXPECT_THROW(create(0, bad, in, out), std::runtime_error);  // wrong grad_output
  EXPECT_THROW(create(2, g, in, out), std::out_of_range);
  EXPECT_THROW(create(0, g, ints, out), std::invalid_argument);
  EXPECT_THROW(create(0, g, in, ints), std::invalid_argument);
  Operand same = in;
  EXPECT_THROW(create(0, g, in, same), std::runtime_error);  // overlaps the input
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
