// SPDX-License-Identifier: Apache-2.0
// The edge of the C interface: no C++ exception leaves an exported call. Every extern "C"
// definition of the library is a function-try-block whose handler reports and returns the call's
// documented failure result:
//
//     extern "C" int pta20_example(const char *name) try {
//         ...
//     } catch (...) {
//         return KARST_CAUGHT(-1);
//     }
//
// An exception that reaches the handler (std::bad_alloc from a std::string, ...) has already
// released, by unwinding, everything the call acquired; the handler prints one error line under
// the call's name ("out of memory" or "internal error").
#pragma once

#include "core/log.hpp"

// The handler's report, as an expression worth failure.
#define KARST_CAUGHT(failure) (::karst::log::exception(__func__, __LINE__), (failure))
// The same for a call that returns nothing.
#define KARST_CAUGHT_VOID() ::karst::log::exception(__func__, __LINE__)
