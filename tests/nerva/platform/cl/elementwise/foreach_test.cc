// ForEachUnary, ForEachBinary and ForEachTernary over long lists of tensors.

#include <cmath>
#include <stdexcept>

#include "nerva/platform/cl/elementwise/ew_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct List {
  std::vector<Operand> ops;
  std::vector<TensorOption> opts() const {
    std::vector<TensorOption> out;
    for (const auto& o : ops) out.push_back(o.opt);
    return out;
  }
  std::vector<Buffer> bufs() const {
    std::vector<Buffer> out;
    for (const auto& o : ops) out.push_back(o.buf);
    return out;
  }
};

// Lengths 0 to ~1000, every leftover; the first ten tuples are half when `mixed`.
std::vector<long> Lengths(size_t count) {
  std::vector<long> lengths;
  for (size_t i = 0; i < count; ++i) lengths.push_back(static_cast<long>((i * 397) % 1001));
  lengths[1] = 1, lengths[2] = 3, lengths[3] = 0, lengths[4] = 4;
  return lengths;
}

List RandomList(const std::vector<long>& lengths, bool mixed, double lo, double hi, unsigned seed) {
  List list;
  for (size_t i = 0; i < lengths.size(); ++i) {
    const DataType t = mixed && i < 10 ? kHalf : kFloat;
    list.ops.push_back(RandomOperand({lengths[i]}, t, lo, hi, seed + static_cast<unsigned>(i)));
  }
  return list;
}

List Outputs(const List& like) {
  List list;
  for (const auto& o : like.ops)
    list.ops.push_back(OutputOperand(o.opt.shape.sizes(), o.opt.dtype));
  return list;
}

size_t UnitCount(const Kernel& kernel) {
  return std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units().size();
}

void ExpectList(const List& outs, const std::vector<const List*>& ins,
                const std::function<double(const std::vector<double>&)>& fn) {
  for (size_t i = 0; i < outs.ops.size(); ++i) {
    std::vector<const Operand*> args;
    for (const List* l : ins) args.push_back(&l->ops[i]);
    const DataType t = outs.ops[i].opt.dtype;
    const auto expected =
        BroadcastReference(outs.ops[i].opt.shape.sizes(), args,
                           [&](const std::vector<double>& v) { return Quantize(fn(v), t); });
    const double rtol = t == kHalf ? 2e-3 : 2e-5;
    ExpectClose(ReadBack(outs.ops[i]), expected, rtol, rtol * 0.1, StrCat("tensor ", i));
  }
}

TEST(ForEachTest, BinaryOverFiftyTensors) {
  const auto lengths = Lengths(50);
  const List a = RandomList(lengths, true, -5, 5, 100), b = RandomList(lengths, true, -5, 5, 200);
  List out = Outputs(a);
  Kernel kernel =
      ForEachBinary::Create(TestQueue(), ForEachBinaryOption{BinaryType::kAdd, 2.0f}, a.opts(),
                            a.bufs(), b.opts(), b.bufs(), out.opts(), out.bufs());
  // 10 half tuples in one launch, 39 non-empty float tuples in three.
  EXPECT_EQ(UnitCount(kernel), 4u);
  TestQueue().Enqueue(kernel);
  ExpectList(out, {&a, &b}, [](const std::vector<double>& v) { return v[0] + 2 * v[1]; });
}

TEST(ForEachTest, UnaryInPlaceAndTernary) {
  const auto lengths = Lengths(20);
  List x = RandomList(lengths, false, -3, 3, 300);
  const List before = x;
  // In place: the outputs are the inputs.
  TestQueue().Enqueue(ForEachUnary::Create(TestQueue(), ForEachUnaryOption{UnaryType::kNeg},
                                           x.opts(), x.bufs(), x.opts(), x.bufs()));
  for (size_t i = 0; i < x.ops.size(); ++i) x.ops[i].values = ReadBack(x.ops[i]);
  for (size_t i = 0; i < x.ops.size(); ++i) {
    for (size_t k = 0; k < x.ops[i].values.size(); ++k) {
      ASSERT_EQ(x.ops[i].values[k], -before.ops[i].values[k]) << i << " " << k;
    }
  }
  const List a = RandomList(lengths, false, -3, 3, 400), b = RandomList(lengths, false, -3, 3, 500);
  List out = Outputs(a);
  TestQueue().Enqueue(ForEachTernary::Create(
      TestQueue(), ForEachTernaryOption{TernaryType::kAddcmul, 0.5f}, x.opts(), x.bufs(), a.opts(),
      a.bufs(), b.opts(), b.bufs(), out.opts(), out.bufs()));
  ExpectList(out, {&x, &a, &b},
             [](const std::vector<double>& v) { return v[0] + 0.5 * v[1] * v[2]; });
}

