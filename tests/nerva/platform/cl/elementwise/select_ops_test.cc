// Clamp, Where, MaskedFill, Threshold and Ternary against double references.

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"
#include "nerva/platform/cl/kernel/elementwise/ternary.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

using Fn = std::function<double(const std::vector<double>&)>;
using Creator = std::function<Kernel(const std::vector<Operand>&, Operand&)>;

// Runs `create` on `inputs` into a fresh output of the broadcast shape and
// compares with `fn` applied element by element.
void CheckOp(const std::vector<Operand>& inputs, DataType out_type, const Creator& create,
             const Fn& fn, const std::string& what) {
  std::vector<long> sizes;
  std::vector<const Operand*> ptrs;
  for (const Operand& in : inputs) {
    ASSERT_TRUE(BroadcastTogether(sizes, in.opt.shape.sizes(), &sizes));
    ptrs.push_back(&in);
  }
  Operand out = OutputOperand(sizes, out_type);
  TestQueue().Enqueue(create(inputs, out));
  const std::vector<double> expected = BroadcastReference(
      sizes, ptrs, [&](const std::vector<double>& v) { return Quantize(fn(v), out_type); });
  const double rtol = out_type == kHalf ? 2e-3 : 2e-5;
  ExpectClose(ReadBack(out), expected, rtol, rtol * 0.1, what);
}

Kernel CreateClamp(const std::vector<Operand>& in, Operand& out) {
  return Clamp::Create(TestQueue(), in[0].opt, in[0].buf, in[1].opt, in[1].buf, in[2].opt,
                       in[2].buf, out.opt, out.buf);
}

double ClampRef(const std::vector<double>& v) {
  if (std::isnan(v[0]) || std::isnan(v[1]) || std::isnan(v[2])) return NAN;
  return std::min(std::max(v[0], v[1]), v[2]);
}

TEST(ClampTest, TensorBounds) {
  for (DataType t : {kFloat, kHalf, kInt32}) {
    const std::vector<Operand> in = {RandomOperand({4, 1, 5}, t, -9, 9, 1),
                                     RandomOperand({3, 1}, t, -5, 0, 2),
                                     RandomOperand({5}, t, 0, 5, 3)};
    CheckOp(in, t, CreateClamp, ClampRef, StrCat("clamp ", t));
  }
  // Transposed input, crossed bounds (min above max gives max), NaN.
  std::vector<Operand> in = {RandomOperand({7, 9}, kFloat, -9, 9, 4, Layout::kTransposed),
                             MakeOperand({1}, kFloat, {3}),
                             MakeOperand({9}, kFloat, {1, 2, 3, 4, 5, 6, 7, 8, NAN})};
  CheckOp(in, kFloat, CreateClamp, ClampRef, "clamp crossed");
  // Only one bound: the other left out.
  Operand x = RandomOperand({1001}, kFloat, -9, 9, 5), lo = MakeOperand({1}, kFloat, {-1});
  Operand out = OutputOperand({1001}, kFloat);
  TestQueue().Enqueue(Clamp::Create(TestQueue(), x.opt, x.buf, lo.opt, lo.buf, TensorOption{},
                                    Buffer(), out.opt, out.buf));
  const std::vector<double> got = ReadBack(out);
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], std::max(x.values[i], -1.0)) << i;
  EXPECT_THROW(Clamp::Create(TestQueue(), x.opt, x.buf, TensorOption{}, Buffer(), TensorOption{},
                             Buffer(), out.opt, out.buf),
               std::invalid_argument);
}

TEST(WhereTest, BroadcastConditionAndTypes) {
  auto create = [](const std::vector<Operand>& in, Operand& out) {
    return Where::Create(TestQueue(), in[0].opt, in[0].buf, in[1].opt, in[1].buf, in[2].opt,
                         in[2].buf, out.opt, out.buf);
  };
  const Fn fn = [](const std::vector<double>& v) { return v[0] != 0 ? v[1] : v[2]; };
  CheckOp({RandomOperand({4, 1, 5}, kBool, 0, 1, 6), RandomOperand({3, 1}, kFloat, -5, 5, 7),
           RandomOperand({5}, kFloat, -5, 5, 8)},
          kFloat, create, fn, "where float");
  CheckOp({RandomOperand({1003}, kBool, 0, 1, 9), RandomOperand({1003}, kInt8, -50, 50, 10),
           RandomOperand({1003}, kInt32, -50, 50, 11)},
          kInt32, create, fn, "where int8/int32");
  CheckOp({RandomOperand({6, 5}, kBool, 0, 1, 12, Layout::kStepped),
           RandomOperand({6, 5}, kHalf, -5, 5, 13, Layout::kTransposed),
           RandomOperand({1}, kHalf, -5, 5, 14)},
          kHalf, create, fn, "where half");
  Operand c = OutputOperand({3}, kFloat), x = OutputOperand({3}, kFloat);
  EXPECT_THROW(create({c, x, x}, x), std::invalid_argument);
}

