// Native kernels of the PyTorch backend, indexing: index_select, gather, scatter and its
// reductions, index_add, advanced indexing (index, index_put) and the embedding gradient.
//
// nerva bounds indices on the device: where PyTorch raises for an index out of range, a
// read gives zero and a write is skipped.

#include <ATen/WrapDimUtils.h>
#include <torch/library.h>

#include <algorithm>
#include <string>
#include <vector>

#include "backend.h"
#include "nerva/kernel/indexing.h"

namespace nerva_torch {

namespace {

int Dim(const at::Tensor& self, int64_t dim) {
  return static_cast<int>(at::maybe_wrap_dim(dim, std::max<int64_t>(self.dim(), 1)));
}

void CheckIndex(const at::Tensor& index, const char* op) {
  TORCH_CHECK_INDEX(index.scalar_type() == at::kLong || index.scalar_type() == at::kInt,
                    "nerva_torch: ", op, ": expected an int64 or int32 index, got ",
                    index.scalar_type());
}

// A tensor of `sizes` filled with `value` on the device.
at::Tensor Full(at::IntArrayRef sizes, const at::Scalar& value, at::ScalarType type) {
  at::Tensor t = Empty(sizes, type);
  t.fill_(value);
  return t;
}

// ---------------------------------------------------------------- gathers

at::Tensor IndexSelect(const at::Tensor& self, int64_t dim, const at::Tensor& index) {
  const char* name = "index_select";
  ToNervaType(self.scalar_type(), name);
  CheckIndex(index, name);
  TORCH_CHECK_INDEX(index.dim() <= 1,
                    "nerva_torch: index_select: index should have 0 or 1 "
                    "dimensions, got ",
                    index.sizes());
  const int d = Dim(self, dim);
  std::vector<int64_t> sizes = self.sizes().vec();
  if (self.dim() > 0) sizes[d] = index.numel();
  at::Tensor out = Empty(sizes, self.scalar_type());
  if (out.numel() == 0) return out;
  Call call(name);
  Operand x = call.In(self), i = call.In(index.reshape({-1})), o = call.Out(out);
  nerva::GatherOption option;
  option.dim = d;
  call.Run(nerva::Gather::Create(GetQueue(), option, x.opt, x.buf, i.opt, i.buf, o.opt, o.buf));
  return out;
}

at::Tensor& IndexSelectOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                           at::Tensor& out) {
  return ToOut(out, IndexSelect(self, dim, index), "index_select.out");
}

at::Tensor GatherFn(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                    bool sparse_grad) {
  const char* name = "gather";
  ToNervaType(self.scalar_type(), name);
  CheckIndex(index, name);
  at::Tensor out = Empty(index.sizes(), self.scalar_type());
  if (out.numel() == 0) return out;
  Call call(name);
  Operand x = call.In(self), i = call.In(index), o = call.Out(out);
  nerva::GatherElementOption option;
  option.dim = Dim(self, dim);
  call.Run(
      nerva::GatherElement::Create(GetQueue(), option, x.opt, x.buf, i.opt, i.buf, o.opt, o.buf));
  return out;
}

at::Tensor& GatherOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                      bool sparse_grad, at::Tensor& out) {
  return ToOut(out, GatherFn(self, dim, index, sparse_grad), "gather.out");
}

// ---------------------------------------------------------------- scatters

nerva::ScatterReduceType ReduceType(c10::string_view reduce, const char* op) {
  if (reduce == "sum" || reduce == "add") return nerva::ScatterReduceType::kSum;
  if (reduce == "prod" || reduce == "multiply") return nerva::ScatterReduceType::kProd;
  if (reduce == "mean") return nerva::ScatterReduceType::kMean;
  if (reduce == "amax") return nerva::ScatterReduceType::kAmax;
  if (reduce == "amin") return nerva::ScatterReduceType::kAmin;
  TORCH_CHECK(false, "nerva_torch: ", op,
              ": reduce argument must be one of sum, prod, mean, "
              "amax, amin (add, multiply for scatter), got ",
              std::string(reduce));
}

