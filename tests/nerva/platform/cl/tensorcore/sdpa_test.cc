// ScaledDotProductAttention's tensor-core program through the emulation against the
// double-precision host attention: head sizes 64 and 128, ragged query and key
// lengths, masks of each kind broadcasting, causal, grouped heads, strided queries,
// half data, the probabilities, and dropout drawing the generic program's decisions.

#include "nerva/platform/cl/kernel/attention/scaled_dot_product_attention.h"
#include "nerva/platform/cl/tensorcore/tc_attention_test_util.h"

namespace nerva {
namespace cl {
namespace testing {
namespace {

// The emulating session, whose forward must take the tensor-core program.
void RunTcSdpa(const SdpaCase& c, unsigned seed) {
  RunSdpa(c, seed, TcTarget(), "sdpa_forward_tensorcore");
}

TEST(ClTcSdpaTest, LengthsAndHeadSizes) {
  unsigned seed = 6000;
  RunTcSdpa({1, 2, 2, 1, 1, 64, 64}, seed++);
  RunTcSdpa({1, 2, 2, 7, 7, 64, 64}, seed++);
  RunTcSdpa({1, 1, 1, 37, 70, 64, 64}, seed++);
  RunTcSdpa({2, 1, 1, 5, 33, 128, 40}, seed++);
}

TEST(ClTcSdpaTest, MasksCausalGroupedStrided) {
  unsigned seed = 6100;
  RunTcSdpa({2, 2, 2, 7, 40, 64, 64, Mask::kBool, {7, 40}}, seed++);
  RunTcSdpa({1, 1, 1, 3, 9, 128, 40, Mask::kBool, {3, 9}, false, kFloat, true}, seed++);
  RunTcSdpa({2, 2, 2, 7, 33, 64, 64, Mask::kFloat, {2, 1, 7, 33}, false, kFloat, true}, seed++);
  RunTcSdpa({1, 1, 1, 40, 40, 64, 64, Mask::kNone, {}, true, kFloat, true}, seed++);
  RunTcSdpa({1, 4, 2, 7, 20, 64, 64, Mask::kNone, {}, true}, seed++);
  RunTcSdpa({2, 3, 3, 7, 20, 64, 64, Mask::kNone, {}, false, kFloat, false, true}, seed++);
}

TEST(ClTcSdpaTest, HalfData) {
  unsigned seed = 6200;
  RunTcSdpa({1, 2, 2, 33, 33, 64, 64, Mask::kHalf, {33, 33}, false, kHalf, true}, seed++);
  RunTcSdpa({1, 4, 2, 7, 45, 64, 64, Mask::kNone, {}, true, kHalf}, seed++);
}

// With a fixed seed the tensor-core program keeps and drops the same probabilities as
// the generic program of a session without the extension.
TEST(ClTcSdpaTest, DropoutMatchesGenericProgram) {
  const long B = 1, H = 2, L = 9, S = 21, E = 64;
  ScaledDotProductAttentionOption option;
  option.dropout_p = 0.3f;
  option.use_seed = true;
  option.seed = 1234.0f;
  const std::vector<double> q = RandomValues(B * H * L * E, -1, 1, 6300);
  const std::vector<double> k = RandomValues(B * H * S * E, -1, 1, 6301);
  const std::vector<double> v = RandomValues(B * H * S * E, -1, 1, 6302);
  std::vector<std::vector<double>> results;
  for (bool tc : {true, false}) {
    auto up = [&](const std::vector<double>& x, std::vector<long> sizes) {
      return tc ? TcTarget().Upload(x, sizes, kFloat) : UploadAs(x, sizes, kFloat);
    };
    auto output = [&](std::vector<long> sizes) {
      return tc ? TcTarget().Output(sizes, kFloat) : MakeOutput(sizes, kFloat);
    };
    Queue& queue = tc ? TcQueue() : TestQueue();
    Tensor query = up(q, {B, H, L, E}), key = up(k, {B, H, S, E}), value = up(v, {B, H, S, E});
    Tensor out = output({B, H, L, E}), lse = output({B, H, L}), weights = output({B, H, L, S});
    const MaybeTensor none = Absent();
    Buffer wb = weights.storage();
    const Kernel kernel = ScaledDotProductAttention::Create(
        queue, option, query.option(), query.storage(), key.option(), key.storage(), value.option(),
        value.storage(), none.option, none.buffer, out.option(), out.storage(), lse.option(),
        lse.storage(), weights.option(), wb);
    EXPECT_EQ(Runs(kernel, "sdpa_forward_tensorcore"), tc);
    queue.Enqueue(kernel);
    results.push_back(tc ? TcTarget().Download(weights) : DownloadAs(weights));
    results.push_back(tc ? TcTarget().Download(out) : DownloadAs(out));
  }
  long dropped = 0;
  for (double x : results[0]) dropped += x == 0.0;
  EXPECT_GT(dropped, 0);
  ExpectClose(results[0], results[2], 1e-6, 1e-4, "attn_weights");
  ExpectClose(results[1], results[3], 2e-5, 1e-4, "out");
}

}  // namespace
}  // namespace testing
}  // namespace cl
}  // namespace nerva
