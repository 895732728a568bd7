// SPDX-License-Identifier: Apache-2.0
// Failure injection for tests: makes the Nth acquisition of a kind fail, so that tests can prove
// every path releases what it took. The hooks sit in the library's single acquisition points
// (heap_allocate, file_open, fd_open, register_memory, invoke, and the mapping, lock and thread
// points). Board builds compile the hooks away (KARST_FAULT_INJECTION off).
#pragma once

#include <cstddef>

namespace karst::fault {

enum class Kind : int {
    any = 0, // counts every acquisition, whatever its kind
    heap,
    file,
    mapping,
    lock,
    thread,
    shared_memory,
    invoke,
    count // how many kinds there are; not a kind
};

#if defined(KARST_FAULT_INJECTION)
// Called by an acquisition point: true when this acquisition must fail.
bool inject(Kind kind);
// Called when a resource of kind is taken (+1) or given back (-1), for held().
void track(Kind kind, int delta);
#else
constexpr bool inject(Kind) {
    return false;
}
constexpr void track(Kind, int) {}
#endif

// Test side. Fails the nth acquisition of kind from now on (1: the next one; Kind::any counts
// every acquisition). arm() also restarts the counts.
void arm(Kind kind, std::size_t nth);
void disarm();
// Whether an armed failure has been delivered, and the kind of the acquisition that failed.
bool fired();
Kind fired_kind();
// Resources of kind held now, where the acquisition point tracks them (mappings).
long held(Kind kind);

} // namespace karst::fault
