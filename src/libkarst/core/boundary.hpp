// The edge of the C interface: no C++ exception leaves an exported call. Every extern "C"
// definition of the library is a function-try-block whose handler is KARST_BOUNDARY(failure):
//
//     extern "C" int pta20_example(const char *name) try {
//         ...
//     }
//     KARST_BOUNDARY(-1)
//
// An exception that reaches it (std::bad_alloc from a std::string, ...) has already released,
// by unwinding, everything the call acquired; the handler prints one error line under the
// call's name and returns the call's documented failure result.
#pragma once

#include "core/log.hpp"

#define KARST_BOUNDARY(failure)                                                                    \
    catch (...) {                                                                                  \
        ::karst::log::exception(__func__, __LINE__);                                               \
        return failure;                                                                            \
    }
// The same for a call that returns nothing.
#define KARST_BOUNDARY_VOID                                                                        \
    catch (...) {                                                                                  \
        ::karst::log::exception(__func__, __LINE__);                                               \
    }
