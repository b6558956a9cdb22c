// EncodedConv2D through the tensor-core emulation: each fused stage against a host
// reference of the emulated semantics (see emulation/cl_nrv_tc_ext.h).

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nerva/kernel/tensorcore.h"
#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace {

Session& ConvSession() {
  return testing::TcSession();
}
Queue& ConvQueue() {
  return testing::TcQueue();
}

// A (C, H, W) integer image.
struct Image {
  long c, h, w;
  std::vector<int64_t> v;
  int64_t& at(long ci, long y, long x) { return v[(ci * h + y) * w + x]; }
};

int64_t Rs(int64_t x, int s) {
  return s > 0 ? (x + (int64_t{1} << (s - 1))) >> s : x;
}
int64_t Clamp(int64_t x, double lo, double hi) {
  return std::clamp<int64_t>(x, std::lround(lo), std::lround(hi));
}
int32_t Q16(double v) {
  return static_cast<int32_t>(std::lround(v * 65536.0));
}

constexpr long kB = 2, kC = 3, kH = 6, kW = 5, kOC = 4, kK = 3;

struct Data {
  std::vector<int8_t> input, in2, weight;
  std::vector<int32_t> bias, slopes, lut, pcq;
};

// The emulated result of the option's stages for image b.
Image Reference(const EncodedConv2DOption& o, const Data& d, long b) {
  const long oh = (kH + o.pad_top + o.pad_bottom - kK) / o.stride + 1;
  const long ow = (kW + o.pad_left + o.pad_right - kK) / o.stride + 1;
  Image r{kOC, oh, ow, std::vector<int64_t>(kOC * oh * ow)};
  for (long oc = 0; oc < kOC; ++oc)
    for (long y = 0; y < oh; ++y)
      for (long x = 0; x < ow; ++x) {
        int64_t acc = d.bias[oc];
        for (long c = 0; c < kC; ++c)
          for (long ky = 0; ky < kK; ++ky)
            for (long kx = 0; kx < kK; ++kx) {
              const long iy = y * o.stride + ky - o.pad_top, ix = x * o.stride + kx - o.pad_left;
              int64_t v = o.pad_value;
              if (iy >= 0 && iy < kH && ix >= 0 && ix < kW) {
                v = o.trans_input_layout ? d.input[((b * kH + iy) * kW + ix) * kC + c]
                                         : d.input[((b * kC + c) * kH + iy) * kW + ix];
              }
              acc += (v - o.input_zero_point) * d.weight[((oc * kC + c) * kK + ky) * kK + kx];
            }
        r.at(oc, y, x) = acc;
      }
  auto x2 = [&](long c, long y, long x, int64_t absent) -> int64_t {
    if (d.in2.empty()) return absent;
    if (c >= kOC || y >= 4 || x >= 3) return 0;
    return d.in2[((b * kOC + c) * 4 + y) * 3 + x];
  };
  auto pointwise = [&](const std::function<int64_t(int64_t, long, long, long)>& f) {
    for (long c = 0; c < r.c; ++c)
      for (long y = 0; y < r.h; ++y)
        for (long x = 0; x < r.w; ++x) r.at(c, y, x) = f(r.at(c, y, x), c, y, x);
  };
  if (o.relu1.value_or(false))
    pointwise([](int64_t v, long, long, long) { return std::max<int64_t>(v, 0); });
  if (o.max_pool2d) {
    const long k = o.max_pool2d->kernel_size, s = o.max_pool2d->stride;
    Image p{r.c, (r.h - k) / s + 1, (r.w - k) / s + 1, {}};
    p.v.resize(p.c * p.h * p.w);
    for (long c = 0; c < p.c; ++c)
      for (long y = 0; y < p.h; ++y)
        for (long x = 0; x < p.w; ++x) {
          int64_t m = r.at(c, y * s, x * s);
          for (long i = 0; i < k; ++i)
            for (long j = 0; j < k; ++j) m = std::max(m, r.at(c, y * s + i, x * s + j));
          p.at(c, y, x) = m;
        }
    r = p;
  }
  if (o.mul) {
    pointwise([&](int64_t v, long c, long y, long x) {
      return Clamp(Rs(v * x2(c, y, x, 1) * Q16(o.mul->x1_mul), 16 + std::lround(o.mul->x2_shift)),
                   o.mul->min, o.mul->max);
    });
  }
  if (o.lut) {
    pointwise([&](int64_t v, long, long, long) {
      return int64_t{d.lut[std::clamp<int64_t>(v, -128, 127) + 128]};
    });
  }
  if (o.add) {
    pointwise([&](int64_t v, long c, long y, long x) {
      const double lo = o.add->relu ? std::max(0.0f, o.add->min) : o.add->min;
      return Clamp(
          Rs(v * Q16(o.add->a) + x2(c, y, x, 0) * Q16(o.add->b), 16) + std::lround(o.add->c), lo,
          o.add->max);
    });
  }
  if (o.prelu) {
    pointwise([&](int64_t v, long c, long, long) {
      return Clamp(v >= 0 ? v : Rs(v * d.slopes[c], 16), o.prelu->min, o.prelu->max);
    });
  }
  if (o.leaky_relu) {
    pointwise([&](int64_t v, long, long, long) {
      const int32_t m = Q16(v >= 0 ? o.leaky_relu->pos_mul : o.leaky_relu->neg_mul);
      return Clamp(Rs(v * m, 16), o.leaky_relu->min, o.leaky_relu->max);
    });
  }
  if (o.depth2space) {
    const long bh = o.depth2space->block_h, bw = o.depth2space->block_w;
    Image s{r.c / (bh * bw), r.h * bh, r.w * bw, {}};
    s.v.resize(s.c * s.h * s.w);
    for (long c = 0; c < s.c; ++c)
      for (long y = 0; y < s.h; ++y)
        for (long x = 0; x < s.w; ++x)
          s.at(c, y, x) = r.at(c * bh * bw + (y % bh) * bw + x % bw, y / bh, x / bw);
    r = s;
  }
  if (o.rescale) {
    const int shift = o.rescale->first;
    const int64_t mul = std::lround(std::ldexp(o.rescale->second, shift));
    pointwise([&](int64_t v, long, long, long) { return Rs(v * mul, shift); });
  }
  if (o.rescale_pcq) {
    pointwise(
        [&](int64_t v, long c, long, long) { return Rs(v * d.pcq[c], o.rescale_pcq->first); });
  }
  return r;
}

