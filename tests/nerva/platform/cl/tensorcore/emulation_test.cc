// The tensor-core programs built and run through the test emulation of the built-ins
// (emulation/cl_nrv_tc_ext.h, emulation/cl_nrv_tc_lib.h) on the shared emulation session.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nerva/kernel/tensorcore.h"
#include "nerva/platform/cl/cl_test_util.h"
#include "nerva/platform/cl/kernel_impl.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/tensorcore/tc_test_util.h"
#include "nerva/test_util.h"

namespace nerva {
namespace cl {
namespace {

Session& EmuSession() {
  return testing::TcSession();
}
Queue& EmuQueue() {
  return testing::TcQueue();
}

template <typename T>
Tensor Put(const std::vector<T>& values, DataType dtype) {
  Tensor t = EmuSession().MakeTensor({static_cast<long>(values.size())}, dtype);
  EmuQueue().CopyHostToDevice(t.storage(), values.data(),
                              static_cast<long>(values.size() * sizeof(T)));
  return t;
}
template <typename T>
std::vector<T> Get(const Buffer& buffer, size_t count) {
  std::vector<T> out(count);
  EmuQueue().CopyDeviceToHost(out.data(), buffer, static_cast<long>(count * sizeof(T)));
  return out;
}

// One tensor-core program built with explicit options and run once.
class ProgramKernel : public KernelImpl {
 public:
  ProgramKernel(std::string program, std::string function, BuildOption options,
                std::vector<Buffer> args, std::vector<int> ints, std::vector<size_t> global,
                size_t block)
      : KernelImpl("TcProgram"),
        program_(std::move(program)),
        function_(std::move(function)),
        options_(std::move(options)),
        args_(std::move(args)),
        ints_(std::move(ints)),
        global_(std::move(global)),
        block_(block) {}
  bool Verify() const override { return true; }
  void Compile(std::shared_ptr<SessionImpl> session) override {
    auto unit =
        MakeSubKernel(session, "TcProgram::" + program_,
                      {"tensorcore/tc_common.h", "tensorcore/" + program_}, options_, function_);
    for (const Buffer& b : args_) unit->SetArg(b);
    for (int v : ints_) unit->SetArg(v);
    unit->SetGlobal(global_).SetLocal({block_, 1, 1});
  }

