// MatMul and Gemm on the OpenCL device against a double-precision host product.

#include <stdexcept>
#include <string>

#include "nerva/platform/cl/gemm/matmul_test_util.h"
#include "nerva/platform/cl/kernel/gemm/matmul_tiled.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// Keeps every product of these tests on the generic program.
class GenericOnly {
 public:
  GenericOnly() { TiledMatMul::SetModeForTesting(0); }
  ~GenericOnly() { TiledMatMul::SetModeForTesting(-1); }
};

struct Dims {
  long b, m, k, n;
  bool t1, t2;
};

ProductCase FloatCase(const Dims& d, unsigned seed) {
  ProductCase c;
  std::vector<long> s1 = d.t1 ? std::vector<long>{d.k, d.m} : std::vector<long>{d.m, d.k};
  std::vector<long> s2 = d.t2 ? std::vector<long>{d.n, d.k} : std::vector<long>{d.k, d.n};
  if (d.b > 0) {
    s1.insert(s1.begin(), d.b);
    s2.insert(s2.begin(), d.b);
  }
  c.mat1 = MakeHost(kFloat, s1, seed);
  c.mat2 = MakeHost(kFloat, s2, seed + 1);
  c.option.transpose_mat1 = d.t1;
  c.option.transpose_mat2 = d.t2;
  return c;
}

std::string Label(const Dims& d) {
  return StrCat("b", d.b, " m", d.m, " k", d.k, " n", d.n, " t", d.t1, d.t2);
}

// Aligned and ragged sizes, K = 1, single and odd batches, both transposes.
class MatMulSizeTest : public ::testing::TestWithParam<Dims> {};

TEST_P(MatMulSizeTest, GenericMatchesReference) {
  GenericOnly generic;
  ExpectProduct(FloatCase(GetParam(), 11), Label(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, MatMulSizeTest,
    ::testing::Values(Dims{0, 1, 1, 1, false, false}, Dims{0, 8, 8, 8, false, false},
                      Dims{4, 8, 8, 8, false, false}, Dims{0, 7, 9, 65, false, false},
                      Dims{0, 9, 1, 7, false, false}, Dims{5, 63, 64, 65, false, false},
                      Dims{1, 64, 257, 9, false, false}, Dims{0, 257, 7, 63, true, false},
                      Dims{5, 9, 65, 8, false, true}, Dims{3, 65, 8, 7, true, true},
                      Dims{0, 1, 257, 1, true, true}));

// 4 batches of 8 x 8 x 8: both operands aligned, one group of 8 x 8 x 4 items.
TEST(MatMulTest, AlignedProductIsOneGroup) {
  GenericOnly generic;
  ProductCase c = FloatCase({4, 8, 8, 8, false, false}, 5);
  Kernel kernel;
  RunDevice(c, &kernel);
  const auto& units = std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units();
  ASSERT_EQ(units.size(), 1u);
  EXPECT_EQ(units[0]->name(), "MatMul");
  EXPECT_EQ(units[0]->global()[0], 8u);
  EXPECT_EQ(units[0]->global()[1], 8u);
  EXPECT_EQ(units[0]->global()[2], 4u);
  EXPECT_EQ(units[0]->local()[2], 4u);
  const std::string key =
      "MatMul::generic( -DTILE_M=8 -DTILE_N=8 -DMAT1_DTYPE=float -DMAT2_DTYPE=float "
      "-DACC_DTYPE=float -DOUT_DTYPE=float -DGEMM_MODE=0 -DMAT1_IS_ALIGNED -DMAT2_IS_ALIGNED "
      "-DOPENCL_DOT4_ENABLED)";
  EXPECT_TRUE(TestSessionImpl()->TryLoadCachedProgram(key)) << key;
}

TEST(MatMulTest, OneDimensionalOperands) {
  GenericOnly generic;
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {9}, 1);
  c.mat2 = MakeHost(kFloat, {9, 5}, 2);
  ExpectProduct(c, "vector x matrix");
  EXPECT_EQ(ProductSizes(c), (std::vector<long>{5}));
  c.mat1 = MakeHost(kFloat, {2, 3, 9}, 3);
  c.mat2 = MakeHost(kFloat, {9}, 4);
  ExpectProduct(c, "batched matrix x vector");
  c.mat1 = MakeHost(kFloat, {9}, 5);
  ExpectProduct(c, "dot");
}

TEST(MatMulTest, BroadcastBatches) {
  GenericOnly generic;
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {3, 7, 5}, 1);
  c.mat2 = MakeHost(kFloat, {5, 9}, 2);
  ExpectProduct(c, "3-D x 2-D");
  c.mat1 = MakeHost(kFloat, {7, 5}, 3);
  c.mat2 = MakeHost(kFloat, {2, 3, 5, 9}, 4);
  ExpectProduct(c, "2-D x 4-D");
  c.mat1 = MakeHost(kFloat, {2, 1, 3, 1, 7, 5}, 5);
  c.mat2 = MakeHost(kFloat, {3, 2, 5, 9}, 6);
  ExpectProduct(c, "6-D x 4-D");
}

