// EmbeddingBag and EmbeddingBagBackward against host loops: every mode, empty bags, padding,
// per-sample weights, out-of-range indices, on the CPU and the GPU programs.

#include <limits>

#include "index_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

constexpr long kRows = 11, kDim = 21;  // a 16-wide chunk and a narrower one

// One bag per [offsets[b], end); indices outside [0, rows) and padding skipped.
std::vector<double> BagRef(const std::vector<double>& w, const std::vector<long>& idx,
                           const std::vector<long>& starts, const std::vector<long>& ends,
                           EmbeddingBagMode mode, const std::vector<double>* psw, long padding,
                           long rows = kRows, long dim = kDim) {
  std::vector<double> out;
  for (size_t b = 0; b < starts.size(); ++b) {
    for (long d = 0; d < dim; ++d) {
      double acc = mode == EmbeddingBagMode::kMax ? -INFINITY : 0.0;
      int count = 0;
      for (long j = starts[b]; j < ends[b]; ++j) {
        if (idx[j] < 0 || idx[j] >= rows || idx[j] == padding) continue;
        const double v = w[idx[j] * dim + d] * (psw ? (*psw)[j] : 1.0);
        acc = mode == EmbeddingBagMode::kMax ? std::max(acc, v) : acc + v;
        ++count;
      }
      if (count == 0) acc = 0;
      if (mode == EmbeddingBagMode::kMean && count) acc /= count;
      out.push_back(acc);
    }
  }
  return out;
}

TEST(EmbeddingBagTest, EveryModeWithEmptyBagsPaddingAndOutOfRange) {
  // Bags [0,3) [3,3) [3,7) [7,9): the second is empty; index 11 and -1 are out of range.
  const std::vector<long> idx = {1, 4, 4, 10, 3, 11, 2, -1, 7};
  const std::vector<long> offsets = {0, 3, 3, 7, 9};
  for (bool gpu : {false, true}) {
    SCOPED_TRACE(gpu ? "gpu program" : "cpu program");
    const GpuPathsForTesting paths(gpu);
    for (DataType data : {kFloat, kHalf}) {
      const auto w = RandomValues(kRows * kDim, data, 17);
      Tensor weight = Put(w, {kRows, kDim}, data);
      Tensor ti = PutIndex(idx, {9}, kInt64);
      for (EmbeddingBagMode mode :
           {EmbeddingBagMode::kSum, EmbeddingBagMode::kMean, EmbeddingBagMode::kMax}) {
        for (bool last : {false, true}) {
          // Without include_last_offset the four first offsets start four bags (the last ends at
          // 9); with it, all five offsets bound four bags: the same bags.
          Tensor to =
              PutIndex(last ? offsets : std::vector<long>(offsets.begin(), offsets.end() - 1),
                       {last ? 5L : 4L}, kInt32);
          for (long padding : {-1L, 4L}) {
            Guarded out({4, kDim}, data);
            TestQueue().Enqueue(EmbeddingBag::Create(
                TestQueue(), EmbeddingBagOption{mode, last, padding}, weight.option(),
                weight.storage(), ti.option(), ti.storage(), to.option(), to.storage(),
                TensorOption{Shape(), data}, Buffer(), out.option(), out.buffer()));
            ExpectNear(out.values(),
                       BagRef(w, idx, {0, 3, 3, 7}, {3, 3, 7, 9}, mode, nullptr, padding), data, 2);
            EXPECT_TRUE(out.GuardsIntact());
          }
        }
      }
    }
  }
}

TEST(EmbeddingBagTest, PerSampleWeightsAndFixedBags) {
  const auto w = RandomValues(kRows * kDim, kFloat, 18);
  Tensor weight = Put(w, {kRows, kDim}, kFloat);
  const std::vector<long> idx = {0, 5, 9, 9, 2, 1};
  const auto psw = RandomValues(6, kFloat, 19);
  Tensor ti = PutIndex(idx, {3, 2}, kInt32);
  Tensor tp = Put(psw, {3, 2}, kFloat);
  Guarded out({3, kDim}, kFloat);
  TestQueue().Enqueue(EmbeddingBag::Create(
      TestQueue(), EmbeddingBagOption{EmbeddingBagMode::kSum, false, -1}, weight.option(),
      weight.storage(), ti.option(), ti.storage(), TensorOption{Shape(), kInt64}, Buffer(),
      tp.option(), tp.storage(), out.option(), out.buffer()));
  ExpectNear(out.values(), BagRef(w, idx, {0, 2, 4}, {2, 4, 6}, EmbeddingBagMode::kSum, &psw, -1),
             kFloat);
  EXPECT_THROW_HAS(
      EmbeddingBag::Create(TestQueue(), EmbeddingBagOption{EmbeddingBagMode::kMean, false, -1},
                           weight.option(), weight.storage(), ti.option(), ti.storage(),
                           TensorOption{Shape(), kInt64}, Buffer(), tp.option(), tp.storage(),
                           out.option(), out.buffer()),
      std::invalid_argument, {"EmbeddingBag", "per_sample_weights"});
  Tensor fi = Put({0, 1}, {2}, kFloat);
  EXPECT_THROW_HAS(
      EmbeddingBag::Create(TestQueue(), EmbeddingBagOption{}, weight.option(), weight.storage(),
                           fi.option(), fi.storage(), ti.option(), ti.storage(),
                           TensorOption{Shape(), kFloat}, Buffer(), out.option(), out.buffer()),
      std::invalid_argument, {"EmbeddingBag", "indices", "DataType::kFloat"});
}

