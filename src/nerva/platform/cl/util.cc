#include "nerva/platform/cl/util.h"

#include <stdexcept>
#include <unordered_map>

namespace nerva {
namespace cl {

namespace {

// Every status that the OpenCL 3.0 headers name, spelled by the macro itself.
#define NERVA_CL_STATUS(code) \
  { code, #code }
const std::unordered_map<int, const char*>& StatusNames() {
  static const std::unordered_map<int, const char*> names = {
      NERVA_CL_STATUS(CL_SUCCESS),
      NERVA_CL_STATUS(CL_DEVICE_NOT_FOUND),
      NERVA_CL_STATUS(CL_DEVICE_NOT_AVAILABLE),
      NERVA_CL_STATUS(CL_COMPILER_NOT_AVAILABLE),
      NERVA_CL_STATUS(CL_MEM_OBJECT_ALLOCATION_FAILURE),
      NERVA_CL_STATUS(CL_OUT_OF_RESOURCES),
      NERVA_CL_STATUS(CL_OUT_OF_HOST_MEMORY),
      NERVA_CL_STATUS(CL_PROFILING_INFO_NOT_AVAILABLE),
      NERVA_CL_STATUS(CL_MEM_COPY_OVERLAP),
      NERVA_CL_STATUS(CL_IMAGE_FORMAT_MISMATCH),
      NERVA_CL_STATUS(CL_IMAGE_FORMAT_NOT_SUPPORTED),
      NERVA_CL_STATUS(CL_BUILD_PROGRAM_FAILURE),
      NERVA_CL_STATUS(CL_MAP_FAILURE),
      NERVA_CL_STATUS(CL_MISALIGNED_SUB_BUFFER_OFFSET),
      NERVA_CL_STATUS(CL_EXEC_STATUS_ERROR_FOR_EVENTS_IN_WAIT_LIST),
      NERVA_CL_STATUS(CL_COMPILE_PROGRAM_FAILURE),
      NERVA_CL_STATUS(CL_LINKER_NOT_AVAILABLE),
      NERVA_CL_STATUS(CL_LINK_PROGRAM_FAILURE),
      NERVA_CL_STATUS(CL_DEVICE_PARTITION_FAILED),
      NERVA_CL_STATUS(CL_KERNEL_ARG_INFO_NOT_AVAILABLE),
      NERVA_CL_STATUS(CL_INVALID_VALUE),
      NERVA_CL_STATUS(CL_INVALID_DEVICE_TYPE),
      NERVA_CL_STATUS(CL_INVALID_PLATFORM),
      NERVA_CL_STATUS(CL_INVALID_DEVICE),
      NERVA_CL_STATUS(CL_INVALID_CONTEXT),
      NERVA_CL_STATUS(CL_INVALID_QUEUE_PROPERTIES),
      NERVA_CL_STATUS(CL_INVALID_COMMAND_QUEUE),
      NERVA_CL_STATUS(CL_INVALID_HOST_PTR),
      NERVA_CL_STATUS(CL_INVALID_MEM_OBJECT),
      NERVA_CL_STATUS(CL_INVALID_IMAGE_FORMAT_DESCRIPTOR),
      NERVA_CL_STATUS(CL_INVALID_IMAGE_SIZE),
      NERVA_CL_STATUS(CL_INVALID_SAMPLER),
      NERVA_CL_STATUS(CL_INVALID_BINARY),
      NERVA_CL_STATUS(CL_INVALID_BUILD_OPTIONS),
      NERVA_CL_STATUS(CL_INVALID_PROGRAM),
      NERVA_CL_STATUS(CL_INVALID_PROGRAM_EXECUTABLE),
      NERVA_CL_STATUS(CL_INVALID_KERNEL_NAME),
      NERVA_CL_STATUS(CL_INVALID_KERNEL_DEFINITION),
      NERVA_CL_STATUS(CL_INVALID_KERNEL),
      NERVA_CL_STATUS(CL_INVALID_ARG_INDEX),
      NERVA_CL_STATUS(CL_INVALID_ARG_VALUE),
      NERVA_CL_STATUS(CL_INVALID_ARG_SIZE),
      NERVA_CL_STATUS(CL_INVALID_KERNEL_ARGS),
      NERVA_CL_STATUS(CL_INVALID_WORK_DIMENSION),
      NERVA_CL_STATUS(CL_INVALID_WORK_GROUP_SIZE),
      NERVA_CL_STATUS(CL_INVALID_WORK_ITEM_SIZE),
      NERVA_CL_STATUS(CL_INVALID_GLOBAL_OFFSET),
      NERVA_CL_STATUS(CL_INVALID_EVENT_WAIT_LIST),
      NERVA_CL_STATUS(CL_INVALID_EVENT),
      NERVA_CL_STATUS(CL_INVALID_OPERATION),
      NERVA_CL_STATUS(CL_INVALID_GL_OBJECT),
      NERVA_CL_STATUS(CL_INVALID_BUFFER_SIZE),
      NERVA_CL_STATUS(CL_INVALID_MIP_LEVEL),
      NERVA_CL_STATUS(CL_INVALID_GLOBAL_WORK_SIZE),
      NERVA_CL_STATUS(CL_INVALID_PROPERTY),
      NERVA_CL_STATUS(CL_INVALID_IMAGE_DESCRIPTOR),
      NERVA_CL_STATUS(CL_INVALID_COMPILER_OPTIONS),
      NERVA_CL_STATUS(CL_INVALID_LINKER_OPTIONS),
      NERVA_CL_STATUS(CL_INVALID_DEVICE_PARTITION_COUNT),
      NERVA_CL_STATUS(CL_INVALID_PIPE_SIZE),
      NERVA_CL_STATUS(CL_INVALID_DEVICE_QUEUE),
      NERVA_CL_STATUS(CL_INVALID_SPEC_ID),
      NERVA_CL_STATUS(CL_MAX_SIZE_RESTRICTION_EXCEEDED),
  };
  return names;
}
#undef NERVA_CL_STATUS

}  // namespace

std::string StrErrcode(int code) {
  auto it = StatusNames().find(code);
  return it == StatusNames().end() ? std::to_string(code) : it->second;
}

void CheckStatus(cl_int status, const std::string& prefix) {
  if (status != CL_SUCCESS) throw std::runtime_error(prefix + StrErrcode(status));
}

int AdjustVecSize(int requested, long length) {
  if (requested > 16) {
    throw std::invalid_argument("Adjust invalid vec_size=" + std::to_string(requested));
  }
  if (requested < 1) {
    throw std::invalid_argument("Adjust invalid vec_size=" + std::to_string(requested));
  }
  // An empty (or negative) length has no vectors to fill; one lane keeps callers' divisions valid.
  if (length < 1) return 1;
  if (requested >= 3 && length == 3) return 3;
  int vec_size = requested;
  while (vec_size > length) vec_size /= 2;
  return vec_size;
}

std::vector<size_t> AdjustGlobalSizeWithLocal(const std::vector<size_t>& global,
                                              const std::vector<size_t>& local) {
  std::vector<size_t> adjusted = global;
  for (size_t i = 0; i < adjusted.size() && i < local.size(); ++i) {
    if (local[i] == 0) continue;
    adjusted[i] = (adjusted[i] + local[i] - 1) / local[i] * local[i];
  }
  return adjusted;
}

}  // namespace cl
}  // namespace nerva