TEST(MatMulTest, GenericBroadcastPathFor4D) {
  GenericOnly generic;
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {2, 1, 7, 5}, 7);
  c.mat2 = MakeHost(kFloat, {1, 3, 5, 9}, 8);
  Kernel kernel;
  const std::vector<double> actual = RunDevice(c, &kernel);
  const std::vector<double> expected = Reference(c);
  for (size_t i = 0; i < expected.size(); ++i) ASSERT_NEAR(actual[i], expected[i], 1e-5) << i;
  auto impl = std::dynamic_pointer_cast<GemmKernel>(kernel.impl());
  ASSERT_TRUE(impl);
  EXPECT_FALSE(impl->SupportBroadcast3D());
  EXPECT_EQ(impl->units().size(), 2u);  // one launch of 3 batches per outer batch
}

TEST(MatMulTest, StridedViews) {
  GenericOnly generic;
  // mat1: every other column of a [6, 10] matrix; mat2: a transposed view by strides.
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {6, 10}, 3);
  c.mat1.sizes = {6, 5};
  c.mat1.strides = {10, 2};
  c.mat2 = MakeHost(kFloat, {4, 5}, 4);
  c.mat2.sizes = {5, 4};
  c.mat2.strides = {1, 5};
  ExpectProduct(c, "strided");
}

TEST(MatMulTest, EmptyOutputRunsNothing) {
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {0, 5}, 1);
  c.mat2 = MakeHost(kFloat, {5, 3}, 2);
  Kernel kernel;
  EXPECT_TRUE(RunDevice(c, &kernel).empty());
  EXPECT_TRUE(std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units().empty());
}

TEST(MatMulTest, ZeroDepthGivesBetaTimesInput) {
  ProductCase c;
  c.mat1 = MakeHost(kFloat, {3, 0}, 1);
  c.mat2 = MakeHost(kFloat, {0, 4}, 2);
  c.input = MakeHost(kFloat, {3, 4}, 3);
  c.option.beta = 3.0f;
  ExpectProduct(c, "K = 0");
  EXPECT_NEAR(Reference(c)[5], 3.0 * c.input->data[5], 1e-6);
}

TEST(MatMulTest, TypePairs) {
  GenericOnly generic;
  struct TypeCase {
    DataType a, b, out;
  };
  for (const TypeCase& t : {TypeCase{kHalf, kHalf, kHalf}, TypeCase{kFloat, kHalf, kFloat},
                            TypeCase{kInt32, kInt32, kInt32}, TypeCase{kUInt8, kUInt8, kInt32},
                            TypeCase{kInt64, kInt16, kInt64}, TypeCase{kInt8, kFloat, kFloat}}) {
    ProductCase c;
    c.mat1 = MakeHost(t.a, {2, 9, 7}, 1);
    c.mat2 = MakeHost(t.b, {2, 7, 5}, 2);
    c.out_dtype = t.out;
    ExpectProduct(c, StrCat(t.a, " x ", t.b, " -> ", t.out));
  }
}

TEST(MatMulTest, Int8AccumulatesInShort) {
  GenericOnly generic;
  EXPECT_EQ(GemmKernel::GetAccDtype(kInt8, kInt8), kInt16);
  EXPECT_EQ(GemmKernel::GetAccDtype(kUInt8, kUInt8), kUInt16);
  EXPECT_EQ(GemmKernel::GetAccDtype(kInt16, kUInt8), kInt32);
  EXPECT_EQ(GemmKernel::GetAccDtype(kUInt32, kUInt16), kUInt64);
  EXPECT_EQ(GemmKernel::GetAccDtype(kInt32, kInt64), kInt64);
  EXPECT_EQ(GemmKernel::GetAccDtype(kHalf, kInt64), kDouble);  // the wider operand has 64 bits
  EXPECT_EQ(GemmKernel::GetAccDtype(kFloat, kHalf), kFloat);
  // 100 * 100 * 9 = 90000 wraps in 16 bits to 24464: the output shows the short sum.
  ProductCase c;
  c.mat1 = MakeHost(kInt8, {3, 9}, 1, 90, 110);
  c.mat2 = MakeHost(kInt8, {9, 4}, 2, 90, 110);
  c.out_dtype = kInt32;
  ExpectProduct(c, "int8 wraps in short");
  const std::vector<double> out = RunDevice(c);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](double v) { return std::fabs(v) < 32768; }));
}

