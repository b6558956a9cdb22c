#include "nerva/platform/cl/kernel/tensorcore/encoded_conv2d.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "nerva/platform/cl/kernel/tensorcore/tc_frame.h"
#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

bool IsInput(DataType t) {
  return t == kInt8 || t == kUInt8 || t == kInt16 || t == kUInt16;
}
bool IsCoef(DataType t) {
  return t == kInt8 || t == kUInt8;
}
bool IsOutput(DataType t) {
  return IsInput(t) || t == kInt32;
}

// The (batch, c, h, w) of a 3-D or 4-D contiguous operand.
std::vector<long> Dims4(const std::string& op, const char* what, const TensorOption& opt,
                        const Buffer& buffer) {
  const auto& sizes = opt.shape.sizes();
  if (opt.shape.empty() || !buffer) throw std::runtime_error(StrCat(op, ": ", what, " is empty"));
  if (sizes.size() != 3 && sizes.size() != 4) {
    throw std::runtime_error(StrCat(op, ": ", what, " must be 3-D or 4-D, got ", opt.shape));
  }
  if (opt.shape != Shape(sizes)) {
    throw std::runtime_error(StrCat(op, ": ", what, " must be contiguous, got ", opt.shape));
  }
  if (buffer.size() < opt.bytes()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", opt.shape, " needs ", opt.bytes(),
                                    " bytes, its buffer has ", buffer.size()));
  }
  std::vector<long> dims(sizes.begin(), sizes.end());
  if (dims.size() == 3) dims.insert(dims.begin(), 1);
  if (std::find(dims.begin(), dims.end(), 0L) != dims.end()) {
    throw std::runtime_error(StrCat(op, ": ", what, " ", opt.shape, " has no elements"));
  }
  return dims;
}

void CheckType(const std::string& op, const char* what, DataType type, bool ok) {
  if (!ok) throw std::invalid_argument(StrCat(op, ": unsupported ", what, " type ", type));
}

}  // namespace

EncodedConv2DKernel::EncodedConv2DKernel(const EncodedConv2DOption& option,
                                         const TensorOption& input_opt, const Buffer& input,
                                         const TensorOption& coef_opt, const Buffer& coef,
                                         const TensorOption& out_opt, Buffer& out)
    : KernelImpl("EncodedConv2D"),
      option_(option),
      input_opt_(input_opt),
      coef_opt_(coef_opt),
      out_opt_(out_opt),
      input_(input),
      coef_(coef),
      out_(out),
      has_input2_(false) {}

EncodedConv2DKernel::EncodedConv2DKernel(const EncodedConv2DOption& option,
                                         const TensorOption& input_opt, const Buffer& input,
                                         const TensorOption& coef_opt, const Buffer& coef,
                                         const TensorOption& input2_opt, const Buffer& input2,
                                         const TensorOption& out_opt, Buffer& out)
    : KernelImpl("EncodedConv2DSecondInput"),
      option_(option),
      input_opt_(input_opt),
      coef_opt_(coef_opt),
      input2_opt_(input2_opt),
      out_opt_(out_opt),
      input_(input),
      coef_(coef),
      input2_(input2),
      out_(out),
      has_input2_(true) {}

