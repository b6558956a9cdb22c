// Non-contiguous inputs (transposed, stepped slices, broadcast views) give
// the same results as their contiguous copies, which the other tests check
// against host references.

#include <string>

#include "nerva/platform/cl/reduce/reduce_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// The elements of `view` (a strided view of `base`'s host values), in row-major order.
std::vector<double> Materialize(const std::vector<double>& base, const Tensor& view) {
  const auto& sizes = view.shape().sizes();
  const auto& strides = view.shape().strides();
  const long item = static_cast<long>(TypeTraitsHelper::GetSize(view.dtype()));
  std::vector<double> out;
  for (long flat = 0; flat < Count(sizes); ++flat) {
    const std::vector<long> index = Unflatten(flat, sizes);
    long at = view.storage_offset() / item;
    for (size_t d = 0; d < sizes.size(); ++d) at += index[d] * strides[d];
    out.push_back(base[at]);
  }
  return out;
}

// Runs `op` on the view and on a contiguous copy of it; both outputs must match.
template <typename Op>
void ExpectSameAsContiguous(const std::vector<double>& base, const Tensor& view,
                            const std::vector<long>& out_sizes, DataType out_type, Op op) {
  Tensor copy = UploadAs(Materialize(base, view), view.shape().sizes(), view.dtype());
  Tensor out_view = MakeOutput(out_sizes, out_type);
  Tensor out_copy = MakeOutput(out_sizes, out_type);
  TestQueue().Enqueue(op(view, out_view));
  TestQueue().Enqueue(op(copy, out_copy));
  EXPECT_EQ(DownloadAs(out_view), DownloadAs(out_copy));
}

TEST(ClStridedInputTest, ReductionsReadViewsCorrectly) {
  const std::vector<double> base = RoundTrip(RandomValues(6 * 35, -9, 9, 1500), kFloat);
  Tensor input = UploadAs(base, {6, 35}, kFloat);
  const Tensor transposed = input.Transpose({1, 0});  // [35, 6]
  ASSERT_FALSE(transposed.is_contiguous());
  ExpectSameAsContiguous(base, transposed, {35}, kFloat, [](const Tensor& x, Tensor& y) {
    ReduceOption option;
    option.axes = {1};
    return Reduce::Create(TestQueue(), option, x.option(), x.storage(), y.option(), y.storage());
  });
  ExpectSameAsContiguous(base, transposed, {35, 6}, kFloat, [](const Tensor& x, Tensor& y) {
    return Softmax::Create(TestQueue(), SoftmaxOption{-1}, x.option(), x.storage(), y.option(),
                           y.storage());
  });
  const Tensor stepped = input.Slice({0, 0}, {6, 35}, std::vector<long>{2, 3});  // [3, 12]
  ASSERT_FALSE(stepped.is_contiguous());
  ExpectSameAsContiguous(base, stepped, {3}, kInt64, [](const Tensor& x, Tensor& y) {
    return ArgMax::Create(TestQueue(), ArgMaxOption{1, false}, x.option(), x.storage(), y.option(),
                          y.storage());
  });
  const Tensor broadcast = input.Slice({0, 0}, {1, 35}).BroadcastTo({4, 35});
  ExpectSameAsContiguous(base, broadcast, {4, 35}, kFloat, [](const Tensor& x, Tensor& y) {
    return Cumsum::Create(TestQueue(), CumsumOption{0}, x.option(), x.storage(), y.option(),
                          y.storage());
  });
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
