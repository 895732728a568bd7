// SPDX-License-Identifier: Apache-2.0
// Certificate replacement (commands 11 and 27): the body both command routines share and the
// pieces it is made of.
#pragma once

#include "core/heap_buffer.hpp"
#include "core/log.hpp"

#include <cstddef>
#include <cstdint>

namespace karst::certs {

constexpr size_t URI_SIZE = 32;             // NUL-terminated key, 31 characters at most
constexpr uint32_t CERT_BLOCK_SIZE = 65536; // the certificate data block, sent whole
constexpr size_t RA_RESULT_SIZE = 0x10400;  // what command 27 answers (66,560 bytes)
constexpr const char RA_TID_KEY[] = "RA_TID";
constexpr size_t RA_TID_OFFSET = 7; // RA_TID is bytes 7 to 14 of the ra_uid file
constexpr size_t RA_TID_SIZE = 8;

struct ReplaceRequest {
    const char *routine;     // the routine's name, printed in its messages
    uint32_t command;        // PTA command ID, passed through
    bool remote_attestation; // command 27: RA_TID, result buffer and archive
    uint32_t index;
    const char *uri;
    uint32_t option;
    const char *file;
    const void *data;
    uint32_t len;
};

// The whole routine: 0 or -1.
int replace_certificate(const ReplaceRequest &request);

// File mode: the file's bytes in a new certificate data block under uri, and for command 27
// "RA_TID" from the ra_uid file. Prints the failure as routine; false on failure.
bool build_certificate_block(const ReplaceRequest &request, const char *uri, HeapBuffer &block);

// Command 27's answer: written as RA_DATA_NAME in the attestation directory, archived as
// RA_ARCHIVE_NAME and copied to NV_DIR (core/board_paths.hpp). False (with its message) only
// when the directory cannot be made; a failed write of the answer's copy is reported only.
bool archive_ra_result(log::Site site, const uint8_t *result, size_t size);

} // namespace karst::certs