// out = self with src scattered along dim; `self` is left as it is.
at::Tensor ScatterInto(const char* name, const at::Tensor& self, int64_t dim,
                       const at::Tensor& index, const at::Tensor& src,
                       nerva::ScatterReduceType reduce, bool include_self) {
  ToNervaType(self.scalar_type(), name);
  CheckIndex(index, name);
  at::Tensor out = EmptyLike(self);
  if (out.numel() == 0) return out;
  if (index.numel() == 0) {
    DeviceCopy(out, self, name);
    return out;
  }
  Call call(name);
  Operand x = call.In(self), i = call.In(index), s = call.InAs(src, self.scalar_type());
  Operand o = call.Out(out);
  if (reduce == nerva::ScatterReduceType::kMean) {
    at::Tensor count = Empty(self.sizes(), at::kFloat);
    Operand c = call.Out(count);
    nerva::ScatterMeanOption option;
    option.dim = Dim(self, dim);
    option.include_self = include_self;
    call.Run(nerva::ScatterMean::Create(GetQueue(), option, x.opt, x.buf, i.opt, i.buf, s.opt,
                                        s.buf, c.opt, c.buf, o.opt, o.buf));
    return out;
  }
  nerva::ScatterOption option;
  option.dim = Dim(self, dim);
  option.reduce = reduce;
  option.include_self = include_self;
  call.Run(nerva::Scatter::Create(GetQueue(), option, x.opt, x.buf, i.opt, i.buf, s.opt, s.buf,
                                  o.opt, o.buf));
  return out;
}

at::Tensor ValueSource(const at::Tensor& self, const at::Tensor& index, const at::Scalar& value) {
  return Full(index.sizes(), value, self.scalar_type());
}

at::Tensor& Inplace(at::Tensor& self, const at::Tensor& result, const char* op) {
  DeviceCopy(self, result, op);
  return self;
}

using RT = nerva::ScatterReduceType;

at::Tensor ScatterSrc(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                      const at::Tensor& src) {
  return ScatterInto("scatter.src", self, dim, index, src, RT::kNone, true);
}
at::Tensor& ScatterSrcInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                              const at::Tensor& src) {
  return Inplace(self, ScatterSrc(self, dim, index, src), "scatter_.src");
}
at::Tensor& ScatterSrcOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                          const at::Tensor& src, at::Tensor& out) {
  return ToOut(out, ScatterSrc(self, dim, index, src), "scatter.src_out");
}
at::Tensor ScatterValue(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                        const at::Scalar& value) {
  return ScatterInto("scatter.value", self, dim, index, ValueSource(self, index, value), RT::kNone,
                     true);
}
at::Tensor& ScatterValueInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                                const at::Scalar& value) {
  return Inplace(self, ScatterValue(self, dim, index, value), "scatter_.value");
}
at::Tensor& ScatterValueOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                            const at::Scalar& value, at::Tensor& out) {
  return ToOut(out, ScatterValue(self, dim, index, value), "scatter.value_out");
}
at::Tensor ScatterReduce(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                         const at::Tensor& src, c10::string_view reduce) {
  TORCH_CHECK(reduce == "add" || reduce == "multiply",
              "nerva_torch: scatter: reduce argument "
              "must be either add or multiply, got ",
              std::string(reduce));
  return ScatterInto("scatter.reduce", self, dim, index, src, ReduceType(reduce, "scatter"), true);
}
at::Tensor& ScatterReduceInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                                 const at::Tensor& src, c10::string_view reduce) {
  return Inplace(self, ScatterReduce(self, dim, index, src, reduce), "scatter_.reduce");
}
at::Tensor ScatterValueReduce(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                              const at::Scalar& value, c10::string_view reduce) {
  return ScatterReduce(self, dim, index, ValueSource(self, index, value), reduce);
}
at::Tensor& ScatterValueReduceInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                                      const at::Scalar& value, c10::string_view reduce) {
  return Inplace(self, ScatterValueReduce(self, dim, index, value, reduce),
                 "scatter_.value_reduce");
}
at::Tensor ScatterAdd(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                      const at::Tensor& src) {
  return ScatterInto("scatter_add", self, dim, index, src, RT::kSum, true);
}
at::Tensor& ScatterAddInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                              const at::Tensor& src) {
  return Inplace(self, ScatterAdd(self, dim, index, src), "scatter_add_");
}
at::Tensor& ScatterAddOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                          const at::Tensor& src, at::Tensor& out) {
  return ToOut(out, ScatterAdd(self, dim, index, src), "scatter_add.out");
}
at::Tensor ScatterReduceTwo(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                            const at::Tensor& src, c10::string_view reduce, bool include_self) {
  return ScatterInto("scatter_reduce.two", self, dim, index, src,
                     ReduceType(reduce, "scatter_reduce"), include_self);
}
at::Tensor& ScatterReduceTwoInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                                    const at::Tensor& src, c10::string_view reduce,
                                    bool include_self) {
  return Inplace(self, ScatterReduceTwo(self, dim, index, src, reduce, include_self),
                 "scatter_reduce_.two");
}
at::Tensor& ScatterReduceTwoOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                                const at::Tensor& src, c10::string_view reduce, bool include_self,
                                at::Tensor& out) {
  return ToOut(out, ScatterReduceTwo(self, dim, index, src, reduce, include_self),
               "scatter_reduce.two_out");
}