EncodedConv2DKernel::Geometry EncodedConv2DKernel::Measure() const {
  const std::string op = name();
  CheckType(op, "input", input_opt_.dtype, IsInput(input_opt_.dtype));
  CheckType(op, "coefficient", coef_opt_.dtype, IsCoef(coef_opt_.dtype));
  CheckType(op, "output", out_opt_.dtype, IsOutput(out_opt_.dtype));
  std::vector<long> in = Dims4(op, "input", input_opt_, input_);
  if (option_.trans_input_layout) in = {in[0], in[3], in[1], in[2]};
  const auto& w = coef_opt_.shape.sizes();
  if (w.size() != 4 || !coef_ || std::find(w.begin(), w.end(), 0L) != w.end()) {
    throw std::runtime_error(
        StrCat(op, ": coefficient must describe 4-D weights, got ", coef_opt_.shape));
  }
  if (w[1] != in[1]) {
    throw std::runtime_error(
        StrCat(op, ": weights ", coef_opt_.shape, " do not match input ", input_opt_.shape));
  }
  const EncodedConv2DOption& o = option_;
  if (o.stride < 1 || o.pad_top < 0 || o.pad_bottom < 0 || o.pad_left < 0 || o.pad_right < 0) {
    throw std::invalid_argument(StrCat(op, ": stride must be positive and padding not negative"));
  }
  Geometry g{in[0], in[1], in[2], in[3], w[0], w[2], w[3], 0, 0, 0, 0, 0, 0};
  g.conv_h = (g.in_h + o.pad_top + o.pad_bottom - g.k_h) / o.stride + 1;
  g.conv_w = (g.in_w + o.pad_left + o.pad_right - g.k_w) / o.stride + 1;
  if (g.in_h + o.pad_top + o.pad_bottom < g.k_h || g.in_w + o.pad_left + o.pad_right < g.k_w) {
    throw std::runtime_error(StrCat(op, ": kernel ", coef_opt_.shape,
                                    " is larger than the padded input ", input_opt_.shape));
  }
  g.final_c = g.out_c, g.final_h = g.conv_h, g.final_w = g.conv_w;
  if (o.max_pool2d) {
    const long k = static_cast<long>(o.max_pool2d->kernel_size);
    const long s = static_cast<long>(o.max_pool2d->stride);
    if (k < 1 || s < 1 || k > g.final_h || k > g.final_w) {
      throw std::invalid_argument(StrCat(op, ": max-pool kernel ", k, " stride ", s,
                                         " does not fit ", g.final_h, "x", g.final_w));
    }
    g.final_h = (g.final_h - k) / s + 1;
    g.final_w = (g.final_w - k) / s + 1;
  }
  if (o.depth2space) {
    const long bh = static_cast<long>(o.depth2space->block_h);
    const long bw = static_cast<long>(o.depth2space->block_w);
    if (bh < 1 || bw < 1 || g.final_c % (bh * bw) != 0) {
      throw std::invalid_argument(StrCat(op, ": depth-to-space blocks ", bh, "x", bw,
                                         " do not divide ", g.final_c, " channels"));
    }
    g.final_c /= bh * bw, g.final_h *= bh, g.final_w *= bw;
  }
  const std::vector<long> out = Dims4(op, "output", out_opt_, out_);
  if (out != std::vector<long>{g.batch, g.final_c, g.final_h, g.final_w} ||
      (out_opt_.shape.ndim() == 4) != (input_opt_.shape.ndim() == 4)) {
    throw std::runtime_error(StrCat(op, ": output has shape ", out_opt_.shape, ", expected ",
                                    input_opt_.shape.ndim() == 4 ? StrCat("[", g.batch, ", ") : "[",
                                    g.final_c, ", ", g.final_h, ", ", g.final_w, "]"));
  }
  if (has_input2_) {
    CheckType(op, "second input", input2_opt_.dtype, IsOutput(input2_opt_.dtype));
    const std::vector<long> in2 = Dims4(op, "second input", input2_opt_, input2_);
    if (in2[0] != g.batch) {
      throw std::runtime_error(StrCat(op, ": second input ", input2_opt_.shape,
                                      " does not match the batch of input ", input_opt_.shape));
    }
  }
  const long weights = g.out_c * g.in_c * g.k_h * g.k_w * static_cast<long>(coef_opt_.item_size());
  g.coef_bytes = (weights + 3) / 4 * 4 + 4 * g.out_c;
  if (o.prelu) g.coef_bytes += 4 * g.out_c;
  if (o.lut) g.coef_bytes += 4 * 256;
  if (o.rescale_pcq) g.coef_bytes += 4 * g.out_c;
  if (coef_.size() < g.coef_bytes) {
    throw std::runtime_error(StrCat(op, ": the encoded coefficient needs ", g.coef_bytes,
                                    " bytes, its buffer has ", coef_.size()));
  }
  return g;
}

bool EncodedConv2DKernel::Verify() const {
  Measure();
  return true;
}

