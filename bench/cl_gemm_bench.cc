// fp32 matrix-product throughput (GFLOPS) of nerva's MatMul beside CLBlast's
// SGEMM on the same OpenCL device and OpenBLAS's cblas_sgemm on the host, plus
// nerva's generic "MatMul" program. CLBlast and OpenBLAS are loaded at run
// time; a missing one is skipped with a message.
//
// Usage: cl_gemm_bench [max_size]   (default 4096: the largest square product)

#include <dlfcn.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel/gemm/matmul_tiled.h"
#include "nerva/platform/cl/queue_impl.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using Clock = std::chrono::steady_clock;

// Median seconds of `run` (which must finish its work) over a few timed runs,
// fewer when one run is long.
double Time(const std::function<void()>& run) {
  const auto start = Clock::now();
  run();  // warm-up (builds, caches)
  const double first = std::chrono::duration<double>(Clock::now() - start).count();
  const int runs = first > 4 ? 1 : first > 1 ? 3 : 7;
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto t0 = Clock::now();
    run();
    times.push_back(std::chrono::duration<double>(Clock::now() - t0).count());
  }
  std::nth_element(times.begin(), times.begin() + runs / 2, times.end());
  return times[runs / 2];
}

// C interfaces of the peers, resolved with dlsym.
using CLBlastSgemmFn = int (*)(int layout, int a_t, int b_t, size_t m, size_t n, size_t k,
                               float alpha, cl_mem a, size_t a_off, size_t a_ld, cl_mem b,
                               size_t b_off, size_t b_ld, float beta, cl_mem c, size_t c_off,
                               size_t c_ld, cl_command_queue* queue, cl_event* event);
using CLBlastSgemmStridedBatchedFn = int (*)(int layout, int a_t, int b_t, size_t m, size_t n,
                                             size_t k, float alpha, cl_mem a, size_t a_off,
                                             size_t a_ld, size_t a_stride, cl_mem b, size_t b_off,
                                             size_t b_ld, size_t b_stride, float beta, cl_mem c,
                                             size_t c_off, size_t c_ld, size_t c_stride,
                                             size_t batch, cl_command_queue* queue,
                                             cl_event* event);
using CblasSgemmFn = void (*)(int order, int a_t, int b_t, int m, int n, int k, float alpha,
                              const float* a, int lda, const float* b, int ldb, float beta,
                              float* c, int ldc);
constexpr int kRowMajor = 101, kNoTrans = 111;  // CLBlast and CBLAS share these codes

template <typename Fn>
Fn Resolve(const char* library, const char* symbol) {
  void* handle = dlopen(library, RTLD_NOW | RTLD_GLOBAL);
  if (!handle) return nullptr;
  return reinterpret_cast<Fn>(dlsym(handle, symbol));
}

struct Case {
  const char* name;
  long batch, m, n, k;
};

struct Row {
  double nerva = 0, generic = 0, clblast = 0, openblas = 0;
};

double Gflops(const Case& c, double seconds) {
  return seconds > 0 ? 2.0 * c.batch * c.m * c.n * c.k / seconds * 1e-9 : 0;
}

std::vector<float> Random(size_t n, unsigned seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1, 1);
  std::vector<float> v(n);
  for (auto& x : v) x = dist(gen);
  return v;
}

}  // namespace