// The host CPU's bag sums: widths of 1 to 81 columns (64- and 16-wide blocks, single columns),
// bags longer than the prefetch distance, empty bags, padding, indices out of range, weights.
TEST(EmbeddingBagTest, WidthsAndLongBagsOfTheCpuSums) {
  const long rows = 50, len = 90;
  auto idx = RandomIndices(len, 0, rows, 30);
  idx[5] = rows;  // out of range: skipped
  idx[50] = -1;
  const std::vector<long> starts = {0, 40, 40, 41, 90}, ends = {40, 40, 41, 90, 90};
  Tensor ti = PutIndex(idx, {len}, kInt32);
  Tensor to = PutIndex(starts, {5}, kInt64);
  for (DataType data : {kFloat, kHalf}) {
    const auto psw = RandomValues(len, data, 31);
    Tensor tp = Put(psw, {len}, data);
    for (long dim : {1, 15, 17, 64, 65, 81}) {
      const auto w = RandomValues(rows * dim, data, 32);
      Tensor weight = Put(w, {rows, dim}, data);
      for (EmbeddingBagMode mode :
           {EmbeddingBagMode::kSum, EmbeddingBagMode::kMean, EmbeddingBagMode::kMax}) {
        for (bool weighted : {false, true}) {
          if (weighted && mode != EmbeddingBagMode::kSum) continue;
          const long padding = weighted ? -1 : idx[7];
          Guarded out({5, dim}, data);
          TestQueue().Enqueue(EmbeddingBag::Create(
              TestQueue(), EmbeddingBagOption{mode, false, padding}, weight.option(),
              weight.storage(), ti.option(), ti.storage(), to.option(), to.storage(),
              weighted ? tp.option() : TensorOption{Shape(), data},
              weighted ? tp.storage() : Buffer(), out.option(), out.buffer()));
          ExpectNear(
              out.values(),
              BagRef(w, idx, starts, ends, mode, weighted ? &psw : nullptr, padding, rows, dim),
              data, 8);
          EXPECT_TRUE(out.GuardsIntact()) << dim;
        }
      }
    }
  }
}

TEST(EmbeddingBagBackwardTest, EveryModeWithScalingAndPadding) {
  const std::vector<long> idx = {1, 4, 4, 10, 3, 11, 2, 4, 7};
  const std::vector<long> offsets = {0, 3, 3, 7};
  const std::vector<long> o2b = {0, 0, 0, 2, 2, 2, 2, 3, 3};
  const auto grad = RandomValues(4 * kDim, kFloat, 23);
  const auto psw = RandomValues(9, kFloat, 24);
  Tensor tg = Put(grad, {4, kDim}, kFloat);
  Tensor ti = PutIndex(idx, {9}, kInt64);
  Tensor to = PutIndex(offsets, {4}, kInt64);
  Tensor tb = PutIndex(o2b, {9}, kInt32);
  Tensor tp = Put(psw, {9}, kFloat);
  // max_indices: a row per (bag, column); -1 for the empty bag.
  std::vector<long> maxi(4 * kDim);
  for (long b = 0; b < 4; ++b)
    for (long d = 0; d < kDim; ++d) maxi[b * kDim + d] = b == 1 ? -1 : idx[offsets[b] + d % 2];
  Tensor tm = PutIndex(maxi, {4, kDim}, kInt64);
  for (EmbeddingBagMode mode :
       {EmbeddingBagMode::kSum, EmbeddingBagMode::kMean, EmbeddingBagMode::kMax}) {
    for (bool scale : {false, true}) {
      for (bool use_o2b : {true, false}) {
        const long padding = mode == EmbeddingBagMode::kMax ? -1 : 4;
        std::vector<double> want(kRows * kDim, 0.0);
        std::vector<int> freq(kRows, 0);
        std::vector<int> bag_size(4, 0);
        for (long j = 0; j < 9; ++j) {
          if (idx[j] >= kRows || idx[j] == padding) continue;
          ++freq[idx[j]];
          ++bag_size[o2b[j]];
        }
        const bool sum = mode == EmbeddingBagMode::kSum;
        if (mode == EmbeddingBagMode::kMax) {
          for (long b = 0; b < 4; ++b)
            for (long d = 0; d < kDim; ++d)
              if (maxi[b * kDim + d] >= 0)
                want[maxi[b * kDim + d] * kDim + d] += grad[b * kDim + d];
        } else {
          for (long j = 0; j < 9; ++j) {
            if (idx[j] >= kRows || idx[j] == padding) continue;
            for (long d = 0; d < kDim; ++d) {
              double g = grad[o2b[j] * kDim + d];
              if (sum)
                g *= psw[j];
              else
                g /= bag_size[o2b[j]];
              if (scale) g /= freq[idx[j]];
              want[idx[j] * kDim + d] += g;
            }
          }
        }
        Guarded out({kRows, kDim}, kFloat);
        TestQueue().Enqueue(EmbeddingBagBackward::Create(
            TestQueue(), EmbeddingBagBackwardOption{mode, false, padding, scale}, tg.option(),
            tg.storage(), ti.option(), ti.storage(), to.option(), to.storage(),
            use_o2b ? tb.option() : TensorOption{Shape(), kInt64},
            use_o2b ? tb.storage() : Buffer(), tm.option(), tm.storage(),
            sum ? tp.option() : TensorOption{Shape(), kFloat}, sum ? tp.storage() : Buffer(),
            out.option(), out.buffer()));
        ExpectNear(out.values(), want, kFloat, 4);
        EXPECT_TRUE(out.GuardsIntact());
      }
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