void EncodedConv2DKernel::AddStages(BuildOption& options) const {
  const EncodedConv2DOption& o = option_;
  options.AddOptionIf(o.trans_input_layout, "-DFUSE_TRANS_INPUT_LAYOUT=1")
      .AddOptionIf(o.relu1.value_or(false), "-DFUSE_RELU_1=1");
  if (o.max_pool2d) {
    options.AddOption("-DFUSE_MAX_POOL2D=1")
        .AddDefinitionAutoType("FUSE_MAX_POOL2D_KSIZE",
                               static_cast<long>(o.max_pool2d->kernel_size))
        .AddDefinitionAutoType("FUSE_MAX_POOL2D_STRIDE", static_cast<long>(o.max_pool2d->stride));
  }
  if (o.clamp) {
    options.AddOption("-DFUSE_CLAMP=1")
        .AddDefinitionAutoType("FUSE_CLAMP_MIN", TcRound(o.clamp->min))
        .AddDefinitionAutoType("FUSE_CLAMP_MAX", TcRound(o.clamp->max));
  }
  if (o.mul) {
    options.AddOption("-DFUSE_MUL=1")
        .AddDefinitionAutoType("FUSE_MUL_X1_MUL", TcFixedQ16(o.mul->x1_mul))
        .AddDefinitionAutoType("FUSE_MUL_X2_SHIFT", TcRound(o.mul->x2_shift))
        .AddDefinitionAutoType("FUSE_MUL_MIN", TcRound(o.mul->min))
        .AddDefinitionAutoType("FUSE_MUL_MAX", TcRound(o.mul->max));
  }
  options.AddOptionIf(o.lut.has_value(), "-DFUSE_LUT=1")
      .AddOptionIf(o.add || o.prelu || o.leaky_relu, "-DFUSE_STREAM_PROCESSOR=1");
  if (o.add) {
    const int32_t lo = TcRound(o.add->min);
    options.AddOption("-DFUSE_ADD=1")
        .AddDefinitionAutoType("FUSE_ADD_A", TcFixedQ16(o.add->a))
        .AddDefinitionAutoType("FUSE_ADD_B", TcFixedQ16(o.add->b))
        .AddDefinitionAutoType("FUSE_ADD_C", TcRound(o.add->c))
        .AddDefinitionAutoType("FUSE_ADD_MIN", o.add->relu ? std::max(lo, 0) : lo)
        .AddDefinitionAutoType("FUSE_ADD_MAX", TcRound(o.add->max));
  }
  if (o.prelu) {
    options.AddOption("-DFUSE_PRELU=1")
        .AddDefinitionAutoType("FUSE_PRELU_MIN", TcRound(o.prelu->min))
        .AddDefinitionAutoType("FUSE_PRELU_MAX", TcRound(o.prelu->max));
  }
  if (o.leaky_relu) {
    options.AddOption("-DFUSE_LEAKY_RELU=1")
        .AddDefinitionAutoType("FUSE_LEAKY_RELU_POS_MUL", TcFixedQ16(o.leaky_relu->pos_mul))
        .AddDefinitionAutoType("FUSE_LEAKY_RELU_NEG_MUL", TcFixedQ16(o.leaky_relu->neg_mul))
        .AddDefinitionAutoType("FUSE_LEAKY_RELU_MIN", TcRound(o.leaky_relu->min))
        .AddDefinitionAutoType("FUSE_LEAKY_RELU_MAX", TcRound(o.leaky_relu->max));
  }
  if (o.depth2space) {
    options.AddOption("-DFUSE_D2S=1")
        .AddDefinitionAutoType("FUSE_D2S_H", static_cast<long>(o.depth2space->block_h))
        .AddDefinitionAutoType("FUSE_D2S_W", static_cast<long>(o.depth2space->block_w));
  }
  if (o.rescale) {
    options.AddOption("-DFUSE_RESCALE=1")
        .AddDefinitionAutoType("FUSE_RESCALE_MUL",
                               TcRescaleMultiplier(o.rescale->first, o.rescale->second))
        .AddDefinitionAutoType("FUSE_RESCALE_OUT_SHIFT", o.rescale->first);
  }
  if (o.rescale_pcq) {
    options.AddOption("-DFUSE_RESCALE_PCQ=1")
        .AddDefinitionAutoType("FUSE_RESCALE_PCQ_OUT_SHIFT", o.rescale_pcq->first);
  }
}

