// SPDX-License-Identifier: Apache-2.0
// One exchange with the secure world, the way every command routine makes it: the routine's
// memory registered as parameters, values set, the command invoked. A failed registration or
// invoke is reported in the routine's own name, at the line of the step that failed, with the
// two messages every routine prints:
//
//     "TEEC_RegisterSharedMemory failed with code 0x%x\n"
//     "TEEC_InvokeCommand failed with code 0x%x origin 0x%x\n"
//
// A command routine reads (docs/architecture.md, "The shape of a command routine"):
//
//     karst::HeapBuffer answer;       // memory first: it outlives its registration
//     karst::tee::Exchange tee;       // reports as the routine that declares it
//     if (!answer.allocate(ANSWER_SIZE, true)) {
//         KARST_E("Failed to allocate output buffer\n");
//         return -1;
//     }
//     tee.value(0, number);
//     if (!tee.share(1, answer, TEEC_MEM_OUTPUT) || !tee.invoke(PTA_DALU_CMD_EXAMPLE)) {
//         return -1; // or tee.code(), where the routine hands back the TEE's code
//     }
//     use(answer.data(), tee.size_of(1));
//
// Registrations are released when the exchange ends, the last parameter first.
#pragma once

#include "heap_buffer.hpp"
#include "shared_buffer.hpp"

#include <cstddef>
#include <cstdint>

namespace karst::tee {

// How failures are worded: the full messages above, or the short ones of the certificate
// retrieval ("TEEC_RegisterSharedMemory failed: 0x%x", "TEEC_InvokeCommand failed: 0x%x origin
// 0x%x", with no line end).
enum class Wording { full, brief };

class Exchange {
  public:
    // routine: the name failures are reported under; by default the function that declares the
    // exchange. A helper that works for several routines passes the one it works for.
    explicit Exchange(const char *routine = __builtin_FUNCTION(), Wording wording = Wording::full)
        : routine_(routine), wording_(wording) {}
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    // size bytes at data as whole-memory parameter index, registered now with flags. False,
    // reported, when the registration fails.
    bool share(int index, void *data, std::size_t size, std::uint32_t flags,
               int line = __builtin_LINE());
    bool share(int index, const HeapBuffer &buffer, std::uint32_t flags,
               int line = __builtin_LINE()) {
        return share(index, buffer.data(), buffer.size(), flags, line);
    }
    // A copy of size bytes at data, in memory the client library allocates, as whole-memory
    // parameter index with flags. For data the secure world reads from memory it is given as
    // output: a client library without registered memory copies only input memory into the
    // secure world, and would send registered output memory as zeros. Reported as a failed
    // registration.
    bool share_copy(int index, const void *data, std::size_t size, std::uint32_t flags,
                    int line = __builtin_LINE());
    // A value input parameter.
    Exchange &value(int index, std::uint32_t a, std::uint32_t b = 0) {
        operation_.value(index, a, b);
        return *this;
    }

    // Invokes command with the parameters set so far. False, reported, when it fails.
    bool invoke(std::uint32_t command, int line = __builtin_LINE());
    // Invokes command with no operation at all (a null operation pointer).
    bool invoke_bare(std::uint32_t command, int line = __builtin_LINE());

    // The code of the failed registration or invoke; TEEC_SUCCESS while none failed.
    TEEC_Result result() const { return result_; }
    // The same as the signed result of the routines that hand the TEE's code back.
    int code() const { return static_cast<int>(result_); }
    // The data size the secure world reported for memory parameter index.
    std::size_t size_of(int index) const { return operation_.size_of(index); }

  private:
    bool shared(int index, int line);
    bool invoked(TEEC_Result result, std::uint32_t origin, int line);

    const char *routine_;
    Wording wording_;
    Operation operation_;
    SharedRegion regions_[4]; // destroyed last parameter first
    TEEC_Result result_ = TEEC_SUCCESS;
};

} // namespace karst::tee
