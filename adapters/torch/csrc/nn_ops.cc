// Native kernels of the PyTorch backend, neural-network half: softmax, losses,
// reductions, normalisation, selection and the random fills.

#include <ATen/WrapDimUtils.h>
#include <torch/library.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>

#include "backend.h"
#include "nerva/kernel/base.h"
#include "nerva/kernel/elementwise.h"
#include "nerva/kernel/loss.h"
#include "nerva/kernel/nn.h"
#include "nerva/kernel/normalization.h"
#include "nerva/kernel/random.h"
#include "nerva/kernel/reduce.h"
#include "nerva/kernel/train.h"

namespace nerva_torch {

namespace {

void CheckFloat(const at::Tensor& t, const char* op) {
  ToNervaType(t.scalar_type(), op);
  TORCH_CHECK(at::isFloatingType(t.scalar_type()), "nerva_torch: ", op,
              ": expected a floating tensor, got ", t.scalar_type());
}

// ---------------------------------------------------------------- softmax

template <bool kLog>
at::Tensor SoftmaxFn(const at::Tensor& self, int64_t dim, bool half_to_float) {
  const char* name = kLog ? "_log_softmax" : "_softmax";
  CheckFloat(self, name);
  TORCH_CHECK(!half_to_float, "nerva_torch: ", name, ": half_to_float has no nerva kernel");
  at::Tensor out = EmptyLike(self);
  if (out.numel() == 0) return out;
  const int d = static_cast<int>(at::maybe_wrap_dim(dim, std::max<int64_t>(self.dim(), 1)));
  Call call(name);
  Operand x = call.In(self), o = call.Out(out);
  if (kLog) {
    nerva::LogSoftmaxOption option;
    option.dim = d;
    call.Run(nerva::LogSoftmax::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  } else {
    nerva::SoftmaxOption option;
    option.dim = d;
    call.Run(nerva::Softmax::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  }
  return out;
}

template <bool kLog>
at::Tensor& SoftmaxOut(const at::Tensor& self, int64_t dim, bool half_to_float, at::Tensor& out) {
  return ToOut(out, SoftmaxFn<kLog>(self, dim, half_to_float), "softmax.out");
}

template <bool kLog>
at::Tensor SoftmaxBackward(const at::Tensor& grad, const at::Tensor& output, int64_t dim,
                           at::ScalarType input_dtype) {
  const char* name = kLog ? "_log_softmax_backward_data" : "_softmax_backward_data";
  CheckFloat(grad, name);
  at::Tensor out = EmptyLike(grad);
  if (out.numel() == 0) return out;
  const int d = static_cast<int>(at::maybe_wrap_dim(dim, std::max<int64_t>(grad.dim(), 1)));
  Call call(name);
  Operand g = call.In(grad), y = call.In(output), o = call.Out(out);
  if (kLog) {
    nerva::LogSoftmaxBackwardOption option;
    option.dim = d;
    call.Run(nerva::LogSoftmaxBackward::Create(GetQueue(), option, g.opt, g.buf, y.opt, y.buf,
                                               o.opt, o.buf));
  } else {
    nerva::SoftmaxBackwardOption option;
    option.dim = d;
    call.Run(nerva::SoftmaxBackward::Create(GetQueue(), option, g.opt, g.buf, y.opt, y.buf, o.opt,
                                            o.buf));
  }
  return out;
}

template <bool kLog>
at::Tensor& SoftmaxBackwardOut(const at::Tensor& grad, const at::Tensor& output, int64_t dim,
                               at::ScalarType input_dtype, at::Tensor& out) {
  return ToOut(out, SoftmaxBackward<kLog>(grad, output, dim, input_dtype), "softmax_backward");
}

// ---------------------------------------------------------------- losses

nerva::LossReduction Reduction(int64_t reduction) {
  switch (reduction) {
    case 0:
      return nerva::LossReduction::kNone;
    case 1:
      return nerva::LossReduction::kMean;
    default:
      return nerva::LossReduction::kSum;
  }
}

std::tuple<at::Tensor, at::Tensor> NllLossForward(const at::Tensor& self, const at::Tensor& target,
                                                  const c10::optional<at::Tensor>& weight,
                                                  int64_t reduction, int64_t ignore_index) {
  CheckFloat(self, "nll_loss_forward");
  std::vector<int64_t> loss_sizes;
  if (reduction == 0 && self.dim() > 1) loss_sizes = target.sizes().vec();
  at::Tensor out = Empty(loss_sizes, self.scalar_type());
  at::Tensor total = Empty({}, self.scalar_type());
  Call call("nll_loss_forward");
  Operand x = call.In(self), t = call.In(target);
  Operand w = weight && weight->defined() ? call.In(*weight) : Call::None();
  Operand o = call.Out(out), tw = call.Out(total);
  nerva::NllLossOption option;
  option.reduction = Reduction(reduction);
  option.ignore_index = ignore_index;
  call.Run(nerva::NllLoss::Create(GetQueue(), option, x.opt, x.buf, t.opt, t.buf, w.opt, w.buf,
                                  o.opt, o.buf, tw.opt, tw.buf));
  return {out, total};
}

std::tuple<at::Tensor&, at::Tensor&> NllLossForwardOut(
    const at::Tensor& self, const at::Tensor& target, const c10::optional<at::Tensor>& weight,
    int64_t reduction, int64_t ignore_index, at::Tensor& output, at::Tensor& total_weight) {
  auto result = NllLossForward(self, target, weight, reduction, ignore_index);
  ToOut(output, std::get<0>(result), "nll_loss_forward");
  ToOut(total_weight, std::get<1>(result), "nll_loss_forward");
  return {output, total_weight};
}

at::Tensor NllLossBackward(const at::Tensor& grad, const at::Tensor& self, const at::Tensor& target,
                           const c10::optional<at::Tensor>& weight, int64_t reduction,
                           int64_t ignore_index, const at::Tensor& total_weight) {
  CheckFloat(self, "nll_loss_backward");
  at::Tensor out = EmptyLike(self);
  if (out.numel() == 0) return out;
  Call call("nll_loss_backward");
  Operand g = call.In(grad), x = call.In(self), t = call.In(target);
  Operand w = weight && weight->defined() ? call.In(*weight) : Call::None();
  Operand tw = call.In(total_weight), o = call.Out(out);
  nerva::NllLossBackwardOption option;
  option.reduction = Reduction(reduction);
  option.ignore_index = ignore_index;
  call.Run(nerva::NllLossBackward::Create(GetQueue(), option, g.opt, g.buf, x.opt, x.buf, t.opt,
                                          t.buf, w.opt, w.buf, tw.opt, tw.buf, o.opt, o.buf));
  return out;
}

at::Tensor& NllLossBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                               const at::Tensor& target, const c10::optional<at::Tensor>& weight,
                               int64_t reduction, int64_t ignore_index,
                               const at::Tensor& total_weight, at::Tensor& out) {
  return ToOut(out,
               NllLossBackward(grad, self, target, weight, reduction, ignore_index, total_weight),
               "nll_loss_backward");
}

at::Tensor MseLoss(const at::Tensor& self, const at::Tensor& target, int64_t reduction) {
  CheckFloat(self, "mse_loss");
  at::Tensor out = reduction == 0 ? EmptyLike(self) : Empty({}, self.scalar_type());
  if (reduction == 0 && out.numel() == 0) return out;
  Call call("mse_loss");
  Operand x = call.In(self), t = call.InAs(target, self.scalar_type()), o = call.Out(out);
  nerva::MseLossOption option;
  option.reduction = Reduction(reduction);
  call.Run(nerva::MseLoss::Create(GetQueue(), option, x.opt, x.buf, t.opt, t.buf, o.opt, o.buf));
  return out;
}

at::Tensor& MseLossOut(const at::Tensor& self, const at::Tensor& target, int64_t reduction,
                       at::Tensor& out) {
  return ToOut(out, MseLoss(self, target, reduction), "mse_loss.out");
}

at::Tensor MseLossBackward(const at::Tensor& grad, const at::Tensor& self, const at::Tensor& target,
                           int64_t reduction) {
  CheckFloat(self, "mse_loss_backward");
  at::Tensor out = EmptyLike(self);
  if (out.numel() == 0) return out;
  Call call("mse_loss_backward");
  Operand g = call.In(grad), x = call.In(self), t = call.InAs(target, self.scalar_type());
  Operand o = call.Out(out);
  nerva::MseLossBackwardOption option;
  option.reduction = Reduction(reduction);
  call.Run(nerva::MseLossBackward::Create(GetQueue(), option, g.opt, g.buf, x.opt, x.buf, t.opt,
                                          t.buf, o.opt, o.buf));
  return out;
}

at::Tensor& MseLossBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                               const at::Tensor& target, int64_t reduction, at::Tensor& out) {
  return ToOut(out, MseLossBackward(grad, self, target, reduction), "mse_loss_backward");
}

// ---------------------------------------------------------------- reductions

// Reduces `dims` (sorted, distinct) of `self`. nerva reduces a run of consecutive axes
// at once; other sets go run by run, the last run first.
at::Tensor ReduceDims(const char* name, nerva::ReduceType op, const at::Tensor& self,
                      std::vector<int64_t> dims, bool keepdim, at::ScalarType out_type,
                      float correction = 1.0f) {
  std::vector<int64_t> out_sizes;
  for (int64_t d = 0; d < self.dim(); ++d) {
    const bool reduced = std::find(dims.begin(), dims.end(), d) != dims.end();
    if (!reduced)
      out_sizes.push_back(self.size(d));
    else if (keepdim)
      out_sizes.push_back(1);
  }
  at::Tensor out = Empty(out_sizes, out_type);
  if (out.numel() == 0) return out;
  if (self.numel() == 0) {
    out.fill_(op == nerva::ReduceType::kSum ? 0.0 : std::nan(""));
    return out;
  }
  if (self.dim() == 0) {
    DeviceCopy(out, self, name);
    return out;
  }
  // Split into runs of consecutive axes.
  std::vector<std::vector<int>> runs;
  for (int64_t d : dims) {
    if (runs.empty() || runs.back().back() != d - 1) runs.emplace_back();
    runs.back().push_back(static_cast<int>(d));
  }
  const bool mean = op == nerva::ReduceType::kMean;
  at::Tensor current = self;
  if (current.scalar_type() != out_type) {
    at::Tensor converted = Empty(self.sizes(), out_type);
    DeviceCopy(converted, self, name);
    current = converted;
  }
  for (size_t r = runs.size(); r-- > 0;) {
    const bool last = r == 0;
    std::vector<int64_t> sizes = current.sizes().vec();
    for (int axis : runs[r]) sizes[axis] = 1;
    at::Tensor next = last && keepdim ? out : Empty(sizes, out_type);
    if (last && !keepdim) next = out.view(sizes);
    Call call(name);
    Operand x = call.In(current), o = call.Out(next);
    nerva::ReduceOption option;
    option.op_type = mean ? nerva::ReduceType::kMean : op;
    option.axes = runs[r];
    option.keepdim = true;
    option.correction = correction;
    call.Run(nerva::Reduce::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
    current = next;
  }
  return out;
}

std::vector<int64_t> DimList(const at::Tensor& self, at::OptionalIntArrayRef dim) {
  std::vector<int64_t> dims;
  if (!dim || dim->empty()) {
    for (int64_t d = 0; d < self.dim(); ++d) dims.push_back(d);
  } else {
    for (int64_t d : *dim) dims.push_back(at::maybe_wrap_dim(d, std::max<int64_t>(self.dim(), 1)));
  }
  std::sort(dims.begin(), dims.end());
  dims.erase(std::unique(dims.begin(), dims.end()), dims.end());
  if (self.dim() == 0) dims.clear();
  return dims;
}

at::ScalarType SumType(const at::Tensor& self, c10::optional<at::ScalarType> dtype) {
  if (dtype) return *dtype;
  return at::isIntegralType(self.scalar_type(), true) ? at::kLong : self.scalar_type();
}

at::Tensor SumDim(const at::Tensor& self, at::OptionalIntArrayRef dim, bool keepdim,
                  c10::optional<at::ScalarType> dtype) {
  return ReduceDims("sum", nerva::ReduceType::kSum, self, DimList(self, dim), keepdim,
                    SumType(self, dtype));
}
at::Tensor& SumOut(const at::Tensor& self, at::OptionalIntArrayRef dim, bool keepdim,
                   c10::optional<at::ScalarType> dtype, at::Tensor& out) {
  return ToOut(out, SumDim(self, dim, keepdim, dtype), "sum.IntList_out");
}
at::Tensor Sum(const at::Tensor& self, c10::optional<at::ScalarType> dtype) {
  return SumDim(self, c10::nullopt, false, dtype);
}
at::Tensor MeanDim(const at::Tensor& self, at::OptionalIntArrayRef dim, bool keepdim,
                   c10::optional<at::ScalarType> dtype) {
  const auto type = dtype.value_or(self.scalar_type());
  CheckFloat(Empty({0}, type), "mean");
  return ReduceDims("mean", nerva::ReduceType::kMean, self, DimList(self, dim), keepdim, type);
}
at::Tensor& MeanOut(const at::Tensor& self, at::OptionalIntArrayRef dim, bool keepdim,
                    c10::optional<at::ScalarType> dtype, at::Tensor& out) {
  return ToOut(out, MeanDim(self, dim, keepdim, dtype), "mean.out");
}
at::Tensor Mean(const at::Tensor& self, c10::optional<at::ScalarType> dtype) {
  return MeanDim(self, c10::nullopt, false, dtype);
}

// torch.var: sum of squared deviations over max(0, N - correction). One run of
// consecutive axes with a positive divisor is one nerva reduction; other sets
// compose mean, difference and sum on the device.
at::Tensor VarCorrection(const at::Tensor& self, at::OptionalIntArrayRef dim,
                         c10::optional<int64_t> correction, bool keepdim) {
  CheckFloat(self, "var");
  const std::vector<int64_t> dims = DimList(self, dim);
  const int64_t corr = correction.value_or(1);
  int64_t n = 1;
  for (int64_t d : dims) n *= self.size(d);
  const bool one_run = !dims.empty() && dims.back() - dims.front() + 1 == int64_t(dims.size());
  if (one_run && n - corr > 0) {
    return ReduceDims("var", nerva::ReduceType::kVar, self, dims, keepdim, self.scalar_type(),
                      static_cast<float>(corr));
  }
  const at::Tensor deviation = self - at::mean(self, dims, true);
  return at::sum(deviation * deviation, dims, keepdim) /
         static_cast<double>(std::max<int64_t>(n - corr, 0));
}
at::Tensor& VarCorrectionOut(const at::Tensor& self, at::OptionalIntArrayRef dim,
                             c10::optional<int64_t> correction, bool keepdim, at::Tensor& out) {
  return ToOut(out, VarCorrection(self, dim, correction, keepdim), "var.correction_out");
}
std::tuple<at::Tensor, at::Tensor> VarMeanCorrection(const at::Tensor& self,
                                                     at::OptionalIntArrayRef dim,
                                                     c10::optional<int64_t> correction,
                                                     bool keepdim) {
  return {VarCorrection(self, dim, correction, keepdim), MeanDim(self, dim, keepdim, c10::nullopt)};
}
at::Tensor StdCorrection(const at::Tensor& self, at::OptionalIntArrayRef dim,
                         c10::optional<int64_t> correction, bool keepdim) {
  return at::sqrt(VarCorrection(self, dim, correction, keepdim));
}

// ---------------------------------------------------------------- normalisation

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeLayerNorm(
    const at::Tensor& input, c10::SymIntArrayRef normalized_shape,
    const c10::optional<at::Tensor>& weight, const c10::optional<at::Tensor>& bias, double eps) {
  CheckFloat(input, "native_layer_norm");
  auto norm = c10::asIntArrayRefSlow(normalized_shape);
  const int64_t axis = input.dim() - static_cast<int64_t>(norm.size());
  std::vector<int64_t> stat_sizes = input.sizes().vec();
  for (int64_t d = axis; d < input.dim(); ++d) stat_sizes[d] = 1;
  at::Tensor out = EmptyLike(input);
  at::Tensor mean = Empty(stat_sizes, input.scalar_type());
  at::Tensor rstd = Empty(stat_sizes, input.scalar_type());
  if (input.numel() == 0) return {out, mean, rstd};
  Call call("native_layer_norm");
  Operand x = call.In(input);
  Operand w = weight && weight->defined() ? call.In(*weight) : Call::None();
  Operand b = bias && bias->defined() ? call.In(*bias) : Call::None();
  Operand o = call.Out(out), m = call.Out(mean), r = call.Out(rstd);
  nerva::LayerNormOption option;
  option.normalized_shape.assign(norm.begin(), norm.end());
  option.eps = static_cast<float>(eps);
  call.Run(nerva::LayerNorm::Create(GetQueue(), option, x.opt, x.buf, w.opt, w.buf, b.opt, b.buf,
                                    o.opt, o.buf, m.opt, m.buf, r.opt, r.buf));
  return {out, mean, rstd};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeLayerNormBackward(
    const at::Tensor& grad, const at::Tensor& input, c10::SymIntArrayRef normalized_shape,
    const at::Tensor& mean, const at::Tensor& rstd, const c10::optional<at::Tensor>& weight,
    const c10::optional<at::Tensor>& bias, std::array<bool, 3> output_mask) {
  CheckFloat(input, "native_layer_norm_backward");
  auto norm = c10::asIntArrayRefSlow(normalized_shape);
  const bool has_w = weight && weight->defined(), has_b = bias && bias->defined();
  at::Tensor gi = EmptyLike(input);
  at::Tensor gw = has_w ? EmptyLike(*weight) : at::Tensor();
  at::Tensor gb = has_b ? EmptyLike(*bias) : at::Tensor();
  if (input.numel() == 0) {
    if (gw.defined()) gw.zero_();
    if (gb.defined()) gb.zero_();
  } else {
    Call call("native_layer_norm_backward");
    Operand g = call.In(grad), x = call.In(input), m = call.In(mean), r = call.In(rstd);
    Operand w = has_w ? call.In(*weight) : Call::None();
    Operand b = has_b ? call.In(*bias) : Call::None();
    Operand ogi = call.Out(gi);
    Operand ogw = gw.defined() ? call.Out(gw) : Call::None();
    Operand ogb = gb.defined() ? call.Out(gb) : Call::None();
    nerva::LayerNormBackwardOption option;
    option.normalized_shape.assign(norm.begin(), norm.end());
    option.output_mask = {true, gw.defined(), gb.defined()};
    call.Run(nerva::LayerNormBackward::Create(
        GetQueue(), option, g.opt, g.buf, x.opt, x.buf, m.opt, m.buf, r.opt, r.buf, w.opt, w.buf,
        b.opt, b.buf, ogi.opt, ogi.buf, ogw.opt, ogw.buf, ogb.opt, ogb.buf));
  }
  return {output_mask[0] ? gi : at::Tensor(), output_mask[1] ? gw : at::Tensor(),
          output_mask[2] ? gb : at::Tensor()};
}

Operand OptionalIn(Call& call, const c10::optional<at::Tensor>& t) {
  return t && t->defined() ? call.In(*t) : Call::None();
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeBatchNorm(
    const at::Tensor& input, const c10::optional<at::Tensor>& weight,
    const c10::optional<at::Tensor>& bias, const c10::optional<at::Tensor>& running_mean,
    const c10::optional<at::Tensor>& running_var, bool training, double momentum, double eps) {
  CheckFloat(input, "native_batch_norm");
  const int64_t channels = input.size(1);
  at::Tensor out = EmptyLike(input);
  at::Tensor save_mean = Empty({training ? channels : 0}, input.scalar_type());
  at::Tensor save_rstd = Empty({training ? channels : 0}, input.scalar_type());
  if (input.numel() == 0) return {out, save_mean, save_rstd};
  Call call("native_batch_norm");
  Operand x = call.In(input), w = OptionalIn(call, weight), b = OptionalIn(call, bias);
  const bool has_running = running_mean && running_mean->defined();
  Operand o = call.Out(out);
  if (!training) {
    TORCH_CHECK(has_running, "nerva_torch: native_batch_norm: evaluation needs running stats");
    Operand rm = call.In(*running_mean), rv = call.In(*running_var);
    nerva::BatchNormOption option;
    option.eps = static_cast<float>(eps);
    call.Run(nerva::BatchNorm::Create(GetQueue(), option, x.opt, x.buf, rm.opt, rm.buf, rv.opt,
                                      rv.buf, w.opt, w.buf, b.opt, b.buf, o.opt, o.buf));
    return {out, save_mean, save_rstd};
  }
  Operand rm = has_running ? call.Out(*running_mean) : Call::None();
  Operand rv = has_running ? call.Out(*running_var) : Call::None();
  Operand sm = call.Out(save_mean), sr = call.Out(save_rstd);
  nerva::BatchNormTrainOption option;
  option.eps = static_cast<float>(eps);
  option.momentum = static_cast<float>(momentum);
  call.Run(nerva::BatchNormTrain::Create(GetQueue(), option, x.opt, x.buf, rm.opt, rm.buf, rv.opt,
                                         rv.buf, w.opt, w.buf, b.opt, b.buf, o.opt, o.buf, sm.opt,
                                         sm.buf, sr.opt, sr.buf, rm.opt, rm.buf, rv.opt, rv.buf));
  return {out, save_mean, save_rstd};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeBatchNormBackward(
    const at::Tensor& grad, const at::Tensor& input, const c10::optional<at::Tensor>& weight,
    const c10::optional<at::Tensor>& running_mean, const c10::optional<at::Tensor>& running_var,
    const c10::optional<at::Tensor>& save_mean, const c10::optional<at::Tensor>& save_rstd,
    bool train, double eps, std::array<bool, 3> output_mask) {
  CheckFloat(input, "native_batch_norm_backward");
  const int64_t channels = input.size(1);
  at::Tensor gi = EmptyLike(input);
  at::Tensor gw = Empty({channels}, input.scalar_type());
  at::Tensor gb = Empty({channels}, input.scalar_type());
  if (input.numel() == 0) {
    gw.zero_();
    gb.zero_();
  } else {
    Call call("native_batch_norm_backward");
    Operand g = call.In(grad), x = call.In(input), w = OptionalIn(call, weight);
    Operand rm = OptionalIn(call, running_mean), rv = OptionalIn(call, running_var);
    Operand sm = train ? OptionalIn(call, save_mean) : Call::None();
    Operand sr = train ? OptionalIn(call, save_rstd) : Call::None();
    Operand ogi = call.Out(gi), ogw = call.Out(gw), ogb = call.Out(gb);
    nerva::BatchNormBackwardOption option;
    option.training = train;
    option.eps = static_cast<float>(eps);
    call.Run(nerva::BatchNormBackward::Create(GetQueue(), option, g.opt, g.buf, x.opt, x.buf, w.opt,
                                              w.buf, rm.opt, rm.buf, rv.opt, rv.buf, sm.opt, sm.buf,
                                              sr.opt, sr.buf, ogi.opt, ogi.buf, ogw.opt, ogw.buf,
                                              ogb.opt, ogb.buf));
  }
  return {output_mask[0] ? gi : at::Tensor(), output_mask[1] ? gw : at::Tensor(),
          output_mask[2] ? gb : at::Tensor()};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeGroupNorm(
    const at::Tensor& input, const c10::optional<at::Tensor>& weight,
    const c10::optional<at::Tensor>& bias, c10::SymInt n, c10::SymInt c, c10::SymInt hxw,
    int64_t group, double eps) {
  CheckFloat(input, "native_group_norm");
  at::Tensor out = EmptyLike(input);
  at::Tensor mean = Empty({n.expect_int(), group}, input.scalar_type());
  at::Tensor rstd = Empty({n.expect_int(), group}, input.scalar_type());
  if (input.numel() == 0) return {out, mean, rstd};
  Call call("native_group_norm");
  Operand x = call.In(input), w = OptionalIn(call, weight), b = OptionalIn(call, bias);
  Operand o = call.Out(out), m = call.Out(mean), r = call.Out(rstd);
  nerva::GroupNormOption option;
  option.num_groups = static_cast<int>(group);
  option.eps = static_cast<float>(eps);
  call.Run(nerva::GroupNorm::Create(GetQueue(), option, x.opt, x.buf, w.opt, w.buf, b.opt, b.buf,
                                    o.opt, o.buf, m.opt, m.buf, r.opt, r.buf));
  return {out, mean, rstd};
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> NativeGroupNormBackward(
    const at::Tensor& grad, const at::Tensor& input, const at::Tensor& mean, const at::Tensor& rstd,
    const c10::optional<at::Tensor>& weight, c10::SymInt n, c10::SymInt c, c10::SymInt hxw,
    int64_t group, std::array<bool, 3> output_mask) {
  CheckFloat(input, "native_group_norm_backward");
  const int64_t channels = c.expect_int();
  at::Tensor gi = EmptyLike(input);
  at::Tensor gw = Empty({channels}, input.scalar_type());
  at::Tensor gb = Empty({channels}, input.scalar_type());
  if (input.numel() == 0) {
    gw.zero_();
    gb.zero_();
  } else {
    Call call("native_group_norm_backward");
    Operand g = call.In(grad), x = call.In(input), m = call.In(mean), r = call.In(rstd);
    Operand w = OptionalIn(call, weight);
    Operand ogi = call.Out(gi), ogw = call.Out(gw), ogb = call.Out(gb);
    nerva::GroupNormBackwardOption option;
    option.num_groups = static_cast<int>(group);
    option.output_mask = {true, true, true};
    call.Run(nerva::GroupNormBackward::Create(GetQueue(), option, g.opt, g.buf, x.opt, x.buf, m.opt,
                                              m.buf, r.opt, r.buf, w.opt, w.buf, ogi.opt, ogi.buf,
                                              ogw.opt, ogw.buf, ogb.opt, ogb.buf));
  }
  return {output_mask[0] ? gi : at::Tensor(), output_mask[1] ? gw : at::Tensor(),
          output_mask[2] ? gb : at::Tensor()};
}

// ---------------------------------------------------------------- selection

at::Tensor Where(const at::Tensor& condition, const at::Tensor& self, const at::Tensor& other) {
  const auto type = at::result_type(self, other);
  ToNervaType(type, "where");
  auto sizes = at::infer_size(at::infer_size(condition.sizes(), self.sizes()), other.sizes());
  at::Tensor out = Empty(sizes, type);
  if (out.numel() == 0) return out;
  Call call("where");
  Operand c = call.InAs(condition, at::kBool), x = call.InAs(self, type);
  Operand y = call.InAs(other, type), o = call.Out(out);
  call.Run(
      nerva::Where::Create(GetQueue(), c.opt, c.buf, x.opt, x.buf, y.opt, y.buf, o.opt, o.buf));
  return out;
}

at::Tensor& WhereOut(const at::Tensor& condition, const at::Tensor& self, const at::Tensor& other,
                     at::Tensor& out) {
  return ToOut(out, Where(condition, self, other), "where.self_out");
}

at::Tensor& MaskedFill(at::Tensor& self, const at::Tensor& mask, const at::Scalar& value) {
  if (self.numel() == 0) return self;
  at::Tensor result = EmptyLike(self);
  {
    Call call("masked_fill_");
    Operand x = call.In(self), m = call.InAs(mask, at::kBool), o = call.Out(result);
    nerva::MaskedFillOption option;
    option.value = value.toDouble();
    call.Run(
        nerva::MaskedFill::Create(GetQueue(), option, x.opt, x.buf, m.opt, m.buf, o.opt, o.buf));
  }
  DeviceCopy(self, result, "masked_fill_");
  return self;
}

at::Tensor& MaskedFillTensor(at::Tensor& self, const at::Tensor& mask, const at::Tensor& value) {
  TORCH_CHECK(value.dim() == 0, "nerva_torch: masked_fill_ only supports a 0-dimension value");
  return MaskedFill(self, mask, value.item());
}

// ---------------------------------------------------------------- random

std::tuple<at::Tensor, at::Tensor> NativeDropout(const at::Tensor& input, double p,
                                                 c10::optional<bool> train) {
  CheckFloat(input, "native_dropout");
  at::Tensor mask = Empty(input.sizes(), at::kBool);
  if (!train.value_or(true) || p == 0.0 || input.numel() == 0) {
    mask.fill_(true);
    at::Tensor out = EmptyLike(input);
    DeviceCopy(out, input, "native_dropout");
    return {out, mask};
  }
  at::Tensor out = EmptyLike(input);
  Call call("native_dropout");
  Operand x = call.In(input), o = call.Out(out), m = call.Out(mask);
  nerva::DropoutTrainOption option;
  option.p = static_cast<float>(p);
  call.Run(
      nerva::DropoutTrain::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf, m.opt, m.buf));
  return {out, mask};
}

at::Tensor NativeDropoutBackward(const at::Tensor& grad, const at::Tensor& mask, double scale) {
  return at::mul(at::mul(grad, mask), scale);
}

// A contiguous fill drawn from the device generator.
template <typename Make>
at::Tensor& RandomFill(at::Tensor& self, const char* name, Make&& make) {
  CheckFloat(self, name);
  if (self.numel() == 0) return self;
  at::Tensor target = self.is_contiguous() ? self : EmptyLike(self);
  {
    Call call(name);
    Operand o = call.Out(target);
    call.Run(make(o));
  }
  if (!target.is_same(self)) DeviceCopy(self, target, name);
  return self;
}

at::Tensor& Uniform(at::Tensor& self, double from, double to,
                    c10::optional<at::Generator> generator) {
  return RandomFill(self, "uniform_", [&](Operand& o) {
    nerva::RandOption option;
    option.low = static_cast<float>(from);
    option.high = static_cast<float>(to);
    return nerva::Rand::Create(GetQueue(), option, o.opt, o.buf);
  });
}

// Bernoulli draws from a probability tensor of self's shape.
at::Tensor& BernoulliFrom(at::Tensor& self, const at::Tensor& probability) {
  return RandomFill(self, "bernoulli_", [&](Operand& o) {
    Call call("bernoulli_");
    Operand p = call.In(probability);
    return nerva::Bernoulli::Create(GetQueue(), nerva::BernoulliOption(), p.opt, p.buf, o.opt,
                                    o.buf);
  });
}
at::Tensor& BernoulliFloat(at::Tensor& self, double p, c10::optional<at::Generator> generator) {
  CheckFloat(self, "bernoulli_");
  return BernoulliFrom(self, at::full(self.sizes(), p, self.options()));
}
at::Tensor& BernoulliTensor(at::Tensor& self, const at::Tensor& p,
                            c10::optional<at::Generator> generator) {
  CheckFloat(self, "bernoulli_");
  return BernoulliFrom(self,
                       p.to(self.device(), self.scalar_type()).expand(self.sizes()).contiguous());
}
at::Tensor BernoulliOf(const at::Tensor& self, c10::optional<at::Generator> generator) {
  at::Tensor out = EmptyLike(self);
  CheckFloat(self, "bernoulli");
  return BernoulliFrom(out, self.contiguous());
}

at::Tensor& Normal(at::Tensor& self, double mean, double std,
                   c10::optional<at::Generator> generator) {
  return RandomFill(self, "normal_", [&](Operand& o) {
    nerva::RandNOption option;
    option.mean = static_cast<float>(mean);
    option.std = static_cast<float>(std);
    return nerva::RandN::Create(GetQueue(), option, o.opt, o.buf);
  });
}

// ---------------------------------------------------------------- scans, sorting, search

at::Tensor Cumsum(const at::Tensor& self, int64_t dim, c10::optional<at::ScalarType> dtype) {
  const auto type = SumType(self, dtype);
  at::Tensor out = Empty(self.sizes(), type);
  if (out.numel() == 0) return out;
  Call call("cumsum");
  Operand x = call.InAs(self, type), o = call.Out(out);
  nerva::CumsumOption option;
  option.dim = static_cast<int>(at::maybe_wrap_dim(dim, std::max<int64_t>(self.dim(), 1)));
  call.Run(nerva::Cumsum::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  return out;
}
at::Tensor& CumsumOut(const at::Tensor& self, int64_t dim, c10::optional<at::ScalarType> dtype,
                      at::Tensor& out) {
  return ToOut(out, Cumsum(self, dim, dtype), "cumsum.out");
}

std::vector<int64_t> ReducedSizes(const at::Tensor& self, int64_t dim, bool keepdim) {
  std::vector<int64_t> sizes = self.sizes().vec();
  if (self.dim() == 0) return sizes;
  if (keepdim)
    sizes[dim] = 1;
  else
    sizes.erase(sizes.begin() + dim);
  return sizes;
}

at::Tensor Argmax(const at::Tensor& self, c10::optional<int64_t> dim, bool keepdim) {
  ToNervaType(self.scalar_type(), "argmax");
  at::Tensor input = dim ? self : self.reshape({-1});
  TORCH_CHECK(input.numel() > 0, "nerva_torch: argmax: expected a non-empty input");
  const int64_t d = dim ? at::maybe_wrap_dim(*dim, std::max<int64_t>(self.dim(), 1)) : 0;
  at::Tensor out = Empty(dim ? ReducedSizes(input, d, keepdim) : std::vector<int64_t>{}, at::kLong);
  if (!dim && keepdim) out = Empty(std::vector<int64_t>(self.dim(), 1), at::kLong);
  Call call("argmax");
  Operand x = call.In(input),
          o = call.Out(
              out.view(input.dim() == 0 ? std::vector<int64_t>{} : ReducedSizes(input, d, true)));
  nerva::ArgMaxOption option;
  option.dim = static_cast<int>(d);
  option.keepdim = true;
  call.Run(nerva::ArgMax::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  return out;
}

template <nerva::ReduceType kOp>
std::tuple<at::Tensor, at::Tensor> MaxMinDim(const at::Tensor& self, int64_t dim, bool keepdim) {
  const char* name = kOp == nerva::ReduceType::kMax ? "max.dim" : "min.dim";
  ToNervaType(self.scalar_type(), name);
  const int64_t d = at::maybe_wrap_dim(dim, std::max<int64_t>(self.dim(), 1));
  TORCH_CHECK(self.dim() == 0 || self.size(d) > 0, "nerva_torch: ", name,
              ": cannot reduce an empty dimension");
  at::Tensor values = Empty(ReducedSizes(self, d, keepdim), self.scalar_type());
  at::Tensor indices = Empty(ReducedSizes(self, d, keepdim), at::kLong);
  if (values.numel() == 0) return {values, indices};
  Call call(name);
  Operand x = call.In(self), v = call.Out(values), i = call.Out(indices);
  nerva::ReduceWithIndicesOption option;
  option.op_type = kOp;
  option.dim = static_cast<int>(d);
  option.keepdim = keepdim;
  call.Run(nerva::ReduceWithIndices::Create(GetQueue(), option, x.opt, x.buf, v.opt, v.buf, i.opt,
                                            i.buf));
  return {values, indices};
}

template <nerva::ReduceType kOp>
at::Tensor AmaxAmin(const at::Tensor& self, at::IntArrayRef dim, bool keepdim) {
  const char* name = kOp == nerva::ReduceType::kMax ? "amax" : "amin";
  TORCH_CHECK(self.numel() > 0, "nerva_torch: ", name, ": expected a non-empty input");
  return ReduceDims(name, kOp, self, DimList(self, dim), keepdim, self.scalar_type());
}

template <nerva::ReduceType kOp>
at::Tensor MaxMinAll(const at::Tensor& self) {
  return AmaxAmin<kOp>(self, {}, false);
}

int64_t BitonicExtended(int64_t length) {
  int stages = 0;
  while ((int64_t{1} << (stages + 1)) < length) ++stages;  // max(ceil(log2(length / 2)), 0)
  return int64_t{1} << (stages + 1);
}

std::tuple<at::Tensor, at::Tensor> Sort(const at::Tensor& self, c10::optional<bool> stable,
                                        int64_t dim, bool descending) {
  ToNervaType(self.scalar_type(), "sort");
  at::Tensor input = self.contiguous();
  at::Tensor values = EmptyLike(input), indices = Empty(input.sizes(), at::kLong);
  if (input.numel() == 0) return {values, indices};
  if (input.dim() == 0) {
    DeviceCopy(values, input, "sort");
    indices.zero_();
    return {values, indices};
  }
  const int64_t d = at::maybe_wrap_dim(dim, input.dim());
  std::vector<int64_t> temp_sizes = input.sizes().vec();
  temp_sizes[d] = BitonicExtended(input.size(d));
  at::Tensor temp = Empty(temp_sizes, input.scalar_type());
  at::Tensor temp_indices = Empty(temp_sizes, at::kLong);
  Call call("sort");
  Operand x = call.In(input), t = call.Out(temp), v = call.Out(values);
  Operand ti = call.Out(temp_indices), i = call.Out(indices);
  nerva::BitonicSortOption option;
  option.dim = static_cast<int>(d);
  option.descending = descending;
  call.Run(nerva::BitonicSort::Create(GetQueue(), option, x.opt, x.buf, t.opt, t.buf, v.opt, v.buf,
                                      ti.opt, ti.buf, i.opt, i.buf));
  return {values, indices};
}

std::tuple<at::Tensor, at::Tensor> Topk(const at::Tensor& self, int64_t k, int64_t dim,
                                        bool largest, bool sorted) {
  ToNervaType(self.scalar_type(), "topk");
  const int64_t d = at::maybe_wrap_dim(dim, std::max<int64_t>(self.dim(), 1));
  TORCH_CHECK(k >= 0 && k <= (self.dim() ? self.size(d) : 1), "nerva_torch: topk: k ", k,
              " out of range");
  std::vector<int64_t> sizes = self.sizes().vec();
  if (self.dim()) sizes[d] = k;
  at::Tensor values = Empty(sizes, self.scalar_type()), indices = Empty(sizes, at::kLong);
  if (values.numel() == 0) return {values, indices};
  Call call("topk");
  Operand x = call.In(self), v = call.Out(values), i = call.Out(indices);
  nerva::TopKOption option;
  option.k = k;
  option.dim = static_cast<int>(d);
  option.largest = largest;
  option.sorted = sorted;
  call.Run(nerva::TopK::Create(GetQueue(), option, x.opt, x.buf, v.opt, v.buf, i.opt, i.buf));
  return {values, indices};
}

at::Tensor& ArangeOut(const at::Scalar& start, const at::Scalar& end, const at::Scalar& step,
                      at::Tensor& out) {
  const double s = start.toDouble(), e = end.toDouble(), st = step.toDouble();
  TORCH_CHECK(st != 0.0, "nerva_torch: arange: step must be nonzero");
  TORCH_CHECK((st > 0 && e >= s) || (st < 0 && e <= s),
              "nerva_torch: arange: upper bound and larger bound inconsistent with step sign");
  const int64_t n = static_cast<int64_t>(std::ceil((e - s) / st));
  if (out.numel() != n || out.dim() != 1) out.resize_({n});
  if (n == 0) return out;
  at::Tensor target = out.is_contiguous() ? out : Empty({n}, out.scalar_type());
  {
    Call call("arange");
    Operand o = call.Out(target);
    nerva::ARangeOption option;
    option.start = s;
    option.end = e;
    option.step = st;
    call.Run(nerva::ARange::Create(GetQueue(), option, o.opt, o.buf));
  }
  if (!target.is_same(out)) DeviceCopy(out, target, "arange");
  return out;
}

at::Tensor& LinspaceOut(const at::Scalar& start, const at::Scalar& end, int64_t steps,
                        at::Tensor& out) {
  TORCH_CHECK(steps >= 0, "nerva_torch: linspace: number of steps must be non-negative");
  if (out.numel() != steps || out.dim() != 1) out.resize_({steps});
  if (steps == 0) return out;
  at::Tensor target = out.is_contiguous() ? out : Empty({steps}, out.scalar_type());
  {
    Call call("linspace");
    Operand o = call.Out(target);
    nerva::LinspaceOption option;
    option.start = start.toDouble();
    option.end = end.toDouble();
    option.steps = steps;
    call.Run(nerva::Linspace::Create(GetQueue(), option, o.opt, o.buf));
  }
  if (!target.is_same(out)) DeviceCopy(out, target, "linspace");
  return out;
}

void RegisterSearch(torch::Library& m) {
  m.impl("cumsum", TORCH_FN(Cumsum));
  m.impl("cumsum.out", TORCH_FN(CumsumOut));
  m.impl("argmax", TORCH_FN(Argmax));
  m.impl("max.dim", TORCH_FN(MaxMinDim<nerva::ReduceType::kMax>));
  m.impl("min.dim", TORCH_FN(MaxMinDim<nerva::ReduceType::kMin>));
  m.impl("max", TORCH_FN(MaxMinAll<nerva::ReduceType::kMax>));
  m.impl("min", TORCH_FN(MaxMinAll<nerva::ReduceType::kMin>));
  m.impl("amax", TORCH_FN(AmaxAmin<nerva::ReduceType::kMax>));
  m.impl("amin", TORCH_FN(AmaxAmin<nerva::ReduceType::kMin>));
  m.impl("sort.stable", TORCH_FN(Sort));
  m.impl("topk", TORCH_FN(Topk));
  m.impl("arange.start_out", TORCH_FN(ArangeOut));
  m.impl("linspace.out", TORCH_FN(LinspaceOut));
}

void RegisterSoftmax(torch::Library& m) {
  m.impl("_softmax", TORCH_FN(SoftmaxFn<false>));
  m.impl("_softmax.out", TORCH_FN(SoftmaxOut<false>));
  m.impl("_log_softmax", TORCH_FN(SoftmaxFn<true>));
  m.impl("_log_softmax.out", TORCH_FN(SoftmaxOut<true>));
  m.impl("_softmax_backward_data", TORCH_FN(SoftmaxBackward<false>));
  m.impl("_softmax_backward_data.out", TORCH_FN(SoftmaxBackwardOut<false>));
  m.impl("_log_softmax_backward_data", TORCH_FN(SoftmaxBackward<true>));
  m.impl("_log_softmax_backward_data.out", TORCH_FN(SoftmaxBackwardOut<true>));
}

void RegisterLosses(torch::Library& m) {
  m.impl("nll_loss_forward", TORCH_FN(NllLossForward));
  m.impl("nll_loss_forward.output", TORCH_FN(NllLossForwardOut));
  m.impl("nll_loss_backward", TORCH_FN(NllLossBackward));
  m.impl("nll_loss_backward.grad_input", TORCH_FN(NllLossBackwardOut));
  m.impl("mse_loss", TORCH_FN(MseLoss));
  m.impl("mse_loss.out", TORCH_FN(MseLossOut));
  m.impl("mse_loss_backward", TORCH_FN(MseLossBackward));
  m.impl("mse_loss_backward.grad_input", TORCH_FN(MseLossBackwardOut));
}

void RegisterReductions(torch::Library& m) {
  m.impl("sum", TORCH_FN(Sum));
  m.impl("sum.dim_IntList", TORCH_FN(SumDim));
  m.impl("sum.IntList_out", TORCH_FN(SumOut));
  m.impl("mean", TORCH_FN(Mean));
  m.impl("mean.dim", TORCH_FN(MeanDim));
  m.impl("mean.out", TORCH_FN(MeanOut));
  m.impl("var.correction", TORCH_FN(VarCorrection));
  m.impl("var.correction_out", TORCH_FN(VarCorrectionOut));
  m.impl("var_mean.correction", TORCH_FN(VarMeanCorrection));
  m.impl("std.correction", TORCH_FN(StdCorrection));
}

void RegisterNorms(torch::Library& m) {
  m.impl("native_layer_norm", TORCH_FN(NativeLayerNorm));
  m.impl("native_layer_norm_backward", TORCH_FN(NativeLayerNormBackward));
  m.impl("native_batch_norm", TORCH_FN(NativeBatchNorm));
  m.impl("native_batch_norm_backward", TORCH_FN(NativeBatchNormBackward));
  m.impl("native_group_norm", TORCH_FN(NativeGroupNorm));
  m.impl("native_group_norm_backward", TORCH_FN(NativeGroupNormBackward));
}

void RegisterSelection(torch::Library& m) {
  m.impl("where.self", TORCH_FN(Where));
  m.impl("where.self_out", TORCH_FN(WhereOut));
  m.impl("masked_fill_.Scalar", TORCH_FN(MaskedFill));
  m.impl("masked_fill_.Tensor", TORCH_FN(MaskedFillTensor));
}

void RegisterRandom(torch::Library& m) {
  m.impl("native_dropout", TORCH_FN(NativeDropout));
  m.impl("native_dropout_backward", TORCH_FN(NativeDropoutBackward));
  m.impl("uniform_", TORCH_FN(Uniform));
  m.impl("normal_", TORCH_FN(Normal));
  m.impl("bernoulli_.float", TORCH_FN(BernoulliFloat));
  m.impl("bernoulli_.Tensor", TORCH_FN(BernoulliTensor));
  m.impl("bernoulli", TORCH_FN(BernoulliOf));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterSoftmax(m);
  RegisterLosses(m);
  RegisterReductions(m);
  RegisterNorms(m);
  RegisterSelection(m);
  RegisterRandom(m);
  RegisterSearch(m);
}

}  // namespace nerva_torch