void EncodedConv2DKernel::Compile(std::shared_ptr<SessionImpl> session) {
  RequireTensorCore(*session, name());
  const Geometry g = Measure();
  auto size_of = [](const TensorOption& opt) { return static_cast<long>(opt.item_size()); };
  // One image per work-group of one work-item.
  BuildOption options = TensorCoreBuildOption(*session, 1);
  options.AddDefinitionAutoType("IN_CHANNEL", g.in_c)
      .AddDefinitionAutoType("IN_HEIGHT", g.in_h)
      .AddDefinitionAutoType("IN_WIDTH", g.in_w)
      .AddDefinitionAutoType("OUT_CHANNEL", g.final_c)
      .AddDefinitionAutoType("OUT_HEIGHT", g.final_h)
      .AddDefinitionAutoType("OUT_WIDTH", g.final_w)
      .AddDefinitionAutoType("COEF_CHANNEL", g.out_c)
      .AddDefinitionAutoType("K_HEIGHT", g.k_h)
      .AddDefinitionAutoType("K_WIDTH", g.k_w)
      .AddDefinition("IN_DTYPE", GetDataTypeCode(input_opt_.dtype))
      .AddDefinition("COEF_DTYPE", GetDataTypeCode(coef_opt_.dtype))
      .AddDefinition("OUT_DTYPE", GetDataTypeCode(out_opt_.dtype))
      .AddDefinitionAutoType("IN_DTYPE_SIZE", size_of(input_opt_))
      .AddDefinitionAutoType("COEF_DTYPE_SIZE", size_of(coef_opt_))
      .AddDefinitionAutoType("OUT_DTYPE_SIZE", size_of(out_opt_))
      .AddDefinitionAutoType("STRIDE", option_.stride)
      .AddDefinitionAutoType("PAD_TOP", option_.pad_top)
      .AddDefinitionAutoType("PAD_BOTTOM", option_.pad_bottom)
      .AddDefinitionAutoType("PAD_LEFT", option_.pad_left)
      .AddDefinitionAutoType("PAD_RIGHT", option_.pad_right)
      .AddDefinitionAutoType("PAD_CONST", option_.pad_value)
      .AddDefinitionAutoType("IN_ZERO_POINT", option_.input_zero_point)
      .AddDefinitionAutoType("IN_STRIDE", g.in_c * g.in_h * g.in_w * size_of(input_opt_))
      .AddDefinitionAutoType("OUT_STRIDE", g.final_c * g.final_h * g.final_w * size_of(out_opt_));
  if (has_input2_) {
    const std::vector<long> in2 = Dims4(name(), "second input", input2_opt_, input2_);
    options.AddDefinitionAutoType("HAS_2ND_INPUT", true)
        .AddDefinitionAutoType("IN2_CHANNEL", in2[1])
        .AddDefinitionAutoType("IN2_HEIGHT", in2[2])
        .AddDefinitionAutoType("IN2_WIDTH", in2[3])
        .AddDefinition("IN2_DTYPE", GetDataTypeCode(input2_opt_.dtype))
        .AddDefinitionAutoType("IN2_DTYPE_SIZE", size_of(input2_opt_))
        .AddDefinitionAutoType("IN2_STRIDE", in2[1] * in2[2] * in2[3] * size_of(input2_opt_));
  }
  AddStages(options);
  auto unit =
      MakeSubKernel(session, ConcatenateStrings(name(), "conv2d"),
                    {"tensorcore/tc_common.h", "tensorcore/conv2d.cl"}, options, "EncodedConv2D");
  unit->SetArg(input_).SetArg(coef_);
  if (has_input2_) unit->SetArg(input2_);
  unit->SetArg(out_).SetGlobal({static_cast<size_t>(g.batch)}).SetLocal({1});
}

NERVA_STATIC_REGISTER {
  auto& module = ClModule::singleton();
  module.AddKernel<EncodedConv2DKernel, const EncodedConv2DOption&, const TensorOption&,
                   const Buffer&, const TensorOption&, const Buffer&, const TensorOption&, Buffer&>(
      "EncodedConv2D");
  module.AddKernel<EncodedConv2DKernel, const EncodedConv2DOption&, const TensorOption&,
                   const Buffer&, const TensorOption&, const Buffer&, const TensorOption&,
                   const Buffer&, const TensorOption&, Buffer&>("EncodedConv2DSecondInput");
};

}  // namespace cl
}  // namespace nerva
