// Every front-end form reaches the queue under its registry name with its exact argument
// signature.

#include <gtest/gtest.h>

#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <typeinfo>
#include <vector>

#include "nerva/fake_platform.h"
#include "nerva/nerva.h"

namespace nerva {
namespace {

using QueuePtr = std::shared_ptr<IQueueImpl>;

// Signature texts of the argument pairs. A vector of X has the text of X.
const std::string kIn = "const TensorOption&, const Buffer&";
const std::string kOut = "const TensorOption&, Buffer&";
const std::string kInList = kIn;
const std::string kOutList = kOut;
const std::string kTensor = "const Tensor&";

template <typename T>
std::string O() {
  return std::string("const ") + typeid(T).name() + "&";
}

std::string S(std::initializer_list<std::string> parts) {
  std::string text;
  for (const auto& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

template <typename T>
const T& Opt() {
  static const T option{};
  return option;
}

const TensorOption kOpt;
const Buffer kBuf;
TensorOption out_opt;
Buffer out_buf;
const std::vector<TensorOption> kOpts(2);
const std::vector<Buffer> kBufs(2);
const Tensor kTensorArg;

#define IN kOpt, kBuf
#define OUT out_opt, out_buf
#define IN_LIST kOpts, kBufs

struct Row {
  std::string name;
  std::string signature;
  std::function<Kernel(const QueuePtr&)> create;
};

#define ROW(name, signature, call)                          \
  Row {                                                     \
    name, signature, [](const QueuePtr& q) { return call; } \
  }

const std::vector<Row>& Catalogue() {
  static const std::vector<Row> rows = {
      ROW("ActivationV1", S({O<ActivationOption>(), kIn, kOut}),
          Activation::Create(q, Opt<ActivationOption>(), IN, OUT)),
      ROW("Activation", S({O<ActivationOption>(), kTensor, kTensor}),
          Activation::Create(q, Opt<ActivationOption>(), kTensorArg, kTensorArg)),
      ROW("Permute", S({O<PermuteOption>(), kIn, kOut}),
          Permute::Create(q, Opt<PermuteOption>(), IN, OUT)),
      ROW("Slice", S({O<SliceOption>(), kIn, kOut}), Slice::Create(q, Opt<SliceOption>(), IN, OUT)),
      ROW("ARange", S({O<ARangeOption>(), kOut}), ARange::Create(q, Opt<ARangeOption>(), OUT)),
      ROW("ArgMax", S({O<ArgMaxOption>(), kIn, kOut}),
          ArgMax::Create(q, Opt<ArgMaxOption>(), IN, OUT)),
      ROW("ArgMin", S({O<ArgMinOption>(), kIn, kOut}),
          ArgMin::Create(q, Opt<ArgMinOption>(), IN, OUT)),
      ROW("Concat", S({O<ConcatOption>(), kInList, kOut}),
          Concat::Create(q, Opt<ConcatOption>(), IN_LIST, OUT)),
      ROW("BatchNorm", S({O<BatchNormOption>(), kIn, kIn, kIn, kIn, kIn, kOut}),
          BatchNorm::Create(q, Opt<BatchNormOption>(), IN, IN, IN, IN, IN, OUT)),
      ROW("BatchNormTrain",
          S({O<BatchNormTrainOption>(), kIn, kIn, kIn, kIn, kIn, kOut, kOut, kOut, kOut, kOut}),
          BatchNormTrain::Create(q, Opt<BatchNormTrainOption>(), IN, IN, IN, IN, IN, OUT, OUT, OUT,
                                 OUT, OUT)),
      ROW("Bernoulli", S({O<BernoulliOption>(), kIn, kOut}),
          Bernoulli::Create(q, Opt<BernoulliOption>(), IN, OUT)),
      ROW("Binary", S({O<BinaryOption>(), kIn, kIn, kOut}),
          Binary::Create(q, Opt<BinaryOption>(), IN, IN, OUT)),
      ROW("BitonicSortWithIndices", S({O<BitonicSortOption>(), kIn, kOut, kOut, kOut, kOut}),
          BitonicSort::Create(q, Opt<BitonicSortOption>(), IN, OUT, OUT, OUT, OUT)),
      ROW("BitonicSort", S({O<BitonicSortOption>(), kIn, kOut, kOut}),
          BitonicSort::Create(q, Opt<BitonicSortOption>(), IN, OUT, OUT)),
      ROW("BroadcastTo", S({kIn, kOut}), BroadcastTo::Create(q, IN, OUT)),
      ROW("Copy", S({kIn, kOut}), Cast::Create(q, IN, OUT)),
      ROW("Clamp", S({kIn, kIn, kIn, kOut}), Clamp::Create(q, IN, IN, IN, OUT)),
      ROW("StridedCopy", S({O<CopyOption>(), kIn, kOut}),
          Copy::Create(q, Opt<CopyOption>(), IN, OUT)),
      ROW("Cumsum", S({O<CumsumOption>(), kIn, kOut}),
          Cumsum::Create(q, Opt<CumsumOption>(), IN, OUT)),
      ROW("DepthToSpace", S({O<DepthToSpaceOption>(), kIn, kOut}),
          DepthToSpace::Create(q, Opt<DepthToSpaceOption>(), IN, OUT)),
      ROW("Digamma", S({kIn, kOut}), Digamma::Create(q, IN, OUT)),
      ROW("EmbeddingBag", S({O<EmbeddingBagOption>(), kIn, kIn, kIn, kIn, kOut}),
          EmbeddingBag::Create(q, Opt<EmbeddingBagOption>(), IN, IN, IN, IN, OUT)),
      ROW("EmbeddingBagBackward",
          S({O<EmbeddingBagBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kIn, kOut}),
          EmbeddingBagBackward::Create(q, Opt<EmbeddingBagBackwardOption>(), IN, IN, IN, IN, IN, IN,
                                       OUT)),
      ROW("Exponential", S({O<ExponentialOption>(), kOut}),
          Exponential::Create(q, Opt<ExponentialOption>(), OUT)),
      ROW("Eye", S({O<EyeOption>(), kOut}), Eye::Create(q, Opt<EyeOption>(), OUT)),
      ROW("Flip", S({O<FlipOption>(), kIn, kOut}), Flip::Create(q, Opt<FlipOption>(), IN, OUT)),
      ROW("ForEachBinary", S({O<ForEachBinaryOption>(), kInList, kInList, kInList}),
          ForEachBinary::Create(q, Opt<ForEachBinaryOption>(), IN_LIST, IN_LIST, IN_LIST)),
      ROW("ForEachTernary", S({O<ForEachTernaryOption>(), kInList, kInList, kInList, kInList}),
          ForEachTernary::Create(q, Opt<ForEachTernaryOption>(), IN_LIST, IN_LIST, IN_LIST,
                                 IN_LIST)),
      ROW("ForEachUnary", S({O<ForEachUnaryOption>(), kInList, kInList}),
          ForEachUnary::Create(q, Opt<ForEachUnaryOption>(), IN_LIST, IN_LIST)),
      ROW("Gather", S({O<GatherOption>(), kIn, kIn, kOut}),
          Gather::Create(q, Opt<GatherOption>(), IN, IN, OUT)),
      ROW("GatherElement", S({O<GatherElementOption>(), kIn, kIn, kOut}),
          GatherElement::Create(q, Opt<GatherElementOption>(), IN, IN, OUT)),
      ROW("Gcd", S({kIn, kIn, kOut}), Gcd::Create(q, IN, IN, OUT)),
      ROW("GroupNorm", S({O<GroupNormOption>(), kIn, kIn, kIn, kOut}),
          GroupNorm::Create(q, Opt<GroupNormOption>(), IN, IN, IN, OUT)),
      ROW("GroupNormWithTraining", S({O<GroupNormOption>(), kIn, kIn, kIn, kOut, kOut, kOut}),
          GroupNorm::Create(q, Opt<GroupNormOption>(), IN, IN, IN, OUT, OUT, OUT)),
      ROW("Index", S({O<IndexOption>(), kIn, kIn, kOut}),
          Index::Create(q, Opt<IndexOption>(), IN, IN, OUT)),
      ROW("IndexWithIndicesArray", S({kIn, kInList, kOut}), Index::Create(q, IN, IN_LIST, OUT)),
      ROW("IndexPut", S({O<IndexPutOption>(), kIn, kIn, kIn, kOut}),
          IndexPut::Create(q, Opt<IndexPutOption>(), IN, IN, IN, OUT)),
      ROW("IndexPutWithIndicesArray", S({O<IndexPutOption>(), kIn, kInList, kIn, kOut}),
          IndexPut::Create(q, Opt<IndexPutOption>(), IN, IN_LIST, IN, OUT)),
      ROW("IndexReduce", S({O<IndexReduceOption>(), kIn, kIn, kIn, kOut}),
          IndexReduce::Create(q, Opt<IndexReduceOption>(), IN, IN, IN, OUT)),
      ROW("InstanceNorm", S({O<InstanceNormOption>(), kIn, kIn, kIn, kOut}),
          InstanceNorm::Create(q, Opt<InstanceNormOption>(), IN, IN, IN, OUT)),
      ROW("LayerNorm", S({O<LayerNormOption>(), kIn, kIn, kIn, kOut}),
          LayerNorm::Create(q, Opt<LayerNormOption>(), IN, IN, IN, OUT)),
      ROW("LayerNormWithTraining", S({O<LayerNormOption>(), kIn, kIn, kIn, kOut, kOut, kOut}),
          LayerNorm::Create(q, Opt<LayerNormOption>(), IN, IN, IN, OUT, OUT, OUT)),
      ROW("LinalgVectorNorm", S({O<LinalgVectorNormOption>(), kIn, kOut}),
          LinalgVectorNorm::Create(q, Opt<LinalgVectorNormOption>(), IN, OUT)),
      ROW("Linspace", S({O<LinspaceOption>(), kOut}),
          Linspace::Create(q, Opt<LinspaceOption>(), OUT)),
      ROW("Logit", S({O<LogitOption>(), kIn, kOut}), Logit::Create(q, Opt<LogitOption>(), IN, OUT)),
      ROW("LogNormal", S({O<LogNormalOption>(), kOut}),
          LogNormal::Create(q, Opt<LogNormalOption>(), OUT)),
      ROW("MaskedFill", S({O<MaskedFillOption>(), kIn, kIn, kOut}),
          MaskedFill::Create(q, Opt<MaskedFillOption>(), IN, IN, OUT)),
      ROW("MatMul", S({O<MatMulOption>(), kIn, kIn, kOut}),
          MatMul::Create(q, Opt<MatMulOption>(), IN, IN, OUT)),
      ROW("Gemm", S({O<MatMulOption>(), kIn, kIn, kIn, kOut}),
          MatMul::Create(q, Opt<MatMulOption>(), IN, IN, IN, OUT)),
      ROW("MaxNorm", S({O<MaxNormOption>(), kIn, kIn}),
          MaxNorm::Create(q, Opt<MaxNormOption>(), IN, IN)),
      ROW("Nonzero", S({kIn, kIn, kIn, kIn, kIn}), Nonzero::Create(q, IN, IN, IN, IN, IN)),
      ROW("RandUniform", S({O<RandOption>(), kOut}), Rand::Create(q, Opt<RandOption>(), OUT)),
      ROW("RandIntUniform", S({O<RandIntOption>(), kOut}),
          RandInt::Create(q, Opt<RandIntOption>(), OUT)),
      ROW("RandNormal", S({O<RandNOption>(), kOut}), RandN::Create(q, Opt<RandNOption>(), OUT)),
      ROW("RandPerm", S({kOut, kOut, kOut, kOut}), RandPerm::Create(q, OUT, OUT, OUT, OUT)),
      ROW("Reduce", S({O<ReduceOption>(), kIn, kOut}),
          Reduce::Create(q, Opt<ReduceOption>(), IN, OUT)),
      ROW("ReduceWithIndices", S({O<ReduceWithIndicesOption>(), kIn, kOut, kOut}),
          ReduceWithIndices::Create(q, Opt<ReduceWithIndicesOption>(), IN, OUT, OUT)),
      ROW("ReduceWithIndicesMedian",
          S({O<ReduceWithIndicesMedianOption>(), kIn, kOut, kOut, kOut, kOut}),
          ReduceWithIndicesMedian::Create(q, Opt<ReduceWithIndicesMedianOption>(), IN, OUT, OUT,
                                          OUT, OUT)),
      ROW("Renorm", S({O<RenormOption>(), kIn, kOut}),
          Renorm::Create(q, Opt<RenormOption>(), IN, OUT)),
      ROW("Repeat", S({O<RepeatOption>(), kIn, kOut}),
          Repeat::Create(q, Opt<RepeatOption>(), IN, OUT)),
      ROW("Repeat_Interleave", S({O<RepeatOption>(), kIn, kIn, kIn, kOut}),
          Repeat::Create(q, Opt<RepeatOption>(), IN, IN, IN, OUT)),
      ROW("RMSNorm", S({O<RMSNormOption>(), kIn, kIn, kOut}),
          RMSNorm::Create(q, Opt<RMSNormOption>(), IN, IN, OUT)),
      ROW("Roll", S({O<RollOption>(), kIn, kOut}), Roll::Create(q, Opt<RollOption>(), IN, OUT)),
      ROW("Scatter", S({O<ScatterOption>(), kIn, kIn, kIn, kOut}),
          Scatter::Create(q, Opt<ScatterOption>(), IN, IN, IN, OUT)),
      ROW("ScatterMean", S({O<ScatterMeanOption>(), kIn, kIn, kIn, kIn, kOut}),
          ScatterMean::Create(q, Opt<ScatterMeanOption>(), IN, IN, IN, IN, OUT)),
      ROW("ScatterND", S({O<ScatterNDOption>(), kIn, kIn, kIn, kOut}),
          ScatterND::Create(q, Opt<ScatterNDOption>(), IN, IN, IN, OUT)),
      ROW("SelectScatter", S({O<SelectScatterOption>(), kIn, kIn, kOut}),
          SelectScatter::Create(q, Opt<SelectScatterOption>(), IN, IN, OUT)),
      ROW("Shuffle", S({kIn, kOut, kOut, kOut, kOut, kOut}),
          Shuffle::Create(q, IN, OUT, OUT, OUT, OUT, OUT)),
      ROW("SliceScatter", S({O<SliceOption>(), kIn, kIn, kOut}),
          SliceScatter::Create(q, Opt<SliceOption>(), IN, IN, OUT)),
      ROW("Softmax", S({O<SoftmaxOption>(), kIn, kOut}),
          Softmax::Create(q, Opt<SoftmaxOption>(), IN, OUT)),
      ROW("SpaceToDepth", S({O<SpaceToDepthOption>(), kIn, kOut}),
          SpaceToDepth::Create(q, Opt<SpaceToDepthOption>(), IN, OUT)),
      ROW("Split", S({O<SplitOption>(), kIn, kInList}),
          Split::Create(q, Opt<SplitOption>(), IN, IN_LIST)),
      ROW("Ternary", S({O<TernaryOption>(), kIn, kIn, kIn, kOut}),
          Ternary::Create(q, Opt<TernaryOption>(), IN, IN, IN, OUT)),
      ROW("Tile", S({kIn, kOut}), Tile::Create(q, IN, OUT)),
      ROW("Threshold", S({O<ThresholdOption>(), kIn, kOut}),
          Threshold::Create(q, Opt<ThresholdOption>(), IN, OUT)),
      ROW("TopK", S({O<TopKOption>(), kIn, kOut, kOut}),
          TopK::Create(q, Opt<TopKOption>(), IN, OUT, OUT)),
      ROW("Unary", S({O<UnaryOption>(), kIn, kOut}), Unary::Create(q, Opt<UnaryOption>(), IN, OUT)),
      ROW("Where", S({kIn, kIn, kIn, kOut}), Where::Create(q, IN, IN, IN, OUT)),
      ROW("AdaptiveAvgPool2D", S({kIn, kOut}), AdaptiveAvgPool2D::Create(q, IN, OUT)),
      ROW("AdaptiveAvgPool3D", S({kIn, kOut}), AdaptiveAvgPool3D::Create(q, IN, OUT)),
      ROW("AdaptiveMaxPool2D", S({kIn, kOut}), AdaptiveMaxPool2D::Create(q, IN, OUT)),
      ROW("AdaptiveMaxPool2DWithIndices", S({kIn, kOut, kOut}),
          AdaptiveMaxPool2D::Create(q, IN, OUT, OUT)),
      ROW("AvgPool2D", S({O<AvgPool2DOption>(), kIn, kOut}),
          AvgPool2D::Create(q, Opt<AvgPool2DOption>(), IN, OUT)),
      ROW("AvgPool3D", S({O<AvgPool3DOption>(), kIn, kOut}),
          AvgPool3D::Create(q, Opt<AvgPool3DOption>(), IN, OUT)),
      ROW("Col2im", S({O<Col2imOption>(), kIn, kOut}),
          Col2im::Create(q, Opt<Col2imOption>(), IN, OUT)),
      ROW("DropoutTrain", S({O<DropoutTrainOption>(), kIn, kOut, kOut}),
          DropoutTrain::Create(q, Opt<DropoutTrainOption>(), IN, OUT, OUT)),
      ROW("Im2col", S({O<Im2colOption>(), kIn, kOut}),
          Im2col::Create(q, Opt<Im2colOption>(), IN, OUT)),
      ROW("LogSoftmax", S({O<LogSoftmaxOption>(), kIn, kOut}),
          LogSoftmax::Create(q, Opt<LogSoftmaxOption>(), IN, OUT)),
      ROW("MaxPool2D", S({O<MaxPool2DOption>(), kIn, kOut}),
          MaxPool2D::Create(q, Opt<MaxPool2DOption>(), IN, OUT)),
      ROW("MaxPool2DWithIndices", S({O<MaxPool2DOption>(), kIn, kOut, kOut}),
          MaxPool2D::Create(q, Opt<MaxPool2DOption>(), IN, OUT, OUT)),
      ROW("MaxPool3D", S({O<MaxPool3DOption>(), kIn, kOut}),
          MaxPool3D::Create(q, Opt<MaxPool3DOption>(), IN, OUT)),
      ROW("MaxPool3DWithIndices", S({O<MaxPool3DOption>(), kIn, kOut, kOut}),
          MaxPool3D::Create(q, Opt<MaxPool3DOption>(), IN, OUT, OUT)),
      ROW("Pad", S({O<PadOption>(), kIn, kOut}), Pad::Create(q, Opt<PadOption>(), IN, OUT)),
      ROW("Resize", S({O<ResizeOption>(), kIn, kOut}),
          Resize::Create(q, Opt<ResizeOption>(), IN, OUT)),
      ROW("EncodedConv2DSecondInput", S({O<EncodedConv2DOption>(), kIn, kIn, kIn, kOut}),
          EncodedConv2D::Create(q, Opt<EncodedConv2DOption>(), IN, IN, IN, OUT)),
      ROW("EncodedConv2D", S({O<EncodedConv2DOption>(), kIn, kIn, kOut}),
          EncodedConv2D::Create(q, Opt<EncodedConv2DOption>(), IN, IN, OUT)),
      ROW("EncodedMatMul", S({O<EncodedMatMulOption>(), kIn, kIn, kIn, kOut}),
          EncodedMatMul::Create(q, Opt<EncodedMatMulOption>(), IN, IN, IN, OUT)),
      ROW("AdaptiveAvgPool2DBackward", S({kIn, kOut}),
          AdaptiveAvgPool2DBackward::Create(q, IN, OUT)),
      ROW("AdaptiveAvgPool3DBackward", S({kIn, kOut}),
          AdaptiveAvgPool3DBackward::Create(q, IN, OUT)),
      ROW("AvgPool2DBackward", S({O<AvgPool2DBackwardOption>(), kIn, kOut}),
          AvgPool2DBackward::Create(q, Opt<AvgPool2DBackwardOption>(), IN, OUT)),
      ROW("AvgPool3DBackward", S({O<AvgPool3DBackwardOption>(), kIn, kOut}),
          AvgPool3DBackward::Create(q, Opt<AvgPool3DBackwardOption>(), IN, OUT)),
      ROW("BatchNormBackward",
          S({O<BatchNormBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kIn, kIn, kOut, kOut, kOut}),
          BatchNormBackward::Create(q, Opt<BatchNormBackwardOption>(), IN, IN, IN, IN, IN, IN, IN,
                                    OUT, OUT, OUT)),
      ROW("BCELoss", S({O<BCELossOption>(), kIn, kIn, kIn, kOut}),
          BCELoss::Create(q, Opt<BCELossOption>(), IN, IN, IN, OUT)),
      ROW("BCELossNoWeight", S({O<BCELossOption>(), kIn, kIn, kOut}),
          BCELoss::Create(q, Opt<BCELossOption>(), IN, IN, OUT)),
      ROW("BCEWithLogitsLoss", S({O<BCEWithLogitsLossOption>(), kIn, kIn, kOut}),
          BCEWithLogitsLoss::Create(q, Opt<BCEWithLogitsLossOption>(), IN, IN, OUT)),
      ROW("BCEWithLogitsLossWithWeight", S({O<BCEWithLogitsLossOption>(), kIn, kIn, kIn, kOut}),
          BCEWithLogitsLoss::Create(q, Opt<BCEWithLogitsLossOption>(), IN, IN, IN, OUT)),
      ROW("BCEWithLogitsLossWithPosWeight",
          S({O<BCEWithLogitsLossOption>(), kIn, kIn, kIn, kIn, kOut}),
          BCEWithLogitsLoss::Create(q, Opt<BCEWithLogitsLossOption>(), IN, IN, IN, IN, OUT)),
      ROW("BinaryCrossEntropyBackward",
          S({O<BinaryCrossEntropyBackwardOption>(), kIn, kIn, kIn, kIn, kOut}),
          BinaryCrossEntropyBackward::Create(q, Opt<BinaryCrossEntropyBackwardOption>(), IN, IN, IN,
                                             IN, OUT)),
      ROW("CTCLoss", S({O<CTCLossOption>(), kIn, kIn, kIn, kIn, kOut, kOut}),
          CTCLoss::Create(q, Opt<CTCLossOption>(), IN, IN, IN, IN, OUT, OUT)),
      ROW("CTCLossBackward",
          S({O<CTCLossBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kIn, kIn, kOut, kOut}),
          CTCLossBackward::Create(q, Opt<CTCLossBackwardOption>(), IN, IN, IN, IN, IN, IN, IN, OUT,
                                  OUT)),
      ROW("ELUBackward", S({O<ELUBackwardOption>(), kIn, kIn, kOut}),
          ELUBackward::Create(q, Opt<ELUBackwardOption>(), IN, IN, OUT)),
      ROW("GeLUBackward", S({kIn, kIn, kOut}), GeLUBackward::Create(q, IN, IN, OUT)),
      ROW("GLUBackward", S({O<GLUBackwardOption>(), kIn, kIn, kOut}),
          GLUBackward::Create(q, Opt<GLUBackwardOption>(), IN, IN, OUT)),
      ROW("GroupNormBackward",
          S({O<GroupNormBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kOut, kOut, kOut}),
          GroupNormBackward::Create(q, Opt<GroupNormBackwardOption>(), IN, IN, IN, IN, IN, OUT, OUT,
                                    OUT)),
      ROW("HardSigmoidBackward", S({O<HardSigmoidBackwardOption>(), kIn, kIn, kOut}),
          HardSigmoidBackward::Create(q, Opt<HardSigmoidBackwardOption>(), IN, IN, OUT)),
      ROW("HardSwishBackward", S({kIn, kIn, kOut}), HardSwishBackward::Create(q, IN, IN, OUT)),
      ROW("CrossEntropyLoss", S({O<CrossEntropyLossOption>(), kIn, kIn, kIn, kOut}),
          CrossEntropyLoss::Create(q, Opt<CrossEntropyLossOption>(), IN, IN, IN, OUT)),
      ROW("CrossEntropyLossNoWeight", S({O<CrossEntropyLossOption>(), kIn, kIn, kOut}),
          CrossEntropyLoss::Create(q, Opt<CrossEntropyLossOption>(), IN, IN, OUT)),
      ROW("HardTanHBackward", S({O<HardTanHBackwardOption>(), kIn, kIn, kOut}),
          HardTanHBackward::Create(q, Opt<HardTanHBackwardOption>(), IN, IN, OUT)),
      ROW("L1Loss", S({O<L1LossOption>(), kIn, kIn, kOut}),
          L1Loss::Create(q, Opt<L1LossOption>(), IN, IN, OUT)),
      ROW("LayerNormBackward",
          S({O<LayerNormBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kIn, kOut, kOut, kOut}),
          LayerNormBackward::Create(q, Opt<LayerNormBackwardOption>(), IN, IN, IN, IN, IN, IN, OUT,
                                    OUT, OUT)),
      ROW("LeakyReluBackward", S({O<LeakyReluBackwardOption>(), kIn, kIn, kOut}),
          LeakyReluBackward::Create(q, Opt<LeakyReluBackwardOption>(), IN, IN, OUT)),
      ROW("LogitBackward", S({O<LogitBackwardOption>(), kIn, kIn, kOut}),
          LogitBackward::Create(q, Opt<LogitBackwardOption>(), IN, IN, OUT)),
      ROW("LogSigmoidBackward", S({kIn, kIn, kOut}), LogSigmoidBackward::Create(q, IN, IN, OUT)),
      ROW("LogSoftmaxBackward", S({O<LogSoftmaxBackwardOption>(), kIn, kIn, kOut}),
          LogSoftmaxBackward::Create(q, Opt<LogSoftmaxBackwardOption>(), IN, IN, OUT)),
      ROW("MaxPool2DWithIndicesBackward",
          S({O<MaxPool2DWithIndicesBackwardOption>(), kIn, kIn, kOut}),
          MaxPool2DWithIndicesBackward::Create(q, Opt<MaxPool2DWithIndicesBackwardOption>(), IN, IN,
                                               OUT)),
      ROW("MaxPool3DWithIndicesBackward",
          S({O<MaxPool3DWithIndicesBackwardOption>(), kIn, kIn, kOut}),
          MaxPool3DWithIndicesBackward::Create(q, Opt<MaxPool3DWithIndicesBackwardOption>(), IN, IN,
                                               OUT)),
      ROW("MishBackward", S({kIn, kIn, kOut}), MishBackward::Create(q, IN, IN, OUT)),
      ROW("MseLoss", S({O<MseLossOption>(), kIn, kIn, kOut}),
          MseLoss::Create(q, Opt<MseLossOption>(), IN, IN, OUT)),
      ROW("MseLossBackward", S({O<MseLossBackwardOption>(), kIn, kIn, kIn, kOut}),
          MseLossBackward::Create(q, Opt<MseLossBackwardOption>(), IN, IN, IN, OUT)),
      ROW("ThresholdBackward", S({O<ThresholdBackwardOption>(), kIn, kIn, kOut}),
          ThresholdBackward::Create(q, Opt<ThresholdBackwardOption>(), IN, IN, OUT)),
      ROW("NllLoss", S({O<NllLossOption>(), kIn, kIn, kIn, kOut, kOut}),
          NllLoss::Create(q, Opt<NllLossOption>(), IN, IN, IN, OUT, OUT)),
      ROW("NllLossNoWeight", S({O<NllLossOption>(), kIn, kIn, kOut, kOut}),
          NllLoss::Create(q, Opt<NllLossOption>(), IN, IN, OUT, OUT)),
      ROW("NllLossBackward", S({O<NllLossBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kOut}),
          NllLossBackward::Create(q, Opt<NllLossBackwardOption>(), IN, IN, IN, IN, IN, OUT)),
      ROW("NllLossBackwardNoWeight", S({O<NllLossBackwardOption>(), kIn, kIn, kIn, kIn, kOut}),
          NllLossBackward::Create(q, Opt<NllLossBackwardOption>(), IN, IN, IN, IN, OUT)),
      ROW("ReLUBackward", S({kIn, kIn, kOut}), ReLUBackward::Create(q, IN, IN, OUT)),
      ROW("SigmoidBackward", S({kIn, kIn, kOut}), SigmoidBackward::Create(q, IN, IN, OUT)),
      ROW("SiluBackward", S({kIn, kIn, kOut}), SiluBackward::Create(q, IN, IN, OUT)),
      ROW("SelectBackward", S({O<SelectBackwardOption>(), kIn, kOut}),
          SelectBackward::Create(q, Opt<SelectBackwardOption>(), IN, OUT)),
      ROW("SliceBackward", S({O<SliceBackwardOption>(), kIn, kOut}),
          SliceBackward::Create(q, Opt<SliceBackwardOption>(), IN, OUT)),
      ROW("SoftMarginLoss", S({O<SoftMarginLossOption>(), kIn, kIn, kOut}),
          SoftMarginLoss::Create(q, Opt<SoftMarginLossOption>(), IN, IN, OUT)),
      ROW("SoftMarginLossBackward", S({O<SoftMarginLossBackwardOption>(), kIn, kIn, kIn, kOut}),
          SoftMarginLossBackward::Create(q, Opt<SoftMarginLossBackwardOption>(), IN, IN, IN, OUT)),
      ROW("SoftmaxBackward", S({O<SoftmaxBackwardOption>(), kIn, kIn, kOut}),
          SoftmaxBackward::Create(q, Opt<SoftmaxBackwardOption>(), IN, IN, OUT)),
      ROW("SReLUBackward", S({kIn, kIn, kOut}), SReLUBackward::Create(q, IN, IN, OUT)),
      ROW("SwishBackward", S({O<SwishBackwardOption>(), kIn, kIn, kOut}),
          SwishBackward::Create(q, Opt<SwishBackwardOption>(), IN, IN, OUT)),
      ROW("TanHBackward", S({kIn, kIn, kOut}), TanHBackward::Create(q, IN, IN, OUT)),
      ROW("UpsampleNearest2dBackward", S({O<UpsampleNearest2dBackwardOption>(), kIn, kOut}),
          UpsampleNearest2dBackward::Create(q, Opt<UpsampleNearest2dBackwardOption>(), IN, OUT)),
      ROW("GPTJBlock",
          S({O<GPTJBlockOption>(),
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut}),
          GPTJ::Create(q, Opt<GPTJBlockOption>(), IN, IN, IN, IN, IN, IN, IN, IN, IN, IN, IN, IN,
                       IN, IN, IN, IN, IN, OUT, OUT, OUT, OUT, OUT, OUT, OUT, OUT, OUT, OUT, OUT)),
      ROW("GPTJDecode",
          S({O<GPTJDecodeOption>(),
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kIn,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut,
             kOut}),
          GPTJ::Create(q, Opt<GPTJDecodeOption>(), IN, IN, IN, IN, IN, IN, IN, IN, IN, IN, IN, IN,
                       IN, IN, IN, IN, IN, OUT, OUT, OUT, OUT, OUT, OUT, OUT)),
      ROW("ScaledDotProductAttention",
          S({O<ScaledDotProductAttentionOption>(), kIn, kIn, kIn, kIn, kOut, kOut, kOut}),
          ScaledDotProductAttention::Create(q, Opt<ScaledDotProductAttentionOption>(), IN, IN, IN,
                                            IN, OUT, OUT, OUT)),
      ROW("ScaledDotProductAttentionBackward",
          S({O<ScaledDotProductAttentionBackwardOption>(), kIn, kIn, kIn, kIn, kIn, kOut, kOut,
             kOut, kOut, kOut, kOut, kOut}),
          ScaledDotProductAttentionBackward::Create(
              q, Opt<ScaledDotProductAttentionBackwardOption>(), IN, IN, IN, IN, IN, OUT, OUT, OUT,
              OUT, OUT, OUT, OUT)),
      ROW("PagedAttentionV1", S({O<PagedAttentionV1Option>(), kIn, kIn, kIn, kIn, kIn, kOut, kOut}),
          PagedAttentionV1::Create(q, Opt<PagedAttentionV1Option>(), IN, IN, IN, IN, IN, OUT, OUT)),
      ROW("PagedAttentionV2",
          S({O<PagedAttentionV2Option>(), kIn, kIn, kIn, kIn, kIn, kOut, kOut, kOut, kOut}),
          PagedAttentionV2::Create(q, Opt<PagedAttentionV2Option>(), IN, IN, IN, IN, IN, OUT, OUT,
                                   OUT, OUT)),
  };
  return rows;
}

TEST(CatalogueTest, EveryFormReachesItsRegistryNameWithItsSignature) {
  auto fake = std::make_shared<test::FakeQueueImpl>();
  QueuePtr queue = fake;
  for (const auto& row : Catalogue()) {
    SCOPED_TRACE(row.name);
    Kernel kernel = row.create(queue);
    EXPECT_EQ(fake->last_name, row.name);
    EXPECT_EQ(fake->last_signature, row.signature);
    ASSERT_TRUE(kernel);
    EXPECT_EQ(kernel.name(), row.name);
  }
}

TEST(CatalogueTest, RegistryNamesAreDistinct) {
  std::set<std::string> names;
  for (const auto& row : Catalogue()) EXPECT_TRUE(names.insert(row.name).second) << row.name;
  EXPECT_EQ(names.size(), 153u);
}

TEST(CatalogueTest, CastAndCopyReachDifferentCreators) {
  auto fake = std::make_shared<test::FakeQueueImpl>();
  QueuePtr queue = fake;
  Cast::Create(queue, IN, OUT);
  EXPECT_EQ(fake->last_name, "Copy");
  EXPECT_EQ(fake->last_signature,
            "const TensorOption&, const Buffer&, const TensorOption&, Buffer&");
  Copy::Create(queue, CopyOption{}, IN, OUT);
  EXPECT_EQ(fake->last_name, "StridedCopy");
  EXPECT_EQ(fake->last_signature,
            O<CopyOption>() + ", const TensorOption&, const Buffer&, const TensorOption&, Buffer&");
}

TEST(CatalogueTest, ActivationFormsAndListForms) {
  auto fake = std::make_shared<test::FakeQueueImpl>();
  QueuePtr queue = fake;
  ActivationOption option;
  Activation::Create(queue, option, IN, OUT);
  EXPECT_EQ(fake->last_name, "ActivationV1");
  Activation::Create(queue, option, kTensorArg, kTensorArg);
  EXPECT_EQ(fake->last_name, "Activation");
  EXPECT_EQ(fake->last_signature, O<ActivationOption>() + ", const Tensor&, const Tensor&");
  Concat::Create(queue, ConcatOption{}, IN_LIST, OUT);
  EXPECT_EQ(
      fake->last_signature,
      O<ConcatOption>() + ", const TensorOption&, const Buffer&, const TensorOption&, Buffer&");
  Index::Create(queue, IN, IN_LIST, OUT);
  EXPECT_EQ(fake->last_name, "IndexWithIndicesArray");
}

}  // namespace
}  // namespace nerva