 private:
  std::string program_, function_;
  BuildOption options_;
  std::vector<Buffer> args_;
  std::vector<int> ints_;
  std::vector<size_t> global_;
  size_t block_;
};

void RunProgram(std::shared_ptr<ProgramKernel> kernel) {
  kernel->Compile(std::dynamic_pointer_cast<SessionImpl>(EmuSession().impl()));
  EmuQueue().Enqueue(Kernel(kernel));
  EmuQueue().Wait();
}

struct MissingCase {
  const char* program;
  const char* function;
  std::vector<std::string> required;
};

// One build per program without any definition reports every missing macro at once.
TEST(TensorCoreProgramTest, EachMissingMacroStopsTheBuild) {
  const MissingCase cases[] = {
      {"matmul.cl",
       "matmul_tensorcore",
       {"DIM_M", "DIM_N", "DIM_K", "MAT1_DTYPE", "MAT2_DTYPE", "OUT_DTYPE", "MAT1_DTYPE_SIZE",
        "MAT2_DTYPE_SIZE", "OUT_DTYPE_SIZE"}},
      {"matmul_ab.cl",
       "matmul_ab_tensorcore",
       {"DIM_M", "DIM_N", "DIM_K", "MAT1_DTYPE", "MAT2_DTYPE", "OUT_DTYPE", "MAT1_DTYPE_SIZE",
        "MAT2_DTYPE_SIZE", "OUT_DTYPE_SIZE", "TILE_M", "TILE_N", "TILE_K"}},
      {"encoded_matmul.cl",
       "EncodedMatMul",
       {"IN_DTYPE", "OUT_DTYPE", "COEF_DTYPE", "M_SIZE", "N_SIZE", "K_SIZE", "IN_DTYPE_SIZE",
        "COEF_DTYPE_SIZE", "OUT_DTYPE_SIZE"}},
      {"conv2d.cl",
       "EncodedConv2D",
       {"IN_CHANNEL", "IN_HEIGHT", "IN_WIDTH", "OUT_CHANNEL", "OUT_HEIGHT", "OUT_WIDTH", "K_HEIGHT",
        "K_WIDTH", "IN_DTYPE", "COEF_DTYPE", "OUT_DTYPE", "IN_DTYPE_SIZE", "COEF_DTYPE_SIZE",
        "OUT_DTYPE_SIZE", "STRIDE", "PAD_TOP", "PAD_BOTTOM", "PAD_LEFT", "PAD_RIGHT"}},
      // The second input's macros, with everything else defined.
      {"conv2d.cl",
       "EncodedConv2D",
       {"IN2_CHANNEL", "IN2_HEIGHT", "IN2_WIDTH", "IN2_DTYPE", "IN2_DTYPE_SIZE"}},
  };
  const std::string conv_base =
      " -DHAS_2ND_INPUT=1 -DIN_CHANNEL=1 -DIN_HEIGHT=1 -DIN_WIDTH=1 -DOUT_CHANNEL=1"
      " -DOUT_HEIGHT=1 -DOUT_WIDTH=1 -DK_HEIGHT=1 -DK_WIDTH=1 -DIN_DTYPE=char -DCOEF_DTYPE=char"
      " -DOUT_DTYPE=char -DIN_DTYPE_SIZE=1 -DCOEF_DTYPE_SIZE=1 -DOUT_DTYPE_SIZE=1 -DSTRIDE=1"
      " -DPAD_TOP=0 -DPAD_BOTTOM=0 -DPAD_LEFT=0 -DPAD_RIGHT=0";
  for (const MissingCase& c : cases) {
    BuildOption options;
    options.AddOptionIf(c.required[0] == "IN2_CHANNEL", conv_base);
    try {
      RunProgram(std::make_shared<ProgramKernel>(c.program, c.function, options,
                                                 std::vector<Buffer>{}, std::vector<int>{},
                                                 std::vector<size_t>{1}, 1));
      ADD_FAILURE() << c.program << " built without its macros";
    } catch (const std::runtime_error& e) {
      for (const std::string& name : c.required) {
        EXPECT_NE(std::string(e.what()).find("Missing " + name + "\n"), std::string::npos)
            << c.program << " lacks the line for " << name;
      }
    }
  }
}

// out[b][m][n] = sum_k a[b][m][k] * b[b][k][n], int8 in, int32 out.
std::vector<int32_t> HostProduct(const std::vector<int8_t>& a, const std::vector<int8_t>& b,
                                 int batch, int m, int k, int n) {
  std::vector<int32_t> out(static_cast<size_t>(batch * m * n));
  for (int z = 0; z < batch; ++z)
    for (int i = 0; i < m; ++i)
      for (int j = 0; j < n; ++j) {
        int64_t s = 0;
        for (int q = 0; q < k; ++q) s += int64_t{a[(z * m + i) * k + q]} * b[(z * k + q) * n + j];
        out[(z * m + i) * n + j] = static_cast<int32_t>(s);
      }
  return out;
}

std::vector<int8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> dist(-128, 127);
  std::vector<int8_t> v(count);
  for (auto& x : v) x = static_cast<int8_t>(dist(rng));
  return v;
}

TEST(TensorCoreProgramTest, MatMulLocalTransposeGivesTheHostProduct) {
  const int batch = 2, m = 12, k = 20, n = 5, tile_m = 4;
  const auto a = RandomBytes(batch * m * k, 1), b = RandomBytes(batch * k * n, 2);
  const auto expect = HostProduct(a, b, batch, m, k, n);
  for (bool ab2atb : {false, true}) {
    Tensor ta = Put(a, kInt8), tb = Put(b, kInt8);
    Tensor out = EmuSession().MakeTensor({batch * m * n}, kInt32);
    BuildOption options(std::vector<std::string>{
        "-DDIM_M=12", "-DDIM_N=5", "-DDIM_K=20", "-DMAT1_DTYPE=char", "-DMAT2_DTYPE=char",
        "-DOUT_DTYPE=int", "-DMAT1_DTYPE_SIZE=1", "-DMAT2_DTYPE_SIZE=1", "-DOUT_DTYPE_SIZE=4",
        "-DMAT1_STRIDE_Z=240", "-DMAT2_STRIDE_Z=100", "-DOUT_STRIDE_Z=60", "-DTILE_M=4",
        "-DENABLE_TILE_M", "-DBLOCK_SIZE=8"});
    options.AddOptionIf(ab2atb, "-DENABLE_AB2ATB_OPT");
    RunProgram(std::make_shared<ProgramKernel>(
        "matmul.cl", "matmul_tensorcore", options,
        std::vector<Buffer>{ta.storage(), tb.storage(), out.storage()}, std::vector<int>{k / 4},
        std::vector<size_t>{8, m / tile_m, batch}, 8));
    EXPECT_EQ(Get<int32_t>(out.storage(), expect.size()), expect) << "ENABLE_AB2ATB_OPT " << ab2atb;
  }
}

// MatMul offers the product to the tensor unit on a device with the extension.
TEST(TensorCoreProgramTest, MatMulFrontEndTakesTheTensorCorePath) {
  struct Case {
    int m, k, n;
  };
  for (const Case& c : {Case{8, 16, 3}, Case{3, 4100, 2}}) {
    const auto a = RandomBytes(c.m * c.k, 3), b = RandomBytes(c.k * c.n, 4);
    auto expect = HostProduct(a, b, 1, c.m, c.k, c.n);
    for (auto& v : expect) v = std::max(v, 0);
    Tensor ta = Put(a, kInt8), tb = Put(b, kInt8);
    Tensor out = EmuSession().MakeTensor({c.m, c.n}, kInt32);
    MatMulOption option;
    option.fuse_relu = true;
    const TensorOption a_opt{Shape({c.m, c.k}), kInt8}, b_opt{Shape({c.k, c.n}), kInt8};
    const TensorOption out_opt{Shape({c.m, c.n}), kInt32};
    const Buffer a_buf = ta.storage(), b_buf = tb.storage();
    const MatMulOption& fused = option;
    Buffer out_buf = out.storage();
    Kernel kernel = EmuQueue().impl()->CreateKernel("MatMul", fused, a_opt, a_buf, b_opt, b_buf,
                                                    out_opt, out_buf);
    EmuQueue().Enqueue(kernel);
    EXPECT_EQ(Get<int32_t>(out.storage(), expect.size()), expect) << "K " << c.k;
  }
}

// Half operands (output half or float) and the fused ReLU and rescale through the MatMul
// front-end; the rescale multiplies by round(scale * 2^param) and shifts right by param.
TEST(TensorCoreProgramTest, MatMulFrontEndHalfAndRescale) {
  struct Case {
    const char* name;
    int m, k, n;
    DataType operands, out;
    bool relu;
    std::optional<std::pair<int32_t, float>> rescale;
  };
  const Case cases[] = {
      {"half, local transpose", 8, 12, 3, kHalf, kHalf, false, {}},
      {"half to float, relu, rescale", 5, 7, 4, kHalf, kFloat, true, {{4, 0.75f}}},
      {"int8 rescale to int8", 8, 16, 3, kInt8, kInt8, false, {{7, 0.3f}}},
      {"int8 relu, rescale to int32", 6, 9, 5, kInt8, kInt32, true, {{3, 2.5f}}},
  };
  std::mt19937 rng(5);
  std::uniform_real_distribution<float> real(-2.0f, 2.0f);
  for (const Case& c : cases) {
    const bool half = c.operands == kHalf;
    // Operands as doubles (exactly the stored values) and as stored bits.
    auto make = [&](int count, std::vector<double>& values, std::vector<uint16_t>& halves,
                    std::vector<int8_t>& bytes, uint32_t seed) {
      bytes = RandomBytes(count, seed);
      for (int i = 0; i < count; ++i) {
        if (half) {
          halves.push_back(testing::FloatToHalf(real(rng)));
          values.push_back(testing::HalfToFloat(halves.back()));
        } else {
          values.push_back(bytes[i]);
        }
      }
    };
    std::vector<double> a, b;
    std::vector<uint16_t> ah, bh;
    std::vector<int8_t> ab, bb;
    make(c.m * c.k, a, ah, ab, 6);
    make(c.k * c.n, b, bh, bb, 7);
    Tensor ta = half ? Put(ah, kHalf) : Put(ab, kInt8);
    Tensor tb = half ? Put(bh, kHalf) : Put(bb, kInt8);
    Tensor out = EmuSession().MakeTensor({c.m, c.n}, c.out);
    MatMulOption option;
    option.fuse_relu = c.relu;
    option.rescale = c.rescale;
    const TensorOption a_opt{Shape({c.m, c.k}), c.operands}, b_opt{Shape({c.k, c.n}), c.operands};
    const TensorOption out_opt{Shape({c.m, c.n}), c.out};
    const Buffer a_buf = ta.storage(), b_buf = tb.storage();
    const MatMulOption& fused = option;
    Buffer out_buf = out.storage();
    Kernel kernel = EmuQueue().impl()->CreateKernel("MatMul", fused, a_opt, a_buf, b_opt, b_buf,
                                                    out_opt, out_buf);
    EmuQueue().Enqueue(kernel);
    std::vector<double> got;
    if (c.out == kHalf) {
      for (uint16_t h : Get<uint16_t>(out.storage(), c.m * c.n))
        got.push_back(testing::HalfToFloat(h));
    } else if (c.out == kFloat) {
      for (float f : Get<float>(out.storage(), c.m * c.n)) got.push_back(f);
    } else if (c.out == kInt8) {
      for (int8_t v : Get<int8_t>(out.storage(), c.m * c.n)) got.push_back(v);
    } else {
      for (int32_t v : Get<int32_t>(out.storage(), c.m * c.n)) got.push_back(v);
    }
    for (int i = 0; i < c.m; ++i)
      for (int j = 0; j < c.n; ++j) {
        double v = 0;
        for (int q = 0; q < c.k; ++q) v += a[i * c.k + q] * b[q * c.n + j];
        if (c.relu) v = std::max(v, 0.0);
        if (c.rescale) {
          const double mul = std::nearbyint(std::ldexp(c.rescale->second, c.rescale->first));
          if (half) {
            v = v * mul / std::ldexp(1.0, c.rescale->first);
          } else {
            const int64_t t = static_cast<int64_t>(v) * static_cast<int64_t>(mul);
            v = static_cast<double>((t + (int64_t{1} << (c.rescale->first - 1))) >>
                                    c.rescale->first);
          }
        }
        if (c.out == kInt8) v = std::clamp(v, -128.0, 127.0);
        const double tol = c.out == kHalf ? 2e-3 * std::max(1.0, std::fabs(v))
                           : half         ? 1e-4 * std::max(1.0, std::fabs(v))
                                          : 0.0;
        EXPECT_NEAR(got[i * c.n + j], v, tol) << c.name << " at " << i << ", " << j;
      }
  }
}

}  // namespace
}  // namespace cl
}  // namespace nerva
