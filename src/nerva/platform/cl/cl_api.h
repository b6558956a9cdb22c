#pragma once

// The one include of the OpenCL host API for the whole platform: the Khronos
// C++ wrapper on the OpenCL 3.0 headers, with C++ exceptions off (every status
// is checked and turned into a library message).
#ifndef CL_HPP_TARGET_OPENCL_VERSION
#define CL_HPP_TARGET_OPENCL_VERSION 300
#endif
#ifndef CL_HPP_MINIMUM_OPENCL_VERSION
#define CL_HPP_MINIMUM_OPENCL_VERSION 200
#endif
#ifndef CL_TARGET_OPENCL_VERSION
#define CL_TARGET_OPENCL_VERSION 300
#endif

#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wignored-attributes"
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
#include <CL/opencl.hpp>
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif
