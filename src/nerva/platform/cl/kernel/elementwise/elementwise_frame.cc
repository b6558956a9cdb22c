#include "nerva/platform/cl/kernel/elementwise/elementwise_frame.h"

#include <algorithm>

#include "nerva/platform/cl/cl_api.h"
#include "nerva/platform/cl/util.h"

namespace nerva {
namespace cl {

namespace {

// The buffer that owns `mem`'s memory and the byte origin of `mem` inside it.
std::pair<cl_mem, size_t> RootOf(cl_mem mem) {
  cl_mem parent = nullptr;
  size_t origin = 0;
  if (clGetMemObjectInfo(mem, CL_MEM_ASSOCIATED_MEMOBJECT, sizeof(parent), &parent, nullptr) !=
          CL_SUCCESS ||
      parent == nullptr) {
    return {mem, 0};
  }
  clGetMemObjectInfo(mem, CL_MEM_OFFSET, sizeof(origin), &origin, nullptr);
  return {parent, origin};
}

// Byte span [first, last) of a tensor's elements relative to its buffer.
std::pair<long, long> SpanOf(const Tensor& t) {
  long lo = t.storage_offset(), hi = t.storage_offset();
  const long item = static_cast<long>(t.option().item_size());
  const auto& sizes = t.shape().sizes();
  const auto& strides = t.shape().strides();
  for (size_t i = 0; i < sizes.size(); ++i) {
    if (sizes[i] == 0) return {lo, lo};
    const long reach = (sizes[i] - 1) * strides[i] * item;
    (reach < 0 ? lo : hi) += reach;
  }
  return {lo, hi + item};
}

}  // namespace

bool SharesMemory(const Tensor& a, const Tensor& b) {
  if (!a.storage() || !b.storage()) return false;
  const auto ra = RootOf(static_cast<cl_mem>(a.storage().UnsafeGetPtr()));
  const auto rb = RootOf(static_cast<cl_mem>(b.storage().UnsafeGetPtr()));
  if (ra.first != rb.first) return false;
  auto sa = SpanOf(a), sb = SpanOf(b);
  if (sa.first == sa.second || sb.first == sb.second) return false;
  const long oa = static_cast<long>(ra.second), ob = static_cast<long>(rb.second);
  return sa.first + oa < sb.second + ob && sb.first + ob < sa.second + oa;
}

int ElementwiseVecSize(int requested, long length, bool aliased) {
  if (!aliased) return AdjustVecSize(requested, length);
  for (int vec : {4, 2}) {
    if (vec <= requested && length % vec == 0) return vec;
  }
  return 1;
}

}  // namespace cl
}  // namespace nerva