// GEMM mode: out = alpha * mat1 @ mat2 + beta * input for each input shape.
TEST(GemmTest, InputBroadcasts) {
  GenericOnly generic;
  const std::vector<std::vector<long>> inputs = {{9}, {7, 1}, {7, 9}, {1}, {3, 7, 9}, {3, 1, 9}};
  unsigned seed = 20;
  for (const auto& in_sizes : inputs) {
    ProductCase c;
    c.mat1 = MakeHost(kFloat, {3, 7, 5}, seed++);
    c.mat2 = MakeHost(kFloat, {5, 9}, seed++);
    c.input = MakeHost(kFloat, in_sizes, seed++);
    c.option.alpha = 0.75f;
    c.option.beta = -1.5f;
    ExpectProduct(c, StrCat("input ", Shape(in_sizes)));
  }
  ProductCase c;  // 2-D, transposed, half input
  c.mat1 = MakeHost(kFloat, {5, 8}, 1);
  c.mat2 = MakeHost(kFloat, {8, 5}, 2);
  c.input = MakeHost(kHalf, {8}, 3);
  c.option.transpose_mat1 = c.option.transpose_mat2 = true;
  c.option.alpha = 2.0f;
  c.option.beta = 0.5f;
  ExpectProduct(c, "transposed with half input");
}

// The tiled variant against the reference and the generic program on the same operands:
// ragged edges of its tiles, a depth past one local tile, transposes, batches, half
// operands and outputs, GEMM mode.
TEST(MatMulTest, TiledVariantMatchesGeneric) {
  struct TiledCase {
    Dims d;
    DataType a, b, out;
    bool gemm;
  };
  const MatMulTiles tiles = TiledMatMul::ChooseTiles(*TestSessionImpl());
  const long bm = tiles.wg_y * tiles.rows, bn = tiles.wg_x * tiles.vec * tiles.vecs;
  const long k_deep = tiles.tile_k + 3;
  for (const TiledCase& t :
       {TiledCase{{0, bm + 5, k_deep, bn + 3, false, false}, kFloat, kFloat, kFloat, false},
        TiledCase{{3, 17, 9, 2 * bn, true, true}, kFloat, kFloat, kFloat, true},
        TiledCase{{2, bm, 40, 33, false, true}, kHalf, kFloat, kHalf, false},
        TiledCase{{0, 1, 5, 1, false, false}, kFloat, kFloat, kFloat, false}}) {
    ProductCase c = FloatCase(t.d, 31);
    c.mat1 = MakeHost(t.a, c.mat1.sizes, 32);
    c.mat2 = MakeHost(t.b, c.mat2.sizes, 33);
    c.out_dtype = t.out;
    if (t.gemm) {
      c.input = MakeHost(kFloat, {t.d.n}, 34);
      c.option.alpha = 1.5f;
      c.option.beta = -0.5f;
    }
    TiledMatMul::SetModeForTesting(1);
    Kernel kernel;
    const std::vector<double> tiled = RunDevice(c, &kernel);
    TiledMatMul::SetModeForTesting(0);
    const std::vector<double> generic = RunDevice(c);
    TiledMatMul::SetModeForTesting(-1);
    const auto& units = std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units();
    ASSERT_EQ(units.size(), 1u);
    EXPECT_EQ(units[0]->name(), "MatMulTiled");
    const std::vector<double> expected = Reference(c);
    const double tol = t.out == kHalf ? 1e-2 : 1e-4;
    for (size_t i = 0; i < expected.size(); ++i) {
      ASSERT_NEAR(tiled[i], expected[i], tol * (1 + std::fabs(expected[i]))) << Label(t.d) << i;
      ASSERT_NEAR(tiled[i], generic[i], tol * (1 + std::fabs(expected[i]))) << Label(t.d) << i;
    }
  }
}

