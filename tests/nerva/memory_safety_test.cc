// Shapes, views, tensors and the CPU platform refuse what would reach outside
// memory, with the library's exception types, instead of corrupting it.

#include <limits>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cpu/buffer_impl.h"
#include "test_util.h"

namespace nerva {
namespace {

Session& Cpu() {
  static Session session("cpu", 0);
  return session;
}

TEST(ShapeSafety, RefusesBadSizesWhereShapesAreMade) {
  EXPECT_THROW_MSG((Shape{-2, -3}), std::runtime_error, "Invalid shape size: [-2, -3]");
  EXPECT_THROW_MSG(Shape({2, 3}, std::vector<long>{-3, 1}), std::runtime_error,
                   "Invalid shape strides: [-3, 1]");
  EXPECT_THROW(Shape(std::vector<long>(65, 1)), std::runtime_error);
  const Shape shape{2, 3};
  EXPECT_THROW_MSG(shape.Reshape({-2, -3}), std::runtime_error, "Invalid reshape size: [-2, -3]");
  EXPECT_THROW_MSG(shape.Reshape({-1, -1}), std::runtime_error, "Invalid reshape size: [-1, -1]");
  EXPECT_EQ(shape.Reshape({-1, 2}).sizes(), (std::vector<long>{3, 2}));
  // A product that overflows 64 bits is a plain mismatch.
  EXPECT_THROW(shape.Reshape({1L << 40, 1L << 40}), std::runtime_error);
  EXPECT_THROW(shape.Insert(0, -4), std::runtime_error);
  EXPECT_THROW(shape.Insert(0, 1L << 31), std::runtime_error);
}

TEST(ShapeSafety, InsertPositionsBelowZeroAreIndexErrors) {
  const Shape shape{2, 3};
  EXPECT_THROW_MSG(shape.Insert(-5, 7), std::out_of_range,
                   "index -5 out of range, the max dimension is 2");
  EXPECT_THROW_MSG(shape.ExpandTo(-6, 5), std::out_of_range,
                   "index -6 out of range, the max dimension is 2");
  EXPECT_EQ(shape.Insert(-1, 7).sizes(), (std::vector<long>{2, 3, 7}));
  EXPECT_EQ(shape.Insert(-3, 7).sizes(), (std::vector<long>{7, 2, 3}));
  EXPECT_THROW(shape.ExpandTo(0, 1000000), std::runtime_error);
  // The lenient position of the free function itself stays as it is.
  EXPECT_EQ(GetRealAxisWithMaxDim(-5, 2), -2);
}

class TensorViewSafety : public ::testing::Test {
 protected:
  Tensor tensor_ = Cpu().MakeTensor({4, 6}, kFloat);
};

TEST_F(TensorViewSafety, SliceRefusesWhatLeavesItsDimension) {
  EXPECT_THROW_MSG(tensor_.Slice({0, 0, 0}, {1, 1, 1}), std::runtime_error,
                   "Slice tensor fail, 3 starts for a tensor of rank 2");
  EXPECT_THROW_MSG(tensor_.Slice({0}, {4}, std::vector<long>{0}), std::runtime_error,
                   "Slice tensor fail, step 0 of dim 0 must be positive");
  EXPECT_THROW_MSG(tensor_.Slice({-1}, {2}), std::runtime_error,
                   "Slice tensor fail, range [-1, 2) out of dim 0 of size 4");
  EXPECT_THROW_MSG(tensor_.Slice({0, 2}, {4, 7}), std::runtime_error,
                   "Slice tensor fail, range [2, 7) out of dim 1 of size 6");
  EXPECT_THROW(tensor_.Slice({3}, {1}), std::runtime_error);
  const Tensor last = tensor_.Slice({3, 1}, {4, 6}, std::vector<long>{1, 2});
  EXPECT_EQ(last.shape().sizes(), (std::vector<long>{1, 3}));
  EXPECT_EQ(last.storage_offset(), (3 * 6 + 1) * 4);
  // An empty range at the end is a valid empty view.
  EXPECT_EQ(tensor_.Slice({4}, {4}).shape().size(), 0);
}

TEST_F(TensorViewSafety, SplitKeepsEmptyPiecesInsideTheStorage) {
  const std::vector<Tensor> pieces = tensor_.Split({4, 0}, 0);
  ASSERT_EQ(pieces.size(), 2u);
  EXPECT_EQ(pieces[0].shape().sizes(), (std::vector<long>{4, 6}));
  EXPECT_EQ(pieces[1].shape().sizes(), (std::vector<long>{0, 6}));
  EXPECT_EQ(tensor_.Split({0, 6}, 1)[0].shape().size(), 0);
  EXPECT_THROW_MSG(tensor_.Split({5, -1}, 0), std::runtime_error,
                   "Cannot split dim 0 size 4 to [5, -1]");
  EXPECT_THROW(tensor_.Split({2147483647, 2147483647, 2}, 0), std::runtime_error);
}

TEST_F(TensorViewSafety, OffsetsStayInsideTheStorage) {
  Tensor view = tensor_;
  EXPECT_THROW_MSG(view.AsStrided_({2}, {1}, -8), std::runtime_error,
                   "Cannot set the negative offset -8");
  EXPECT_EQ(view.storage_offset(), 0);
  EXPECT_THROW(view.AsStrided_({2}, {-1}, 8), std::runtime_error);
  EXPECT_THROW(view.AsStrided_({2}, {1}, 96), std::runtime_error);
}

TEST(TensorSafety, MakeTensorAllocatesWhatTheTensorSpans) {
  EXPECT_THROW_MSG(Cpu().MakeTensor({65537, 65536}, kUInt8), std::runtime_error,
                   "Shape [65537, 65536] spans more than 2147483647 elements");
  EXPECT_THROW_MSG(Cpu().MakeTensor({-2, -3}, kFloat), std::runtime_error,
                   "Invalid shape size: [-2, -3]");
  EXPECT_THROW_MSG(Cpu().MakeTensor({4}, static_cast<DataType>(-1)), std::runtime_error,
                   "Make tensor fail with size [4] and dtype DataType(-1)");
  const Tensor t = Cpu().MakeTensor({3, 5, 7}, kHalf);
  EXPECT_EQ(t.storage().size(), 3 * 5 * 7 * 2);
}

TEST(CpuSafety, BuffersAndViewsRefuseNegativeSizes) {
  EXPECT_THROW_MSG(Cpu().MakeBuffer(kMemDefault, -1), std::invalid_argument,
                   "Make CPU buffer fail with size -1");
  const Buffer buffer = Cpu().MakeBuffer(kMemDefault, 64);
  EXPECT_THROW_MSG(buffer.View(-32, 32, 0), std::invalid_argument,
                   "Create CPU view fail, invalid offset -32 or size 32");
  EXPECT_THROW(buffer.View(8, -1, 0), std::invalid_argument);
  EXPECT_THROW(buffer.View(48, 32, 0), std::invalid_argument);
  EXPECT_THROW(buffer.View(1, std::numeric_limits<long>::max(), 0), std::invalid_argument);
  const Buffer view = buffer.View(16, 32, 0).View(8, 8, 0);
  EXPECT_EQ(view.UnsafeGetPtr(), static_cast<char*>(buffer.UnsafeGetPtr()) + 24);
}

TEST(CpuSafety, QueueCopiesStayInsideTheBuffer) {
  Queue queue = Cpu().MakeQueue();
  Buffer buffer = Cpu().MakeBuffer(kMemDefault, 16);
  std::vector<char> host(64, 1);
  EXPECT_THROW_HAS(queue.CopyHostToDevice(buffer, host.data(), 64), std::invalid_argument,
                   {"CopyHostToDevice", "64", "16"});
  EXPECT_THROW(queue.CopyDeviceToHost(host.data(), buffer, 17), std::invalid_argument);
  EXPECT_THROW(queue.CopyDeviceToHost(host.data(), buffer, -1), std::invalid_argument);
  EXPECT_THROW(queue.CopyDeviceToDevice(buffer, Cpu().MakeBuffer(kMemDefault, 8), 16),
               std::invalid_argument);
  EXPECT_THROW(queue.CopyDeviceToHost(host.data(), Buffer(), 4), std::invalid_argument);
  queue.CopyHostToDevice(buffer, host.data(), 16);
}

// Every kernel checks, when it is created, that its tensors lie in their buffers.
TEST(CpuSafety, KernelsRefuseUndersizedAndNullBuffers) {
  Queue queue = Cpu().MakeQueue();
  const TensorOption in{Shape{2, 3}, kFloat};
  const TensorOption out{Shape{3, 2}, kFloat};
  Buffer small = Cpu().MakeBuffer(kMemDefault, 4);
  Buffer big = Cpu().MakeBuffer(kMemDefault, 24);
  PermuteOption option{{1, 0}};
  EXPECT_THROW_HAS(Permute::Create(queue, option, in, small, out, big), std::invalid_argument,
                   {"Permute", "argument 2", "[0, 24)", "holds 4 bytes"});
  EXPECT_THROW_HAS(Permute::Create(queue, option, in, big, out, small), std::invalid_argument,
                   {"Permute", "argument 4", "holds 4 bytes"});
  EXPECT_THROW_HAS(Permute::Create(queue, option, in, Buffer(), out, big), std::invalid_argument,
                   {"Permute", "argument 2", "null"});
  // CPU kernels read every tensor densely, whatever strides its descriptor gives.
  const TensorOption strided{Shape({2, 3}, std::vector<long>{4, 1}), kFloat};
  EXPECT_NO_THROW(Permute::Create(queue, option, strided, big, out, big));
  const TensorOption expanded{Shape({2, 3}, std::vector<long>{0, 0}), kFloat};
  EXPECT_THROW_HAS(Permute::Create(queue, option, expanded, small, out, big), std::invalid_argument,
                   {"[0, 24)", "holds 4 bytes"});
  Buffer view = Cpu().MakeBuffer(kMemDefault, 64).View(40, 24, 0);
  Kernel ok = Permute::Create(queue, option, in, view, out, big);
  queue.Enqueue(ok);
}

TEST(CpuSafety, RunsPermuteOnExactBuffers) {
  Queue queue = Cpu().MakeQueue();
  const std::vector<float> host = {1.5f, -2, 3, 4, -5, 6.25f};
  Buffer in = Cpu().MakeBuffer(kMemDefault, 24, const_cast<float*>(host.data()));
  Buffer out = Cpu().MakeBuffer(kMemDefault, 24);
  queue.Enqueue(Permute::Create(queue, PermuteOption{{1, 0}}, TensorOption{Shape{2, 3}, kFloat}, in,
                                TensorOption{Shape{3, 2}, kFloat}, out));
  std::vector<float> back(6);
  queue.CopyDeviceToHost(back.data(), out, 24);
  EXPECT_EQ(back, (std::vector<float>{1.5f, 4, -2, -5, 3, 6.25f}));
}

// What the matrix library would only log and skip is refused when the kernel is made.
TEST(CpuSafety, KernelsRefuseMismatchedShapesAndTypes) {
  Queue queue = Cpu().MakeQueue();
  Buffer buffer = Cpu().MakeBuffer(kMemDefault, 256);
  const TensorOption f23{Shape{2, 3}, kFloat};
  const TensorOption f32{Shape{3, 2}, kFloat};
  const TensorOption h32{Shape{3, 2}, kHalf};
  const TensorOption none{};
  EXPECT_THROW_MSG(Permute::Create(queue, PermuteOption{{1, 0}}, f23, buffer, h32, buffer),
                   std::invalid_argument,
                   "Permute: input type DataType::kFloat and output type DataType::kHalf differ");
  EXPECT_THROW_MSG(Permute::Create(queue, PermuteOption{{1, 1}}, f23, buffer, f32, buffer),
                   std::runtime_error,
                   "Permute: order [1, 1] is no permutation of the input's 2 dimensions");
  EXPECT_THROW(Permute::Create(queue, PermuteOption{{0}}, f23, buffer, f32, buffer),
               std::runtime_error);
  EXPECT_THROW_MSG(Permute::Create(queue, PermuteOption{{0, 1}}, f23, buffer, f32, buffer),
                   std::runtime_error, "Permute: output shape [3, 2] should be [2, 3]");
  Buffer null;
  EXPECT_THROW(Permute::Create(queue, PermuteOption{}, none, null, none, null),
               std::invalid_argument);
  const SliceOption slice{{0, 1}, {2, 3}, {1, 1}};
  EXPECT_NO_THROW(
      Slice::Create(queue, slice, f23, buffer, TensorOption{Shape{2, 2}, kHalf}, buffer));
  EXPECT_THROW(Slice::Create(queue, slice, f23, buffer, f32, buffer), std::runtime_error);
  EXPECT_THROW(Slice::Create(queue, SliceOption{{-1, 0}, {2, 3}, {1, 1}}, f23, buffer, f23, buffer),
               std::runtime_error);
  EXPECT_THROW(Slice::Create(queue, SliceOption{{0}, {2}, {1}}, f23, buffer, f23, buffer),
               std::runtime_error);
  EXPECT_NO_THROW(Tile::Create(queue, f23, buffer, TensorOption{Shape{2, 4, 6}, kFloat}, buffer));
  EXPECT_THROW_MSG(Tile::Create(queue, f23, buffer, TensorOption{Shape{4, 4}, kFloat}, buffer),
                   std::runtime_error,
                   "Tile: output shape [4, 4] is no tiling of input shape [2, 3]");
  EXPECT_THROW_MSG(BroadcastTo::Create(queue, f23, buffer, TensorOption{Shape{3}, kFloat}, buffer),
                   std::runtime_error, "BroadcastTo: cannot broadcast [2, 3] to [3]");
  EXPECT_NO_THROW(BroadcastTo::Create(queue, TensorOption{Shape{3, 1}, kFloat}, buffer,
                                      TensorOption{Shape{2, 3, 4}, kFloat}, buffer));
}

}  // namespace
}  // namespace nerva
