// The GPU programs of Permute (tiled transpose), Concat (joined rows) and Pad
// (one item per output element), run here on any device through
// GpuPathsForTesting and checked against the same host references.

#include <algorithm>
#include <cstring>

#include "linvo/conversion.h"
#include "nerva/platform/cl/layout/layout_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

TEST(LayoutGpu, PermuteTransposesThroughTiles) {
  const PermuteCase cases[] = {
      {{37, 45}, {}, {1, 0}},            // partial tiles on both edges
      {{64, 96}, {}, {1, 0}},            // whole tiles
      {{3, 33, 70}, {}, {0, 2, 1}},      // batched, ragged
      {{2, 5, 7, 9}, {}, {0, 2, 3, 1}},  // NCHW -> NHWC
      {{40, 3}, {5, 1}, {1, 0}},         // strided rows
      {{1, 1}, {}, {1, 0}},
  };
  GpuPathsForTesting gpu;
  for (DataType type : {kFloat, kHalf, kInt8, kInt64}) {
    for (const auto& c : cases) CheckPermute(c, type);
  }
}

// Pieces joined along `dim` by the GPU program (16-byte units, element
// units, more than eight pieces, empty pieces) or its fallbacks (strided
// pieces), compared with each piece's elements.
TEST(LayoutGpu, ConcatJoinsRows) {
  struct Case {
    std::vector<std::vector<long>> sizes;
    int dim;
    bool strided;  // the second piece a strided view
  } cases[] = {
      {{{4, 8}, {4, 4}, {4, 12}}, 1, false},
      {{{3, 5}, {3, 7}, {3, 1}}, -1, false},
      {{{2, 3, 5}, {2, 1, 5}, {2, 0, 5}, {2, 4, 5}}, 1, false},
      {{{3, 2}, {5, 2}}, 0, false},
      {std::vector<std::vector<long>>(11, {2, 3}), 1, false},
      {{{3, 5}, {3, 7}}, 1, true},
  };
  GpuPathsForTesting gpu;
  for (DataType type : {kFloat, kInt8, kInt64}) {
    for (const auto& c : cases) {
      const int rank = static_cast<int>(c.sizes[0].size());
      const int dim = c.dim < 0 ? c.dim + rank : c.dim;
      std::vector<DevTensor> parts;
      std::vector<TensorOption> opts;
      std::vector<Buffer> bufs;
      std::vector<long> out_sizes = c.sizes[0];
      out_sizes[dim] = 0;
      for (size_t p = 0; p < c.sizes.size(); ++p) {
        std::vector<long> strides;
        if (c.strided && p == 1) strides = {2 * c.sizes[p][1] + 1, 2};
        parts.push_back(RandomTensor(c.sizes[p], type, strides, 10 + static_cast<unsigned>(p)));
        opts.push_back(parts.back().opt);
        bufs.push_back(parts.back().buf);
        out_sizes[dim] += c.sizes[p][dim];
      }
      DevTensor out = OutTensor(out_sizes, type);
      TestQueue().Enqueue(
          Concat::Create(TestQueue(), ConcatOption{c.dim}, opts, bufs, out.opt, out.buf));
      const std::vector<uint8_t> got = Read(out);
      const size_t item = TypeTraitsHelper::GetSize(type);
      std::vector<long> idx(rank, 0);
      for (long i = 0; i < out.opt.shape.size(); ++i) {
        long rest = i;
        for (int d = rank; d-- > 0;) idx[d] = rest % out_sizes[d], rest /= out_sizes[d];
        size_t p = 0;
        long along = idx[dim];
        while (along >= c.sizes[p][dim]) along -= c.sizes[p++][dim];
        long at = 0;
        for (int d = 0; d < rank; ++d) {
          at += (d == dim ? along : idx[d]) * parts[p].opt.shape.strides()[d];
        }
        ASSERT_TRUE(std::equal(got.begin() + i * item, got.begin() + (i + 1) * item,
                               parts[p].bytes.begin() + at * item))
            << "element " << i << " of " << out.opt.shape;
      }
    }
  }
}

TEST(LayoutGpu, PadEveryModeOneLaunch) {
  struct Case {
    std::vector<long> sizes, strides, pad;
  } cases[] = {
      {{2, 3, 5, 6}, {}, {1, 1, 2, 1}},             // outer dims merged
      {{3, 5, 6}, {1, 18, 3}, {1, 2, 0, 3, 2, 1}},  // strided, three dims
      {{2, 3, 4, 2, 5}, {}, {2, 1, 0, 0, 1, 1}},    // rank 5, a middle dim unpadded
      {{4, 7}, {}, {3, -2, -1, 2}},                 // crops
  };
  GpuPathsForTesting gpu;
  for (DataType type : {kFloat, kHalf, kInt64}) {
    const size_t item = TypeTraitsHelper::GetSize(type);
    for (const auto& c : cases) {
      for (int mode = 0; mode < 4; ++mode) {
        const size_t rank = c.sizes.size();
        DevTensor in = RandomTensor(c.sizes, type, c.strides);
        std::vector<long> before(rank, 0), out_sizes = c.sizes;
        for (size_t k = 0; k < c.pad.size() / 2; ++k) {
          before[rank - 1 - k] = c.pad[2 * k];
          out_sizes[rank - 1 - k] += c.pad[2 * k] + c.pad[2 * k + 1];
        }
        DevTensor out = OutTensor(out_sizes, type);
        TestQueue().Enqueue(Pad::Create(TestQueue(),
                                        PadOption{c.pad, static_cast<PadMode>(mode), 3.0}, in.opt,
                                        in.buf, out.opt, out.buf));
        const auto map = [&](long x, long n) -> long {
          if (mode == 0) return x >= 0 && x < n ? x : -1;
          if (mode == 1) return x < 0 ? -x : (x >= n ? 2 * (n - 1) - x : x);
          if (mode == 2) return std::clamp(x, 0L, n - 1);
          return ((x % n) + n) % n;
        };
        std::vector<uint8_t> fill(item);
        const uint64_t bits = type == kHalf    ? linvo::FloatToHalf(3.0f)
                              : type == kFloat ? 0x40400000u
                                               : 3;
        std::memcpy(fill.data(), &bits, item);
        ExpectMoved(
            out, in,
            [&](const std::vector<long>& o, std::vector<long>* i) {
              i->resize(rank);
              for (size_t d = 0; d < rank; ++d) {
                (*i)[d] = map(o[d] - before[d], c.sizes[d]);
                if ((*i)[d] < 0) return false;
              }
              return true;
            },
            fill);
      }
    }
  }
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
