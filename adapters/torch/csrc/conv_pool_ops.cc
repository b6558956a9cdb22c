// Native kernels of the PyTorch backend, sliding windows: convolution through Im2col,
// matrix products and Col2im, and the 2-D pooling operators with their gradients.

#include <torch/library.h>

#include <array>
#include <tuple>
#include <vector>

#include "backend.h"
#include "nerva/kernel/nn.h"
#include "nerva/kernel/train.h"

namespace nerva_torch {

namespace {

void CheckFloat(const at::Tensor& t, const char* op) {
  ToNervaType(t.scalar_type(), op);
  TORCH_CHECK(at::isFloatingType(t.scalar_type()), "nerva_torch: ", op,
              ": expected a floating tensor, got ", t.scalar_type());
}

std::vector<long> Longs(at::IntArrayRef v) {
  return std::vector<long>(v.begin(), v.end());
}

// ---------------------------------------------------------------- convolution

// A 1-D or 2-D convolution seen as 2-D: (N, C, H, W) input, (O, C / groups, kh, kw)
// weight; a 1-D one gets a height of one.
struct Conv {
  at::Tensor input, weight;
  std::vector<long> stride, padding, dilation;
  int64_t n, c, h, w, o, kh, kw, oh, ow, groups;
  bool one_d;

