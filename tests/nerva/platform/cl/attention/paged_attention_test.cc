// PagedAttentionV1 and V2 on the OpenCL device against a double-precision
// decode attention: scattered cache blocks, ragged sequence lengths (0, 1, 7,
// 64, 257), grouped heads, head sizes 40, 64 and 128, int32 and int64 tables,
// half caches, out-of-range block ids and lengths, the scratch outputs and the
// argument checks.

#include <algorithm>

#include "nerva/platform/cl/attention/attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct PagedCase {
  std::vector<long> lens;
  long heads, kv_heads, size, block_size;
  int partition = 64;
  DataType type = kFloat;
  DataType index = kInt32;
  bool bad_ids = false;  // some table entries past the cache, one length past the table
};

void RunPaged(const PagedCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("heads ", c.heads, "/", c.kv_heads, " size ", c.size, " block ", c.block_size,
                      " type ", c.type, " index ", c.index));
  const long seqs = static_cast<long>(c.lens.size());
  const long max_len = *std::max_element(c.lens.begin(), c.lens.end());
  const long max_blocks = (max_len + c.block_size - 1) / c.block_size;
  const long blocks = seqs * max_blocks + 3;
  // Blocks scattered over the cache in a shuffled order.
  std::vector<long> order(blocks);
  for (long i = 0; i < blocks; ++i) order[i] = i;
  std::mt19937 gen(seed);
  std::shuffle(order.begin(), order.end(), gen);
  std::vector<double> table(seqs * max_blocks);
  for (long i = 0; i < seqs * max_blocks; ++i) table[i] = static_cast<double>(order[i]);
  std::vector<double> lens(c.lens.begin(), c.lens.end());
  std::vector<long> used(c.lens.begin(), c.lens.end());
  if (c.bad_ids) {
    table[1] = static_cast<double>(blocks + 5);    // drops tokens [bs, 2 bs) of sequence 0
    table[max_blocks + 0] = -1.0;                  // drops the first block of sequence 1
    lens[2] = static_cast<double>(max_len + 100);  // clamped to max_seq_len
    used[2] = max_len;
  }
  const std::vector<long> qs{seqs, c.heads, c.size}, cs{blocks, c.kv_heads, c.block_size, c.size};
  const std::vector<double> q = RoundTrip(RandomValues(Count(qs), -1, 1, seed + 1), c.type);
  const std::vector<double> kc = RoundTrip(RandomValues(Count(cs), -1, 1, seed + 2), c.type);
  const std::vector<double> vc = RoundTrip(RandomValues(Count(cs), -1, 1, seed + 3), c.type);
  const double scale = 0.125;
  std::vector<double> want(Count(qs), 0.0), want_logits(seqs * c.heads * max_len, 0.0);
  for (long s = 0; s < seqs; ++s)
    for (long h = 0; h < c.heads; ++h) {
      const long hk = h / (c.heads / c.kv_heads);
      std::vector<double> logit(used[s], -INFINITY);
      double m = -INFINITY;
      for (long t = 0; t < used[s]; ++t) {
        const long blk = static_cast<long>(table[s * max_blocks + t / c.block_size]);
        if (blk < 0 || blk >= blocks) continue;
        const long row = ((blk * c.kv_heads + hk) * c.block_size + t % c.block_size) * c.size;
        double dot = 0;
        for (long e = 0; e < c.size; ++e) dot += q[(s * c.heads + h) * c.size + e] * kc[row + e];
        logit[t] = dot * scale;
        want_logits[(s * c.heads + h) * max_len + t] = logit[t];
        m = std::max(m, logit[t]);
      }
      double sum = 0;
      for (long t = 0; t < used[s]; ++t) {
        if (logit[t] == -INFINITY) continue;
        const double p = std::exp(logit[t] - m);
        sum += p;
        const long blk = static_cast<long>(table[s * max_blocks + t / c.block_size]);
        const long row = ((blk * c.kv_heads + hk) * c.block_size + t % c.block_size) * c.size;
        for (long e = 0; e < c.size; ++e) want[(s * c.heads + h) * c.size + e] += p * vc[row + e];
      }
      for (long e = 0; e < c.size; ++e) {
        if (sum > 0) want[(s * c.heads + h) * c.size + e] /= sum;
      }
    }
  Tensor query = UploadAs(q, qs, c.type), key = UploadAs(kc, cs, c.type);
  Tensor value = UploadAs(vc, cs, c.type);
  Tensor tables = UploadAs(table, {seqs, max_blocks}, c.index);
  Tensor seq_lens = UploadAs(lens, {seqs}, c.index);
  const bool half = c.type == kHalf;
  const double abs = half ? 4e-3 : 2e-5, rel = half ? 4e-3 : 1e-4;

  Tensor out1 = MakeOutput(qs, c.type), logits = MakeOutput({seqs, c.heads, max_len}, kFloat);
  PagedAttentionV1Option o1{static_cast<int>(c.kv_heads), static_cast<float>(scale),
                            static_cast<int>(c.block_size), static_cast<int>(max_len)};
  TestQueue().Enqueue(PagedAttentionV1::Create(
      TestQueue(), o1, query.option(), query.storage(), key.option(), key.storage(), value.option(),
      value.storage(), tables.option(), tables.storage(), seq_lens.option(), seq_lens.storage(),
      out1.option(), out1.storage(), logits.option(), logits.storage()));
  const std::vector<double> got1 = DownloadAs(out1);
  ExpectClose(got1, want, abs, rel, "v1 out");
  const std::vector<double> got_logits = DownloadAs(logits);
  for (long s = 0; s < seqs; ++s)
    for (long h = 0; h < c.heads; ++h)
      for (long t = 0; t < used[s]; ++t) {
        const long i = (s * c.heads + h) * max_len + t;
        if (std::isinf(want_logits[i]) || want_logits[i] == 0) continue;
        ASSERT_NEAR(got_logits[i], want_logits[i], abs + rel * std::fabs(want_logits[i])) << i;
      }

  const long parts = (max_len + c.partition - 1) / c.partition;
  Tensor out2 = MakeOutput(qs, c.type);
  Tensor sums = MakeOutput({seqs, c.heads, parts}, kFloat);
  Tensor maxes = MakeOutput({seqs, c.heads, parts}, kFloat);
  Tensor tmp = MakeOutput({seqs, c.heads, parts, c.size}, kFloat);
  PagedAttentionV2Option o2{static_cast<int>(c.kv_heads), static_cast<float>(scale),
                            static_cast<int>(c.block_size), static_cast<int>(max_len), c.partition};
  TestQueue().Enqueue(PagedAttentionV2::Create(
      TestQueue(), o2, query.option(), query.storage(), key.option(), key.storage(), value.option(),
      value.storage(), tables.option(), tables.storage(), seq_lens.option(), seq_lens.storage(),
      out2.option(), out2.storage(), sums.option(), sums.storage(), maxes.option(), maxes.storage(),
      tmp.option(), tmp.storage()));
  const std::vector<double> got2 = DownloadAs(out2);
  ExpectClose(got2, want, abs, rel, "v2 out");
  ExpectClose(got2, got1, abs, rel, "v2 against v1");
}