// The tiles other devices use (both operands staged and prefetched, 16 x 16 groups), run
// here: ragged tiles, depths of several tiles, either operand transposed, GEMM mode.
TEST(MatMulTest, TiledVariantWithGroupTiles) {
  TiledMatMul::SetModeForTesting(1);
  for (const MatMulTiles& gpu :
       {MatMulTiles{16, 16, 8, 4, 2, 8, true}, MatMulTiles{32, 8, 8, 4, 1, 16, true}}) {
    TiledMatMul::SetTilesForTesting(&gpu);
    for (const Dims& d : {Dims{2, 130, 37, 70, true, false}, Dims{1, 129, 50, 131, false, true},
                          Dims{3, 40, 16, 257, true, true}}) {
      ProductCase c = FloatCase(d, 41);
      c.input = MakeHost(kFloat, {d.m, 1}, 42);
      c.option.beta = 2.0f;
      const std::vector<double> tiled = RunDevice(c);
      const std::vector<double> expected = Reference(c);
      for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_NEAR(tiled[i], expected[i], 1e-4 * (1 + std::fabs(expected[i])))
            << gpu.wg_x << " " << Label(d) << i;
      }
    }
  }
  TiledMatMul::SetModeForTesting(-1);
  TiledMatMul::SetTilesForTesting(nullptr);
}

// Operands over the (lowered) per-object limit are split by batch or by rows.
class PartitionLimit {
 public:
  explicit PartitionLimit(long bytes) { GemmKernel::SetPartitionLimitForTesting(bytes); }
  ~PartitionLimit() { GemmKernel::SetPartitionLimitForTesting(0); }
};

TEST(MatMulTest, PartitionedProductsEqualWholeOnes) {
  GenericOnly generic;
  {
    ProductCase c;  // 6 batches of 9 x 20 floats = 720 bytes each: 2 batches per part
    c.mat1 = MakeHost(kFloat, {6, 9, 20}, 1);
    c.mat2 = MakeHost(kFloat, {6, 20, 11}, 2);
    PartitionLimit limit(1800);
    Kernel kernel;
    const std::vector<double> actual = RunDevice(c, &kernel);
    const std::vector<double> expected = Reference(c);
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_NEAR(actual[i], expected[i], 1e-5) << i;
    EXPECT_EQ(std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units().size(), 3u);
  }
  {
    ProductCase c;  // one batch, mat1 of 33 rows x 40 floats: split by rows
    c.mat1 = MakeHost(kFloat, {33, 40}, 3);
    c.mat2 = MakeHost(kFloat, {40, 10}, 4);
    c.input = MakeHost(kFloat, {33, 1}, 5);
    PartitionLimit limit(2000);
    Kernel kernel;
    const std::vector<double> actual = RunDevice(c, &kernel);
    const std::vector<double> expected = Reference(c);
    for (size_t i = 0; i < expected.size(); ++i) ASSERT_NEAR(actual[i], expected[i], 1e-4) << i;
    EXPECT_EQ(std::dynamic_pointer_cast<KernelImpl>(kernel.impl())->units().size(), 3u);
  }
}

TEST(TensorPartitionerTest, SplitsByBatchThenRows) {
  // Two operands: 100 bytes per batch, 10 per row (10 rows per batch, 4 batches).
  const std::vector<TensorPartitioner::Operand> ops = {{100, 10, 400}, {100, 0, 400}};
  EXPECT_EQ(TensorPartitioner::Make(4, 10, ops, 400).num_parts(), 1u);
  const TensorPartitioner by_batch = TensorPartitioner::Make(4, 10, ops, 250);
  EXPECT_EQ(by_batch.GetRemainingDataDim(), 0);
  ASSERT_EQ(by_batch.num_parts(), 2u);
  EXPECT_EQ(by_batch.parts()[1].batch_begin, 2);
  const std::vector<TensorPartitioner::Operand> rows = {{100, 10, 400}, {50, 0, 200}};
  const TensorPartitioner by_rows = TensorPartitioner::Make(4, 10, rows, 60);
  EXPECT_EQ(by_rows.GetRemainingDataDim(), 1);
  EXPECT_EQ(by_rows.num_parts(), 8u);  // 4 batches of 2 parts (6 + 4 rows)
  EXPECT_THROW(TensorPartitioner::Make(4, 10, rows, 40), std::runtime_error);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
