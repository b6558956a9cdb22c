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
// Permute2D16 (CPU devices): 16 x 16 blocks, up to 16 x 16 per work group.
constexpr size_t kWideBlock = 16, kWideGroup = 16;
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
  const long batch = rank == 3 ? layout.sizes[2] : 1;
  // CPU devices, elements of up to 4 bytes, both sides at least 16 long:
  // whole 16 x 16 blocks, the cut edges through the walk.
  if (session->host_cpu() && item <= 4 && layout.sizes[0] >= kWideBlock &&
      layout.sizes[1] >= kWideBlock) {
    AddWideTranspose(session, in, layout);
    return;
  }
  const ClTensor out_view(out_), in_view(in);
  const size_t tx = Groups(layout.sizes[0], kTile), ty = Groups(layout.sizes[1], kTile);
  const bool tiled =
      !session->host_cpu() && ty <= kMaxGroups && static_cast<size_t>(batch) <= kMaxGroups;
  auto unit = Permute2DUnit(session, MoveOptions(item), tiled ? "Permute2DTile" : "Permute2D");
  unit->SetArgs(static_cast<cl_uint>(layout.sizes[0]), static_cast<cl_uint>(layout.sizes[1]),
                out_.storage(), out_view.offset(), static_cast<cl_uint>(os[1]),
                static_cast<cl_uint>(rank == 3 ? os[2] : 0), in.storage(), in_view.offset(),
                static_cast<cl_uint>(is[0]), static_cast<cl_uint>(rank == 3 ? is[2] : 0));
  if (tiled) {
    unit->SetGlobal({tx * kTile, ty * kTileRows, static_cast<size_t>(batch)});
    unit->SetLocal({kTile, kTileRows, 1});
    return;
  }
  const size_t bx = Groups(layout.sizes[0], kBlock), by = Groups(layout.sizes[1], kBlock);
  // Tiles of 32 x 8 blocks (measured best of 16, 32, 64 along x), x narrowed
  // to the blocks there are so few work items fall outside.
  const size_t gx = std::min<size_t>(32, Pow2(bx));
  const size_t gy = std::min(kGroup / gx, Pow2(by));
  unit->SetGlobal({bx, by, static_cast<size_t>(batch)});
  unit->SetLocal({gx, gy, 1});
}

std::shared_ptr<KernelUnit> PermuteKernel::Permute2DUnit(
    const std::shared_ptr<SessionImpl>& session, const BuildOption& options,
    const std::string& entry) {
  return MakeSubKernel(session, ConcatenateStrings("permute_2d.cl", "layout"),
                       {"common.h", "layout.h", "permute_2d.cl"}, options, entry);
}

// The views of out and in over x in [x0, x1) and y in [y0, y1) of `layout`
// (x, y, batch innermost first, byte strides), outermost first.
std::pair<Tensor, Tensor> PermuteKernel::Part(const Tensor& in, const ElementwiseLayout& layout,
                                              long x0, long x1, long y0, long y1) const {
  const long item = static_cast<long>(out_.option().item_size());
  const size_t rank = layout.sizes.size();
  std::vector<long> sizes = {y1 - y0, x1 - x0};
  if (rank == 3) sizes.insert(sizes.begin(), layout.sizes[2]);
  const auto view = [&](const Tensor& t, const std::vector<long>& bytes) {
    std::vector<long> strides = {bytes[1] / item, bytes[0] / item};
    if (rank == 3) strides.insert(strides.begin(), bytes[2] / item);
    return ViewOf(t, sizes, strides, x0 * strides[strides.size() - 1] + y0 * strides[rank - 2]);
  };
  return {view(out_, layout.strides[0]), view(in, layout.strides[1])};
}

void PermuteKernel::AddWideTranspose(const std::shared_ptr<SessionImpl>& session, const Tensor& in,
                                     const ElementwiseLayout& layout) {
  const long item = static_cast<long>(out_.option().item_size());
  const auto& os = layout.strides[0];
  const auto& is = layout.strides[1];
  const bool batched = layout.sizes.size() == 3;
  const long n0 = layout.sizes[0], n1 = layout.sizes[1];
  const size_t bx = static_cast<size_t>(n0) / kWideBlock, by = static_cast<size_t>(n1) / kWideBlock;
  const ClTensor out_view(out_), in_view(in);
  const uint64_t row = kWideBlock * item;  // one streamed output row of a block
  const bool stream = session->StreamStores(out_.shape().size() * item, row,
                                            {out_view.offset(), static_cast<uint64_t>(os[1]),
                                             static_cast<uint64_t>(batched ? os[2] : 0)});
  auto unit = Permute2DUnit(session, MoveOptions(item, false, false, stream), "Permute2D16");
  unit->SetArgs(out_.storage(), out_view.offset(), static_cast<cl_uint>(os[1]),
                static_cast<cl_uint>(batched ? os[2] : 0), in.storage(), in_view.offset(),
                static_cast<cl_uint>(is[0]), static_cast<cl_uint>(batched ? is[2] : 0));
  // Whole blocks only, so no work item needs a bounds check (a branch there
  // costs PoCL's work-group loop a third of its speed); y, the input's
  // contiguous direction, first.
  unit->SetGlobal({by, bx, static_cast<size_t>(batched ? layout.sizes[2] : 1)});
  unit->SetLocal({PowerOfTwoDivisor(by, kWideGroup), PowerOfTwoDivisor(bx, kWideGroup), 1});
  const long x_cut = static_cast<long>(bx * kWideBlock), y_cut = static_cast<long>(by * kWideBlock);
  if (x_cut < n0) {
    const auto [out_part, in_part] = Part(in, layout, x_cut, n0, 0, n1);
    AddMove(session, out_part, in_part);
  }
  if (y_cut < n1) {
    const auto [out_part, in_part] = Part(in, layout, 0, x_cut, y_cut, n1);
    AddMove(session, out_part, in_part);
  }
}

NERVA_STATIC_REGISTER {
  ClModule::singleton()
      .AddKernel<PermuteKernel, const PermuteOption&, const TensorOption&, const Buffer&,
                 const TensorOption&, Buffer&>("Permute");
};

}  // namespace cl
}  // namespace nerva
