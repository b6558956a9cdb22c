// Gather, Index and GatherElement against plain host loops.

#include "index_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

const std::vector<long> kInput = {3, 5, 7};

// in[..., index[j], ...] over a flat index: 0 for an index outside [-size, size).
std::vector<double> SelectRef(const std::vector<double>& in, const std::vector<long>& sizes,
                              int dim, const std::vector<long>& index) {
  long outer = 1, inner = 1;
  for (int k = 0; k < dim; ++k) outer *= sizes[k];
  for (size_t k = dim + 1; k < sizes.size(); ++k) inner *= sizes[k];
  const long n = sizes[dim];
  std::vector<double> out;
  for (long o = 0; o < outer; ++o)
    for (long j : index)
      for (long k = 0; k < inner; ++k) {
        const long v = j < 0 ? j + n : j;
        out.push_back(v < 0 || v >= n ? 0.0 : in[(o * n + v) * inner + k]);
      }
  return out;
}

std::vector<long> SelectSizes(std::vector<long> sizes, int dim, const std::vector<long>& isz) {
  sizes.erase(sizes.begin() + dim);
  sizes.insert(sizes.begin() + dim, isz.begin(), isz.end());
  return sizes;
}

struct SelectCase {
  DataType data;
  DataType index;
};

class GatherTest : public ::testing::TestWithParam<SelectCase> {};

