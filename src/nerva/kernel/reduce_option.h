#pragma once

// Option records of the reductions, softmax, scans, norms, sorting and selection.

#include <cstdint>
#include <vector>

namespace nerva {

// Kinds of Reduce; the values are fixed (the device program variants are chosen by them).
enum class ReduceType : uint32_t {
  kMax = 0,
  kMin = 1,
  kSum = 2,
  kMean = 3,
  kVar = 4,  // variance with `correction` (torch.var)
  kProd = 5,
  kAll = 6,           // logical and, 1 or 0
  kAny = 7,           // logical or, 1 or 0
  kCountNonzero = 8,  // number of non-zero elements
};

struct ReduceOption {
  ReduceType op_type = ReduceType::kSum;  // what is computed over the reduced axes
  // Reduced axes (negative count from the end): consecutive, or exactly [0, 2] or [0, 2, 3].
  std::vector<int> axes;
  bool keepdim = false;     // the reduced axes stay in the output with size 1
  float correction = 1.0f;  // kVar only: divisor N - correction (0 when N is 1)
};

// torch.argmax(input, dim, keepdim).
struct ArgMaxOption {
  int dim = -1;          // the searched dimension
  bool keepdim = false;  // keep it in the output with size 1
};

// torch.argmin(input, dim, keepdim).
struct ArgMinOption {
  int dim = -1;          // the searched dimension
  bool keepdim = false;  // keep it in the output with size 1
};

// torch.max(input, dim) / torch.min(input, dim): values and indices.
struct ReduceWithIndicesOption {
  ReduceType op_type = ReduceType::kMax;  // kMax or kMin
  int dim = -1;                           // the reduced dimension
  bool keepdim = false;                   // keep it in the outputs with size 1
};

// torch.median(input, dim) / torch.nanmedian(input, dim): the lower median and its index.
struct ReduceWithIndicesMedianOption {
  int dim = -1;             // the reduced dimension
  bool keepdim = false;     // keep it in the outputs with size 1
  bool ignore_nan = false;  // nanmedian: NaNs are skipped instead of propagated
};

// torch.cumsum(input, dim).
struct CumsumOption {
  int dim = -1;  // the scanned dimension
};

// torch.softmax(input, dim).
struct SoftmaxOption {
  int dim = -1;  // the normalised dimension
};

// torch.linalg.vector_norm(input, ord, dim, keepdim).
struct LinalgVectorNormOption {
  float ord = 2.0f;  // the order p; +/-infinity give max/min of |x|, 0 the non-zero count
  // Reduced dimensions (same rule as ReduceOption::axes); empty reduces all.
  std::vector<int> dim;
  bool keepdim = false;  // the reduced dimensions stay in the output with size 1
};

// torch.renorm(input, p, dim, maxnorm).
struct RenormOption {
  float p = 2.0f;        // order of the norm
  int dim = 0;           // each slice input.select(dim, i) is normalised on its own
  float maxnorm = 1.0f;  // slices with a larger norm are scaled down to it
};

// torch.sort(input, dim, descending) by a bitonic network.
struct BitonicSortOption {
  int dim = -1;             // the sorted dimension
  bool descending = false;  // largest first
};

// torch.topk(input, k, dim, largest, sorted).
struct TopKOption {
  long k = 1;           // number of selected elements
  int dim = -1;         // the searched dimension
  bool largest = true;  // the k largest, else the k smallest
  bool sorted = true;   // results in order of value
};

}  // namespace nerva
