# OpenCL platform: the ICD loader and the device programs embedded as text.
find_package(OpenCL REQUIRED)
target_link_libraries(nerva PUBLIC OpenCL::OpenCL)

# Every .cl and device header under platform/cl/kernel becomes a string in a
# generated source that registers it in SourceManager under its file name,
# family and "device/" folders dropped ("common.h", "activation.cl"); the
# tensor-core family keeps its folder ("tensorcore/matmul.cl"). Regenerated whenever one of them changes.
set(NERVA_CL_KERNEL_DIR ${CMAKE_CURRENT_LIST_DIR}/kernel)
file(GLOB_RECURSE NERVA_CL_DEVICE_SOURCES CONFIGURE_DEPENDS
  ${NERVA_CL_KERNEL_DIR}/*.cl ${NERVA_CL_KERNEL_DIR}/*device/*.h
  ${NERVA_CL_KERNEL_DIR}/tensorcore/device/*.h)
list(SORT NERVA_CL_DEVICE_SOURCES)
set(NERVA_CL_EMBEDDED ${CMAKE_CURRENT_BINARY_DIR}/nerva_cl_sources.cc)
set(NERVA_CL_EMBED_LIST ${CMAKE_CURRENT_BINARY_DIR}/nerva_cl_sources.list)
file(CONFIGURE OUTPUT ${NERVA_CL_EMBED_LIST} CONTENT "${NERVA_CL_DEVICE_SOURCES}")
add_custom_command(
  OUTPUT ${NERVA_CL_EMBEDDED}
  COMMAND ${CMAKE_COMMAND} -DKERNEL_DIR=${NERVA_CL_KERNEL_DIR} -DLIST_FILE=${NERVA_CL_EMBED_LIST}
          -DOUTPUT=${NERVA_CL_EMBEDDED} -P ${CMAKE_CURRENT_LIST_DIR}/embed_sources.cmake
  DEPENDS ${NERVA_CL_DEVICE_SOURCES} ${NERVA_CL_EMBED_LIST}
          ${CMAKE_CURRENT_LIST_DIR}/embed_sources.cmake
  COMMENT "Embedding OpenCL device programs"
  VERBATIM)
target_sources(nerva PRIVATE ${NERVA_CL_EMBEDDED})