// Both device classes; the GPU variant copies rows in units of 1 to 16 bytes, so the second
// shape gives rows of 16 and 192 bytes (float) besides the odd ones of the first.
TEST_P(GatherTest, EveryDimWithNegativeDuplicateAndOutOfRangeIndices) {
  const auto [data, itype] = GetParam();
  for (bool gpu : {false, true}) {
    const GpuPathsForTesting device(gpu);
    for (const std::vector<long>& shape : {kInput, std::vector<long>{4, 6, 8}}) {
      const auto in = RandomValues(Count(shape), data, 11);
      Tensor x = Put(in, shape, data);
      for (int dim = 0; dim < 3; ++dim) {
        const long n = shape[dim];
        // A 2-D index with a duplicate, negatives and two indices out of range.
        const std::vector<long> index = {0, n - 1, -1, -n, 1, 1, n, -n - 1};
        const std::vector<long> isz = {2, 4};
        Tensor idx = PutIndex(index, isz, itype);
        const auto osz = SelectSizes(shape, dim, isz);
        const auto want = SelectRef(in, shape, dim, index);
        for (const char* op : {"Gather", "Index"}) {
          Guarded out(osz, data);
          Kernel k = std::string(op) == "Gather"
                         ? Gather::Create(TestQueue(), GatherOption{dim}, x.option(), x.storage(),
                                          idx.option(), idx.storage(), out.option(), out.buffer())
                         : Index::Create(TestQueue(), IndexOption{dim}, x.option(), x.storage(),
                                         idx.option(), idx.storage(), out.option(), out.buffer());
          TestQueue().Enqueue(k);
          EXPECT_EQ(out.values(), want) << op << " dim " << dim << " gpu " << gpu;
          EXPECT_TRUE(out.GuardsIntact()) << op << " dim " << dim << " gpu " << gpu;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Types, GatherTest,
                         ::testing::Values(SelectCase{kFloat, kInt64}, SelectCase{kHalf, kInt32},
                                           SelectCase{kInt64, kInt32}, SelectCase{kUInt8, kInt64}));

// The GPU variant over many groups: rows of 12, 8 and 32 bytes (4-, 8- and 16-byte units).
TEST(GatherTest, GpuVariantManyRows) {
  const GpuPathsForTesting device(true);
  const auto index = RandomIndices(999, -1001, 1001, 7);
  Tensor idx = PutIndex(index, {999}, kInt64);
  for (long width : {3, 2, 8}) {
    const auto in = RandomValues(1001 * width, kFloat, 6);
    Tensor x = Put(in, {1001, width}, kFloat);
    Guarded out({999, width}, kFloat);
    TestQueue().Enqueue(Gather::Create(TestQueue(), GatherOption{0}, x.option(), x.storage(),
                                       idx.option(), idx.storage(), out.option(), out.buffer()));
    EXPECT_EQ(out.values(), SelectRef(in, {1001, width}, 0, index)) << width;
    EXPECT_TRUE(out.GuardsIntact()) << width;
  }
}

// The host CPU's row copies: rows of 1 to 4097 elements (256-, 64-, 16- and 1-byte steps; two
// 16 KiB pieces for the widest float rows), more rows than the prefetch distance, two outer
// slices, negative, duplicate and out-of-range indices.
TEST(GatherTest, RowWidthsOfTheCpuCopies) {
  auto index = RandomIndices(45, -9, 9, 8);
  index[3] = 9;  // out of range: zeros
  index[40] = -10;
  Tensor idx = PutIndex(index, {45}, kInt64);
  for (DataType data : {kFloat, kHalf, kUInt8}) {
    for (long width : {1, 15, 17, 64, 65, 4097}) {
      const std::vector<long> shape = {2, 9, width};
      const auto in = RandomValues(Count(shape), data, 12);
      Tensor x = Put(in, shape, data);
      Guarded out({2, 45, width}, data);
      TestQueue().Enqueue(Gather::Create(TestQueue(), GatherOption{1}, x.option(), x.storage(),
                                         idx.option(), idx.storage(), out.option(), out.buffer()));
      EXPECT_EQ(out.values(), SelectRef(in, shape, 1, index)) << data << " width " << width;
      EXPECT_TRUE(out.GuardsIntact()) << data << " width " << width;
    }
  }
}

TEST(GatherTest, EmptyIndexAndLargeOddRows) {
  Tensor x = Put(RandomValues(1001 * 3, kFloat, 3), {1001, 3}, kFloat);
  Tensor none = PutIndex({}, {0}, kInt64);
  Guarded empty({0, 3}, kFloat);
  TestQueue().Enqueue(Gather::Create(TestQueue(), GatherOption{0}, x.option(), x.storage(),
                                     none.option(), none.storage(), empty.option(),
                                     empty.buffer()));
  EXPECT_TRUE(empty.GuardsIntact());
  const auto index = RandomIndices(999, -1001, 1001, 5);
  Tensor idx = PutIndex(index, {999}, kInt32);
  Guarded out({999, 3}, kFloat);
  TestQueue().Enqueue(Gather::Create(TestQueue(), GatherOption{-2}, x.option(), x.storage(),
                                     idx.option(), idx.storage(), out.option(), out.buffer()));
  EXPECT_EQ(out.values(), SelectRef(Get(x), {1001, 3}, 0, index));
}

TEST(GatherTest, Errors) {
  Tensor x = Put(RandomValues(105, kFloat, 1), kInput, kFloat);
  Tensor fidx = Put({0, 1}, {2}, kFloat);
  Tensor idx = PutIndex({0, 1}, {2}, kInt64);
  Tensor out = TestSession().MakeTensor({3, 2, 7}, kFloat);
  EXPECT_THROW_HAS(Gather::Create(TestQueue(), GatherOption{1}, x.option(), x.storage(),
                                  fidx.option(), fidx.storage(), out.option(), out.storage()),
                   std::invalid_argument, {"Gather", "index", "DataType::kFloat"});
  EXPECT_THROW_HAS(Gather::Create(TestQueue(), GatherOption{3}, x.option(), x.storage(),
                                  idx.option(), idx.storage(), out.option(), out.storage()),
                   std::out_of_range, {"Gather", "dim 3"});
  EXPECT_THROW_HAS(Index::Create(TestQueue(), IndexOption{0}, x.option(), x.storage(), idx.option(),
                                 idx.storage(), out.option(), out.storage()),
                   std::runtime_error, {"Index", "out", "[2, 5, 7]", "[3, 2, 7]"});
}

// torch.gather: out[i][j][k] = in[index[i][j][k]][j][k] for dim 0, etc.; 0 when out of range.
std::vector<double> GatherElementRef(const std::vector<double>& in, const std::vector<long>& isz,
                                     int dim, const std::vector<long>& index) {
  const auto st = Strides(kInput);
  std::vector<double> out;
  for (long a = 0; a < isz[0]; ++a)
    for (long b = 0; b < isz[1]; ++b)
      for (long c = 0; c < isz[2]; ++c) {
        long pos[3] = {a, b, c};
        const long v = index[(a * isz[1] + b) * isz[2] + c];
        if (v < 0 || v >= kInput[dim]) {
          out.push_back(0);
          continue;
        }
        pos[dim] = v;
        out.push_back(in[pos[0] * st[0] + pos[1] * st[1] + pos[2] * st[2]]);
      }
  return out;
}

TEST(GatherElementTest, EveryDimBothIndexTypesAndOutOfRange) {
  for (DataType data : {kFloat, kHalf}) {
    const auto in = RandomValues(Count(kInput), data, 7);
    Tensor x = Put(in, kInput, data);
    for (DataType itype : {kInt32, kInt64}) {
      for (int dim = 0; dim < 3; ++dim) {
        std::vector<long> isz = {2, 3, 5};
        isz[dim] = 4;
        auto index = RandomIndices(Count(isz), 0, kInput[dim], dim + 1);
        index[1] = -1;           // out of range for torch.gather
        index[2] = kInput[dim];  // out of range
        Tensor idx = PutIndex(index, isz, itype);
        Guarded out(isz, data);
        TestQueue().Enqueue(GatherElement::Create(TestQueue(), GatherElementOption{dim}, x.option(),
                                                  x.storage(), idx.option(), idx.storage(),
                                                  out.option(), out.buffer()));
        EXPECT_EQ(out.values(), GatherElementRef(in, isz, dim, index)) << dim;
        EXPECT_TRUE(out.GuardsIntact());
      }
    }
  }
}

TEST(GatherElementTest, ExpandedIndexAndErrors) {
  const auto in = RandomValues(Count(kInput), kFloat, 9);
  Tensor x = Put(in, kInput, kFloat);
  // An index of shape [3, 1, 7] expanded to [3, 5, 7] along dim 1.
  const auto small = RandomIndices(21, 0, 5, 4);
  Tensor base = PutIndex(small, {3, 1, 7}, kInt64);
  Tensor idx = base.BroadcastTo({3, 5, 7});
  std::vector<long> full;
  for (long a = 0; a < 3; ++a)
    for (long b = 0; b < 5; ++b)
      for (long c = 0; c < 7; ++c) full.push_back(small[a * 7 + c]);
  Guarded out(kInput, kFloat);
  TestQueue().Enqueue(GatherElement::Create(TestQueue(), GatherElementOption{1}, x.option(),
                                            x.storage(), idx.option(), idx.storage(), out.option(),
                                            out.buffer()));
  EXPECT_EQ(out.values(), GatherElementRef(in, kInput, 1, full));
  Tensor big = PutIndex(std::vector<long>(3 * 6 * 7, 0), {3, 6, 7}, kInt64);
  Tensor o2 = TestSession().MakeTensor({3, 6, 7}, kFloat);
  EXPECT_THROW_HAS(
      GatherElement::Create(TestQueue(), GatherElementOption{0}, x.option(), x.storage(),
                            big.option(), big.storage(), o2.option(), o2.storage()),
      std::runtime_error, {"GatherElement", "index", "[3, 6, 7]", "[3, 5, 7]"});
  EXPECT_THROW_HAS(
      GatherElement::Create(TestQueue(), GatherElementOption{-4}, x.option(), x.storage(),
                            big.option(), big.storage(), o2.option(), o2.storage()),
      std::out_of_range, {"GatherElement", "dim -4"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
