#pragma once

// Splitting of batched matrix products whose operands exceed a device's limit
// on one memory object (CL_DEVICE_MAX_MEM_ALLOC_SIZE, and the 32-bit byte
// offsets of the device descriptors) into parts that are compiled and run one
// by one. A product is cut along its batch dimension when one batch of every
// operand fits, else along its rows (M) within each batch.

#include <cstddef>
#include <vector>

namespace nerva {

class TensorPartitioner {
 public:
  // How one operand's addressed bytes grow with the batches and rows of a part.
  struct Operand {
    long batch_stride;  // bytes per batch (0 when the operand broadcasts over batches)
    long row_stride;    // bytes per output row (0 when the operand has no such rows)
    long extent;        // bytes addressed by the whole product
  };
  // One part: batches [batch_begin, batch_end), rows [row_begin, row_end).
  struct Part {
    long batch_begin, batch_end, row_begin, row_end;
  };

  // Parts of a product of `batch` batches of `rows` rows whose operands each
  // address at most `limit` bytes. Throws std::runtime_error when a single row
  // of one batch is already over the limit.
  static TensorPartitioner Make(long batch, long rows, const std::vector<Operand>& operands,
                                long limit);

  // The dimension the parts are cut along: 0 batch, 1 rows, -1 when kept whole.
  int GetRemainingDataDim() const { return dim_; }
  const std::vector<Part>& parts() const { return parts_; }
  size_t num_parts() const { return parts_.size(); }

 private:
  int dim_ = -1;
  std::vector<Part> parts_;
};

}  // namespace nerva
