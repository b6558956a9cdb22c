#include "nerva/platform/cl/kernel/sort/nonzero.h"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/platform/cl/util.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr size_t kScanGroup = 256;  // BLOCK_SIZE of "cumsumif"

void CheckTensor(const std::string& op, const char* what, const Tensor& t,
                 const std::vector<long>& sizes, bool index_type) {
  if (!t.defined()) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (!t.is_contiguous()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be contiguous"));
  }
  if (t.shape().sizes() != sizes) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", t.shape(), " must be ", sizes));
  }
  const DataType d = t.dtype();
  if (index_type ? (d != kInt64 && d != kInt32) : d != kInt32) {
    throw std::invalid_argument(StrCat(op, ": ", what, " type ", d, " is not supported (",
                                       index_type ? "DataType::kInt64 or " : "",
                                       "DataType::kInt32)"));
  }
}

}  // namespace

NonzeroKernel::NonzeroKernel(const TensorOption& input_opt, const Buffer& input,
                             const TensorOption& flags_opt, const Buffer& flags,
                             const TensorOption& flat_indices_opt, const Buffer& flat_indices,
                             const TensorOption& count_opt, const Buffer& count,
                             const TensorOption& out_opt, const Buffer& out)
    : KernelImpl("Nonzero"),
      input_(input_opt, input, 0),
      flags_(flags_opt, flags, 0),
      flat_indices_(flat_indices_opt, flat_indices, 0),
      count_(count_opt, count, 0),
      out_(out_opt, out, 0) {}

bool NonzeroKernel::Verify() const {
  if (!input_.defined()) throw std::runtime_error("Nonzero: input is empty");
  if (!input_.is_contiguous()) {
    throw std::runtime_error(StrCat("Nonzero: input ", input_.shape(), " must be contiguous"));
  }
  const long rank = static_cast<long>(input_.shape().ndim());
  if (rank < 1 || rank > 8) {
    throw std::runtime_error(StrCat("Nonzero: input ", input_.shape(), " must have rank 1 to 8"));
  }
  const DataType d = input_.dtype();
  if (d != kFloat && d != kHalf && !TypeTraitsHelper::IsIntegral(d, true)) {
    throw std::invalid_argument(StrCat("Nonzero: input type ", d, " is not supported"));
  }
  if (!out_.defined() || out_.shape().ndim() != 2 || out_.shape()[1] != rank) {
    throw std::runtime_error(StrCat("Nonzero: output ", out_.shape(), " must be [rows, ", rank,
                                    "] for input ", input_.shape()));
  }
  const long rows = out_.shape()[0];
  CheckTensor(name(), "output", out_, {rows, rank}, true);
  CheckTensor(name(), "flags", flags_, {input_.shape().size()}, false);
  CheckTensor(name(), "flat_indices", flat_indices_, {rows}, true);
  CheckTensor(name(), "count", count_, {1}, true);
  return true;
}

void NonzeroKernel::Compile(std::shared_ptr<SessionImpl> session) {
  const long n = input_.shape().size();
  const long rows = out_.shape()[0];
  const std::vector<std::string> sources = {"common.h", "nonzero.cl"};
  const std::string program = ConcatenateStrings(name(), "scan");
  if (n > 0) {
    const int vec = AdjustVecSize(4, n);
    BuildOption options;
    options.AddDefinitionAutoType("VEC_SIZE", vec)
        .AddDefinitionAutoType("VEC_SIZE_LEFTOVER", static_cast<int>(n % vec))
        .AddDefinition("DTYPE", GetDataTypeCode(input_.dtype()));
    MakeSubKernel(session, program, sources, options, "is_zero")
        ->SetArgs(ClTensor(input_.Reshape({n}), vec), ClTensor(flags_, vec))
        .SetGlobal({static_cast<size_t>(n)}, {static_cast<size_t>(vec)});
  }
  const size_t group = std::min(kScanGroup, session->max_work_group_size());
  size_t block = 1;
  while (block * 2 <= group) block *= 2;
  BuildOption scan;
  scan.AddOption("-DENABLE_CUMSUMIF_KERNEL")
      .AddDefinitionAutoType("BLOCK_SIZE", static_cast<long>(block))
      .AddDefinition("FLAT_DTYPE", GetDataTypeCode(flat_indices_.dtype()))
      .AddDefinition("COUNT_DTYPE", GetDataTypeCode(count_.dtype()));
  MakeSubKernel(session, program, sources, scan, "cumsumif")
      ->SetArgs(ClTensor(flags_), ClTensor(flat_indices_), ClTensor(count_), static_cast<int>(n),
                static_cast<int>(rows))
      .SetGlobal({block})
      .SetLocal({block});
  if (rows == 0 || n == 0) return;
  const int rank = static_cast<int>(input_.shape().ndim());
  int strides[8] = {1, 1, 1, 1, 1, 1, 1, 1};  // entry e: element stride of dim rank-1-e
  for (int e = 1; e < rank; ++e) strides[e] = strides[e - 1] * input_.shape()[rank - e];
  BuildOption unravel;
  unravel.AddOption("-DENABLE_NONZERO_KERNEL")
      .AddOptionIf(rank == 2, "-DTENSOR_2D")
      .AddDefinition("FLAT_DTYPE", GetDataTypeCode(flat_indices_.dtype()))
      .AddDefinition("COUNT_DTYPE", GetDataTypeCode(count_.dtype()))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_.dtype()));
  MakeSubKernel(session, program, sources, unravel, "nonzero")
      ->SetArgs(ClTensor(flat_indices_), ClTensor(count_), ClTensor(out_), rank,
                static_cast<int>(rows), strides[0], strides[1], strides[2], strides[3], strides[4],
                strides[5], strides[6], strides[7])
      .SetGlobal({static_cast<size_t>(rows)});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<NonzeroKernel, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                 const Buffer&, const TensorOption&, const Buffer&>("Nonzero");
};

}  // namespace cl
}  // namespace nerva
