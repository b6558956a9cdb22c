#pragma once

// Option records of the random-number operators. Each may carry its own seed: with
// `use_seed` the launch draws from (seed, offset 0) and leaves the session's generator
// state alone; otherwise it draws from the session's seed and offset, and advances the
// offset.

namespace nerva {

// torch.rand / Tensor.uniform_(from, to).
struct RandOption {
  float low = 0.0f;       // inclusive lower bound
  float high = 1.0f;      // exclusive upper bound
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// torch.randint(low, high).
struct RandIntOption {
  long low = 0;           // inclusive lower bound
  long high = 2;          // exclusive upper bound
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// torch.randn / Tensor.normal_(mean, std).
struct RandNOption {
  float mean = 0.0f;      // mean of the distribution
  float std = 1.0f;       // standard deviation
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// Tensor.log_normal_(mean, std): exp of a normal value.
struct LogNormalOption {
  float mean = 1.0f;      // mean of the underlying normal distribution
  float std = 2.0f;       // its standard deviation
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// Tensor.exponential_(lambd).
struct ExponentialOption {
  float lambd = 1.0f;     // rate of the distribution
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// torch.bernoulli(input): the probabilities come from the input tensor.
struct BernoulliOption {
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

// torch.nn.functional.dropout(training=True).
struct DropoutTrainOption {
  float p = 0.5f;         // probability of zeroing an element
  bool use_seed = false;  // draw from `seed` instead of the session's generator
  float seed = 0.0f;      // the seed, truncated to an unsigned integer
};

}  // namespace nerva
