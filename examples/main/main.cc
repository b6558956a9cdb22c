// nerva in three steps: tensor views on the host side, a layout pipeline on the
// "cpu" platform, and activations on the default OpenCL device checked against
// a host reference.

#include <cmath>
#include <cstdio>
#include <iostream>
#include <random>
#include <vector>

#include <nerva/nerva.h>

using namespace nerva;

namespace {

void PrintMatrix(const char* title, const std::vector<float>& data, long rows, long cols) {
  std::printf("%s (%ldx%ld):\n", title, rows, cols);
  for (long r = 0; r < rows; ++r) {
    for (long c = 0; c < cols; ++c) std::printf(" %6.1f", data[r * cols + c]);
    std::printf("\n");
  }
}

void ShowTensorViews() {
  std::printf("== Tensor model ==\n");
  Shape shape{2, 3, 4};
  std::cout << "shape " << shape << " strides " << ArrayRef<long>(shape.strides()) << " elements "
            << shape.size() << "\n";
  std::cout << "reshape to [-1, 4]: " << shape.Reshape({-1, 4}) << "\n";
  std::cout << "broadcast [3, 1] with [2, 1, 4]: "
            << ArrayRef<long>(BroadcastSizes({3, 1}, {2, 1, 4})) << "\n";
  std::cout << "promote kHalf with kInt64: " << TypeTraitsHelper::TypePromote(kHalf, kInt64)
            << "\n\n";
}

// Permute a 3x4 matrix to 4x3, then keep every other row of the result.
bool RunCpuPipeline() {
  std::printf("== CPU platform: permute then slice ==\n");
  Session session("cpu", 0);
  Queue queue = session.MakeQueue();
  std::vector<float> host(12);
  for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<float>(i);
  Tensor input = session.MakeTensor({3, 4}, kFloat, kMemReadWrite, host.data());
  Tensor permuted = session.MakeTensor({4, 3}, kFloat);
  Tensor sliced = session.MakeTensor({2, 3}, kFloat);

  queue.Enqueue(Permute::Create(queue, PermuteOption{{1, 0}}, input.option(), input.storage(),
                                permuted.option(), permuted.storage()));
  SliceOption every_other{{0, 0}, {4, 3}, {2, 1}};
  queue.Enqueue(Slice::Create(queue, every_other, permuted.option(), permuted.storage(),
                              sliced.option(), sliced.storage()));
  std::vector<float> result(6);
  queue.CopyDeviceToHost(result.data(), sliced.storage(), sliced.option().bytes());

  PrintMatrix("input", host, 3, 4);
  PrintMatrix("permuted rows 0 and 2", result, 2, 3);
  bool ok = true;
  for (long r = 0; r < 2; ++r)
    for (long c = 0; c < 3; ++c) ok = ok && result[r * 3 + c] == host[c * 4 + r * 2];
  std::printf("%s\n\n", ok ? "matches the host reference" : "MISMATCH");
  return ok;
}

double Reference(ActivationType type, double x) {
  switch (type) {
    case kRelu:
      return x > 0 ? x : 0;
    case kSigmoid:
      return 1 / (1 + std::exp(-x));
    case kGelu:
      return 0.5 * x * (1 + std::erf(x / std::sqrt(2.0)));
    case kSilu:
      return x / (1 + std::exp(-x));
    default:
      return x > 0 ? x : 0.01 * x;  // kLeakyRelu with alpha 0.01
  }
}

bool RunActivations() {
  std::printf("== OpenCL platform: activations on the default device ==\n");
  Session session(0);
  Queue queue = session.MakeQueue();
  const long n = 100003;
  std::vector<float> host(n);
  std::mt19937 rng(std::random_device{}());
  std::uniform_real_distribution<float> dist(-6.0f, 6.0f);
  for (float& v : host) v = dist(rng);
  Tensor x = session.MakeTensor({n}, kFloat, kMemReadWrite, host.data());
  Tensor y = session.MakeTensor({n}, kFloat);

  struct Case {
    const char* name;
    ActivationType type;
    float alpha;
  };
  const Case cases[] = {{"RELU", kRelu, 1.0f},
                        {"SIGMOID", kSigmoid, 1.0f},
                        {"GELU", kGelu, 1.0f},
                        {"SILU", kSilu, 1.0f},
                        {"LEAKY_RELU", kLeakyRelu, 0.01f}};
  bool all_ok = true;
  std::vector<float> out(n);
  for (const Case& c : cases) {
    ActivationOption option;
    option.op_type = c.type;
    option.alpha = c.alpha;
    queue.Enqueue(Activation::Create(queue, option, x, y));
    queue.CopyDeviceToHost(out.data(), y.storage(), y.option().bytes());
    double max_error = 0;
    for (long i = 0; i < n; ++i)
      max_error = std::max(max_error, std::fabs(out[i] - Reference(c.type, host[i])));
    const bool ok = max_error < 1e-4;
    all_ok = all_ok && ok;
    std::printf("  %-11s n=%ld  max |device - host| = %.3g  %s\n", c.name, n, max_error,
                ok ? "ok" : "MISMATCH");
  }
  return all_ok;
}

}  // namespace

int main() {
  try {
    ShowTensorViews();
    const bool cpu_ok = RunCpuPipeline();
    const bool cl_ok = RunActivations();
    return cpu_ok && cl_ok ? 0 : 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "error: %s\n", e.what());
    return 1;
  }
}
