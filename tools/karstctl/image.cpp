// SPDX-License-Identifier: Apache-2.0
// image auth|upload|update|dump|delete|progress: firmware images, by type and slot.
#include "common.hpp"
#include "families.hpp"
#include "image_update.hpp"
#include "json.hpp"
#include "operands.hpp"

#include "images/image_table.hpp"
#include "images/progress_file.hpp"
#include "karst.h"

#include <cstdio>
#include <memory>
#include <sys/stat.h>

namespace karstctl {

namespace {

using karst::images::image_slot;
using karst::images::img_entry;

constexpr Named TYPES[] = {
    {"bmc", IMG_TYPE_BMC},         {"bios", IMG_TYPE_BIOS},       {"cpld", IMG_TYPE_CPLD},
    {"bpncpld", IMG_TYPE_BPNCPLD}, {"nvfpga", IMG_TYPE_NVFPGA},   {"nvbios", IMG_TYPE_NVBIOS},
    {"scmfpga", IMG_TYPE_SCMFPGA}, {"pdbfpga", IMG_TYPE_PDBFPGA}, {"erotmcu", IMG_TYPE_EROTMCU}};
constexpr Named SLOTS[] = {{"active", IMG_IDX_ACTIVE},      {"staging", IMG_IDX_STAGING},
                           {"backup", IMG_IDX_BACKUP},      {"golden", IMG_IDX_GOLDEN},
                           {"evidence", IMG_IDX_EVIDENCE},  {"backup-st", IMG_IDX_BACKUP_ST},
                           {"golden-st", IMG_IDX_GOLDEN_ST}};
constexpr const char *PROGRESS_TYPES = "bios, cpld, nvfpga, nvbios and erotmcu";

struct ImageOptions {
    uint32_t type = 0;
    uint32_t slot = IMG_IDX_ACTIVE;
    std::string file;
    std::string buffer;
    bool extended = false;
    bool backup = false;
    bool evidence = false;
    bool async = false;
    bool clear = false;
    bool json = false;
    std::string output;
    std::vector<uint8_t> bytes; // the --buffer image, kept while the call runs
};

std::string type_name(const ImageOptions &opts) {
    return name_of(TYPES, opts.type);
}

void add_type(CLI::App &command, ImageOptions &opts) {
    add_named(command, "type", opts.type, "Image type: " + names_list(TYPES) + ", or its number",
              TYPES, "an image type")
        ->required();
}

void add_type_and_slot(CLI::App &command, ImageOptions &opts, bool slot_required) {
    add_type(command, opts);
    CLI::Option *slot = add_named(command, "slot", opts.slot,
                                  "Slot: " + names_list(SLOTS) + ", or its number" +
                                      (slot_required ? "" : " (default: active)"),
                                  SLOTS, "a slot");
    if (slot_required) {
        slot->required();
    }
}

void add_source(CLI::App &command, ImageOptions &opts) {
    CLI::Option *file =
        command.add_option("--file", opts.file, "The image is this file (passed by path)")
            ->check(CLI::ExistingFile);
    CLI::Option *buffer =
        command.add_option("--buffer", opts.buffer, "The image is this file, read into memory")
            ->check(CLI::ExistingFile);
    CLI::Option *extended = command.add_flag("--extended", opts.extended,
                                             "A copy of the slot's file, cut or padded to 32 MiB");
    file->excludes(buffer)->excludes(extended);
    buffer->excludes(extended);
}

// Whether a command can use a slot of the chosen type, with the chosen source or output.
using Supports = bool (*)(const ImageOptions &opts, uint32_t slot);

// The slot the image's source needs, as the library maps it: any slot of the type for --buffer,
// a slot kept in a file for --extended, one kept in a file or on the eMMC otherwise.
bool source_fits(const ImageOptions &opts, uint32_t slot) {
    const img_entry *entry = image_slot(opts.type, slot);
    const bool file = entry != nullptr && entry->kind == IMG_KIND_FILE;
    if (!opts.buffer.empty()) {
        return entry != nullptr;
    }
    return opts.extended ? file : file || (entry != nullptr && entry->kind == IMG_KIND_MMC);
}

// The dump: the active BMC image from the eMMC, or the device's image of bios, cpld, nvfpga or
// nvbios into a slot kept in a file (golden only to a file named with -o).
bool dump_fits(const ImageOptions &opts, uint32_t slot) {
    if (opts.type == IMG_TYPE_BMC && slot == IMG_IDX_ACTIVE) {
        return true;
    }
    const bool dumpable = opts.type == IMG_TYPE_BIOS || opts.type == IMG_TYPE_CPLD ||
                          opts.type == IMG_TYPE_NVFPGA || opts.type == IMG_TYPE_NVBIOS;
    const img_entry *entry = image_slot(opts.type, slot);
    return dumpable && entry != nullptr && entry->kind == IMG_KIND_FILE &&
           (slot != IMG_IDX_GOLDEN || !opts.output.empty());
}

// Deletion: the staging and backup copies of bmc, bios and cpld.
bool delete_fits(const ImageOptions &opts, uint32_t slot) {
    return opts.type <= IMG_TYPE_CPLD && (slot == IMG_IDX_STAGING || slot == IMG_IDX_BACKUP);
}

// Ends the command with Status::bad_input, naming the slots it can use, when it cannot use the
// chosen one.
void check_supported(const std::string &command, const ImageOptions &opts, Supports supports) {
    if (supports(opts, opts.slot)) {
        return;
    }
    std::string slots;
    for (const Named &slot : SLOTS) {
        if (supports(opts, slot.value)) {
            slots += (slots.empty() ? "" : ", ") + std::string(slot.name);
        }
    }
    const std::string with = !opts.file.empty()     ? " with --file"
                             : !opts.buffer.empty() ? " with --buffer"
                             : opts.extended        ? " with --extended"
                                                    : "";
    fail(Status::bad_input, "image " + command + " cannot use " + type_name(opts) + " " +
                                name_of(SLOTS, opts.slot) + with +
                                (slots.empty() ? "; it takes no slot of " + type_name(opts)
                                               : "; slots it can use: " + slots));
}

// Ends the command with Status::bad_input when the type's updates keep no progress file.
void check_progress_type(const ImageOptions &opts, const std::string &command) {
    if (karst::images::progress_name(opts.type) == nullptr) {
        fail(Status::bad_input, command + ": no progress for " + type_name(opts) + " (only " +
                                    PROGRESS_TYPES + " updates keep progress)");
    }
}

// The flags word and the argument of the image calls for the chosen source.
struct Source {
    uint32_t flags = IMG_SRC_TABLE;
    void *arg = nullptr;
    uint32_t size = 0;
};

Source source_of(ImageOptions &opts) {
    Source source;
    if (!opts.file.empty()) {
        struct stat st {};
        if (::stat(opts.file.c_str(), &st) != 0 || st.st_size > UINT32_MAX) {
            fail(Status::bad_input, "cannot use " + opts.file + " (4 GiB at most)");
        }
        source.flags = IMG_SRC_FILE;
        source.arg = opts.file.data();
        source.size = static_cast<uint32_t>(st.st_size);
    } else if (!opts.buffer.empty()) {
        opts.bytes = read_input(opts.buffer);
        source.flags = IMG_SRC_BUFFER;
        source.arg = opts.bytes.data();
        source.size = static_cast<uint32_t>(opts.bytes.size());
    } else if (opts.extended) {
        source.flags = IMG_SRC_EXTENDED;
    }
    return source;
}

uint32_t image_word(const ImageOptions &opts) {
    return IMG_ID(opts.type, opts.slot);
}

// Hands the chosen image to one of the library's image calls.
void send_image(const std::string &command, ImageOptions &opts,
                int (*call)(uint32_t, uint32_t, void *, uint32_t), const char *call_name) {
    check_supported(command, opts, source_fits);
    const Source s = source_of(opts);
    run_call(call_name, [&] { return call(image_word(opts), s.flags, s.arg, s.size); });
}

void add_transfers(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *auth = add_command(image, "auth", "Authenticate an image",
                                 "  karstctl image auth bios staging\n"
                                 "  karstctl image auth bios staging --file bios.bin\n");
    add_type_and_slot(*auth, *opts, false);
    add_source(*auth, *opts);
    auth->callback([opts] { send_image("auth", *opts, pta20_img_auth, "pta20_img_auth"); });

    CLI::App *upload = add_command(image, "upload", "Upload an image to a slot",
                                   "  karstctl image upload bios staging --file bios.bin\n"
                                   "  karstctl image upload 1 1 --buffer bios.bin\n");
    add_type_and_slot(*upload, *opts, true);
    add_source(*upload, *opts);
    upload->callback([opts] { send_image("upload", *opts, pta20_img_upload, "pta20_img_upload"); });
}

void update(ImageOptions &opts) {
    if (opts.async) {
        check_progress_type(opts, "image update --async");
    }
    check_supported("update", opts, source_fits);
    const bool progress = karst::images::progress_name(opts.type) != nullptr;
    Source s = source_of(opts);
    s.flags |= (opts.backup ? IMG_FLAG_BACKUP : 0u) | (opts.evidence ? IMG_FLAG_EVIDENCE : 0u);
    if (!progress) {
        run_call("pta20_img_update",
                 [&] { return pta20_img_update(image_word(opts), s.flags, s.arg, s.size); });
        return;
    }
    const UpdateJob job{image_word(opts), s.flags, s.arg, s.size, s.size, type_name(opts)};
    const int status = opts.async ? start_update(job) : watch_update(job);
    if (status != Status::ok) {
        throw Exit(static_cast<Status>(status));
    }
}

void add_update(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *update_cmd = add_command(
        image, "update",
        "Program the device from an image, after the backup and evidence dumps asked for. The\n"
        "updates of bios, cpld, nvfpga, nvbios and erotmcu run in a process of their own and\n"
        "show their progress on standard error; Ctrl-C stops only the waiting (status 3).",
        "  karstctl image update bios staging --file bios.bin --backup\n"
        "  karstctl image update bios staging --async && karstctl image progress bios\n");
    update_cmd->footer(update_cmd->get_footer() +
                       "\n3 stopped waiting (Ctrl-C): the update goes on; follow it with "
                       "karstctl image progress TYPE.");
    add_type_and_slot(*update_cmd, *opts, false);
    add_source(*update_cmd, *opts);
    update_cmd->add_flag("--backup", opts->backup, "First dump the device into its backup slot");
    update_cmd->add_flag("--evidence", opts->evidence,
                         "First dump the device into its evidence slot");
    update_cmd->add_flag("--async", opts->async,
                         "Return as soon as the update runs (bios, cpld, nvfpga, nvbios, erotmcu)");
    update_cmd->callback([opts] { update(*opts); });
}

void dump(ImageOptions &opts) {
    check_supported("dump", opts, dump_fits);
    const uint32_t word = image_word(opts);
    if (word == IMG_ID(IMG_TYPE_BMC, IMG_IDX_ACTIVE)) {
        run_call("pta20_img_dump", [&] { return pta20_img_dump(word, IMG_SRC_TABLE, nullptr, 0); });
        print_board_path(karst::paths::FW_IMAGE, opts.output);
    } else if (opts.output.empty()) {
        run_call("pta20_img_dump", [&] { return pta20_img_dump(word, IMG_SRC_TABLE, nullptr, 0); });
    } else {
        const LibraryFile output(opts.output);
        std::string path = output.path();
        run_call("pta20_img_dump",
                 [&] { return pta20_img_dump(word, IMG_SRC_FILE, path.data(), 0); });
        output.deliver();
    }
}

void add_dump_delete(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *dump_cmd = add_command(
        image, "dump",
        "Dump the device's image into a slot's file, or a file named with -o; the active BMC\n"
        "image is copied from the eMMC (to /tmp/fw_image, and to the -o file)",
        "  karstctl image dump bios backup\n"
        "  karstctl image dump cpld evidence -o cpld.bin\n"
        "  karstctl image dump bmc active -o bmc.bin\n");
    add_type_and_slot(*dump_cmd, *opts, true);
    add_output(*dump_cmd, opts->output, "Write the image to this file");
    dump_cmd->callback([opts] { dump(*opts); });

    CLI::App *del = add_command(image, "delete", "Delete a stored staging or backup copy",
                                "  karstctl image delete bios staging\n");
    add_type_and_slot(*del, *opts, true);
    del->callback([opts] {
        check_supported("delete", *opts, delete_fits);
        run_call("pta20_img_delete", [&] { return pta20_img_delete(image_word(*opts), 0); });
    });
}

void add_progress(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *progress = add_command(image, "progress",
                                     "Print an update's percentage from the device's progress "
                                     "file (bios, cpld, nvfpga, nvbios, erotmcu)",
                                     "  karstctl image progress bios\n"
                                     "  karstctl image progress bios --json\n"
                                     "  karstctl image progress bios --clear\n");
    add_type(*progress, *opts);
    CLI::Option *clear =
        progress->add_flag("--clear", opts->clear, "Remove the progress file instead");
    add_json(*progress, opts->json)->excludes(clear);
    progress->callback([opts] {
        check_progress_type(*opts, "image progress");
        const int result =
            library([&] { return pta20_img_updmsg(image_word(*opts), opts->clear ? 1 : 0); });
        if (result < 0) {
            fail(Status::call_failed, "no progress for " + type_name(*opts));
        }
        if (opts->json) {
            print_json(JsonObject()
                           .text("type", type_name(*opts))
                           .number("percent", static_cast<uint64_t>(result)));
        } else if (!opts->clear) {
            std::printf("%d%%\n", result);
        }
    });
}

} // namespace

void add_image(CLI::App &app) {
    auto opts = std::make_shared<ImageOptions>();
    CLI::App *image =
        add_group(app, "image", "Firmware images: auth, upload, update, dump, delete, progress",
                  "  karstctl image upload bios staging --file bios.bin\n"
                  "  karstctl image update bios staging\n"
                  "  karstctl image dump bmc active -o bmc.bin\n");
    add_transfers(*image, opts);
    add_update(*image, opts);
    add_dump_delete(*image, opts);
    add_progress(*image, opts);
}

} // namespace karstctl
