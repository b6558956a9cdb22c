#include "linvo/function/index.h"

#include <cstring>

#include "linvo/function/broadcast_to.h"
#include "linvo/util.h"

namespace linvo {
namespace {

// One kInt64 index matrix per indexed axis, all of the same (broadcast) shape.
struct IndexPlan {
  std::vector<Matrix> indices;
  Shape result;
  bool ok = false;
};

// Coordinates of the non-zero elements of a mask, one kInt64 vector per mask axis.
std::vector<Matrix> MaskToIndices(const Matrix& mask) {
  Matrix flags = mask.CastTo(kBool);
  const uint8_t* set = flags.data<uint8_t>();
  int64_t count = 0;
  for (int64_t i = 0; i < flags.size(); ++i) count += set[i];
  std::vector<Matrix> coords;
  for (int64_t d = 0; d < mask.ndim(); ++d) coords.emplace_back(Shape{count}, kInt64);
  Dims strides = mask.shape().strides();
  int64_t k = 0;
  for (int64_t i = 0; i < flags.size(); ++i) {
    if (!set[i]) continue;
    for (int64_t d = 0; d < mask.ndim(); ++d) {
      coords[d].data<int64_t>()[k] = i / strides[d] % mask.shape().dims()[d];
    }
    ++k;
  }
  return coords;
}

IndexPlan MakePlan(const Matrix& in, const std::vector<Matrix>& indices) {
  IndexPlan plan;
  int64_t valid_index = static_cast<int64_t>(indices.size());
  if (!LINVO_CHECK(valid_index != 0)) return plan;
  for (const Matrix& index : indices) {
    if (index.dtype() == kBool) {
      for (Matrix& c : MaskToIndices(index)) plan.indices.push_back(c);
    } else {
      plan.indices.push_back(index.dtype() == kInt64 ? index : index.CastTo(kInt64));
    }
  }
  if (!LINVO_CHECK(static_cast<int64_t>(plan.indices.size()) <= in.ndim())) return plan;
  Shape broadcast = plan.indices[0].shape();
  for (const Matrix& index : plan.indices) {
    if (!LINVO_CHECK(CanBroadcastShape(broadcast, index.shape()))) return plan;
    broadcast = BroadcastShape(broadcast, index.shape());
  }
  for (Matrix& index : plan.indices) {
    if (index.shape() != broadcast) index = BroadcastTo(index, broadcast.dims());
  }
  plan.result = broadcast + in.shape().Slice(static_cast<int>(plan.indices.size()), in.ndim());
  plan.ok = true;
  return plan;
}

}  // namespace

void Index(const Matrix& in, const std::vector<Matrix>& indices, Matrix& out) {
  IndexPlan plan = MakePlan(in, indices);
  if (!plan.ok || !LINVO_CHECK(out.dtype() == in.dtype()) ||
      !LINVO_CHECK(out.size() == plan.result.size())) {
    return;
  }
  Dims strides = in.shape().strides();
  size_t depth = plan.indices.size();
  int64_t block_bytes = strides[depth - 1] * static_cast<int64_t>(in.item_size());
  const uint8_t* src = in.data<uint8_t>();
  uint8_t* dst = out.data<uint8_t>();
  int64_t positions = plan.indices[0].size();
  for (int64_t p = 0; p < positions; ++p) {
    int64_t offset = 0;
    bool inside = true;
    for (size_t d = 0; d < depth; ++d) {
      int64_t extent = in.shape().dims()[d];
      int64_t index = plan.indices[d].data<int64_t>()[p];
      index = index < 0 ? index + extent : index;
      inside = inside && index >= 0 && index < extent;
      offset += index * strides[d];
    }
    if (!inside) {
      CheckOrLog(false, "index ", __FILE__, __LINE__);
      continue;  // the block stays zero
    }
    std::memcpy(dst + p * block_bytes, src + offset * in.item_size(), block_bytes);
  }
}

Matrix Index(const Matrix& in, const std::vector<Matrix>& indices) {
  IndexPlan plan = MakePlan(in, indices);
  if (!plan.ok) return Matrix();
  Matrix out(plan.result, in.dtype());
  Index(in, indices, out);
  return out;
}

}  // namespace linvo