// Weights, int32 biases, then the tables of the engaged stages.
std::vector<uint8_t> Encode(const EncodedConv2DOption& o, const Data& d) {
  std::vector<uint8_t> bytes((d.weight.size() + 3) / 4 * 4, 0);
  std::memcpy(bytes.data(), d.weight.data(), d.weight.size());
  auto append = [&](const std::vector<int32_t>& t) {
    const size_t at = bytes.size();
    bytes.resize(at + 4 * t.size());
    std::memcpy(bytes.data() + at, t.data(), 4 * t.size());
  };
  append(d.bias);
  if (o.prelu) append(d.slopes);
  if (o.lut) append(d.lut);
  if (o.rescale_pcq) append(d.pcq);
  return bytes;
}

struct StageCase {
  const char* name;
  std::function<void(EncodedConv2DOption&)> set;
  bool second_input;
};

void CheckStages(bool parameterised_pointwise) {
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> byte(-128, 127), small(-20, 20);
  Data d;
  for (long i = 0; i < kB * kC * kH * kW; ++i) d.input.push_back(static_cast<int8_t>(byte(rng)));
  for (long i = 0; i < kOC * kC * kK * kK; ++i) d.weight.push_back(static_cast<int8_t>(small(rng)));
  for (long i = 0; i < kOC; ++i) {
    d.bias.push_back(small(rng) * 50);
    d.slopes.push_back(Q16(0.1 * (i + 1)));
    d.pcq.push_back(300 + 100 * static_cast<int>(i));
  }
  for (int i = 0; i < 256; ++i) d.lut.push_back(i * 3 - 400);
  std::vector<int8_t> in2;
  for (long i = 0; i < kB * kOC * 4 * 3; ++i) in2.push_back(static_cast<int8_t>(small(rng)));
  const StageCase cases[] = {
      {"none", [](EncodedConv2DOption&) {}, false},
      {"clamp", [](EncodedConv2DOption& o) { o.FuseClamp(-5, 5); }, false},
      {"padding, zero point",
       [](EncodedConv2DOption& o) {
         o.pad_top = o.pad_left = 1, o.pad_bottom = 2, o.pad_right = 0, o.pad_value = 3;
         o.input_zero_point = -7, o.stride = 2;
       },
       false},
      {"channels-last", [](EncodedConv2DOption& o) { o.trans_input_layout = true; }, false},
      {"relu1", [](EncodedConv2DOption& o) { o.FuseRelu1(true); }, false},
      {"max-pool", [](EncodedConv2DOption& o) { o.FuseMaxPool2D(2, 1); }, false},
      {"mul", [](EncodedConv2DOption& o) { o.FuseMul(0.25f, 1, -3000, 3000); }, true},
      {"lut", [](EncodedConv2DOption& o) { o.FuseLut(std::vector<float>(256)); }, false},
      {"add", [](EncodedConv2DOption& o) { o.FuseAdd(0.5f, 2.0f, 7, -900, 900, false); }, true},
      {"add relu", [](EncodedConv2DOption& o) { o.FuseAdd(1.0f, -1.0f, 0, -900, 900, true); },
       true},
      {"prelu", [](EncodedConv2DOption& o) { o.FusePReLU(-1000, 1000, {}); }, false},
      {"leaky relu", [](EncodedConv2DOption& o) { o.FuseLeakyReLU(1.5f, 0.125f, -500, 2000); },
       false},
      {"depth2space", [](EncodedConv2DOption& o) { o.FuseDepth2Space(2, 2); }, false},
      {"rescale", [](EncodedConv2DOption& o) { o.FuseRescale(8, 0.3f); }, false},
      {"rescale pcq", [](EncodedConv2DOption& o) { o.FuseRescalePerChannel(10, {}); }, false},
      {"pool, relu, d2s, rescale",
       [](EncodedConv2DOption& o) {
         o.FuseRelu1(true).FuseMaxPool2D(2, 2).FuseDepth2Space(2, 1).FuseRescale(4, 0.5f);
       },
       false},
  };
  const std::vector<std::string> pointwise = {"mul",   "lut",        "add",     "add relu",
                                              "prelu", "leaky relu", "rescale", "rescale pcq"};
  for (const StageCase& c : cases) {
    if ((std::find(pointwise.begin(), pointwise.end(), c.name) != pointwise.end()) !=
        parameterised_pointwise) {
      continue;
    }
    EncodedConv2DOption o;
    c.set(o);
    Data cd = d;
    if (c.second_input) cd.in2 = in2;
    const Image first = Reference(o, cd, 0);
    std::vector<int16_t> expect;
    for (long b = 0; b < kB; ++b) {
      const Image r = Reference(o, cd, b);
      for (int64_t v : r.v)
        expect.push_back(static_cast<int16_t>(std::clamp<int64_t>(v, -32768, 32767)));
    }
    const std::vector<uint8_t> coef = Encode(o, cd);
    auto put = [](const void* data, long bytes) {
      Buffer buf = ConvSession().MakeBuffer(kMemReadWrite, bytes);
      ConvQueue().CopyHostToDevice(buf, data, bytes);
      return buf;
    };
    const Buffer in_buf = put(d.input.data(), static_cast<long>(d.input.size()));
    const Buffer coef_buf = put(coef.data(), static_cast<long>(coef.size()));
    Buffer out = ConvSession().MakeBuffer(kMemReadWrite, static_cast<long>(expect.size() * 2));
    const TensorOption in_opt{
        o.trans_input_layout ? Shape({kB, kH, kW, kC}) : Shape({kB, kC, kH, kW}), kInt8};
    const TensorOption coef_opt{Shape({kOC, kC, kK, kK}), kInt8};
    const TensorOption out_opt{Shape({kB, first.c, first.h, first.w}), kInt16};
    Kernel kernel;
    if (c.second_input) {
      const Buffer in2_buf = put(in2.data(), static_cast<long>(in2.size()));
      kernel =
          EncodedConv2D::Create(ConvQueue().impl(), o, in_opt, in_buf, coef_opt, coef_buf,
                                TensorOption{Shape({kB, kOC, 4, 3}), kInt8}, in2_buf, out_opt, out);
    } else {
      kernel = EncodedConv2D::Create(ConvQueue().impl(), o, in_opt, in_buf, coef_opt, coef_buf,
                                     out_opt, out);
    }
    ConvQueue().Enqueue(kernel);
    std::vector<int16_t> got(expect.size());
    ConvQueue().CopyDeviceToHost(got.data(), out, static_cast<long>(got.size() * 2));
    EXPECT_EQ(got, expect) << c.name;
  }
}