// self with alpha * source added at index along dim.
at::Tensor IndexAdd(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                    const at::Tensor& source, const at::Scalar& alpha) {
  const char* name = "index_add";
  ToNervaType(self.scalar_type(), name);
  CheckIndex(index, name);
  at::Tensor out = EmptyLike(self);
  if (out.numel() == 0) return out;
  at::Tensor values = alpha.toDouble() == 1.0 ? source : at::mul(source, alpha);
  Call call(name);
  Operand x = call.In(self), i = call.In(index.reshape({-1}));
  Operand v = call.InAs(values, self.scalar_type()), o = call.Out(out);
  nerva::IndexPutOption option;
  option.dim = Dim(self, dim);
  option.accumulate = true;
  call.Run(nerva::IndexPut::Create(GetQueue(), option, x.opt, x.buf, i.opt, i.buf, v.opt, v.buf,
                                   o.opt, o.buf));
  return out;
}
at::Tensor& IndexAddInplace(at::Tensor& self, int64_t dim, const at::Tensor& index,
                            const at::Tensor& source, const at::Scalar& alpha) {
  return Inplace(self, IndexAdd(self, dim, index, source, alpha), "index_add_");
}
at::Tensor& IndexAddOut(const at::Tensor& self, int64_t dim, const at::Tensor& index,
                        const at::Tensor& source, const at::Scalar& alpha, at::Tensor& out) {
  return ToOut(out, IndexAdd(self, dim, index, source, alpha), "index_add.out");
}

// ---------------------------------------------------------------- advanced indexing

// The index list with boolean masks replaced by the integer indices of their true
// elements (found on the host, as torch does) and left-out entries undefined.
std::vector<at::Tensor> ExpandIndices(const at::Tensor& self,
                                      const c10::List<c10::optional<at::Tensor>>& indices,
                                      const char* op) {
  std::vector<at::Tensor> out;
  for (const c10::optional<at::Tensor>& entry : indices) {
    at::Tensor t = entry.has_value() ? *entry : at::Tensor();
    if (t.defined() && (t.scalar_type() == at::kBool || t.scalar_type() == at::kByte)) {
      const int64_t pos = static_cast<int64_t>(out.size());
      TORCH_CHECK_INDEX(pos + t.dim() <= self.dim(), "nerva_torch: ", op, ": mask ", t.sizes(),
                        " does not fit ", self.sizes());
      for (int64_t d = 0; d < t.dim(); ++d) {
        TORCH_CHECK_INDEX(t.size(d) == self.size(pos + d), "nerva_torch: ", op, ": mask ",
                          t.sizes(), " does not match ", self.sizes(), " at dimension ", pos + d);
      }
      at::Tensor nz = t.cpu().nonzero();
      for (int64_t d = 0; d < t.dim(); ++d) out.push_back(nz.select(1, d).to(Device()));
      continue;
    }
    if (t.defined()) CheckIndex(t, op);
    out.push_back(t);
  }
  TORCH_CHECK_INDEX(static_cast<int64_t>(out.size()) <= self.dim(), "nerva_torch: ", op,
                    ": too many indices for a tensor of dimension ", self.dim());
  return out;
}