int main(int argc, char** argv) {
  // usage: cl_gemm_bench [largest size] [tiles: wg_x,wg_y,rows,vec,vecs,tile_k,a_local]
  const long max_size = argc > 1 ? std::atol(argv[1]) : 4096;
  nerva::cl::MatMulTiles tiles{};
  int a_local = 0;
  if (argc > 2 && std::sscanf(argv[2], "%d,%d,%d,%d,%d,%d,%d", &tiles.wg_x, &tiles.wg_y,
                              &tiles.rows, &tiles.vec, &tiles.vecs, &tiles.tile_k, &a_local) == 7) {
    tiles.a_local = a_local != 0;
    nerva::cl::TiledMatMul::SetTilesForTesting(&tiles);
    std::printf("tiles: %s\n", argv[2]);
  }
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto session_impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  auto queue_impl = std::dynamic_pointer_cast<nerva::cl::QueueImpl>(queue.impl());
  cl_command_queue cl_queue = queue_impl->queue()();
  std::printf("device: %s\n", session_impl->device().getInfo<CL_DEVICE_NAME>().c_str());

  auto clblast = Resolve<CLBlastSgemmFn>("libclblast.so.1", "CLBlastSgemm");
  auto clblast_batched =
      Resolve<CLBlastSgemmStridedBatchedFn>("libclblast.so.1", "CLBlastSgemmStridedBatched");
  auto openblas = Resolve<CblasSgemmFn>("libopenblas.so.0", "cblas_sgemm");
  if (!clblast) std::printf("CLBlast not found (libclblast.so.1): its column is skipped\n");
  if (!openblas) std::printf("OpenBLAS not found (libopenblas.so.0): its column is skipped\n");

  std::vector<Case> cases = {{"1024^3", 1, 1024, 1024, 1024}};
  for (long s = 2048; s <= max_size; s *= 2) {
    cases.push_back({s == 2048 ? "2048^3" : "4096^3", 1, s, s, s});
  }
  cases.push_back({"64 x 128^3", 64, 128, 128, 128});
  cases.push_back({"4096x4096x16", 1, 4096, 4096, 16});

  std::printf("\n%-14s %10s %10s %10s %10s %9s %9s\n", "fp32 product", "nerva", "generic",
              "CLBlast", "OpenBLAS", "x CLBlast", "x OpenBLAS");
  for (const Case& c : cases) {
    const long a_n = c.batch * c.m * c.k, b_n = c.batch * c.k * c.n, c_n = c.batch * c.m * c.n;
    const std::vector<float> a = Random(a_n, 1), b = Random(b_n, 2);
    std::vector<float> out(c_n);
    nerva::Tensor ta = session.MakeTensor({c.batch, c.m, c.k}, nerva::kFloat);
    nerva::Tensor tb = session.MakeTensor({c.batch, c.k, c.n}, nerva::kFloat);
    nerva::Tensor tc = session.MakeTensor({c.batch, c.m, c.n}, nerva::kFloat);
    queue.CopyHostToDevice(ta.storage(), a.data(), a_n * 4);
    queue.CopyHostToDevice(tb.storage(), b.data(), b_n * 4);
    Row row;
    auto run_nerva = [&](int mode) {
      nerva::cl::TiledMatMul::SetModeForTesting(mode);
      nerva::Kernel kernel =
          nerva::MatMul::Create(queue, nerva::MatMulOption(), ta.option(), ta.storage(),
                                tb.option(), tb.storage(), tc.option(), tc.storage());
      nerva::cl::TiledMatMul::SetModeForTesting(-1);
      return Gflops(c, Time([&] {
                      queue.Enqueue(kernel);
                      queue.Wait();
                    }));
    };
    row.nerva = run_nerva(-1);
    // The generic program is slow on big products: time it where it stays reasonable.
    if (c.m * c.n * c.k * c.batch <= 2048L * 2048 * 2048) row.generic = run_nerva(0);
    if (clblast) {
      cl_mem ma = static_cast<cl_mem>(ta.storage().UnsafeGetPtr());
      cl_mem mb = static_cast<cl_mem>(tb.storage().UnsafeGetPtr());
      cl_mem mc = static_cast<cl_mem>(tc.storage().UnsafeGetPtr());
      int status = 0;
      row.clblast =
          Gflops(c, Time([&] {
                   cl_event event = nullptr;
                   if (c.batch == 1 || !clblast_batched) {
                     for (long i = 0; i < c.batch; ++i) {
                       status |= clblast(kRowMajor, kNoTrans, kNoTrans, c.m, c.n, c.k, 1.0f, ma,
                                         i * c.m * c.k, c.k, mb, i * c.k * c.n, c.n, 0.0f, mc,
                                         i * c.m * c.n, c.n, &cl_queue, nullptr);
                     }
                   } else {
                     status |= clblast_batched(kRowMajor, kNoTrans, kNoTrans, c.m, c.n, c.k, 1.0f,
                                               ma, 0, c.k, c.m * c.k, mb, 0, c.n, c.k * c.n, 0.0f,
                                               mc, 0, c.n, c.m * c.n, c.batch, &cl_queue, &event);
                   }
                   clFinish(cl_queue);
                   if (event) clReleaseEvent(event);
                 }));
      if (status != 0) {
        std::printf("CLBlast failed on %s (status %d)\n", c.name, status);
        row.clblast = 0;
      }
    }
    if (openblas) {
      row.openblas = Gflops(c, Time([&] {
                              for (long i = 0; i < c.batch; ++i) {
                                openblas(kRowMajor, kNoTrans, kNoTrans, c.m, c.n, c.k, 1.0f,
                                         a.data() + i * c.m * c.k, c.k, b.data() + i * c.k * c.n,
                                         c.n, 0.0f, out.data() + i * c.m * c.n, c.n);
                              }
                            }));
    }
    auto ratio = [](double x, double y) { return y > 0 ? x / y : 0.0; };
    std::printf("%-14s %10.1f %10.1f %10.1f %10.1f %9.2f %9.2f\n", c.name, row.nerva, row.generic,
                row.clblast, row.openblas, ratio(row.nerva, row.clblast),
                ratio(row.nerva, row.openblas));
    std::fflush(stdout);
  }
  std::printf("(GFLOPS; 0 = not run. x = nerva's MatMul over the peer.)\n");
  return 0;
}
