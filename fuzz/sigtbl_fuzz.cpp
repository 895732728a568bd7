// SPDX-License-Identifier: Apache-2.0
// The signature table parser on an arbitrary 408-byte table (shorter inputs are padded with
// zeros): it must never read past the table nor write past the caller's 16 records.
#include "karst.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The parser prints every field; the lines are not what is being tested.
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    close(null);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // An exactly sized heap copy, so that the address sanitizer sees any read past the table.
    auto *table = new uint32_t[SIGTBL_MAX_BYTES / 4]();
    std::memcpy(table, data, size < SIGTBL_MAX_BYTES ? size : SIGTBL_MAX_BYTES);
    auto *blocks = new sig_block[SIGTBL_MAX_ENTRIES];
    auto *sigs = new sig_entry[SIGTBL_MAX_ENTRIES];
    dalu_parse_sigtbl(table, blocks, sigs);
    delete[] sigs;
    delete[] blocks;
    delete[] table;
    return 0;
}
