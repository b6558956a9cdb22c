#include "nerva/encoded_coef.h"

#include <cstring>
#include <stdexcept>

namespace nerva {

EncodedCoef::EncodedCoef(std::string name_, const void* source, size_t size_, size_t extra_)
    : name(std::move(name_)), size(size_), extra(extra_) {
  if (size_ == 0) throw std::invalid_argument("Create encoded coef fail, size is 0.");
  data.assign(size_, 0);
  if (source != nullptr) std::memcpy(data.data(), source, size_);
}

}  // namespace nerva
