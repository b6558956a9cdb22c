// Every rejection of MatMul and Gemm, in the order the checks run.

#include <stdexcept>
#include <string>

#include "nerva/platform/cl/gemm/matmul_test_util.h"
#include "nerva/platform/cl/kernel/gemm/tc_matmul.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

TensorOption Opt(std::vector<long> sizes, DataType dtype = kFloat) {
  return TensorOption{Shape(sizes), dtype};
}

Buffer Buf(long bytes = 4096) {
  return TestSession().MakeBuffer(kMemReadWrite, bytes);
}

template <typename Exception>
void ExpectMessage(const std::function<void()>& call, const std::string& message) {
  try {
    call();
    FAIL() << "no exception, expected: " << message;
  } catch (const Exception& e) {
    EXPECT_EQ(std::string(e.what()), message);
  } catch (const std::exception& e) {
    FAIL() << "wrong exception type: " << e.what() << ", expected: " << message;
  }
}

struct Args {
  MatMulOption option;
  TensorOption mat1 = Opt({4, 3}), mat2 = Opt({3, 5}), input = Opt({5}), out = Opt({4, 5});
  Buffer b1 = Buf(), b2 = Buf(), bi = Buf(), bo = Buf();
};

void RunMatMul(Args a) {
  MatMul::Create(TestQueue(), a.option, a.mat1, a.b1, a.mat2, a.b2, a.out, a.bo);
}
void RunGemm(Args a) {
  MatMul::Create(TestQueue(), a.option, a.mat1, a.b1, a.mat2, a.b2, a.input, a.bi, a.out, a.bo);
}

TEST(MatMulVerifyTest, EmptyOperands) {
  using E = std::runtime_error;
  Args a;
  a.mat1 = TensorOption{};
  ExpectMessage<E>([&] { RunMatMul(a); }, "Gemm mat1 option cannot be empty!");
  a = Args();
  a.b1 = Buffer();
  ExpectMessage<E>([&] { RunMatMul(a); }, "Gemm mat1 buffer cannot be empty!");
  a = Args();
  a.mat2 = TensorOption{};
  ExpectMessage<E>([&] { RunMatMul(a); }, "Gemm mat2 option cannot be empty!");
  a = Args();
  a.b2 = Buffer();
  ExpectMessage<E>([&] { RunMatMul(a); }, "Gemm mat2 buffer cannot be empty!");
  a = Args();
  a.out = TensorOption{};
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm y option cannot be empty!");
  a = Args();
  a.bo = Buffer();
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm y buffer cannot be empty!");
  a = Args();
  a.input = TensorOption{};
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode input option cannot be empty!");
  a = Args();
  a.bi = Buffer();
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode input buffer cannot be empty!");
  a = Args();
  a.bi = Buffer();
  EXPECT_NO_THROW(RunMatMul(a));  // the input is not an operand of MatMul
}

TEST(MatMulVerifyTest, GemmModeShapes) {
  using E = std::runtime_error;
  Args a;
  a.mat1 = Opt({2, 2, 4, 3});
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode only support 2D or 3D mat1 tensor");
  a = Args();
  a.mat2 = Opt({3});
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode only support 2D or 3D mat2 tensor");
  a = Args();
  a.input = Opt({1, 1, 4, 5});
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode only support 2D or 3D input tensor");
  a = Args();
  a.input = Opt({4});
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode input and output must be broadcastable.");
  a = Args();
  a.input = Opt({2, 4, 5});
  ExpectMessage<E>([&] { RunGemm(a); }, "Gemm mode input and output must be broadcastable.");
}

TEST(MatMulVerifyTest, InnerDimensions) {
  using E = std::runtime_error;
  Args a;
  a.mat2 = Opt({4, 5});
  ExpectMessage<E>([&] { RunMatMul(a); }, "Invalid Gemm shpae [4, 3] x [4, 5]");
  a.option.transpose_mat1 = true;  // [3, 4] after the transpose
  a.out = Opt({3, 5});
  EXPECT_NO_THROW(RunMatMul(a));
  a = Args();
  a.option.transpose_mat2 = true;  // [5, 3]
  ExpectMessage<E>([&] { RunGemm(a); }, "Invalid Gemm shpae [4, 3] x [3, 5]");
}

TEST(MatMulVerifyTest, BatchesOutputAndTypes) {
  Args a;
  a.mat1 = Opt({2, 4, 3});
  a.mat2 = Opt({3, 3, 5});
  a.out = Opt({3, 4, 5});
  ExpectMessage<std::runtime_error>(
      [&] { RunMatMul(a); },
      "MatMul: cannot broadcast the batch dimensions of [2, 4, 3] with [3, 3, 5]");
  a = Args();
  a.out = Opt({5, 4});
  ExpectMessage<std::runtime_error>(
      [&] { RunMatMul(a); },
      "MatMul: output shape [5, 4] does not match the product's shape [4, 5]");
  a = Args();
  a.mat1 = Opt({1, 1, 1, 1, 1, 1, 1, 1, 4, 3});
  ExpectMessage<std::runtime_error>(
      [&] { RunMatMul(a); }, "MatMul: rank 10 of shape [1, 1, 1, 1, 1, 1, 1, 1, 4, 3] is over 8");
  a = Args();
  a.mat1 = Opt({4, 3}, kDouble);
  ExpectMessage<std::invalid_argument>([&] { RunMatMul(a); },
                                       "MatMul: unsupported mat1 type DataType::kDouble");
  a = Args();
  a.out = Opt({4, 5}, kBool);
  ExpectMessage<std::invalid_argument>([&] { RunGemm(a); },
                                       "Gemm: unsupported output type DataType::kBool");
  a = Args();
  a.mat1 = Opt({40, 30});  // 4800 bytes in a 4096-byte buffer
  a.mat2 = Opt({30, 5});
  a.out = Opt({40, 5});
  ExpectMessage<std::runtime_error>(
      [&] { RunMatMul(a); },
      "MatMul: mat1 of shape [40, 30] addresses 4800 bytes, its buffer has 4096");
}

TEST(MatMulVerifyTest, FusedStagesNeedTheTensorUnit) {
  Args a;
  a.option.fuse_relu = true;
  ExpectMessage<std::runtime_error>([&] { RunMatMul(a); },
                                    "Only tensorcore MatMul support fuse relu and rescale.");
  a = Args();
  a.option.rescale = std::make_pair(3, 0.5f);
  ExpectMessage<std::runtime_error>([&] { RunGemm(a); },
                                    "Only tensorcore MatMul support fuse relu and rescale.");
}

TEST(MatMulVerifyTest, TensorUnitOnlyWithItsExtension) {
  const bool has_unit = TestSessionImpl()->dev_supports_extension("cl_nrv_tensorcore");
  const long item = 2;
  const MatrixView m1{Buf(), kHalf, 1, 8, 8, 0, 8 * item, item, 0};
  const MatrixView m2{Buf(), kHalf, 1, 8, 8, 0, 8 * item, item, 0};
  const MatrixView out{Buf(), kHalf, 1, 8, 8, 0, 8 * item, item, 0};
  EXPECT_EQ(TcMatMul::IsSupport(*TestSessionImpl(), MatMulOption(), m1, m2, out, false), has_unit);
  EXPECT_FALSE(TcMatMul::IsSupport(*TestSessionImpl(), MatMulOption(), m1, m2, out, true));
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