  int64_t Blocks() const { return oh * ow; }
  int64_t GroupRows() const { return c / groups * kh * kw; }  // K of one group
  // A 1x1 window with unit steps and no padding: the columns are the input itself.
  bool Pointwise() const {
    return kh == 1 && kw == 1 && stride == std::vector<long>{1, 1} &&
           padding == std::vector<long>{0, 0};
  }
};

std::vector<long> Pair(at::IntArrayRef v, long fill, bool one_d) {
  if (one_d) return {fill, v.empty() ? fill : static_cast<long>(v[0])};
  if (v.size() == 1) return {static_cast<long>(v[0]), static_cast<long>(v[0])};
  return Longs(v);
}

// Whether nerva's kernels take this convolution (1-D or 2-D, plain or transposed);
// the rest goes through the host.
bool NativeConv(const at::Tensor& input, const at::Tensor& weight) {
  return (input.dim() == 3 || input.dim() == 4) && input.dim() == weight.dim();
}

Conv MakeConv(const char* name, const at::Tensor& input, const at::Tensor& weight,
              at::IntArrayRef stride, at::IntArrayRef padding, at::IntArrayRef dilation,
              int64_t groups) {
  CheckFloat(input, name);
  Conv cv;
  cv.one_d = input.dim() == 3;
  cv.input = cv.one_d ? input.unsqueeze(2) : input;
  cv.weight = cv.one_d ? weight.unsqueeze(2) : weight;
  cv.stride = Pair(stride, 1, cv.one_d);
  cv.padding = Pair(padding, 0, cv.one_d);
  cv.dilation = Pair(dilation, 1, cv.one_d);
  cv.n = cv.input.size(0), cv.c = cv.input.size(1), cv.h = cv.input.size(2);
  cv.w = cv.input.size(3), cv.o = cv.weight.size(0), cv.kh = cv.weight.size(2);
  cv.kw = cv.weight.size(3), cv.groups = groups;
  TORCH_CHECK(
      groups > 0 && cv.c % groups == 0 && cv.o % groups == 0 && cv.weight.size(1) * groups == cv.c,
      "nerva_torch: ", name, ": input ", input.sizes(), " and weight ", weight.sizes(),
      " do not match with groups=", groups);
  TORCH_CHECK(cv.input.scalar_type() == cv.weight.scalar_type(), "nerva_torch: ", name,
              ": input type ", cv.input.scalar_type(), " and weight type ", cv.weight.scalar_type(),
              " differ");
  auto out_size = [](int64_t in, long k, long s, long p, long d) {
    return (in + 2 * p - d * (k - 1) - 1) / s + 1;
  };
  cv.oh = out_size(cv.h, cv.kh, cv.stride[0], cv.padding[0], cv.dilation[0]);
  cv.ow = out_size(cv.w, cv.kw, cv.stride[1], cv.padding[1], cv.dilation[1]);
  TORCH_CHECK(cv.oh > 0 && cv.ow > 0, "nerva_torch: ", name, ": input ", input.sizes(),
              " is smaller than the kernel ", weight.sizes());
  return cv;
}

// The image's sliding blocks as (N, C * kh * kw, oh * ow) columns.
at::Tensor Columns(const char* name, const Conv& cv, const at::Tensor& image) {
  if (cv.Pointwise()) return image.reshape({cv.n, cv.c, cv.Blocks()});
  at::Tensor cols = Empty({cv.n, cv.c * cv.kh * cv.kw, cv.Blocks()}, image.scalar_type());
  if (cols.numel() == 0) return cols;
  Call call(name);
  Operand x = call.In(image), o = call.Out(cols);
  nerva::Im2colOption option;
  option.kernel_size = {cv.kh, cv.kw};
  option.dilation = cv.dilation;
  option.padding = cv.padding;
  option.stride = cv.stride;
  call.Run(nerva::Im2col::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  return cols;
}

// Sums (N, C * kh * kw, oh * ow) columns back into the (N, C, H, W) image.
void FoldInto(const char* name, const Conv& cv, const at::Tensor& cols, const at::Tensor& image) {
  Call call(name);
  Operand x = call.In(cols), o = call.Out(image);
  nerva::Col2imOption option;
  option.output_size = {cv.h, cv.w};
  option.kernel_size = {cv.kh, cv.kw};
  option.dilation = cv.dilation;
  option.padding = cv.padding;
  option.stride = cv.stride;
  call.Run(nerva::Col2im::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
}

at::Tensor Unsqueezed(const Conv& cv, const at::Tensor& t) {
  return cv.one_d ? t.squeeze(2) : t;
}

// The host route, for 3-D convolutions.
at::Tensor ToDevice(const at::Tensor& t) {
  return t.defined() ? t.to(Device()) : t;
}

at::Tensor ConvForward(const char* name, const at::Tensor& input, const at::Tensor& weight,
                       const c10::optional<at::Tensor>& bias, at::IntArrayRef stride,
                       at::IntArrayRef padding, at::IntArrayRef dilation, int64_t groups);
std::tuple<at::Tensor, at::Tensor, at::Tensor> ConvBackward(
    const char* name, const at::Tensor& grad, const at::Tensor& input, const at::Tensor& weight,
    at::IntArrayRef stride, at::IntArrayRef padding, at::IntArrayRef dilation, int64_t groups,
    std::array<bool, 3> output_mask);

// A transposed convolution is the input gradient of the plain convolution that maps its
// output back to its input (same weight, steps and padding): its forward runs that
// gradient, and its gradients run that convolution's forward and weight gradient.
at::Tensor TransposedForward(const at::Tensor& input, const at::Tensor& weight,
                             const c10::optional<at::Tensor>& bias, at::IntArrayRef stride,
                             at::IntArrayRef padding, at::IntArrayRef dilation,
                             at::IntArrayRef output_padding, int64_t groups) {
  const char* name = "convolution_overrideable";
  const bool one_d = input.dim() == 3;
  const auto s = Pair(stride, 1, one_d), p = Pair(padding, 0, one_d);
  const auto d = Pair(dilation, 1, one_d), op = Pair(output_padding, 0, one_d);
  std::vector<int64_t> sizes = {input.size(0), weight.size(1) * groups};
  const int64_t spatial = input.dim() - 2;
  for (int64_t j = 0; j < spatial; ++j) {
    const size_t i = static_cast<size_t>(j + 2 - spatial);  // entry of the two-entry lists
    const int64_t in = input.size(2 + j), k = weight.size(2 + j);
    sizes.push_back((in - 1) * s[i] - 2 * p[i] + d[i] * (k - 1) + op[i] + 1);
  }
  const at::Tensor shape_only = Empty(sizes, input.scalar_type());  // only its sizes are read
  at::Tensor out = std::get<0>(ConvBackward(name, input, shape_only, weight, stride, padding,
                                            dilation, groups, {true, false, false}));
  if (bias && bias->defined()) {
    std::vector<int64_t> view(out.dim(), 1);
    view[1] = out.size(1);
    out.add_(bias->view(view));
  }
  return out;
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> TransposedBackward(
    const at::Tensor& grad, const at::Tensor& input, const at::Tensor& weight,
    at::IntArrayRef stride, at::IntArrayRef padding, at::IntArrayRef dilation, int64_t groups,
    std::array<bool, 3> output_mask) {
  const char* name = "convolution_backward_overrideable";
  at::Tensor grad_input, grad_weight, grad_bias;
  if (output_mask[0]) {
    grad_input = ConvForward(name, grad, weight, c10::nullopt, stride, padding, dilation, groups);
  }
  if (output_mask[1]) {
    grad_weight = std::get<1>(ConvBackward(name, input, grad, weight, stride, padding, dilation,
                                           groups, {false, true, false}));
  }
  if (output_mask[2]) {
    grad_bias =
        at::sum(grad, grad.dim() == 3 ? std::vector<int64_t>{0, 2} : std::vector<int64_t>{0, 2, 3});
  }
  return {grad_input, grad_weight, grad_bias};
}

at::Tensor ConvolutionOverrideable(const at::Tensor& input, const at::Tensor& weight,
                                   const c10::optional<at::Tensor>& bias, at::IntArrayRef stride,
                                   at::IntArrayRef padding, at::IntArrayRef dilation,
                                   bool transposed, at::IntArrayRef output_padding,
                                   int64_t groups) {
  const char* name = "convolution_overrideable";
  if (!NativeConv(input, weight)) {
    NoteFallback("aten::convolution_overrideable");
    c10::optional<at::Tensor> host_bias;
    if (bias && bias->defined()) host_bias = bias->cpu();
    return ToDevice(at::convolution(input.cpu(), weight.cpu(), host_bias, stride, padding, dilation,
                                    transposed, output_padding, groups));
  }
  if (transposed) {
    return TransposedForward(input, weight, bias, stride, padding, dilation, output_padding,
                             groups);
  }
  return ConvForward(name, input, weight, bias, stride, padding, dilation, groups);
}

at::Tensor ConvForward(const char* name, const at::Tensor& input, const at::Tensor& weight,
                       const c10::optional<at::Tensor>& bias, at::IntArrayRef stride,
                       at::IntArrayRef padding, at::IntArrayRef dilation, int64_t groups) {
  const Conv cv = MakeConv(name, input, weight, stride, padding, dilation, groups);
  at::Tensor out = Empty({cv.n, cv.o, cv.oh, cv.ow}, input.scalar_type());
  if (out.numel() == 0) return Unsqueezed(cv, out);
  const at::Tensor cols = Columns(name, cv, cv.input);
  const at::Tensor out3 = out.view({cv.n, cv.o, cv.Blocks()});
  const at::Tensor w2 = cv.weight.reshape({cv.o, cv.GroupRows()});
  const int64_t og = cv.o / groups, k = cv.GroupRows();
  const bool has_bias = bias && bias->defined();
  for (int64_t g = 0; g < groups; ++g) {
    at::Tensor a = w2.narrow(0, g * og, og).expand({cv.n, og, k});
    at::Tensor b = cols.narrow(1, g * k, k);
    at::Tensor dst = out3.narrow(1, g * og, og);
    if (has_bias) {
      at::Tensor bias_g = bias->narrow(0, g * og, og).view({og, 1});
      GemmInto(name, a, b, &bias_g, 1.0f, 1.0f, dst);
    } else {
      GemmInto(name, a, b, nullptr, 0.0f, 1.0f, dst);
    }
  }
  return Unsqueezed(cv, out);
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> ConvolutionBackwardOverrideable(
    const at::Tensor& grad, const at::Tensor& input, const at::Tensor& weight,
    at::IntArrayRef stride, at::IntArrayRef padding, at::IntArrayRef dilation, bool transposed,
    at::IntArrayRef output_padding, int64_t groups, std::array<bool, 3> output_mask) {
  const char* name = "convolution_backward_overrideable";
  if (!NativeConv(input, weight)) {
    NoteFallback("aten::convolution_backward_overrideable");
    std::vector<int64_t> bias_sizes{weight.size(transposed ? 1 : 0) * (transposed ? groups : 1)};
    auto result = at::convolution_backward(grad.cpu(), input.cpu(), weight.cpu(),
                                           at::IntArrayRef(bias_sizes), stride, padding, dilation,
                                           transposed, output_padding, groups, output_mask);
    return {ToDevice(std::get<0>(result)), ToDevice(std::get<1>(result)),
            ToDevice(std::get<2>(result))};
  }
  if (transposed) {
    return TransposedBackward(grad, input, weight, stride, padding, dilation, groups, output_mask);
  }
  return ConvBackward(name, grad, input, weight, stride, padding, dilation, groups, output_mask);
}

std::tuple<at::Tensor, at::Tensor, at::Tensor> ConvBackward(
    const char* name, const at::Tensor& grad, const at::Tensor& input, const at::Tensor& weight,
    at::IntArrayRef stride, at::IntArrayRef padding, at::IntArrayRef dilation, int64_t groups,
    std::array<bool, 3> output_mask) {
  const Conv cv = MakeConv(name, input, weight, stride, padding, dilation, groups);
  const int64_t og = cv.o / groups, k = cv.GroupRows();
  const at::Tensor g3 = grad.reshape({cv.n, cv.o, cv.Blocks()});
  const at::Tensor w2 = cv.weight.reshape({cv.o, k});
  at::Tensor grad_input, grad_weight, grad_bias;
  if (output_mask[0]) {
    // Columns of the input gradient: W_g^T @ grad_g, folded back into the image.
    grad_input = Empty(cv.input.sizes(), input.scalar_type());
    at::Tensor gcols = cv.Pointwise()
                           ? grad_input.view({cv.n, cv.c, cv.Blocks()})
                           : Empty({cv.n, cv.c * cv.kh * cv.kw, cv.Blocks()}, input.scalar_type());
    if (grad_input.numel() > 0) {
      for (int64_t g = 0; g < groups; ++g) {
        at::Tensor a = w2.narrow(0, g * og, og).t().expand({cv.n, k, og});
        GemmInto(name, a, g3.narrow(1, g * og, og), nullptr, 0.0f, 1.0f, gcols.narrow(1, g * k, k));
      }
      if (!cv.Pointwise()) FoldInto(name, cv, gcols, grad_input);
    }
    grad_input = Unsqueezed(cv, grad_input);
  }
  if (output_mask[1]) {
    // Per sample grad_g @ cols_g^T, summed over the batch.
    const at::Tensor cols = Columns(name, cv, cv.input);
    at::Tensor gw2 = Empty({cv.o, k}, weight.scalar_type());
    for (int64_t g = 0; g < groups; ++g) {
      at::Tensor dst = gw2.narrow(0, g * og, og);
      at::Tensor per_sample =
          cv.n == 1 ? dst.unsqueeze(0) : Empty({cv.n, og, k}, dst.scalar_type());
      GemmInto(name, g3.narrow(1, g * og, og), cols.narrow(1, g * k, k).transpose(1, 2), nullptr,
               0.0f, 1.0f, per_sample);
      if (cv.n != 1) DeviceCopy(dst, at::sum(per_sample, 0), name);
    }
    grad_weight = gw2.view(weight.sizes());
  }
  if (output_mask[2])
    grad_bias =
        at::sum(grad, cv.one_d ? std::vector<int64_t>{0, 2} : std::vector<int64_t>{0, 2, 3});
  return {grad_input, grad_weight, grad_bias};
}

// ---------------------------------------------------------------- pooling

std::vector<long> Window(at::IntArrayRef v, const std::vector<long>& fallback) {
  if (v.empty()) return fallback;
  if (v.size() == 1) return {static_cast<long>(v[0]), static_cast<long>(v[0])};
  return Longs(v);
}

int64_t PooledSize(int64_t in, long k, long s, long p, long d, bool ceil_mode) {
  int64_t out = (in + 2 * p - d * (k - 1) - 1 + (ceil_mode ? s - 1 : 0)) / s + 1;
  if (ceil_mode && (out - 1) * s >= in + p) --out;
  return out;
}

// The pooled shape of an (N, C, H, W) or (C, H, W) input.
std::vector<int64_t> PooledShape(const char* name, const at::Tensor& self,
                                 const std::vector<long>& k, const std::vector<long>& s,
                                 const std::vector<long>& p, const std::vector<long>& d,
                                 bool ceil_mode) {
  TORCH_CHECK(self.dim() == 3 || self.dim() == 4, "nerva_torch: ", name,
              ": expected a 3-D or 4-D input, got ", self.sizes());
  TORCH_CHECK(k.size() == 2 && s.size() == 2 && p.size() == 2 && d.size() == 2,
              "nerva_torch: ", name, ": window lists need one or two entries");
  std::vector<int64_t> sizes = self.sizes().vec();
  const int64_t hd = self.dim() - 2;
  for (int i = 0; i < 2; ++i) {
    TORCH_CHECK(k[i] > 0 && s[i] > 0 && d[i] > 0 && p[i] >= 0 && p[i] * 2 <= k[i],
                "nerva_torch: ", name, ": bad window (kernel ", k[i], ", stride ", s[i],
                ", padding ", p[i], ", dilation ", d[i], ")");
    sizes[hd + i] = PooledSize(self.size(hd + i), k[i], s[i], p[i], d[i], ceil_mode);
    TORCH_CHECK(sizes[hd + i] > 0, "nerva_torch: ", name, ": input ", self.sizes(),
                " is too small for the window");
  }
  return sizes;
}

nerva::MaxPool2DOption MaxOption(at::IntArrayRef kernel, at::IntArrayRef stride,
                                 at::IntArrayRef padding, at::IntArrayRef dilation,
                                 bool ceil_mode) {
  nerva::MaxPool2DOption option;
  option.kernel_size = Window(kernel, {});
  option.stride = Window(stride, option.kernel_size);
  option.padding = Window(padding, {0, 0});
  option.dilation = Window(dilation, {1, 1});
  option.ceil_mode = ceil_mode;
  return option;
}

std::tuple<at::Tensor, at::Tensor> MaxPool2dWithIndices(const at::Tensor& self,
                                                        at::IntArrayRef kernel,
                                                        at::IntArrayRef stride,
                                                        at::IntArrayRef padding,
                                                        at::IntArrayRef dilation, bool ceil_mode) {
  const char* name = "max_pool2d_with_indices";
  CheckFloat(self, name);
  const auto option = MaxOption(kernel, stride, padding, dilation, ceil_mode);
  const auto sizes = PooledShape(name, self, option.kernel_size, option.stride, option.padding,
                                 option.dilation, ceil_mode);
  at::Tensor out = Empty(sizes, self.scalar_type()), indices = Empty(sizes, at::kLong);
  if (out.numel() == 0) return {out, indices};
  Call call(name);
  Operand x = call.In(self), o = call.Out(out), i = call.Out(indices);
  call.Run(nerva::MaxPool2D::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf, i.opt, i.buf));
  return {out, indices};
}

std::tuple<at::Tensor&, at::Tensor&> MaxPool2dWithIndicesOut(
    const at::Tensor& self, at::IntArrayRef kernel, at::IntArrayRef stride, at::IntArrayRef padding,
    at::IntArrayRef dilation, bool ceil_mode, at::Tensor& out, at::Tensor& indices) {
  auto result = MaxPool2dWithIndices(self, kernel, stride, padding, dilation, ceil_mode);
  ToOut(out, std::get<0>(result), "max_pool2d_with_indices.out");
  ToOut(indices, std::get<1>(result), "max_pool2d_with_indices.out");
  return {out, indices};
}

// Gradients of the pooling operators: a zeroed input-shaped gradient filled by `make`.
template <typename Make>
at::Tensor PoolGrad(const char* name, const at::Tensor& grad, const at::Tensor& self, Make&& make) {
  CheckFloat(grad, name);
  at::Tensor grad_input = Empty(self.sizes(), grad.scalar_type());
  if (grad_input.numel() == 0) return grad_input;
  if (grad.numel() == 0) return grad_input.zero_();
  Call call(name);
  Operand g = call.In(grad), o = call.Out(grad_input);
  call.Run(make(call, g, o));
  return grad_input;
}

at::Tensor MaxPool2dWithIndicesBackward(const at::Tensor& grad, const at::Tensor& self,
                                        at::IntArrayRef kernel, at::IntArrayRef stride,
                                        at::IntArrayRef padding, at::IntArrayRef dilation,
                                        bool ceil_mode, const at::Tensor& indices) {
  const char* name = "max_pool2d_with_indices_backward";
  nerva::MaxPool2DWithIndicesBackwardOption option;
  static_cast<nerva::MaxPool2DOption&>(option) =
      MaxOption(kernel, stride, padding, dilation, ceil_mode);
  return PoolGrad(name, grad, self, [&](Call& call, Operand& g, Operand& o) {
    Operand i = call.In(indices);
    return nerva::MaxPool2DWithIndicesBackward::Create(GetQueue(), option, g.opt, g.buf, i.opt,
                                                       i.buf, o.opt, o.buf);
  });
}

at::Tensor& MaxPool2dWithIndicesBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                                            at::IntArrayRef kernel, at::IntArrayRef stride,
                                            at::IntArrayRef padding, at::IntArrayRef dilation,
                                            bool ceil_mode, const at::Tensor& indices,
                                            at::Tensor& out) {
  return ToOut(out,
               MaxPool2dWithIndicesBackward(grad, self, kernel, stride, padding, dilation,
                                            ceil_mode, indices),
               "max_pool2d_with_indices_backward.grad_input");
}

nerva::AvgPool2DOption AvgOption(at::IntArrayRef kernel, at::IntArrayRef stride,
                                 at::IntArrayRef padding, bool ceil_mode, bool count_include_pad,
                                 c10::optional<int64_t> divisor_override) {
  nerva::AvgPool2DOption option;
  option.kernel_size = Window(kernel, {});
  option.stride = Window(stride, option.kernel_size);
  option.padding = Window(padding, {0, 0});
  option.ceil_mode = ceil_mode;
  option.count_include_pad = count_include_pad;
  option.divisor_override = divisor_override.value_or(0);
  TORCH_CHECK(!divisor_override || *divisor_override != 0,
              "nerva_torch: avg_pool2d: divisor must be not zero");
  return option;
}

at::Tensor AvgPool2d(const at::Tensor& self, at::IntArrayRef kernel, at::IntArrayRef stride,
                     at::IntArrayRef padding, bool ceil_mode, bool count_include_pad,
                     c10::optional<int64_t> divisor_override) {
  const char* name = "avg_pool2d";
  CheckFloat(self, name);
  const auto option =
      AvgOption(kernel, stride, padding, ceil_mode, count_include_pad, divisor_override);
  const auto sizes =
      PooledShape(name, self, option.kernel_size, option.stride, option.padding, {1, 1}, ceil_mode);
  at::Tensor out = Empty(sizes, self.scalar_type());
  if (out.numel() == 0) return out;
  Call call(name);
  Operand x = call.In(self), o = call.Out(out);
  call.Run(nerva::AvgPool2D::Create(GetQueue(), option, x.opt, x.buf, o.opt, o.buf));
  return out;
}

at::Tensor& AvgPool2dOut(const at::Tensor& self, at::IntArrayRef kernel, at::IntArrayRef stride,
                         at::IntArrayRef padding, bool ceil_mode, bool count_include_pad,
                         c10::optional<int64_t> divisor_override, at::Tensor& out) {
  return ToOut(
      out, AvgPool2d(self, kernel, stride, padding, ceil_mode, count_include_pad, divisor_override),
      "avg_pool2d.out");
}

at::Tensor AvgPool2dBackward(const at::Tensor& grad, const at::Tensor& self, at::IntArrayRef kernel,
                             at::IntArrayRef stride, at::IntArrayRef padding, bool ceil_mode,
                             bool count_include_pad, c10::optional<int64_t> divisor_override) {
  nerva::AvgPool2DBackwardOption option;
  static_cast<nerva::AvgPool2DOption&>(option) =
      AvgOption(kernel, stride, padding, ceil_mode, count_include_pad, divisor_override);
  return PoolGrad("avg_pool2d_backward", grad, self, [&](Call&, Operand& g, Operand& o) {
    return nerva::AvgPool2DBackward::Create(GetQueue(), option, g.opt, g.buf, o.opt, o.buf);
  });
}

at::Tensor& AvgPool2dBackwardOut(const at::Tensor& grad, const at::Tensor& self,
                                 at::IntArrayRef kernel, at::IntArrayRef stride,
                                 at::IntArrayRef padding, bool ceil_mode, bool count_include_pad,
                                 c10::optional<int64_t> divisor_override, at::Tensor& out) {
  return ToOut(out,
               AvgPool2dBackward(grad, self, kernel, stride, padding, ceil_mode, count_include_pad,
                                 divisor_override),
               "avg_pool2d_backward.grad_input");
}

at::Tensor AdaptiveAvgPool2d(const at::Tensor& self, c10::SymIntArrayRef output_size) {
  const char* name = "_adaptive_avg_pool2d";
  CheckFloat(self, name);
  auto size = c10::asIntArrayRefSlow(output_size);
  TORCH_CHECK((self.dim() == 3 || self.dim() == 4) && size.size() == 2, "nerva_torch: ", name,
              ": expected a 3-D or 4-D input and two output sizes, got ", self.sizes(), " and ",
              size);
  std::vector<int64_t> sizes = self.sizes().vec();
  sizes[self.dim() - 2] = size[0];
  sizes[self.dim() - 1] = size[1];
  at::Tensor out = Empty(sizes, self.scalar_type());
  if (out.numel() == 0) return out;
  TORCH_CHECK(self.numel() > 0, "nerva_torch: ", name, ": empty input ", self.sizes());
  Call call(name);
  Operand x = call.In(self), o = call.Out(out);
  call.Run(nerva::AdaptiveAvgPool2D::Create(GetQueue(), x.opt, x.buf, o.opt, o.buf));
  return out;
}

at::Tensor AdaptiveAvgPool2dBackward(const at::Tensor& grad, const at::Tensor& self) {
  return PoolGrad("_adaptive_avg_pool2d_backward", grad, self, [&](Call&, Operand& g, Operand& o) {
    return nerva::AdaptiveAvgPool2DBackward::Create(GetQueue(), g.opt, g.buf, o.opt, o.buf);
  });
}

std::tuple<at::Tensor, at::Tensor> AdaptiveMaxPool2d(const at::Tensor& self,
                                                     at::IntArrayRef output_size) {
  const char* name = "adaptive_max_pool2d";
  CheckFloat(self, name);
  TORCH_CHECK((self.dim() == 3 || self.dim() == 4) && output_size.size() == 2,
              "nerva_torch: ", name, ": expected a 3-D or 4-D input and two output sizes, got ",
              self.sizes(), " and ", output_size);
  std::vector<int64_t> sizes = self.sizes().vec();
  sizes[self.dim() - 2] = output_size[0];
  sizes[self.dim() - 1] = output_size[1];
  at::Tensor out = Empty(sizes, self.scalar_type()), indices = Empty(sizes, at::kLong);
  if (out.numel() == 0) return {out, indices};
  TORCH_CHECK(self.numel() > 0, "nerva_torch: ", name, ": empty input ", self.sizes());
  Call call(name);
  Operand x = call.In(self), o = call.Out(out), i = call.Out(indices);
  call.Run(nerva::AdaptiveMaxPool2D::Create(GetQueue(), x.opt, x.buf, o.opt, o.buf, i.opt, i.buf));
  return {out, indices};
}

// Each output's gradient added at the flat spatial index of its maximum (windows overlap).
at::Tensor AdaptiveMaxPool2dBackward(const at::Tensor& grad, const at::Tensor& self,
                                     const at::Tensor& indices) {
  CheckFloat(grad, "adaptive_max_pool2d_backward");
  const int64_t planes = self.numel() / std::max<int64_t>(self.size(-1) * self.size(-2), 1);
  at::Tensor grad_input = at::zeros(self.sizes(), grad.options());
  if (grad.numel() == 0 || grad_input.numel() == 0) return grad_input;
  grad_input.view({planes, -1})
      .scatter_add_(1, indices.reshape({planes, -1}), grad.reshape({planes, -1}));
  return grad_input;
}

void RegisterConvolution(torch::Library& m) {
  m.impl("convolution_overrideable", TORCH_FN(ConvolutionOverrideable));
  m.impl("convolution_backward_overrideable", TORCH_FN(ConvolutionBackwardOverrideable));
}

void RegisterPooling(torch::Library& m) {
  m.impl("max_pool2d_with_indices", TORCH_FN(MaxPool2dWithIndices));
  m.impl("max_pool2d_with_indices.out", TORCH_FN(MaxPool2dWithIndicesOut));
  m.impl("max_pool2d_with_indices_backward", TORCH_FN(MaxPool2dWithIndicesBackward));
  m.impl("max_pool2d_with_indices_backward.grad_input", TORCH_FN(MaxPool2dWithIndicesBackwardOut));
  m.impl("avg_pool2d", TORCH_FN(AvgPool2d));
  m.impl("avg_pool2d.out", TORCH_FN(AvgPool2dOut));
  m.impl("avg_pool2d_backward", TORCH_FN(AvgPool2dBackward));
  m.impl("avg_pool2d_backward.grad_input", TORCH_FN(AvgPool2dBackwardOut));
  m.impl("_adaptive_avg_pool2d", TORCH_FN(AdaptiveAvgPool2d));
  m.impl("_adaptive_avg_pool2d_backward", TORCH_FN(AdaptiveAvgPool2dBackward));
  m.impl("adaptive_max_pool2d", TORCH_FN(AdaptiveMaxPool2d));
  m.impl("adaptive_max_pool2d_backward", TORCH_FN(AdaptiveMaxPool2dBackward));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterConvolution(m);
  RegisterPooling(m);
}

}  // namespace nerva_torch
