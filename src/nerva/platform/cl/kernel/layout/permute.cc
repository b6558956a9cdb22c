#include "nerva/platform/cl/kernel/layout/permute.h"

#include <algorithm>
#include <stdexcept>

#include "nerva/platform/cl/module.h"
#include "nerva/platform/cl/program.h"
#include "nerva/platform/cl/session_impl.h"
#include "nerva/util.h"

namespace nerva {
namespace cl {

namespace {

constexpr size_t kBlock = 8;    // the block one work item of permute_2d.cl transposes
constexpr size_t kGroup = 256;  // blocks per work group (256 x 64 elements)
// Permute2D16 (CPU devices): 16 x 16 blocks, 1024 per work group.
constexpr size_t kWideBlock = 16, kWideGroup = 1024, kWideGroupX = 16;
constexpr long kWideMin = 256;
// Permute2DTile (GPUs): 32 x 32 tiles moved by 32 x 8 work items.
constexpr size_t kTile = 32, kTileRows = 8;
constexpr size_t kMaxGroups = 65535;  // groups along y and z a launch may have

// The smallest power of two at least n.
size_t Pow2(size_t n) {
  size_t p = 1;
  while (p < n) p *= 2;
  return p;
}

size_t Groups(long n, size_t tile) {
  return (static_cast<size_t>(n) + tile - 1) / tile;
}

}  // namespace

PermuteKernel::PermuteKernel(const PermuteOption& option, const TensorOption& input_opt,
                             const Buffer& input, const TensorOption& out_opt, Buffer& out)
    : LayoutKernel("Permute", "permute.cl", "Permute"),
      option_(option),
      input_(MakeTensor(input_opt, input)),
      out_(MakeTensor(out_opt, out)) {}

std::vector<int> PermuteKernel::Order() const {
  const size_t rank = input_.shape().ndim();
  if (option_.dims.size() != rank) {
    throw std::runtime_error(StrCat(name(), ": dims ", option_.dims, " do not permute the ", rank,
                                    " dims of input ", input_.shape().sizes()));
  }
  std::vector<int> order;
  std::vector<bool> seen(rank, false);
  for (int d : option_.dims) {
    const int axis = Axis(d, rank);
    if (seen[axis]) {
      throw std::runtime_error(StrCat(name(), ": dims ", option_.dims, " repeat dim ", d));
    }
    seen[axis] = true;
    order.push_back(axis);
  }
  return order;
}

bool PermuteKernel::Verify() const {
  CheckTensor(input_, "input");
  CheckTensor(out_, "out");
  CheckType(out_, input_.dtype(), "out");
  std::vector<long> sizes;
  for (int d : Order()) sizes.push_back(input_.shape().sizes()[d]);
  CheckShape(out_, sizes, "out");
  return true;
}

void PermuteKernel::Compile(std::shared_ptr<SessionImpl> session) {
  if (out_.shape().size() == 0) return;
  std::vector<long> sizes, strides;
  for (int d : Order()) {
    sizes.push_back(input_.shape().sizes()[d]);
    strides.push_back(input_.shape().strides()[d]);
  }
  const Tensor in = ViewOf(input_, sizes, strides);
  const ElementwiseLayout layout = CoalesceLayout(out_, {in});
  const auto& os = layout.strides[0];
  const auto& is = layout.strides[1];
  const long item = static_cast<long>(out_.option().item_size());
  const size_t rank = layout.sizes.size();
  // A batched transpose: out steps one item along x, the input one item along y.
  const bool transpose =
      (rank == 2 || rank == 3) && os[0] == item && is[1] == item && is[0] != item;
  if (!transpose) {
    AddMove(session, out_, in);
    return;
  }
  const ClTensor out_view(out_), in_view(in);
  const long batch = rank == 3 ? layout.sizes[2] : 1;
  const size_t tx = Groups(layout.sizes[0], kTile), ty = Groups(layout.sizes[1], kTile);
  const bool tiled =
      !session->host_cpu() && ty <= kMaxGroups && static_cast<size_t>(batch) <= kMaxGroups;
  // CPU devices, elements of up to 4 bytes, both sides at least 256 long:
  // 16 x 16 blocks (narrower transposes run faster in 8 x 8 blocks).
  const bool wide = session->host_cpu() && item <= 4 && layout.sizes[0] >= kWideMin &&
                    layout.sizes[1] >= kWideMin;
  auto unit = MakeSubKernel(session, ConcatenateStrings("permute_2d.cl", "layout"),
                            {"layout.h", "permute_2d.cl"}, MoveOptions(item),
                            tiled  ? "Permute2DTile"
                            : wide ? "Permute2D16"
                                   : "Permute2D");
  unit->SetArgs(static_cast<cl_uint>(layout.sizes[0]), static_cast<cl_uint>(layout.sizes[1]),
                out_.storage(), out_view.offset(), static_cast<cl_uint>(os[1]),
                static_cast<cl_uint>(rank == 3 ? os[2] : 0), in.storage(), in_view.offset(),
                static_cast<cl_uint>(is[0]), static_cast<cl_uint>(rank == 3 ? is[2] : 0));
  if (tiled) {
    unit->SetGlobal({tx * kTile, ty * kTileRows, static_cast<size_t>(batch)});
    unit->SetLocal({kTile, kTileRows, 1});
    return;
  }
  const size_t block = wide ? kWideBlock : kBlock;
  const size_t bx = Groups(layout.sizes[0], block), by = Groups(layout.sizes[1], block);
  // Tiles of 32 x 8 blocks (measured best of 16, 32, 64 along x), x narrowed
  // to the blocks there are so few work items fall outside. Blocks of 16:
  // always 16 x 64 (one group shape, one build of the work-group loop; both
  // sides span 16 blocks or more).
  const size_t gx = wide ? kWideGroupX : std::min<size_t>(32, Pow2(bx));
  const size_t gy = wide ? kWideGroup / kWideGroupX : std::min(kGroup / gx, Pow2(by));
  unit->SetGlobal({bx, by, static_cast<size_t>(batch)});
  unit->SetLocal({gx, gy, 1});
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<PermuteKernel, const PermuteOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Permute");
};

}  // namespace cl
}  // namespace nerva
