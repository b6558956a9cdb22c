// Native kernels of the PyTorch backend, sliding windows: convolution through Im2col,
// matrix products and Col2im.

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

// Whether nerva's kernels take this convolution; the rest goes through the host.
bool NativeConv(const at::Tensor& input, const at::Tensor& weight, bool transposed) {
  return !transposed && (input.dim() == 3 || input.dim() == 4) && input.dim() == weight.dim();
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

// The host route, for transposed and 3-D convolutions.
at::Tensor ToDevice(const at::Tensor& t) {
  return t.defined() ? t.to(Device()) : t;
}

at::Tensor ConvolutionOverrideable(const at::Tensor& input, const at::Tensor& weight,
                                   const c10::optional<at::Tensor>& bias, at::IntArrayRef stride,
                                   at::IntArrayRef padding, at::IntArrayRef dilation,
                                   bool transposed, at::IntArrayRef output_padding,
                                   int64_t groups) {
  const char* name = "convolution_overrideable";
  if (!NativeConv(input, weight, transposed)) {
    NoteFallback("aten::convolution_overrideable");
    c10::optional<at::Tensor> host_bias;
    if (bias && bias->defined()) host_bias = bias->cpu();
    return ToDevice(at::convolution(input.cpu(), weight.cpu(), host_bias, stride, padding, dilation,
                                    transposed, output_padding, groups));
  }
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
  if (!NativeConv(input, weight, transposed)) {
    NoteFallback("aten::convolution_backward_overrideable");
    std::vector<int64_t> bias_sizes{weight.size(transposed ? 1 : 0) * (transposed ? groups : 1)};
    auto result = at::convolution_backward(grad.cpu(), input.cpu(), weight.cpu(),
                                           at::IntArrayRef(bias_sizes), stride, padding, dilation,
                                           transposed, output_padding, groups, output_mask);
    return {ToDevice(std::get<0>(result)), ToDevice(std::get<1>(result)),
            ToDevice(std::get<2>(result))};
  }
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

void RegisterConvolution(torch::Library& m) {
  m.impl("convolution_overrideable", TORCH_FN(ConvolutionOverrideable));
  m.impl("convolution_backward_overrideable", TORCH_FN(ConvolutionBackwardOverrideable));
}

}  // namespace

TORCH_LIBRARY_IMPL(aten, PrivateUse1, m) {
  RegisterConvolution(m);
}

}  // namespace nerva_torch
