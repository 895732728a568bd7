// The signature table of a signed image: big-endian 32-bit words, decoded and printed, with the
// signature blocks and signatures handed back to the caller. Only the version is checked.
#include "karst.h"

#include "core/boundary.hpp"
#include "core/log.hpp"

namespace {

// A table's words in order. A table occupies at most 102 words (408 bytes): four header words,
// three lists of at most 16 two-word entries, the reserved word and the size word; the walk
// below never reads further than that.
class Words {
  public:
    explicit Words(const uint32_t *table) : bytes_(reinterpret_cast<const uint8_t *>(table)) {}
    uint32_t next() {
        const uint8_t *b = bytes_ + 4 * index_++;
        return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
    }
    void skip() { ++index_; }

  private:
    const uint8_t *bytes_;
    size_t index_ = 0;
};

} // namespace

extern "C" int dalu_parse_sigtbl(const uint32_t *table, sig_block *blocks, sig_entry *sigs) try {
    if (table == nullptr || blocks == nullptr || sigs == nullptr) {
        return -1;
    }
    Words words(table);
    const uint32_t header0 = words.next();
    const uint32_t header1 = words.next();
    const uint32_t header2 = words.next();
    const uint32_t version = header0 >> 16;

    KARST_I("Table Version: 0x%x\n", version);
    KARST_I("Board ID: 0x%x\n", header0 & 0xFFFF);
    KARST_I("Size of Table: 0x%x\n", ((header1 >> 16) & 0xFF) * 2);
    KARST_I("Check Sum: 0x%x\n", header1 & 0xFFFF);
    KARST_I("Rollback Protection Revision: 0x%x\n", header2 >> 16);
    KARST_I("Offset of skip table: 0x%x\n", (header2 & 0xFFFF) * 2);
    if (version != SIGTBL_VERSION) {
        return -1;
    }
    KARST_I("Start of Protection Map: 0x%x\n", words.next());

    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        sig_block &b = blocks[i];
        b.address = words.next();
        const uint32_t descriptor = words.next();
        b.size = ((descriptor >> 9) & 0xFFFFF) * 64;
        b.flag = static_cast<uint8_t>(descriptor >> 31);
        KARST_I("Signature Block[%d] - address: 0x%08x, size: 0x%x, flag: %d\n", i, b.address,
                b.size, b.flag);
        if (b.flag == 0) {
            break;
        }
    }

    words.skip(); // reserved
    KARST_I("Total signed image size: 0x%x\n", (words.next() >> 9) * 64);

    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        sig_entry &s = sigs[i];
        s.offset = words.next();
        const uint32_t descriptor = words.next();
        s.boot_id_offset = descriptor & 0x7FFFFFFF;
        s.flag = static_cast<uint8_t>(descriptor >> 31);
        KARST_I("Signature[%d] - offset: 0x%x, Flag: 0x%x\n", i, s.offset, s.flag);
        KARST_I("Boot ID offset: 0x%x\n", s.boot_id_offset);
        if (s.flag == 0) {
            break;
        }
    }

    // Update/skip blocks are printed and not kept.
    for (int i = 0; i < SIGTBL_MAX_ENTRIES; ++i) {
        const uint32_t offset = words.next();
        const uint32_t descriptor = words.next();
        const unsigned unit = (descriptor >> 16) & 0xFF;
        const int number = static_cast<int>(descriptor & 0xFFFF);
        const unsigned flag = descriptor >> 24;
        KARST_I("Update/Skip block[%d] - offset: 0x%08x, block unit: 0x%0x, block number: %d, "
                "flag 0x%x\n",
                i, offset, unit, number, flag);
        if (flag == 0) {
            break;
        }
    }
    return 0;
} catch (...) {
    return KARST_CAUGHT(-1);
}