// The shape of self[indices] by PyTorch's placement rule.
std::vector<int64_t> IndexedShape(const at::Tensor& self, const std::vector<at::Tensor>& indices) {
  std::vector<int64_t> broadcast;
  std::vector<int64_t> positions;
  for (size_t p = 0; p < indices.size(); ++p) {
    if (!indices[p].defined()) continue;
    broadcast = positions.empty() ? indices[p].sizes().vec()
                                  : at::infer_size(broadcast, indices[p].sizes());
    positions.push_back(static_cast<int64_t>(p));
  }
  const bool adjacent =
      positions.back() - positions.front() + 1 == static_cast<int64_t>(positions.size());
  std::vector<int64_t> sizes;
  if (!adjacent) sizes = broadcast;
  for (int64_t d = 0; d < self.dim(); ++d) {
    const bool indexed = std::find(positions.begin(), positions.end(), d) != positions.end();
    if (adjacent && d == positions.front())
      sizes.insert(sizes.end(), broadcast.begin(), broadcast.end());
    if (!indexed) sizes.push_back(self.size(d));
  }
  return sizes;
}

void BindIndices(Call& call, const std::vector<at::Tensor>& indices,
                 std::vector<nerva::TensorOption>& opts, std::vector<nerva::Buffer>& bufs) {
  for (const at::Tensor& t : indices) {
    Operand o = t.defined() ? call.In(t) : Call::None();
    opts.push_back(o.opt);
    bufs.push_back(o.buf);
  }
}

at::Tensor IndexTensor(const at::Tensor& self, const c10::List<c10::optional<at::Tensor>>& list) {
  const char* name = "index.Tensor";
  ToNervaType(self.scalar_type(), name);
  const std::vector<at::Tensor> indices = ExpandIndices(self, list, name);
  const bool any =
      std::any_of(indices.begin(), indices.end(), [](const at::Tensor& t) { return t.defined(); });
  if (!any) return self.alias();
  at::Tensor out = Empty(IndexedShape(self, indices), self.scalar_type());
  if (out.numel() == 0) return out;
  Call call(name);
  Operand x = call.In(self), o = call.Out(out);
  std::vector<nerva::TensorOption> opts;
  std::vector<nerva::Buffer> bufs;
  BindIndices(call, indices, opts, bufs);
  call.Run(nerva::Index::Create(GetQueue(), x.opt, x.buf, opts, bufs, o.opt, o.buf));
  return out;
}

at::Tensor& IndexTensorOut(const at::Tensor& self,
                           const c10::List<c10::optional<at::Tensor>>& indices, at::Tensor& out) {
  return ToOut(out, IndexTensor(self, indices), "index.Tensor_out");
}

at::Tensor& IndexPutImpl(at::Tensor& self, const c10::List<c10::optional<at::Tensor>>& list,
                         const at::Tensor& values, bool accumulate, bool unsafe) {
  const char* name = "index_put_";
  ToNervaType(self.scalar_type(), name);
  const std::vector<at::Tensor> indices = ExpandIndices(self, list, name);
  const bool any =
      std::any_of(indices.begin(), indices.end(), [](const at::Tensor& t) { return t.defined(); });
  if (!any) {
    // self[...] = values (or += values).
    if (accumulate)
      self.add_(values);
    else
      DeviceCopy(self, values.to(self.scalar_type()), name);
    return self;
  }
  if (self.numel() == 0 || values.numel() == 0) return self;
  at::Tensor out = EmptyLike(self);
  {
    Call call(name);
    Operand x = call.In(self), v = call.InAs(values, self.scalar_type()), o = call.Out(out);
    std::vector<nerva::TensorOption> opts;
    std::vector<nerva::Buffer> bufs;
    BindIndices(call, indices, opts, bufs);
    nerva::IndexPutOption option;
    option.accumulate = accumulate;
    call.Run(nerva::IndexPut::Create(GetQueue(), option, x.opt, x.buf, opts, bufs, v.opt, v.buf,
                                     o.opt, o.buf));
  }
  DeviceCopy(self, out, name);
  return self;
}

