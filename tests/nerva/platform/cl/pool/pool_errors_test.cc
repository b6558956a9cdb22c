// Argument checks of the pooling family: torch's messages, naming the
// operator, before any device work.

#include "nerva/platform/cl/pool/pool_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

Tensor Float(const std::vector<long>& sizes) {
  return MakeOutput(sizes, kFloat);
}

MaxPool2DOption Max(std::vector<long> k, std::vector<long> s = {}, std::vector<long> p = {0, 0},
                    std::vector<long> d = {1, 1}) {
  MaxPool2DOption o;
  o.kernel_size = k, o.stride = s, o.padding = p, o.dilation = d;
  return o;
}

TEST(ClPoolErrors, WindowChecks) {
  Tensor in = Float({1, 2, 5, 5}), out = Float({1, 2, 2, 2});
  auto max2d = [&](const MaxPool2DOption& o, Tensor output) {
    return MaxPool2D::Create(TestQueue(), o, in.option(), in.storage(), output.option(),
                             output.storage());
  };
  EXPECT_THROW_HAS(max2d(Max({3, 3}, {2, 2}, {2, 2}), out), std::invalid_argument,
                   {"MaxPool2D", "pad should be smaller than or equal to half of kernel size"});
  EXPECT_THROW_HAS(max2d(Max({7, 7}), out), std::runtime_error,
                   {"MaxPool2D", "Given input size: (2x5x5)", "Output size is too small"});
  EXPECT_THROW_HAS(max2d(Max({0, 2}), out), std::invalid_argument,
                   {"kernel size should be greater than zero"});
  EXPECT_THROW_HAS(max2d(Max({2, 2}, {2, 2}, {0, 0}, {0, 1}), out), std::invalid_argument,
                   {"dilation should be greater than zero"});
  EXPECT_THROW_HAS(max2d(Max({2, 2, 2}), out), std::invalid_argument,
                   {"kernel_size must either be a single int, or a tuple of 2 ints"});
  EXPECT_THROW_HAS(max2d(Max({3, 3}), out), std::runtime_error,
                   {"MaxPool2D", "output has shape [1, 2, 2, 2]", "[1, 2, 1, 1]"});
  Tensor flat = Float({5, 5});
  EXPECT_THROW_HAS(MaxPool2D::Create(TestQueue(), Max({2}), flat.option(), flat.storage(),
                                     out.option(), out.storage()),
                   std::runtime_error, {"Expected 3D or 4D (batch mode) tensor"});
  Tensor wrong_type = MakeOutput({1, 2, 2, 2}, kInt32);
  EXPECT_THROW_HAS(max2d(Max({2}), wrong_type), std::invalid_argument,
                   {"MaxPool2D", "output type"});
  Tensor avg_in = Float({1, 1, 4, 4, 4}), avg_out = Float({1, 1, 1, 1, 1});
  EXPECT_THROW_HAS(
      AvgPool3D::Create(TestQueue(), AvgPool3DOption{{2, 2, 2}, {}, {0, 2, 0}, false, true, 0},
                        avg_in.option(), avg_in.storage(), avg_out.option(), avg_out.storage()),
      std::invalid_argument, {"AvgPool3D", "pad should be smaller than or equal to half"});
}

TEST(ClPoolErrors, GradientShapes) {
  Tensor grad_out = Float({1, 2, 3, 3}), grad_in = Float({1, 2, 5, 5});
  Tensor indices = MakeOutput({1, 2, 3, 3}, kInt64);
  AvgPool2DBackwardOption avg;
  avg.kernel_size = {2};
  EXPECT_THROW_HAS(
      AvgPool2DBackward::Create(TestQueue(), avg, grad_out.option(), grad_out.storage(),
                                grad_in.option(), grad_in.storage()),
      std::runtime_error,
      {"AvgPool2DBackward", "Expected grad_output to have size 2 at dimension 2"});
  MaxPool2DWithIndicesBackwardOption mx;
  mx.kernel_size = {3}, mx.stride = {2}, mx.padding = {1};
  Tensor bad_indices = MakeOutput({1, 2, 3, 3}, kFloat);
  EXPECT_THROW_HAS(MaxPool2DWithIndicesBackward::Create(
                       TestQueue(), mx, grad_out.option(), grad_out.storage(), bad_indices.option(),
                       bad_indices.storage(), grad_in.option(), grad_in.storage()),
                   std::invalid_argument, {"MaxPool2DWithIndicesBackward", "indices"});
  Tensor small = Float({1, 3, 3, 3});
  EXPECT_THROW_HAS(
      AdaptiveAvgPool2DBackward::Create(TestQueue(), grad_out.option(), grad_out.storage(),
                                        small.option(), small.storage()),
      std::runtime_error, {"AdaptiveAvgPool2DBackward", "grad_output shape"});
}

TEST(ClPoolErrors, BlocksAndResize) {
  Tensor image = Float({1, 2, 4, 4}), cols = Float({1, 8, 9});
  EXPECT_THROW_HAS(Im2col::Create(TestQueue(), Im2colOption{{5, 5}, {1, 1}, {0, 0}, {1, 1}},
                                  image.option(), image.storage(), cols.option(), cols.storage()),
                   std::runtime_error,
                   {"Im2col", "calculated shape of the array of sliding blocks as (0, 0)"});
  EXPECT_THROW_HAS(Im2col::Create(TestQueue(), Im2colOption{{2, 2}, {1, 1}, {-1, 0}, {1, 1}},
                                  image.option(), image.storage(), cols.option(), cols.storage()),
                   std::invalid_argument, {"padding should be non-negative"});
  Tensor cols8 = Float({1, 8, 8});
  EXPECT_THROW_HAS(Col2im::Create(TestQueue(), Col2imOption{{4, 4}, {2, 2}, {1, 1}, {0, 0}, {1, 1}},
                                  cols8.option(), cols8.storage(), image.option(), image.storage()),
                   std::runtime_error,
                   {"Col2im", "sliding blocks 3 * 3 = 9", "but got input.size(2)=8"});
  Tensor cols7 = Float({1, 7, 9});
  EXPECT_THROW_HAS(Col2im::Create(TestQueue(), Col2imOption{{4, 4}, {2, 2}, {1, 1}, {0, 0}, {1, 1}},
                                  cols7.option(), cols7.storage(), image.option(), image.storage()),
                   std::runtime_error, {"divisible by the product of kernel_size"});
  Tensor big = Float({1, 2, 8, 8}), line = Float({1, 2, 8});
  ResizeOption nearest;
  nearest.align_corners = true;
  EXPECT_THROW_HAS(Resize::Create(TestQueue(), nearest, image.option(), image.storage(),
                                  big.option(), big.storage()),
                   std::invalid_argument, {"Resize", "align_corners option can only be set"});
  ResizeOption bilinear;
  bilinear.mode = InterpolateMode::kBilinear;
  EXPECT_THROW_HAS(Resize::Create(TestQueue(), bilinear, line.option(), line.storage(),
                                  line.option(), line.storage()),
                   std::runtime_error, {"Got 3D input, but bilinear mode needs 4D input"});
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
