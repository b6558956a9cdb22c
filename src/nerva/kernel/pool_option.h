#pragma once

// Option records of the pooling and sliding-window operators. Window lists hold one
// entry per spatial dimension (height and width, or depth, height and width).

#include <vector>

namespace nerva {

// torch.nn.functional.avg_pool2d.
struct AvgPool2DOption {
  std::vector<long> kernel_size;    // window size
  std::vector<long> stride;         // window step; empty means kernel_size
  std::vector<long> padding{0, 0};  // implicit zero padding on both sides
  bool ceil_mode = false;           // ceil instead of floor for the output size
  bool count_include_pad = true;    // padding counts in the divisor
  long divisor_override = 0;        // the divisor when nonzero (torch None is 0)
};

// torch.nn.functional.avg_pool3d.
struct AvgPool3DOption {
  std::vector<long> kernel_size;       // window size
  std::vector<long> stride;            // window step; empty means kernel_size
  std::vector<long> padding{0, 0, 0};  // implicit zero padding on both sides
  bool ceil_mode = false;              // ceil instead of floor for the output size
  bool count_include_pad = true;       // padding counts in the divisor
  long divisor_override = 0;           // the divisor when nonzero (torch None is 0)
};

// torch.nn.functional.max_pool2d.
struct MaxPool2DOption {
  std::vector<long> kernel_size;     // window size
  std::vector<long> stride;          // window step; empty means kernel_size
  std::vector<long> padding{0, 0};   // implicit -infinity padding on both sides
  std::vector<long> dilation{1, 1};  // spacing between window elements
  bool ceil_mode = false;            // ceil instead of floor for the output size
};

// torch.nn.functional.max_pool3d.
struct MaxPool3DOption {
  std::vector<long> kernel_size;        // window size
  std::vector<long> stride;             // window step; empty means kernel_size
  std::vector<long> padding{0, 0, 0};   // implicit -infinity padding on both sides
  std::vector<long> dilation{1, 1, 1};  // spacing between window elements
  bool ceil_mode = false;               // ceil instead of floor for the output size
};

// Gradients take the forward's window.
struct AvgPool2DBackwardOption : AvgPool2DOption {};
struct AvgPool3DBackwardOption : AvgPool3DOption {};
struct MaxPool2DWithIndicesBackwardOption : MaxPool2DOption {};
struct MaxPool3DWithIndicesBackwardOption : MaxPool3DOption {};

// torch.nn.functional.unfold(input, kernel_size, dilation, padding, stride).
struct Im2colOption {
  std::vector<long> kernel_size;     // block size
  std::vector<long> dilation{1, 1};  // spacing between block elements
  std::vector<long> padding{0, 0};   // implicit zero padding on both sides
  std::vector<long> stride{1, 1};    // block step
};

// torch.nn.functional.fold(input, output_size, kernel_size, dilation, padding, stride).
struct Col2imOption {
  std::vector<long> output_size;     // spatial size of the image
  std::vector<long> kernel_size;     // block size
  std::vector<long> dilation{1, 1};  // spacing between block elements
  std::vector<long> padding{0, 0};   // implicit zero padding on both sides
  std::vector<long> stride{1, 1};    // block step
};

}  // namespace nerva