// ---------------------------------------------------------------- embedding

// Each index is a bag of its own: the gradient rows add up per weight row.
at::Tensor EmbeddingDenseBackward(const at::Tensor& grad, const at::Tensor& indices,
                                  c10::SymInt num_weights, int64_t padding_idx,
                                  bool scale_grad_by_freq) {
  const char* name = "embedding_dense_backward";
  ToNervaType(grad.scalar_type(), name);
  CheckIndex(indices, name);
  const int64_t rows = num_weights.expect_int();
  const int64_t n = indices.numel();
  const int64_t width = grad.size(-1);
  at::Tensor grad_weight = Empty({rows, width}, grad.scalar_type());
  if (grad_weight.numel() == 0) return grad_weight;
  if (n == 0) return grad_weight.zero_();
  at::Tensor flat = indices.reshape({n});
  at::Tensor bags = at::arange(n, at::TensorOptions().dtype(flat.scalar_type()).device(Device()));
  Call call(name);
  Operand g = call.In(grad.reshape({n, width})), i = call.In(flat), b = call.In(bags);
  Operand o = call.Out(grad_weight), none = Call::None();
  nerva::EmbeddingBagBackwardOption option;
  option.mode = nerva::EmbeddingBagMode::kSum;
  option.padding_idx = padding_idx;
  option.scale_grad_by_freq = scale_grad_by_freq;
  call.Run(nerva::EmbeddingBagBackward::Create(GetQueue(), option, g.opt, g.buf, i.opt, i.buf,
                                               b.opt, b.buf, b.opt, b.buf, none.opt, none.buf,
                                               none.opt, none.buf, o.opt, o.buf));
  return grad_weight;
}

void RegisterIndexing(torch::Library& m) {
  m.impl("index_select", TORCH_FN(IndexSelect));
  m.impl("index_select.out", TORCH_FN(IndexSelectOut));
  m.impl("gather", TORCH_FN(GatherFn));
  m.impl("gather.out", TORCH_FN(GatherOut));
  m.impl("scatter.src", TORCH_FN(ScatterSrc));
  m.impl("scatter_.src", TORCH_FN(ScatterSrcInplace));
  m.impl("scatter.src_out", TORCH_FN(ScatterSrcOut));
  m.impl("scatter.value", TORCH_FN(ScatterValue));
  m.impl("scatter_.value", TORCH_FN(ScatterValueInplace));
  m.impl("scatter.value_out", TORCH_FN(ScatterValueOut));
  m.impl("scatter.reduce", TORCH_FN(ScatterReduce));
  m.impl("scatter_.reduce", TORCH_FN(ScatterReduceInplace));
  m.impl("scatter.value_reduce", TORCH_FN(ScatterValueReduce));
  m.impl("scatter_.value_reduce", TORCH_FN(ScatterValueReduceInplace));
  m.impl("scatter_add", TORCH_FN(ScatterAdd));
  m.impl("scatter_add_", TORCH_FN(ScatterAddInplace));
  m.impl("scatter_add.out", TORCH_FN(ScatterAddOut));
  m.impl("scatter_reduce.two", TORCH_FN(ScatterReduceTwo));
  m.impl("scatter_reduce_.two", TORCH_FN(ScatterReduceTwoInplace));
  m.impl("scatter_reduce.two_out", TORCH_FN(ScatterReduceTwoOut));
  m.impl("index_add", TORCH_FN(IndexAdd));
  m.impl("index_add_", TORCH_FN(IndexAddInplace));
  m.impl("index_add.out", TORCH_FN(IndexAddOut));
  m.impl("index.Tensor", TORCH_FN(IndexTensor));
  m.impl("index.Tensor_out", TORCH_FN(IndexTensorOut));
  m.impl("_index_put_impl_", TORCH_FN(IndexPutImpl));
  m.impl("embedding_dense_backward", TORCH_FN(EmbeddingDenseBackward));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterIndexing(m);
}

}  // namespace nerva_torch
