// SPDX-License-Identifier: Apache-2.0
// The exported image API: authenticate, upload, dump, delete and update a firmware image, the
// active BMC dump from the eMMC, and the progress file of an update. Each call checks the image
// word, opens the session, hands the argument block to the dispatcher and closes the session.
#include "karst.h"

#include "image_api.hpp"
#include "image_table.hpp"
#include "progress_file.hpp"

#include "core/board_files.hpp"
#include "core/board_paths.hpp"
#include "core/boundary.hpp"
#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/session_scope.hpp"
#include "core/shell.hpp"

#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace karst;
using namespace karst::images;

namespace {

constexpr int IMG_RETRIES = 10;
constexpr int PTA_BUSY = -2; // 0xFFFFFFFE: the secure world is busy with an image

// Regions of "/dev/mmcblk0", in 512-byte blocks, that hold the active BMC image: the head, then
// the tail right behind it in the dump.
struct mmc_region {
    uint32_t start;
    uint32_t count;
};
constexpr size_t BMC_HEAD = 0; // the first 0x630000 bytes, from byte 0x400000
constexpr size_t BMC_TAIL = 1; // the remaining 0x39D0000 bytes, from byte 0xC00000
constexpr mmc_region mmc_regions[] = {
    {0x2000, 0x3180},
    {0x6000, 0x1CE80},
};
constexpr int MMC_BLOCK = 512;
constexpr mode_t DUMP_MODE = 0444; // the dump is read-only

bool word_ok(uint32_t img_id) {
    return img_type(img_id) < IMG_TYPE_COUNT && img_index(img_id) < IMG_IDX_COUNT;
}

uintptr_t word(const void *p) {
    return reinterpret_cast<uintptr_t>(p);
}

// Runs an image command once with the caller's words: its result.
int command(uint32_t number, uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size) {
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, img_id, img_flags, 0, word(arg), size, 0);
    return pta_invoke_cmd(number, block);
}

// Runs an image command with the caller's words in a session of its own, again while the secure
// world answers busy, and logs its last result (named name) with the tries left. The command's
// result; -1 for a bad image word or no session.
int retried(const char *name, uint32_t number, uint32_t img_id, uint32_t img_flags, void *arg,
            uint32_t size) {
    if (!word_ok(img_id)) {
        return -1;
    }
    const tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    uintptr_t block[PTA20_ARGS_WORDS];
    pta20_args(block, img_id, img_flags, 0, word(arg), size, 0);
    int rc = 0;
    int left = IMG_RETRIES;
    for (; left >= 1; --left) {
        rc = pta_invoke_cmd(number, block);
        if (rc != PTA_BUSY) {
            break;
        }
    }
    KARST_DEBUG(IMAGE_API_FILE, "%s rc = %x; retry left %d:%d\n", name, static_cast<unsigned>(rc),
                left, IMG_RETRIES);
    return rc;
}

// The dd command that copies region of the device into the image, seek blocks into it.
std::string dd_command(const std::string &device, const std::string &image,
                       const mmc_region &region, uint32_t seek) {
    std::string command = "dd if=" + device + " of=" + image + " bs=" + std::to_string(MMC_BLOCK) +
                          " skip=" + std::to_string(region.start);
    if (seek != 0) {
        command += " seek=" + std::to_string(seek);
    }
    return command + " count=" + std::to_string(region.count);
}

// Copies the two eMMC regions of the active BMC image, one behind the other, into
// /tmp/fw_image and makes it read-only. The dump file is created fresh by the library before dd
// writes into it (so dd never follows what someone else put at that name), and the device is
// checked before dd reads it. A dump that wrote nothing is no dump: the empty file goes.
int bmc_active_dump() {
    const board::Opened device_file =
        board::open_file(paths::MMC_DEVICE, O_RDONLY, KARST_SITE, board::Kind::regular_or_device);
    board::Opened image_file =
        device_file
            ? board::create_file(paths::FW_IMAGE, board::NEW_FILE_MODE, O_WRONLY, KARST_SITE)
            : board::Opened{};
    const std::string device = shell::quote(platform_path(paths::MMC_DEVICE));
    const std::string image_path = platform_path(paths::FW_IMAGE);
    const std::string image = shell::quote(image_path);
    if (image_file) {
        // What dd managed is judged by the file's size below.
        const mmc_region &head = mmc_regions[BMC_HEAD];
        shell::run(dd_command(device, image, head, 0));
        shell::run(dd_command(device, image, mmc_regions[BMC_TAIL], head.count));
    }
    struct stat st {};
    if (!image_file || ::fstat(image_file.get(), &st) != 0 || st.st_size == 0) {
        if (image_file) {
            ::unlink(image_path.c_str());
        }
        KARST_ERROR(IMAGE_API_FILE, "BMC active FW failed to dump!\n");
        return -1;
    }
    ::fchmod(image_file.get(), DUMP_MODE); // a dump left writable still succeeds: not reported
    return 0;
}

} // namespace

