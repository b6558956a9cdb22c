// Native kernels of the PyTorch backend, joins: cat and stack through nerva's Concat
// (stack joins unsqueezed views of its inputs).

#include <ATen/WrapDimUtils.h>
#include <torch/library.h>

#include <string>
#include <vector>

#include "backend.h"
#include "nerva/kernel/base.h"

namespace nerva_torch {

namespace {

// As in PyTorch, 1-D inputs of size 0 take no part in a cat whatever the others' rank.
bool Skipped(const at::Tensor& t) {
  return t.dim() == 1 && t.size(0) == 0;
}

// The type all inputs promote to.
at::ScalarType JoinedType(const std::vector<at::Tensor>& tensors) {
  at::ScalarType type = tensors[0].scalar_type();
  for (const at::Tensor& t : tensors) type = c10::promoteTypes(type, t.scalar_type());
  return type;
}

// The shape of cat(tensors, dim) with `dim` wrapped; checks ranks and sizes.
std::vector<int64_t> CatShape(const std::vector<at::Tensor>& tensors, int64_t& dim,
                              const char* op) {
  const at::Tensor* first = nullptr;
  for (const at::Tensor& t : tensors) {
    TORCH_CHECK(OnDevice(t), "nerva_torch: ", op, ": input on ", t.device(),
                ", expected the nerva device");
    if (!first && !Skipped(t)) first = &t;
  }
  if (!first) return {0};
  TORCH_CHECK(first->dim() > 0, "nerva_torch: ", op,
              ": zero-dimensional tensor cannot be concatenated");
  dim = at::maybe_wrap_dim(dim, first->dim());
  std::vector<int64_t> sizes = first->sizes().vec();
  sizes[dim] = 0;
  for (size_t i = 0; i < tensors.size(); ++i) {
    const at::Tensor& t = tensors[i];
    if (Skipped(t)) continue;
    TORCH_CHECK(t.dim() == first->dim(), "nerva_torch: ", op, ": tensor ", i, " has ", t.dim(),
                " dimensions, expected ", first->dim());
    for (int64_t d = 0; d < t.dim(); ++d) {
      TORCH_CHECK(d == dim || t.size(d) == first->size(d), "nerva_torch: ", op,
                  ": sizes of tensors must match except in dimension ", dim, ": tensor ", i,
                  " has ", t.sizes(), ", expected ", first->sizes());
    }
    sizes[dim] += t.size(dim);
  }
  return sizes;
}

// Writes cat(tensors, dim) into `out`, which has the joined shape and type. Inputs with
// no elements add nothing and are left out; when that changes the promoted type, the
// rest are converted to the output's type first.
void CatInto(const std::vector<at::Tensor>& tensors, int64_t dim, const at::Tensor& out,
             const char* op) {
  if (out.numel() == 0) return;
  std::vector<at::Tensor> parts;
  for (const at::Tensor& t : tensors) {
    if (t.numel() > 0) parts.push_back(t);
  }
  const bool convert = JoinedType(parts) != out.scalar_type();
  Call call(op);
  std::vector<nerva::TensorOption> opts;
  std::vector<nerva::Buffer> bufs;
  for (const at::Tensor& t : parts) {
    Operand x = convert ? call.InAs(t, out.scalar_type()) : call.In(t);
    opts.push_back(x.opt);
    bufs.push_back(x.buf);
  }
  Operand o = call.Out(out);
  nerva::ConcatOption option;
  option.dim = static_cast<int>(dim);
  call.Run(nerva::Concat::Create(GetQueue(), option, opts, bufs, o.opt, o.buf));
}

at::Tensor CatTensors(const std::vector<at::Tensor>& tensors, int64_t dim, const char* op) {
  TORCH_CHECK(!tensors.empty(), "nerva_torch: ", op, ": expected a non-empty list of Tensors");
  const at::ScalarType type = JoinedType(tensors);
  ToNervaType(type, op);
  const std::vector<int64_t> sizes = CatShape(tensors, dim, op);
  at::Tensor out = Empty(sizes, type);
  CatInto(tensors, dim, out, op);
  return out;
}

at::Tensor& CatTensorsOut(const std::vector<at::Tensor>& tensors, int64_t dim, at::Tensor& out,
                          const char* op) {
  TORCH_CHECK(!tensors.empty(), "nerva_torch: ", op, ": expected a non-empty list of Tensors");
  const at::ScalarType type = JoinedType(tensors);
  ToNervaType(type, op);
  TORCH_CHECK(c10::canCast(type, out.scalar_type()), "nerva_torch: ", op, ": result type ", type,
              " can't be cast to the desired output type ", out.scalar_type());
  if (out.scalar_type() != type) return ToOut(out, CatTensors(tensors, dim, op), op);
  const std::vector<int64_t> sizes = CatShape(tensors, dim, op);
  if (out.sizes() != at::IntArrayRef(sizes)) out.resize_(sizes);
  CatInto(tensors, dim, out, op);
  return out;
}

std::vector<at::Tensor> ToVector(const at::ITensorListRef& tensors) {
  return std::vector<at::Tensor>(tensors.begin(), tensors.end());
}

at::Tensor Cat(const at::ITensorListRef& tensors, int64_t dim) {
  return CatTensors(ToVector(tensors), dim, "cat");
}

at::Tensor& CatOut(const at::ITensorListRef& tensors, int64_t dim, at::Tensor& out) {
  return CatTensorsOut(ToVector(tensors), dim, out, "cat.out");
}

// The inputs of stack(tensors, dim) as views with a new dimension of size 1 at `dim`.
std::vector<at::Tensor> Unsqueezed(at::TensorList tensors, int64_t dim, const char* op) {
  TORCH_CHECK(!tensors.empty(), "nerva_torch: ", op, ": expects a non-empty TensorList");
  const int64_t d = at::maybe_wrap_dim(dim, tensors[0].dim() + 1);
  std::vector<at::Tensor> views;
  for (size_t i = 0; i < tensors.size(); ++i) {
    TORCH_CHECK(tensors[i].sizes() == tensors[0].sizes(), "nerva_torch: ", op,
                ": expects each tensor to be equal size, but got ", tensors[0].sizes(),
                " at entry 0 and ", tensors[i].sizes(), " at entry ", i);
    views.push_back(tensors[i].unsqueeze(d));
  }
  return views;
}

at::Tensor Stack(at::TensorList tensors, int64_t dim) {
  const int64_t d = at::maybe_wrap_dim(dim, tensors.empty() ? 1 : tensors[0].dim() + 1);
  return CatTensors(Unsqueezed(tensors, dim, "stack"), d, "stack");
}

at::Tensor& StackOut(at::TensorList tensors, int64_t dim, at::Tensor& out) {
  const int64_t d = at::maybe_wrap_dim(dim, tensors.empty() ? 1 : tensors[0].dim() + 1);
  return CatTensorsOut(Unsqueezed(tensors, dim, "stack.out"), d, out, "stack.out");
}

void RegisterJoins(torch::Library& m) {
  m.impl("cat", TORCH_FN(Cat));
  m.impl("cat.out", TORCH_FN(CatOut));
  m.impl("stack", TORCH_FN(Stack));
  m.impl("stack.out", TORCH_FN(StackOut));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterJoins(m);
}

}  // namespace nerva_torch
