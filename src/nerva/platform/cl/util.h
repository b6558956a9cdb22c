#pragma once

#include <string>
#include <vector>

#include "nerva/platform/cl/cl_api.h"

namespace nerva {
namespace cl {

// The macro name of an OpenCL status ("CL_OUT_OF_RESOURCES"), or the number
// in decimal when the status has no name in OpenCL 3.0.
std::string StrErrcode(int code);

// Throws std::runtime_error(prefix + StrErrcode(status)) when status is not CL_SUCCESS.
void CheckStatus(cl_int status, const std::string& prefix);

// The vector width for `length` elements: at most `requested`, halved until it
// fits; a length of exactly 3 takes 3-wide vectors; an empty length gives 1.
// Requests above 16 or below 1 throw.
int AdjustVecSize(int requested, long length);

// Rounds every global size up to a multiple of the matching local size.
std::vector<size_t> AdjustGlobalSizeWithLocal(const std::vector<size_t>& global,
                                              const std::vector<size_t>& local);

}  // namespace cl
}  // namespace nerva