TEST(EncodedConv2DTest, GeometryAndShapeStagesMatchTheEmulatedSemantics) {
  CheckStages(false);
}

// Each parameterised point-wise stage alone: a stage applied twice or with a misread
// parameter shows here (ReLU and the shape stages are blind to a repeat).
TEST(EncodedConv2DTest, PointwiseStagesMatchTheEmulatedSemantics) {
  CheckStages(true);
}

TEST(EncodedConv2DTest, NeedsTheTensorCoreExtension) {
  Tensor in = testing::TestSession().MakeTensor({1, 1, 3, 3}, kInt8);
  Tensor coef = testing::TestSession().MakeTensor({64}, kUInt8);
  Tensor out = testing::TestSession().MakeTensor({1, 1, 3, 3}, kInt8);
  Buffer out_buf = out.storage();
  EXPECT_THROW_HAS(EncodedConv2D::Create(testing::TestQueue().impl(), {},
                                         TensorOption{Shape({1, 1, 3, 3}), kInt8}, in.storage(),
                                         TensorOption{Shape({1, 1, 1, 1}), kInt8}, coef.storage(),
                                         TensorOption{Shape({1, 1, 3, 3}), kInt8}, out_buf),
                   std::runtime_error, {"EncodedConv2D", "cl_nrv_tensorcore"});
}

}  // namespace
}  // namespace cl
}  // namespace nerva
