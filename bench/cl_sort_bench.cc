// Sorting and selection on the OpenCL device beside the host's std::sort and
// std::partial_sort of the same data, in one run: BitonicSort of 512 rows x
// 2048 floats and of one row of 1M floats, TopK (k = 16) of 4096 x 32000.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <random>
#include <vector>

#include "bench_util.h"
#include "nerva/nerva.h"
#include "nerva/platform/cl/kernel/sort/bitonicsort.h"
#include "nerva/platform/cl/session_impl.h"

namespace {

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

using nerva::bench::TimeKernel;

std::vector<float> RandomData(long n) {
  std::vector<float> v(n);
  std::mt19937 gen(5);
  std::uniform_real_distribution<float> dist(-1000.0f, 1000.0f);
  for (auto& x : v) x = dist(gen);
  return v;
}

void Report(const char* name, double device_s, double host_s) {
  std::printf("%-28s device %9.2f ms  host %9.2f ms  host/device %.2f\n", name, device_s * 1e3,
              host_s * 1e3, host_s / device_s);
}

void BenchSort(nerva::Session& session, nerva::Queue& queue, long rows, long len, int runs,
               const char* name) {
  const std::vector<float> data = RandomData(rows * len);
  nerva::Tensor in = session.MakeTensor({rows, len}, nerva::kFloat);
  nerva::Tensor out = session.MakeTensor({rows, len}, nerva::kFloat);
  const long ext = nerva::cl::BitonicExtendedLength(len);
  nerva::Tensor temp = session.MakeTensor({rows, ext}, nerva::kFloat);
  queue.CopyHostToDevice(in.storage(), data.data(), rows * len * sizeof(float));
  nerva::Kernel kernel =
      nerva::BitonicSort::Create(queue, nerva::BitonicSortOption(), in.option(), in.storage(),
                                 temp.option(), temp.storage(), out.option(), out.storage());
  const double device_s = TimeKernel(queue, kernel, runs);
  std::vector<float> host = data;
  const auto start = Clock::now();
  for (long r = 0; r < rows; ++r) std::sort(host.begin() + r * len, host.begin() + (r + 1) * len);
  const double host_s = Seconds(start);
  std::vector<float> got(rows * len);
  queue.CopyDeviceToHost(got.data(), out.storage(), rows * len * sizeof(float));
  Report(name, device_s, host_s);
  if (got != host) std::printf("  MISMATCH against the host sort\n");
}

void BenchTopK(nerva::Session& session, nerva::Queue& queue, long rows, long len, long k) {
  const std::vector<float> data = RandomData(rows * len);
  nerva::Tensor in = session.MakeTensor({rows, len}, nerva::kFloat);
  nerva::Tensor values = session.MakeTensor({rows, k}, nerva::kFloat);
  nerva::Tensor indices = session.MakeTensor({rows, k}, nerva::kInt64);
  queue.CopyHostToDevice(in.storage(), data.data(), rows * len * sizeof(float));
  nerva::TopKOption option;
  option.k = k;
  nerva::Kernel kernel =
      nerva::TopK::Create(queue, option, in.option(), in.storage(), values.option(),
                          values.storage(), indices.option(), indices.storage());
  const double device_s = TimeKernel(queue, kernel, 1);
  std::vector<float> host = data;
  const auto start = Clock::now();
  for (long r = 0; r < rows; ++r) {
    std::partial_sort(host.begin() + r * len, host.begin() + r * len + k,
                      host.begin() + (r + 1) * len, std::greater<float>());
  }
  const double host_s = Seconds(start);
  std::vector<float> got(rows * k);
  queue.CopyDeviceToHost(got.data(), values.storage(), rows * k * sizeof(float));
  for (long r = 0; r < rows; ++r) {
    if (!std::equal(got.begin() + r * k, got.begin() + (r + 1) * k, host.begin() + r * len)) {
      std::printf("  MISMATCH against the host partial sort in row %ld\n", r);
      break;
    }
  }
  Report("TopK k=16 4096x32000", device_s, host_s);
}

}  // namespace

int main() {
  nerva::Session session("opencl", 0);
  nerva::Queue queue = session.MakeQueue();
  auto impl = std::dynamic_pointer_cast<nerva::cl::SessionImpl>(session.impl());
  std::printf("device: %s\n", impl->device().getInfo<CL_DEVICE_NAME>().c_str());
  BenchSort(session, queue, 512, 2048, 5, "BitonicSort 512x2048");
  BenchSort(session, queue, 1, 1L << 20, 3, "BitonicSort 1x1M");
  BenchTopK(session, queue, 4096, 32000, 16);
  return 0;
}
