// ScaledDotProductAttention on the OpenCL device against a double-precision
// host attention: sequence lengths 1, 7, 64 and 257, head sizes 64 and 128,
// bool and additive masks that broadcast, causal, grouped heads, strided
// inputs, half data, the probabilities, dropout and the argument checks.

#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/attention/sdpa_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

TEST(ClSdpaTest, SequenceLengthsAndHeadSizes) {
  unsigned seed = 2000;
  for (long n : {1L, 7L, 64L, 257L}) RunSdpa({1, 2, 2, n, n, 64, 64}, seed++);
  RunSdpa({2, 1, 1, 7, 257, 128, 128}, seed++);
  RunSdpa({1, 2, 2, 64, 7, 128, 128}, seed++);
  RunSdpa({1, 1, 1, 5, 9, 64, 64, Mask::kNone, {}, false, kFloat, true, false, 0.3f}, seed++);
}

TEST(ClSdpaTest, MasksBroadcast) {
  unsigned seed = 2100;
  RunSdpa({2, 2, 2, 7, 64, 64, 64, Mask::kBool, {7, 64}}, seed++);
  RunSdpa({2, 2, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}, false, kFloat, true}, seed++);
  RunSdpa({1, 2, 2, 64, 33, 64, 64, Mask::kHalf, {33}}, seed++);
  RunSdpa({2, 2, 2, 3, 5, 64, 64, Mask::kBool, {2, 2, 3, 5}, false, kFloat, true}, seed++);
}

TEST(ClSdpaTest, CausalGroupedAndStrided) {
  unsigned seed = 2200;
  RunSdpa({1, 2, 2, 257, 257, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({1, 2, 2, 7, 40, 64, 64, Mask::kNone, {}, true, kFloat, true}, seed++);
  RunSdpa({2, 4, 2, 7, 64, 64, 64, Mask::kNone, {}, false, kFloat, true}, seed++);
  RunSdpa({1, 8, 2, 64, 64, 128, 128, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 3, 3, 7, 64, 64, 64, Mask::kNone, {}, false, kFloat, false, true}, seed++);
}

TEST(ClSdpaTest, HalfData) {
  unsigned seed = 2300;
  RunSdpa({1, 2, 2, 64, 64, 64, 64, Mask::kFloat, {64, 64}, false, kHalf, true}, seed++);
  RunSdpa({1, 4, 2, 7, 257, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
}

// Head sizes that are not whole vectors leave padded lanes in the blocked
// program's key and value blocks.
TEST(ClSdpaTest, OddHeadSizes) {
  unsigned seed = 2400;
  RunSdpa({1, 2, 2, 7, 33, 24, 40}, seed++);
  RunSdpa({1, 1, 1, 5, 9, 24, 40, Mask::kBool, {5, 9}, false, kFloat, true}, seed++);
}

// The local-memory tiles that devices other than CPUs run.
TEST(ClSdpaTest, LocalMemoryTiles) {
  ScaledDotProductAttentionKernel::SetBlockedModeForTesting(0);
  unsigned seed = 2500;
  RunSdpa({1, 2, 2, 257, 257, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 4, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}, false, kFloat, true}, seed++);
  ScaledDotProductAttentionKernel::SetBlockedModeForTesting(-1);
}

// The flash program that GPUs run for head sizes up to 64: row groups of 64
// with a partial last group, key tiles of 64 with a partial last tile, masks,
// causal limits inside a tile, grouped heads, strided queries, half data, odd
// head sizes and several groups per head. attn_weights take the tiles.
TEST(ClSdpaTest, FlashTiles) {
  const GpuPathsForTesting gpu;
  unsigned seed = 2600;
  RunSdpa({1, 2, 2, 257, 130, 64, 64}, seed++);
  RunSdpa({1, 2, 2, 129, 129, 64, 64, Mask::kNone, {}, true}, seed++);
  RunSdpa({2, 4, 2, 7, 65, 64, 64, Mask::kFloat, {2, 1, 7, 65}}, seed++);
  RunSdpa({1, 2, 2, 70, 33, 64, 64, Mask::kBool, {70, 33}}, seed++);
  RunSdpa({2, 3, 3, 65, 64, 64, 64, Mask::kHalf, {64}, false, kFloat, false, true}, seed++);
  RunSdpa({1, 4, 2, 65, 257, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
  RunSdpa({1, 1, 1, 66, 9, 5, 3, Mask::kNone, {}, false, kFloat, false, false, 0.3f}, seed++);
  RunSdpa({1, 2, 2, 5, 9, 64, 64, Mask::kBool, {5, 9}, false, kFloat, true}, seed++);
}

// Dropout decisions depend on positions alone: the flash program (no weights)
// matches the tiles (which write the weights) drawn from the same seed.
TEST(ClSdpaTest, FlashDropoutMatchesTiles) {
  const GpuPathsForTesting gpu;
  const long B = 1, H = 2, L = 70, S = 67, E = 64;
  Tensor query = UploadAs(RandomValues(B * H * L * E, -1, 1, 2700), {B, H, L, E}, kFloat);
  Tensor key = UploadAs(RandomValues(B * H * S * E, -1, 1, 2701), {B, H, S, E}, kFloat);
  Tensor value = UploadAs(RandomValues(B * H * S * E, -1, 1, 2702), {B, H, S, E}, kFloat);
  ScaledDotProductAttentionOption option;
  option.dropout_p = 0.3f;
  option.use_seed = true;
  option.seed = 11.0f;
  std::vector<std::vector<double>> outs, lses;
  for (bool weights : {true, false}) {
    Tensor out = MakeOutput({B, H, L, E}, kFloat), lse = MakeOutput({B, H, L}, kFloat);
    Tensor w = MakeOutput({B, H, L, S}, kFloat);
    const MaybeTensor wa = weights ? Present(w) : Absent();
    const MaybeTensor none = Absent();
    Buffer wb = wa.buffer;
    TestQueue().Enqueue(ScaledDotProductAttention::Create(
        TestQueue(), option, query.option(), query.storage(), key.option(), key.storage(),
        value.option(), value.storage(), none.option, none.buffer, out.option(), out.storage(),
        lse.option(), lse.storage(), wa.option, wb));
    outs.push_back(DownloadAs(out));
    lses.push_back(DownloadAs(lse));
  }
  ExpectClose(outs[1], outs[0], 1e-5, 1e-4, "dropout out");
  ExpectClose(lses[1], lses[0], 1e-5, 1e-5, "dropout logsumexp");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