TEST(ClPagedAttentionTest, RaggedScatteredSequences) {
  unsigned seed = 4000;
  RunPaged({{1, 7, 64, 257, 0}, 4, 4, 64, 16}, seed++);
  RunPaged({{257, 7, 1}, 4, 2, 128, 5, 100}, seed++);
  RunPaged({{64, 33}, 8, 1, 64, 16, 16, kFloat, kInt64}, seed++);
  // A head size of 40 works in vectors of 8.
  RunPaged({{33, 9}, 2, 1, 40, 7, 16}, seed++);
}

TEST(ClPagedAttentionTest, HalfCachesAndBadIds) {
  unsigned seed = 4100;
  RunPaged({{7, 64, 130}, 4, 2, 64, 16, 64, kHalf}, seed++);
  RunPaged({{40, 30, 20}, 2, 2, 64, 8, 16, kFloat, kInt32, true}, seed++);
}

TEST(ClPagedAttentionTest, ArgumentChecks) {
  Tensor q = MakeOutput({2, 4, 64}, kFloat), kc = MakeOutput({3, 2, 16, 64}, kFloat);
  Tensor bt = MakeOutput({2, 2}, kInt32), sl = MakeOutput({2}, kInt32);
  Tensor out = MakeOutput({2, 4, 64}, kFloat), bad = MakeOutput({3, 2, 16, 32}, kFloat);
  Tensor fbt = MakeOutput({2, 2}, kFloat);
  MaybeTensor none = Absent();
  auto v1 = [&](int kv, const Tensor& key, const Tensor& table) {
    PagedAttentionV1Option o{kv, 1.0f, 16, 32};
    Buffer nb;
    return PagedAttentionV1::Create(TestQueue(), o, q.option(), q.storage(), key.option(),
                                    key.storage(), kc.option(), kc.storage(), table.option(),
                                    table.storage(), sl.option(), sl.storage(), out.option(),
                                    out.storage(), none.option, nb);
  };
  ExpectThrow<std::runtime_error>([&] { v1(3, kc, bt); }, "must be a multiple of num_kv_heads 3");
  ExpectThrow<std::runtime_error>([&] { v1(2, bad, bt); }, "key_cache has shape [3, 2, 16, 32]");
  ExpectThrow<std::invalid_argument>([&] { v1(2, kc, fbt); },
                                     "block_tables must be int32 or int64");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