extern "C" int pta20_img_auth(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size) try {
    return retried("PTA_DALU_CMD_FW_AUTH", PTA_DALU_CMD_FW_AUTH, img_id, img_flags, arg, size) == 0
               ? 0
               : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_img_upload(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size) try {
    return retried("PTA_DALU_CMD_FW_UPLOAD", PTA_DALU_CMD_FW_UPLOAD, img_id, img_flags, arg, size);
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_img_dump(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size) try {
    if (!word_ok(img_id)) {
        return -1;
    }
    if (img_type(img_id) == IMG_TYPE_BMC && img_index(img_id) == IMG_IDX_ACTIVE) {
        if (bmc_active_dump() != 0) {
            KARST_ERROR(IMAGE_API_FILE, "Failed to dump active BMC FW image!\n");
            return -1;
        }
        return 0;
    }
    if (img_index(img_id) == IMG_IDX_GOLDEN && (img_flags & IMG_SRC_MASK) == IMG_SRC_TABLE) {
        return -1;
    }
    tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    return command(PTA_DALU_CMD_FW_DUMP, img_id, img_flags, arg, size) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_img_delete(uint32_t img_id, uint32_t img_flags) try {
    if (!word_ok(img_id)) {
        return -1;
    }
    if (img_index(img_id) != IMG_IDX_STAGING && img_index(img_id) != IMG_IDX_BACKUP) {
        return -1;
    }
    tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    return command(PTA_DALU_CMD_FW_DELETE, img_id, img_flags, nullptr, 0) == 0 ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

extern "C" int pta20_img_update(uint32_t img_id, uint32_t img_flags, void *arg, uint32_t size) try {
    if (!word_ok(img_id)) {
        return -1;
    }
    tee::SessionScope session;
    if (!session.open()) {
        return -1;
    }
    const uint32_t type = img_type(img_id);
    bool dumps_ok = true;
    // The device's current image goes into the backup and evidence slots' own files first.
    if (img_flags & IMG_FLAG_BACKUP) {
        dumps_ok = command(PTA_DALU_CMD_FW_DUMP, IMG_ID(type, IMG_IDX_BACKUP), IMG_SRC_TABLE,
                           nullptr, size) == 0;
    }
    if (img_flags & IMG_FLAG_EVIDENCE) {
        dumps_ok = command(PTA_DALU_CMD_FW_DUMP, IMG_ID(type, IMG_IDX_EVIDENCE), IMG_SRC_TABLE,
                           nullptr, size) == 0 &&
                   dumps_ok;
    }
    const int rc = command(PTA_DALU_CMD_FW_UPDATE, img_id, img_flags, arg, size);
    return rc == 0 && dumps_ok ? 0 : -1;
} catch (...) {
    return KARST_CAUGHT(-1);
}

int karst::images::progress_message(uint32_t img_id, uint32_t mode) {
    if (!word_ok(img_id)) {
        return -1;
    }
    const std::string board_path = progress_path(img_type(img_id));
    if (board_path.empty()) {
        return -1;
    }
    const std::string path = platform_path(board_path);
    if (mode == 1) {
        const std::string command = "rm -f " + shell::quote(path);
        shell::run(command); // mode 1 answers 0 whatever rm did: its failure is not reported
        KARST_DEBUG(IMAGE_API_FILE, "cmd: %s\n", command.c_str());
        return 0;
    }
    return read_progress(board_path);
}

extern "C" int pta20_img_updmsg(uint32_t img_id, uint32_t mode) try {
    return progress_message(img_id, mode);
} catch (...) {
    return KARST_CAUGHT(-1);
}
