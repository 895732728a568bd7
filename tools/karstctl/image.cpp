// image auth|upload|update|dump|delete|progress: firmware images, by type and slot.
#include "common.hpp"
#include "families.hpp"
#include "image_async.hpp"

#include "karst.h"

#include <cstdio>
#include <map>
#include <memory>

namespace karstctl {

namespace {

const std::map<std::string, uint32_t> TYPES = {
    {"bmc", IMG_TYPE_BMC},         {"bios", IMG_TYPE_BIOS},       {"cpld", IMG_TYPE_CPLD},
    {"bpncpld", IMG_TYPE_BPNCPLD}, {"nvfpga", IMG_TYPE_NVFPGA},   {"nvbios", IMG_TYPE_NVBIOS},
    {"scmfpga", IMG_TYPE_SCMFPGA}, {"pdbfpga", IMG_TYPE_PDBFPGA}, {"erotmcu", IMG_TYPE_EROTMCU}};
const std::map<std::string, uint32_t> SLOTS = {
    {"active", IMG_IDX_ACTIVE},      {"staging", IMG_IDX_STAGING},
    {"backup", IMG_IDX_BACKUP},      {"golden", IMG_IDX_GOLDEN},
    {"evidence", IMG_IDX_EVIDENCE},  {"backup-st", IMG_IDX_BACKUP_ST},
    {"golden-st", IMG_IDX_GOLDEN_ST}};

struct ImageOptions {
    std::string type_text;
    uint32_t type = 0;
    uint32_t slot = IMG_IDX_ACTIVE;
    std::string file;
    std::string buffer;
    bool extended = false;
    bool backup = false;
    bool evidence = false;
    bool async = false;
    bool clear = false;
    std::string output;
    std::vector<uint8_t> bytes; // the --buffer image, kept while the call runs
};

void add_type_and_slot(CLI::App &command, ImageOptions &opts, bool slot_required) {
    command
        .add_option("type", opts.type_text,
                    "Image type: " + std::string("bmc, bios, cpld, bpncpld, nvfpga, "
                                                 "nvbios, scmfpga, pdbfpga, erotmcu "
                                                 "or the type's number"))
        ->required()
        ->type_name("TYPE")
        ->transform(CLI::CheckedTransformer(TYPES, CLI::ignore_case).description(""));
    CLI::Option *slot =
        command
            .add_option("slot", opts.slot,
                        "Slot: active, staging, backup, golden, evidence, backup-st, golden-st or "
                        "the slot's number" +
                            std::string(slot_required ? "" : " (default: active)"))
            ->type_name("SLOT")
            ->transform(CLI::CheckedTransformer(SLOTS, CLI::ignore_case).description(""));
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

// The flags word and the argument of the image calls for the chosen source.
struct Source {
    uint32_t flags = IMG_SRC_TABLE;
    void *arg = nullptr;
    uint32_t size = 0;
};

Source source_of(ImageOptions &opts) {
    Source source;
    if (!opts.file.empty()) {
        source.flags = IMG_SRC_FILE;
        source.arg = opts.file.data();
        source.size = static_cast<uint32_t>(read_input(opts.file).size());
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

void parse_type(ImageOptions &opts) {
    opts.type = parse_number(opts.type_text, "type");
}

// Hands the chosen image to one of the library's image calls.
void send_image(ImageOptions &opts, int (*call)(uint32_t, uint32_t, void *, uint32_t),
                const char *call_name) {
    parse_type(opts);
    const Source s = source_of(opts);
    check_call(call(image_word(opts), s.flags, s.arg, s.size), call_name);
}

void add_transfers(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *auth = add_command(image, "auth", "Authenticate an image",
                                 "  karstctl image auth bios staging\n"
                                 "  karstctl image auth bios --file bios.bin\n");
    add_type_and_slot(*auth, *opts, false);
    add_source(*auth, *opts);
    auth->callback([opts] { send_image(*opts, pta20_img_auth, "pta20_img_auth"); });

    CLI::App *upload = add_command(image, "upload", "Upload an image to a slot",
                                   "  karstctl image upload bios staging --file bios.bin\n"
                                   "  karstctl image upload 1 1 --buffer bios.bin\n");
    add_type_and_slot(*upload, *opts, true);
    add_source(*upload, *opts);
    upload->callback([opts] { send_image(*opts, pta20_img_upload, "pta20_img_upload"); });
}

void add_update(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *update = add_command(
        image, "update",
        "Program the device from an image, after the backup and evidence dumps asked for",
        "  karstctl image update bios --file bios.bin --backup\n"
        "  karstctl image update bios staging --async     (progress bar; Ctrl-C stops only the "
        "watching)\n");
    add_type_and_slot(*update, *opts, false);
    add_source(*update, *opts);
    update->add_flag("--backup", opts->backup, "First dump the device into its backup slot");
    update->add_flag("--evidence", opts->evidence, "First dump the device into its evidence slot");
    update->add_flag("--async", opts->async,
                     "Run the update in the background and show its progress (bios, cpld, "
                     "nvfpga, nvbios, erotmcu)");
    update->callback([opts] {
        parse_type(*opts);
        Source s = source_of(*opts);
        s.flags |=
            (opts->backup ? IMG_FLAG_BACKUP : 0u) | (opts->evidence ? IMG_FLAG_EVIDENCE : 0u);
        if (!opts->async) {
            check_call(pta20_img_update(image_word(*opts), s.flags, s.arg, s.size),
                       "pta20_img_update");
            return;
        }
        AsyncUpdate job{image_word(*opts), s.flags, s.arg, s.size, s.size, opts->type_text};
        // type_text holds the type's number once the names are transformed
        const int status = run_async_update(job);
        if (status != Status::ok) {
            throw CLI::RuntimeError(status);
        }
    });
}

void add_dump_delete(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *dump = add_command(
        image, "dump",
        "Dump the device's image into a slot's file, or a file named with -o; the active BMC\n"
        "image is copied from the eMMC (to /tmp/fw_image, and to the -o file)",
        "  karstctl image dump bios backup\n"
        "  karstctl image dump cpld evidence -o cpld.bin\n"
        "  karstctl image dump bmc active -o bmc.bin\n");
    add_type_and_slot(*dump, *opts, true);
    dump->add_option("-o,--output", opts->output, "Write the image to this file");
    dump->callback([opts] {
        parse_type(*opts);
        const uint32_t word = image_word(*opts);
        if (word == IMG_ID(IMG_TYPE_BMC, IMG_IDX_ACTIVE)) {
            check_call(pta20_img_dump(word, IMG_SRC_TABLE, nullptr, 0), "pta20_img_dump");
            print_board_path(karst::paths::FW_IMAGE, opts->output);
            return;
        }
        if (opts->output.empty()) {
            check_call(pta20_img_dump(word, IMG_SRC_TABLE, nullptr, 0), "pta20_img_dump");
        } else {
            check_call(pta20_img_dump(word, IMG_SRC_FILE, opts->output.data(), 0),
                       "pta20_img_dump");
        }
    });

    CLI::App *del = add_command(image, "delete", "Delete a stored staging or backup copy",
                                "  karstctl image delete bios staging\n");
    add_type_and_slot(*del, *opts, true);
    del->callback([opts] {
        parse_type(*opts);
        check_call(pta20_img_delete(image_word(*opts), 0), "pta20_img_delete");
    });
}

void add_progress(CLI::App &image, const std::shared_ptr<ImageOptions> &opts) {
    CLI::App *progress = add_command(image, "progress",
                                     "Print an update's percentage from the device's progress "
                                     "file (bios, cpld, nvfpga, nvbios, erotmcu)",
                                     "  karstctl image progress bios\n"
                                     "  karstctl image progress bios --clear\n");
    add_type_and_slot(*progress, *opts, false);
    progress->add_flag("--clear", opts->clear, "Remove the progress file instead");
    progress->callback([opts] {
        parse_type(*opts);
        const int result = pta20_img_updmsg(image_word(*opts), opts->clear ? 1 : 0);
        if (result < 0) {
            fail(Status::call_failed, "no progress for " + opts->type_text);
        }
        if (!opts->clear) {
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
                  "  karstctl image update bios staging --async\n"
                  "  karstctl image dump bmc active -o bmc.bin\n");
    add_transfers(*image, opts);
    add_update(*image, opts);
    add_dump_delete(*image, opts);
    add_progress(*image, opts);
}

} // namespace karstctl