TEST(MaskedFillTest, BroadcastMask) {
  for (DataType t : {kFloat, kInt32, kBool}) {
    const double value = t == kBool ? 1 : -2.5;
    auto create = [value](const std::vector<Operand>& in, Operand& out) {
      return MaskedFill::Create(TestQueue(), MaskedFillOption{value}, in[0].opt, in[0].buf,
                                in[1].opt, in[1].buf, out.opt, out.buf);
    };
    // Integers take the value truncated toward zero.
    const double fill = Quantize(t == kInt32 ? std::trunc(value) : value, t);
    const Fn fn = [fill](const std::vector<double>& v) { return v[1] != 0 ? fill : v[0]; };
    CheckOp({RandomOperand({4, 3, 5}, t, -5, 5, 15), RandomOperand({3, 1}, kBool, 0, 1, 16)}, t,
            create, fn, StrCat("masked_fill ", t));
  }
}

TEST(ThresholdTest, FloatAndInt) {
  for (DataType t : {kFloat, kInt32, kHalf}) {
    const ThresholdOption option{0.5, -7};
    auto create = [option](const std::vector<Operand>& in, Operand& out) {
      return Threshold::Create(TestQueue(), option, in[0].opt, in[0].buf, out.opt, out.buf);
    };
    const double th = t == kInt32 ? 0 : 0.5;
    const Fn fn = [th](const std::vector<double>& v) { return v[0] > th ? v[0] : -7; };
    CheckOp({RandomOperand({1003}, t, -3, 3, 17)}, t, create, fn, StrCat("threshold ", t));
    if (t == kFloat) {
      CheckOp({RandomOperand({5, 7}, t, -3, 3, 18, Layout::kTransposed)}, t, create, fn,
              "threshold view");
    }
  }
}

double TernaryRef(TernaryType op, double x, double a, double b, double value) {
  switch (op) {
    case TernaryType::kAddcmul:
      return x + value * a * b;
    case TernaryType::kAddcdiv:
      return x + value * a / b;
    case TernaryType::kLerp:
      return x + b * (a - x);
  }
  return NAN;
}

TEST(TernaryTest, EveryOperator) {
  const TernaryType ops[] = {TernaryType::kAddcmul, TernaryType::kAddcdiv, TernaryType::kLerp};
  for (TernaryType op : ops) {
    for (DataType t : {kFloat, kHalf}) {
      if (t == kHalf && op != TernaryType::kLerp) continue;
      const TernaryOption option{op, 0.75f};
      auto create = [option](const std::vector<Operand>& in, Operand& out) {
        return Ternary::Create(TestQueue(), option, in[0].opt, in[0].buf, in[1].opt, in[1].buf,
                               in[2].opt, in[2].buf, out.opt, out.buf);
      };
      const Fn fn = [op](const std::vector<double>& v) {
        return TernaryRef(op, v[0], v[1], v[2], 0.75);
      };
      CheckOp({RandomOperand({4, 1, 5}, t, -3, 3, 19), RandomOperand({3, 1}, t, -3, 3, 20),
               RandomOperand({4, 3, 5}, t, 0.5, 1.5, 21)},
              t, create, fn, StrCat(TernaryKernel::OpName(op), " ", t));
    }
  }
  // addcmul on integers: value truncated to 2.
  const TernaryOption option{TernaryType::kAddcmul, 2.5f};
  auto create = [option](const std::vector<Operand>& in, Operand& out) {
    return Ternary::Create(TestQueue(), option, in[0].opt, in[0].buf, in[1].opt, in[1].buf,
                           in[2].opt, in[2].buf, out.opt, out.buf);
  };
  CheckOp(
      {RandomOperand({1001}, kInt32, -9, 9, 22), RandomOperand({1001}, kInt32, -9, 9, 23),
       RandomOperand({1001}, kInt32, -9, 9, 24)},
      kInt32, create, [](const std::vector<double>& v) { return v[0] + 2 * v[1] * v[2]; },
      "addcmul int");
  Operand i = OutputOperand({3}, kInt32);
  EXPECT_THROW(Ternary::Create(TestQueue(), TernaryOption{TernaryType::kAddcdiv}, i.opt, i.buf,
                               i.opt, i.buf, i.opt, i.buf, i.opt, i.buf),
               std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
