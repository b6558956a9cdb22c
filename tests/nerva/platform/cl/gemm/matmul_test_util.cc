#include "nerva/platform/cl/gemm/matmul_test_util.h"

#include <cmath>
#include <sstream>

namespace nerva {
namespace cl {
namespace testing {

namespace {

// An operand seen as [batch..., rows, cols] (1-D promoted, transposed).
struct Logical {
  std::vector<long> sizes, strides;
};

Logical AsMatrix(const HostTensor& t, bool transpose, bool is_mat1) {
  Logical l{t.sizes, t.strides};
  if (l.sizes.size() == 1) {
    l.sizes.insert(is_mat1 ? l.sizes.begin() : l.sizes.end(), 1);
    l.strides.insert(is_mat1 ? l.strides.begin() : l.strides.end(), 0);
  } else if (transpose) {
    const size_t r = l.sizes.size();
    std::swap(l.sizes[r - 1], l.sizes[r - 2]);
    std::swap(l.strides[r - 1], l.strides[r - 2]);
  }
  return l;
}

double At(const HostTensor& t, const Logical& l, const std::vector<long>& out_batch, long row,
          long col) {
  const size_t nb = l.sizes.size() - 2;
  long offset = row * l.strides[nb] + col * l.strides[nb + 1];
  for (size_t i = 0; i < nb; ++i) {
    const long idx = out_batch[out_batch.size() - nb + i];
    offset += (l.sizes[i] == 1 ? 0 : idx) * l.strides[i];
  }
  return t.data[static_cast<size_t>(offset)];
}

std::vector<long> BatchSizes(const ProductCase& c) {
  const Logical a = AsMatrix(c.mat1, c.option.transpose_mat1, true);
  const Logical b = AsMatrix(c.mat2, c.option.transpose_mat2, false);
  const size_t na = a.sizes.size() - 2, nb = b.sizes.size() - 2, n = std::max(na, nb);
  std::vector<long> batch(n, 1);
  for (size_t i = 0; i < n; ++i) {
    const long da = i < na ? a.sizes[na - 1 - i] : 1, db = i < nb ? b.sizes[nb - 1 - i] : 1;
    batch[n - 1 - i] = da == 1 ? db : da;
  }
  return batch;
}

}  // namespace

std::vector<long> ProductSizes(const ProductCase& c) {
  const Logical a = AsMatrix(c.mat1, c.option.transpose_mat1, true);
  const Logical b = AsMatrix(c.mat2, c.option.transpose_mat2, false);
  std::vector<long> sizes = BatchSizes(c);
  if (c.mat1.sizes.size() > 1) sizes.push_back(a.sizes[a.sizes.size() - 2]);
  if (c.mat2.sizes.size() > 1) sizes.push_back(b.sizes.back());
  if (sizes.empty()) sizes.push_back(1);
  return sizes;
}

std::vector<double> Reference(const ProductCase& c) {
  const Logical a = AsMatrix(c.mat1, c.option.transpose_mat1, true);
  const Logical b = AsMatrix(c.mat2, c.option.transpose_mat2, false);
  const std::vector<long> batch = BatchSizes(c);
  const long m = a.sizes[a.sizes.size() - 2], k = a.sizes.back(), n = b.sizes.back();
  long nbatch = 1;
  for (long s : batch) nbatch *= s;
  const DataType acc_t = GemmKernel::GetAccDtype(c.mat1.dtype, c.mat2.dtype);
  const bool float_acc = acc_t == kFloat;
  std::vector<double> out;
  std::vector<long> index(batch.size(), 0);
  for (long flat = 0; flat < nbatch; ++flat) {
    long rest = flat;
    for (size_t d = batch.size(); d-- > 0;) {
      index[d] = rest % batch[d];
      rest /= batch[d];
    }
    for (long i = 0; i < m; ++i) {
      for (long j = 0; j < n; ++j) {
        double acc = 0;
        for (long p = 0; p < k; ++p) {
          acc += At(c.mat1, a, index, i, p) * At(c.mat2, b, index, p, j);
          if (!float_acc) acc = RoundTo(acc_t, acc);
        }
        double result = acc;
        if (c.input) {
          // The input broadcasts to [batch..., m, n] from the right.
          const HostTensor& in = *c.input;
          const std::vector<long> full = [&] {
            std::vector<long> v = index;
            v.push_back(i);
            v.push_back(j);
            return v;
          }();
          long offset = 0;
          for (size_t d = 0; d < in.sizes.size(); ++d) {
            const long idx = full[full.size() - in.sizes.size() + d];
            offset += (in.sizes[d] == 1 ? 0 : idx) * in.strides[d];
          }
          const double value = in.data[static_cast<size_t>(offset)];
          if (float_acc) {
            result = c.option.alpha * acc + c.option.beta * value;
          } else {
            result = RoundTo(acc_t,
                             std::trunc(c.option.alpha) * acc + std::trunc(c.option.beta) * value);
          }
        }
        out.push_back(Saturate(c.out_dtype, result));
      }
    }
  }
  return out;
}

std::vector<double> RunDevice(const ProductCase& c, Kernel* kernel_out) {
  const std::vector<long> out_sizes = ProductSizes(c);
  HostTensor out = MakeHost(c.out_dtype, out_sizes, 0);
  Buffer mat1 = UploadHost(c.mat1), mat2 = UploadHost(c.mat2), out_buf = UploadHost(out);
  Kernel kernel;
  if (c.input) {
    Buffer input = UploadHost(*c.input);
    kernel = MatMul::Create(TestQueue(), c.option, OptionOf(c.mat1), mat1, OptionOf(c.mat2), mat2,
                            OptionOf(*c.input), input, OptionOf(out), out_buf);
  } else {
    kernel = MatMul::Create(TestQueue(), c.option, OptionOf(c.mat1), mat1, OptionOf(c.mat2), mat2,
                            OptionOf(out), out_buf);
  }
  TestQueue().Enqueue(kernel);
  std::vector<uint8_t> bytes(out.data.size() * TypeTraitsHelper::GetSize(c.out_dtype));
  if (!bytes.empty()) {
    TestQueue().CopyDeviceToHost(bytes.data(), out_buf, static_cast<long>(bytes.size()));
  }
  if (kernel_out) *kernel_out = kernel;
  return Decode(c.out_dtype, bytes);
}

void ExpectProduct(const ProductCase& c, const std::string& label) {
  const std::vector<double> expected = Reference(c);
  const std::vector<double> actual = RunDevice(c);
  ASSERT_EQ(actual.size(), expected.size()) << label;
  const bool exact = c.out_dtype != kFloat && c.out_dtype != kHalf &&
                     GemmKernel::GetAccDtype(c.mat1.dtype, c.mat2.dtype) != kFloat;
  const long k = c.mat1.sizes.size() == 1  ? c.mat1.sizes[0]
                 : c.option.transpose_mat1 ? c.mat1.sizes[c.mat1.sizes.size() - 2]
                                           : c.mat1.sizes.back();
  const double rel = c.out_dtype == kHalf ? 2e-3 : 2e-6 * std::sqrt(static_cast<double>(k) + 1);
  for (size_t i = 0; i < expected.size(); ++i) {
    if (exact) {
      ASSERT_EQ(actual[i], expected[i]) << label << " at " << i;
    } else {
      ASSERT_NEAR(actual[i], expected[i],
                  rel * (1 + std::sqrt(static_cast<double>(k))) * (1 + std::fabs(expected[i])))
          << label << " at " << i;
    }
  }
}

}  // namespace testing
}  // namespace cl
}  // namespace nerva