// Tensors that are views of one buffer per list go through one launch on CPU
// devices, chunked (lengths past one chunk, empty tensors between); a list
// spread over more buffers than one launch addresses takes several.
TEST(ForEachTest, ViewsOfOneBufferAndManyBuffers) {
  const std::vector<long> lengths = {0, 1, 3, 5, 17, 4097, 0, 2048, 2049, 16, 6000, 7};
  // Views at 256-byte offsets (sub-buffer origins must be aligned) of one
  // buffer per list.
  auto make = [&](unsigned seed) {
    List list;
    long bytes = 0;
    for (long n : lengths) bytes += (std::max(n, 1L) * 4 + 255) / 256 * 256;
    Buffer root = TestSession().MakeBuffer(kMemReadWrite, bytes);
    long at = 0;
    for (size_t i = 0; i < lengths.size(); ++i) {
      const long n = lengths[i];
      Operand op;
      op.opt = TensorOption{Shape({n}), kFloat};
      op.values =
          RandomValues(static_cast<size_t>(n), kFloat, -4, 4, seed + static_cast<unsigned>(i));
      op.buf = root.View(at, std::max(n, 1L) * 4, kMemReadWrite);
      std::vector<float> host(op.values.begin(), op.values.end());
      if (n) TestQueue().CopyHostToDevice(op.buf, host.data(), n * 4);
      list.ops.push_back(op);
      at += (std::max(n, 1L) * 4 + 255) / 256 * 256;
    }
    return list;
  };
  const List a = make(700), b = make(800);
  List out = make(900);
  Kernel kernel =
      ForEachBinary::Create(TestQueue(), ForEachBinaryOption{BinaryType::kSub, 0.5f}, a.opts(),
                            a.bufs(), b.opts(), b.bufs(), out.opts(), out.bufs());
  if (TestSessionImpl()->host_cpu()) {
    EXPECT_EQ(UnitCount(kernel), 1u);
  }
  TestQueue().Enqueue(kernel);
  ExpectList(out, {&a, &b}, [](const std::vector<double>& v) { return v[0] - 0.5 * v[1]; });
  // 24 tuples (20 not empty) in their own buffers, in place: 16 memory
  // objects per launch.
  std::vector<long> many(24);
  for (size_t i = 0; i < many.size(); ++i) many[i] = lengths[i % lengths.size()];
  List x = RandomList(many, false, -3, 3, 1000);
  const List y = RandomList(many, false, -3, 3, 1100);
  const List before = x;
  Kernel in_place =
      ForEachBinary::Create(TestQueue(), ForEachBinaryOption{BinaryType::kMul, 1.0f}, x.opts(),
                            x.bufs(), y.opts(), y.bufs(), x.opts(), x.bufs());
  if (TestSessionImpl()->host_cpu()) {
    EXPECT_EQ(UnitCount(in_place), 2u);
  }
  TestQueue().Enqueue(in_place);
  ExpectList(x, {&before, &y}, [](const std::vector<double>& v) { return v[0] * v[1]; });
}

TEST(ForEachTest, Errors) {
  const List a = RandomList({3, 4}, false, -1, 1, 1), b = RandomList({3, 5}, false, -1, 1, 2);
  List out = Outputs(a);
  EXPECT_THROW(ForEachBinary::Create(TestQueue(), ForEachBinaryOption{}, a.opts(), a.bufs(),
                                     b.opts(), b.bufs(), out.opts(), out.bufs()),
               std::runtime_error);
  const List shorter = RandomList({3}, false, -1, 1, 3);
  EXPECT_THROW(ForEachBinary::Create(TestQueue(), ForEachBinaryOption{}, a.opts(), a.bufs(),
                                     shorter.opts(), shorter.bufs(), out.opts(), out.bufs()),
               std::runtime_error);
  EXPECT_THROW(
      ForEachBinary::Create(TestQueue(), ForEachBinaryOption{BinaryType::kBitwiseAnd}, a.opts(),
                            a.bufs(), a.opts(), a.bufs(), out.opts(), out.bufs()),
      std::invalid_argument);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
