// PagedAttentionV1 and V2 on the tensor-core programs through the emulation against a
// double-precision decode attention: scattered cache blocks, ragged sequence lengths
// (0, 1, 7, 37, 64), grouped heads, head sizes 64 and 128, partitions that do not
// align with the cache blocks, half caches, int64 tables, out-of-range block ids and
// lengths, and the scores V1 writes.

#include <algorithm>

#include "nerva/platform/cl/tensorcore/tc_attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

struct TcPagedCase {
  std::vector<long> lens;
  long heads, kv_heads, size, block_size;
  int partition = 64;
  DataType type = kFloat;
  DataType index = kInt32;
  bool bad_ids = false;  // some table entries past the cache, one length past the table
};

void RunTcPaged(const TcPagedCase& c, unsigned seed) {
  SCOPED_TRACE(StrCat("heads ", c.heads, "/", c.kv_heads, " size ", c.size, " block ", c.block_size,
                      " partition ", c.partition, " type ", c.type, " index ", c.index));
  const long seqs = static_cast<long>(c.lens.size());
  const long max_len = *std::max_element(c.lens.begin(), c.lens.end());
  const long max_blocks = (max_len + c.block_size - 1) / c.block_size;
  const long blocks = seqs * max_blocks + 3;
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
  std::vector<double> want(Count(qs), 0.0);
  std::vector<double> want_logits(seqs * c.heads * max_len, -INFINITY);
  for (long s = 0; s < seqs; ++s)
    for (long h = 0; h < c.heads; ++h) {
      const long hk = h / (c.heads / c.kv_heads);
      double m = -INFINITY, sum = 0;
      auto row = [&](long t) {
        const long blk = static_cast<long>(table[s * max_blocks + t / c.block_size]);
        if (blk < 0 || blk >= blocks) return -1L;
        return ((blk * c.kv_heads + hk) * c.block_size + t % c.block_size) * c.size;
      };
      double* logit = &want_logits[(s * c.heads + h) * max_len];
      for (long t = 0; t < used[s]; ++t) {
        if (row(t) < 0) continue;
        double dot = 0;
        for (long e = 0; e < c.size; ++e) dot += q[(s * c.heads + h) * c.size + e] * kc[row(t) + e];
        logit[t] = dot * scale;
        m = std::max(m, logit[t]);
      }
      for (long t = 0; t < used[s]; ++t) {
        if (row(t) < 0) continue;
        const double p = std::exp(logit[t] - m);
        sum += p;
        for (long e = 0; e < c.size; ++e)
          want[(s * c.heads + h) * c.size + e] += p * vc[row(t) + e];
      }
      for (long e = 0; e < c.size && sum > 0; ++e) want[(s * c.heads + h) * c.size + e] /= sum;
    }
  Tensor query = TcTarget().Upload(q, qs, c.type), key = TcTarget().Upload(kc, cs, c.type);
  Tensor value = TcTarget().Upload(vc, cs, c.type);
  Tensor tables = TcTarget().Upload(table, {seqs, max_blocks}, c.index);
  Tensor seq_lens = TcTarget().Upload(lens, {seqs}, c.index);
  const bool half = c.type == kHalf;
  const double abs = half ? 4e-3 : 2e-5, rel = half ? 4e-3 : 1e-4;

  Tensor out1 = TcTarget().Output(qs, c.type),
         logits = TcTarget().Output({seqs, c.heads, max_len}, kFloat);
  PagedAttentionV1Option o1{static_cast<int>(c.kv_heads), static_cast<float>(scale),
                            static_cast<int>(c.block_size), static_cast<int>(max_len)};
  const Kernel k1 = PagedAttentionV1::Create(
      TcQueue(), o1, query.option(), query.storage(), key.option(), key.storage(), value.option(),
      value.storage(), tables.option(), tables.storage(), seq_lens.option(), seq_lens.storage(),
      out1.option(), out1.storage(), logits.option(), logits.storage());
  ASSERT_EQ(UnitNames(k1), std::vector<std::string>{"paged_attention_v1_tensorcore"});
  TcQueue().Enqueue(k1);
  const std::vector<double> got1 = TcTarget().Download(out1);
  ExpectClose(got1, want, abs, rel, "v1 out");
  const std::vector<double> got_logits = TcTarget().Download(logits);
  for (long s = 0; s < seqs; ++s)
    for (long h = 0; h < c.heads; ++h)
      for (long t = 0; t < used[s]; ++t) {
        const long i = (s * c.heads + h) * max_len + t;
        if (std::isinf(want_logits[i])) {
          EXPECT_EQ(got_logits[i], -INFINITY) << i;
        } else {
          ASSERT_NEAR(got_logits[i], want_logits[i], abs + rel * std::fabs(want_logits[i])) << i;
        }
      }

  const long parts = (max_len + c.partition - 1) / c.partition;
  Tensor out2 = TcTarget().Output(qs, c.type);
  Tensor sums = TcTarget().Output({seqs, c.heads, parts}, kFloat);
  Tensor maxes = TcTarget().Output({seqs, c.heads, parts}, kFloat);
  Tensor tmp = TcTarget().Output({seqs, c.heads, parts, c.size}, kFloat);
  PagedAttentionV2Option o2{static_cast<int>(c.kv_heads), static_cast<float>(scale),
                            static_cast<int>(c.block_size), static_cast<int>(max_len), c.partition};
  const Kernel k2 = PagedAttentionV2::Create(
      TcQueue(), o2, query.option(), query.storage(), key.option(), key.storage(), value.option(),
      value.storage(), tables.option(), tables.storage(), seq_lens.option(), seq_lens.storage(),
      out2.option(), out2.storage(), sums.option(), sums.storage(), maxes.option(), maxes.storage(),
      tmp.option(), tmp.storage());
  ASSERT_EQ(UnitNames(k2), (std::vector<std::string>{"paged_attention_v2_tensorcore",
                                                     "paged_attention_v2_reduce_tensorcore"}));
  TcQueue().Enqueue(k2);
  const std::vector<double> got2 = TcTarget().Download(out2);
  ExpectClose(got2, want, abs, rel, "v2 out");
  ExpectClose(got2, got1, abs, rel, "v2 against v1");
}

TEST(ClTcPagedAttentionTest, RaggedScatteredSequences) {
  unsigned seed = 6500;
  RunTcPaged({{1, 7, 64, 37, 0}, 4, 2, 64, 16, 32}, seed++);
  RunTcPaged({{37, 5}, 4, 2, 64, 16, 24, kFloat, kInt64}, seed++);
  RunTcPaged({{33, 9}, 2, 1, 128, 8, 16, kHalf, kInt64}, seed++);
}

TEST(ClTcPagedAttentionTest, BadIdsAndLengths) {
  RunTcPaged({{40, 30, 20}, 2, 2, 64, 8, 16, kFloat, kInt32, true}, 6600);
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
