// The four CPU layout kernels end to end: host data in, kernel created through
// the operator front-end and enqueued, result out, compared with a plain
// element-by-element reference.

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>

#include "cpu_test_util.h"

namespace nerva::cpu::test {
namespace {

using Sizes = std::vector<long>;
// Creates the kernel under test from the input and output descriptors and buffers.
using CreateFn = std::function<Kernel(const Queue&, const TensorOption&, const Buffer&,
                                      const TensorOption&, Buffer&)>;
// The input element (row-major linear index) that lands at an output index.
using SourceFn = std::function<long(const Sizes& out_index)>;

struct LayoutCase {
  std::string label;
  DataType dtype;
  Sizes in_sizes;
  Sizes out_sizes;
  CreateFn create;
  SourceFn source;
};

Sizes RowMajorStrides(const Sizes& sizes) {
  Sizes strides(sizes.size(), 1);
  for (size_t d = sizes.size(); d-- > 1;) strides[d - 1] = strides[d] * sizes[d];
  return strides;
}

long Count(const Sizes& sizes) {
  long count = 1;
  for (long size : sizes) count *= size;
  return count;
}

// Steps a row-major multi-index to the next element.
void Advance(Sizes& index, const Sizes& sizes) {
  for (size_t d = index.size(); d-- > 0;) {
    if (++index[d] < sizes[d]) return;
    index[d] = 0;
  }
}

Bytes ReferenceLayout(const LayoutCase& c, const Bytes& in) {
  const size_t item = TypeTraitsHelper::GetSize(c.dtype);
  Bytes out(Count(c.out_sizes) * item);
  Sizes index(c.out_sizes.size(), 0);
  for (size_t i = 0; i < out.size(); i += item) {
    std::memcpy(&out[i], &in[c.source(index) * item], item);
    Advance(index, c.out_sizes);
  }
  return out;
}

LayoutCase PermuteCase(DataType dtype, const Sizes& in_sizes, const std::vector<int>& dims) {
  Sizes out_sizes;
  for (int d : dims) out_sizes.push_back(in_sizes[d]);
  Sizes strides = RowMajorStrides(in_sizes);
  return {
      StrCat("Permute ", dtype, " ", in_sizes, " ", std::vector<long>(dims.begin(), dims.end())),
      dtype,
      in_sizes,
      out_sizes,
      [dims](const Queue& q, const TensorOption& in_opt, const Buffer& in,
             const TensorOption& out_opt, Buffer& out) {
        return Permute::Create(q, PermuteOption{dims}, in_opt, in, out_opt, out);
      },
      [dims, strides](const Sizes& index) {
        long offset = 0;
        for (size_t i = 0; i < dims.size(); ++i) offset += index[i] * strides[dims[i]];
        return offset;
      }};
}

LayoutCase SliceCase(DataType dtype, const Sizes& in_sizes, const Sizes& starts, const Sizes& ends,
                     const Sizes& steps) {
  Sizes out_sizes;
  for (size_t i = 0; i < in_sizes.size(); ++i) {
    out_sizes.push_back((std::min(ends[i], in_sizes[i]) - starts[i] + steps[i] - 1) / steps[i]);
  }
  Sizes strides = RowMajorStrides(in_sizes);
  SliceOption option{starts, ends, steps};
  return {StrCat("Slice ", dtype, " ", in_sizes, " ", starts, " ", ends, " ", steps),
          dtype,
          in_sizes,
          out_sizes,
          [option](const Queue& q, const TensorOption& in_opt, const Buffer& in,
                   const TensorOption& out_opt,
                   Buffer& out) { return Slice::Create(q, option, in_opt, in, out_opt, out); },
          [option, strides](const Sizes& index) {
            long offset = 0;
            for (size_t i = 0; i < index.size(); ++i) {
              offset += (option.starts[i] + index[i] * option.steps[i]) * strides[i];
            }
            return offset;
          }};
}

// Tile and BroadcastTo read input axis j (aligned at the end of the output)
// at position `map(output position, input size)`.
LayoutCase AlignedCase(const std::string& name, CreateFn create, DataType dtype,
                       const Sizes& in_sizes, const Sizes& out_sizes,
                       long (*map)(long position, long size)) {
  Sizes strides = RowMajorStrides(in_sizes);
  const size_t lead = out_sizes.size() - in_sizes.size();
  return {StrCat(name, " ", dtype, " ", in_sizes, " -> ", out_sizes),
          dtype,
          in_sizes,
          out_sizes,
          std::move(create),
          [in_sizes, strides, lead, map](const Sizes& index) {
            long offset = 0;
            for (size_t j = 0; j < in_sizes.size(); ++j) {
              offset += map(index[lead + j], in_sizes[j]) * strides[j];
            }
            return offset;
          }};
}

LayoutCase TileCase(DataType dtype, const Sizes& in_sizes, const Sizes& out_sizes) {
  return AlignedCase("Tile", Tile::Create, dtype, in_sizes, out_sizes,
                     [](long position, long size) { return position % size; });
}

LayoutCase BroadcastToCase(DataType dtype, const Sizes& in_sizes, const Sizes& out_sizes) {
  return AlignedCase("BroadcastTo", BroadcastTo::Create, dtype, in_sizes, out_sizes,
                     [](long position, long size) { return size == 1 ? 0 : position; });
}

class LayoutKernelTest : public CpuTest {
 protected:
  void Run(const std::vector<LayoutCase>& cases) {
    unsigned seed = 0;
    for (const LayoutCase& c : cases) {
      SCOPED_TRACE(c.label);
      Tensor in = session_.MakeTensor(c.in_sizes, c.dtype);
      Tensor out = session_.MakeTensor(c.out_sizes, c.dtype);
      const Bytes data = RandomBytes(in.option().bytes(), ++seed);
      queue_.CopyHostToDevice(in.storage(), data.data(), in.option().bytes());
      queue_.Enqueue(c.create(queue_, in.option(), in.storage(), out.option(), out.storage()));
      EXPECT_EQ(Download(out.storage()), ReferenceLayout(c, data));
    }
  }
};

TEST_F(LayoutKernelTest, Permute) {
  Run({PermuteCase(kFloat, {2, 3, 4}, {2, 0, 1}), PermuteCase(kHalf, {7}, {0}),
       PermuteCase(kInt8, {2, 3, 4, 5}, {3, 1, 0, 2}), PermuteCase(kDouble, {5, 3}, {1, 0}),
       PermuteCase(kUInt16, {3, 1, 4, 2}, {0, 2, 1, 3})});
}

TEST_F(LayoutKernelTest, Slice) {
  Run({SliceCase(kInt8, {10}, {1}, {9}, {3}), SliceCase(kHalf, {4, 6}, {1, 0}, {3, 6}, {1, 2}),
       SliceCase(kFloat, {2, 3, 4, 5}, {0, 1, 1, 0}, {2, 3, 4, 5}, {1, 1, 2, 2}),
       SliceCase(kInt64, {5, 4}, {1, 1}, {5, 4}, {2, 1})});
}

TEST_F(LayoutKernelTest, Tile) {
  Run({TileCase(kFloat, {2, 3}, {4, 9}), TileCase(kInt8, {3}, {2, 6}), TileCase(kHalf, {5}, {15}),
       TileCase(kBFloat, {1, 2, 1, 3}, {2, 4, 3, 3})});
}

TEST_F(LayoutKernelTest, BroadcastTo) {
  Run({BroadcastToCase(kFloat, {3, 1}, {2, 3, 4}), BroadcastToCase(kInt8, {1}, {7}),
       BroadcastToCase(kHalf, {2, 1, 3, 1}, {2, 4, 3, 5}), BroadcastToCase(kInt32, {4}, {3, 4})});
}

TEST_F(LayoutKernelTest, SliceIgnoresOutputStridesAndWritesDensely) {
  const LayoutCase c = SliceCase(kFloat, {4, 6}, {0, 1}, {4, 6}, {2, 2});
  Tensor in = session_.MakeTensor(c.in_sizes, kFloat);
  const Bytes data = RandomBytes(in.option().bytes(), 11);
  queue_.CopyHostToDevice(in.storage(), data.data(), in.option().bytes());
  // A [2, 3] result laid out with row stride 8 in a 16-element buffer.
  const TensorOption out_opt{Shape(c.out_sizes, Sizes{8, 1}), kFloat};
  Buffer out = session_.MakeBuffer(kMemReadWrite, 16 * sizeof(float));

  queue_.Enqueue(c.create(queue_, in.option(), in.storage(), out_opt, out));
  Bytes expected = ReferenceLayout(c, data);
  expected.resize(out.size(), 0);
  EXPECT_EQ(Download(out), expected);
}

TEST_F(LayoutKernelTest, KernelRunsAtEnqueueOnItsOwnArgumentCopies) {
  const LayoutCase c = PermuteCase(kInt32, {3, 4}, {1, 0});
  Buffer in = session_.MakeBuffer(kMemReadWrite, 48);
  Buffer out = session_.MakeBuffer(kMemReadWrite, 48);
  // Every descriptor and option used at creation is gone before the runs.
  Kernel kernel = [&] {
    TensorOption in_opt{Shape(c.in_sizes), kInt32};
    TensorOption out_opt{Shape(c.out_sizes), kInt32};
    return c.create(queue_, in_opt, in, out_opt, out);
  }();
  EXPECT_EQ(kernel.name(), "Permute");
  EXPECT_EQ(Download(out), Bytes(48, 0)) << "nothing runs at creation";
  for (unsigned seed : {21u, 22u}) {
    const Bytes data = RandomBytes(48, seed);
    queue_.CopyHostToDevice(in, data.data(), 48);
    queue_.Enqueue(kernel);
    EXPECT_EQ(Download(out), ReferenceLayout(c, data));
  }
}

}  // namespace
}  // namespace nerva::cpu::test
