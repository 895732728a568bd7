// SPDX-License-Identifier: Apache-2.0
// The signature table of a signed image: big-endian 32-bit words, decoded and printed, with the
// signature blocks and signatures handed back to the caller. Only the version is checked.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"

namespace {

// An entry's second word: bit 31 tells that another entry follows.
constexpr unsigned MORE_SHIFT = 31;
// A signature block's size: bits 28..9, in 64-byte units.
constexpr unsigned BLOCK_SIZE_SHIFT = 9;
constexpr uint32_t BLOCK_SIZE_MASK = 0xFFFFF;
constexpr uint32_t SIZE_UNIT = 64;
// A signature's boot ID offset: bits 30..0.
constexpr uint32_t BOOT_ID_OFFSET_MASK = 0x7FFFFFFF;

// A table's words in order. A table occupies at most 102 words (408 bytes): four header words,
// three lists of at most 16 two-word entries, the reserved word and the size word; the walk
// below never reads further than that. Lines are printed under the routine's name.
class Words {
  public:
    Words(const uint32_t *table, const char *routine)
        : bytes_(reinterpret_cast<const uint8_t *>(table)), routine_(routine) {}
    uint32_t next() {
        const uint8_t *b = bytes_ + 4 * index_++;
        return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
    }
    void skip() { ++index_; }
    const char *routine() const { return routine_; }

  private:
    const uint8_t *bytes_;
    const char *routine_;
    size_t index_ = 0;
};

uint8_t more(uint32_t descriptor) {
    return static_cast<uint8_t>(descriptor >> MORE_SHIFT);
}

// Prints the three header words; returns the table's version.
uint32_t read_header(Words &words) {
    const uint32_t header0 = words.next();
    const uint32_t header1 = words.next();
    const uint32_t header2 = words.next();
    const uint32_t version = header0 >> 16;
    const char *routine = words.routine();
    KARST_I_AS(routine, "Table Version: 0x%x\n", version);
    KARST_I_AS(routine, "Board ID: 0x%x\n", header0 & 0xFFFF);
    KARST_I_AS(routine, "Size of Table: 0x%x\n", ((header1 >> 16) & 0xFF) * 2);
    KARST_I_AS(routine, "Check Sum: 0x%x\n", header1 & 0xFFFF);
    KARST_I_AS(routine, "Rollback Protection Revision: 0x%x\n", header2 >> 16);
    KARST_I_AS(routine, "Offset of skip table: 0x%x\n", (header2 & 0xFFFF) * 2);
    return version;
}

// The signature blocks, into blocks up to the last one.
void read_blocks(Words &words, sig_block *blocks) {
    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        sig_block &b = blocks[i];
        b.address = words.next();
        const uint32_t descriptor = words.next();
        b.size = ((descriptor >> BLOCK_SIZE_SHIFT) & BLOCK_SIZE_MASK) * SIZE_UNIT;
        b.flag = more(descriptor);
        KARST_I_AS(words.routine(), "Signature Block[%d] - address: 0x%08x, size: 0x%x, flag: %d\n",
                   i, b.address, b.size, b.flag);
        if (b.flag == 0) {
            break;
        }
    }
}

// The signatures, into sigs up to the last one.
void read_signatures(Words &words, sig_entry *sigs) {
    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        sig_entry &s = sigs[i];
        s.offset = words.next();
        const uint32_t descriptor = words.next();
        s.boot_id_offset = descriptor & BOOT_ID_OFFSET_MASK;
        s.flag = more(descriptor);
        KARST_I_AS(words.routine(), "Signature[%d] - offset: 0x%x, Flag: 0x%x\n", i, s.offset,
                   s.flag);
        KARST_I_AS(words.routine(), "Boot ID offset: 0x%x\n", s.boot_id_offset);
        if (s.flag == 0) {
            break;
        }
    }
}

// The update/skip blocks: printed, not kept.
void print_skip_blocks(Words &words) {
    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        const uint32_t offset = words.next();
        const uint32_t descriptor = words.next();
        const unsigned unit = (descriptor >> 16) & 0xFF;
        const int number = static_cast<int>(descriptor & 0xFFFF);
        const unsigned flag = descriptor >> 24;
        KARST_I_AS(words.routine(),
                   "Update/Skip block[%d] - offset: 0x%08x, block unit: 0x%0x, block number: "
                   "%d, flag 0x%x\n",
                   i, offset, unit, number, flag);
        if (flag == 0) {
            break;
        }
    }
}

} // namespace

extern "C" int dalu_parse_sigtbl(const uint32_t *table, sig_block *blocks, sig_entry *sigs) try {
    if (table == nullptr || blocks == nullptr || sigs == nullptr) {
        return -1;
    }
    Words words(table, __func__);
    if (read_header(words) != SIGTBL_VERSION) {
        return -1;
    }
    KARST_I("Start of Protection Map: 0x%x\n", words.next());
    read_blocks(words, blocks);
    words.skip(); // reserved
    KARST_I("Total signed image size: 0x%x\n", (words.next() >> BLOCK_SIZE_SHIFT) * SIZE_UNIT);
    read_signatures(words, sigs);
    print_skip_blocks(words);
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
