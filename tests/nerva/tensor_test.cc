#include "nerva/tensor.h"

#include <gtest/gtest.h>

#include "fake_platform.h"
#include "test_util.h"

namespace nerva {
namespace {

using Sizes = std::vector<long>;

Tensor MakeFloat(const Sizes& sizes, long buffer_bytes = 0, long offset = 0) {
  TensorOption option{Shape(sizes), kFloat};
  if (buffer_bytes == 0) buffer_bytes = option.bytes();
  return Tensor(option, MakeBuffer<test::FakeBufferImpl>(buffer_bytes), offset);
}

TEST(TensorOption, BytesAndStrides) {
  TensorOption option{Shape{2, 3}, kFloat};
  EXPECT_EQ(option.item_size(), 4u);
  EXPECT_EQ(option.bytes(), 24);
  EXPECT_EQ(option.GetStrideInBytes(), (Sizes{12, 4}));
  TensorOption half{Shape{5}, kHalf};
  EXPECT_EQ(half.bytes(), 10);
  EXPECT_EQ((TensorOption{Shape(), kFloat}.bytes()), 0);
}

TEST(Tensor, DefinedNeedsTypeBytesAndStorage) {
  EXPECT_TRUE(MakeFloat({2, 3}).defined());
  EXPECT_FALSE(
      (Tensor(TensorOption{Shape(), kFloat}, MakeBuffer<test::FakeBufferImpl>(4), 0).defined()));
  EXPECT_FALSE((Tensor(TensorOption{Shape{2}, kFloat}, Buffer(), 0).defined()));
  EXPECT_FALSE((Tensor(TensorOption{Shape{2}, static_cast<DataType>(-1)},
                       MakeBuffer<test::FakeBufferImpl>(8), 0)
                    .defined()));
}

TEST(Tensor, Contiguity) {
  struct Case {
    Sizes sizes, strides;
    bool contiguous;
  };
  const Case cases[] = {
      {{2, 3}, {3, 1}, true}, {{2, 3}, {1, 2}, false}, {{2, 1, 3}, {3, 99, 1}, true},
      {{1, 1}, {5, 7}, true}, {{0, 3}, {9, 9}, true},  {{4}, {2}, false},
      {{3, 2}, {2, 1}, true}, {{2, 2}, {4, 1}, false},
  };
  for (const Case& c : cases) {
    Tensor t = MakeFloat({64});
    t.AsStrided_(c.sizes, c.strides, 0);
    EXPECT_EQ(t.is_contiguous(), c.contiguous) << Shape(c.sizes).Str();
  }
}

TEST(Tensor, TransposeIsAViewAndLeavesTheSource) {
  Tensor t = MakeFloat({2, 3});
  Tensor tr = t.Transpose({1, 0});
  EXPECT_EQ(tr.option().shape.sizes(), (Sizes{3, 2}));
  EXPECT_EQ(tr.option().shape.strides(), (Sizes{1, 3}));
  EXPECT_EQ(tr.strides_in_bytes(), (Sizes{4, 12}));
  EXPECT_FALSE(tr.is_contiguous());
  EXPECT_TRUE(t.is_contiguous());
  EXPECT_EQ(t.option().shape.sizes(), (Sizes{2, 3}));
  EXPECT_EQ(tr.storage(), t.storage());
  EXPECT_THROW_MSG(t.Transpose({1}), std::runtime_error, "Invalid order ");
}

TEST(Tensor, InPlaceOperationsAreSeenByEveryCopy) {
  Tensor t = MakeFloat({2, 3});
  Tensor alias = t;
  t.Transpose_({1, 0});
  EXPECT_EQ(alias.option().shape.sizes(), (Sizes{3, 2}));
  alias.Reshape_({6});
  EXPECT_EQ(t.option().shape.sizes(), (Sizes{6}));
}

TEST(Tensor, ReshapeKeepsTheContiguityFlag) {
  Tensor tr = MakeFloat({2, 3}).Transpose({1, 0});
  Tensor r = tr.Reshape({-1});
  EXPECT_EQ(r.option().shape.sizes(), (Sizes{6}));
  EXPECT_EQ(r.option().shape.strides(), (Sizes{1}));
  EXPECT_FALSE(r.is_contiguous());
}

TEST(Tensor, BroadcastToZeroesExpandedStridesAndResetsOffset) {
  Tensor t = MakeFloat({3, 1}, 256, 64);
  Tensor b = t.BroadcastTo({2, 3, 4});
  EXPECT_EQ(b.option().shape.sizes(), (Sizes{2, 3, 4}));
  EXPECT_EQ(b.option().shape.strides(), (Sizes{0, 1, 0}));
  EXPECT_EQ(b.storage_offset(), 0);
  EXPECT_EQ(t.storage_offset(), 64);
  EXPECT_THROW_MSG(t.BroadcastTo({2, 4}), std::runtime_error, "Cannot broadcast [3, 1] to [2, 4]");
  // Strides of a transposed source survive the broadcast.
  Tensor tr = MakeFloat({2, 3}).Transpose({1, 0}).BroadcastTo({5, 3, 2});
  EXPECT_EQ(tr.option().shape.strides(), (Sizes{0, 1, 3}));
}

TEST(Tensor, SliceWithSteps) {
  Tensor t = MakeFloat({10});
  Tensor s = t.Slice({1}, {8}, ArrayRef<long>({3}));
  EXPECT_EQ(s.option().shape.sizes(), (Sizes{3}));
  EXPECT_EQ(s.option().shape.strides(), (Sizes{3}));
  EXPECT_EQ(s.storage_offset(), 4);

  Tensor m = MakeFloat({4, 5, 6});
  Tensor v = m.Slice({1, 2}, {3, 5});
  EXPECT_EQ(v.option().shape.sizes(), (Sizes{2, 3, 6}));
  EXPECT_EQ(v.option().shape.strides(), (Sizes{30, 6, 1}));
  EXPECT_EQ(v.storage_offset(), (1 * 30 + 2 * 6) * 4);
  EXPECT_FALSE(v.is_contiguous());
  // A slice of a slice accumulates the offset.
  Tensor vv = v.Slice({1}, {2});
  EXPECT_EQ(vv.storage_offset(), (2 * 30 + 2 * 6) * 4);

  EXPECT_THROW_MSG(m.Slice({0, 0}, {5}), std::runtime_error,
                   "Slice tensor fail, starts and ends size mismatch, 2 vs 1");
  EXPECT_THROW_MSG(m.Slice({0}, {5}, ArrayRef<long>({1, 1})), std::runtime_error,
                   "Slice tensor fail, starts and steps size mismatch, 1 vs 2");
}

TEST(Tensor, SplitPieces) {
  Tensor t = MakeFloat({10, 2});
  std::vector<Tensor> pieces = t.Split({4}, 0);
  ASSERT_EQ(pieces.size(), 3u);
  const long sizes[] = {4, 4, 2};
  const long offsets[] = {0, 32, 64};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(pieces[i].size(0), sizes[i]);
    EXPECT_EQ(pieces[i].storage_offset(), offsets[i]);
    EXPECT_EQ(pieces[i].storage(), t.storage());
  }
  std::vector<Tensor> cols = t.Split({1, 1}, -1);
  ASSERT_EQ(cols.size(), 2u);
  EXPECT_EQ(cols[1].storage_offset(), 4);
  EXPECT_EQ(cols[1].option().shape.strides(), (Sizes{2, 1}));
  EXPECT_THROW_MSG(t.Split({3, 3}, 0), std::runtime_error, "Cannot split dim 0 size 10 to [3, 3]");
  EXPECT_THROW_MSG(t.Split({0}, 0), std::runtime_error, "Cannot split dim 0 size 10 to [0]");
  EXPECT_THROW(t.Split({5}, 2), std::out_of_range);
}

TEST(Tensor, SplitEmptyDimensionGivesNoPieces) {
  Tensor t = MakeFloat({0, 2}, 8);
  EXPECT_TRUE(t.Split({4}, 0).empty());
  EXPECT_THROW_MSG(t.Split({0}, 0), std::runtime_error, "Cannot split dim 0 size 0 to [0]");
}

TEST(Tensor, OffsetChecks) {
  Tensor t = MakeFloat({64});
  EXPECT_THROW_MSG(t.impl()->set_storage_offset(256), std::runtime_error,
                   "Cannot set the offset 256 over the storage size 256");
  EXPECT_EQ(t.storage_offset(), 0);
  EXPECT_THROW_MSG(t.AsStrided({2, 2}, {1}, 0), std::runtime_error,
                   "AsStrided size of sizes and strides mismatch 2 vs 1");
  // The constructor stores any offset unchecked.
  EXPECT_EQ(MakeFloat({2}, 8, 1000).storage_offset(), 1000);
  Tensor moved = t.AsStrided({4}, {2}, 16);
  EXPECT_EQ(moved.storage_offset(), 16);
  EXPECT_EQ(moved.size(-1), 4);
}

}  // namespace
}  // namespace nerva
