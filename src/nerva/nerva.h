#pragma once

// The whole public API of nerva.
#include "nerva/array_ref.h"
#include "nerva/buffer.h"
#include "nerva/encoded_coef.h"
#include "nerva/event.h"
#include "nerva/function_wrapper.h"
#include "nerva/kernel.h"
#include "nerva/kernel/base.h"
#include "nerva/module.h"
#include "nerva/queue.h"
#include "nerva/session.h"
#include "nerva/shape.h"
#include "nerva/tensor.h"
#include "nerva/tensor_option.h"
#include "nerva/type_traits.h"
#include "nerva/util.h"
