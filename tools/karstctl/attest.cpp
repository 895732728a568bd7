// attest dump|blk-get|prov-query|ra-refresh: attestation.
#include "common.hpp"
#include "families.hpp"

#include "karst.h"

#include <cstdio>
#include <memory>

namespace karstctl {

namespace {

struct AttestOptions {
    std::string nonce;
    std::string output;
    std::string archive;
    std::string name;
    uint32_t type = 0;
    uint32_t value = 0;
    uint32_t query = 0;
};

void add_dump(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *dump =
        add_command(attest, "dump", "Attestation dump for a nonce: prints the result file's path",
                    "  karstctl attest dump nonce-0001\n"
                    "  karstctl attest dump nonce-0001 -o attestation.bin\n");
    dump->add_option("nonce", opts->nonce, "1 to 64 letters, digits, '-' or '_'")->required();
    dump->add_option("-o,--output", opts->output, "Also copy the result to this file");
    dump->callback([opts] {
        char path[512] = {0};
        check_call(pta20_att_dump(opts->nonce.c_str(), path, sizeof path), "pta20_att_dump");
        std::printf("%s\n", path);
        if (!opts->output.empty()) {
            const std::vector<uint8_t> result = read_input(path);
            write_output(opts->output, result.data(), result.size());
        }
    });
}

void add_blk_get(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *blk =
        add_command(attest, "blk-get", "Fetch one of the secure world's data blocks (type 0 to 3)",
                    "  karstctl attest blk-get 1 0 device -o block.bin\n");
    blk->add_option("type", opts->type, "Block type, 0 to 3")->required()->check(CLI::Range(0, 3));
    blk->add_option("value", opts->value, "Value passed with the type")->required();
    blk->add_option("name", opts->name, "Name passed with the type")->required();
    blk->add_option("-o,--output", opts->output, "Copy the block to this file");
    blk->callback([opts] {
        check_call(in_session([&] {
                       return pta_invoke_blk_get(PTA_DALU_CMD_BLK_GET, opts->type, opts->value,
                                                 opts->name.c_str());
                   }),
                   "pta_invoke_blk_get");
        print_board_path(karst::paths::DATABLK_FILE, opts->output);
    });
}

void add_prov_query(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *query = add_command(attest, "prov-query",
                                  "Ask a provisioning question: prints yes (status 0) or no "
                                  "(status 1)",
                                  "  karstctl attest prov-query 1 && echo provisioned\n");
    query->add_option("query", opts->query, "Question number")->required();
    query->callback([opts] {
        const bool yes = pta20_prov_query(opts->query) == 0;
        std::printf("%s\n", yes ? "yes" : "no");
        if (!yes) {
            std::fflush(stdout);
            throw CLI::RuntimeError(Status::call_failed);
        }
    });
}

void add_ra_refresh(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *refresh = add_command(attest, "ra-refresh",
                                    "Hand the signed RA data of an archive back to the secure "
                                    "world",
                                    "  karstctl attest ra-refresh\n"
                                    "  karstctl attest ra-refresh /nv1/ra_data.tgz\n");
    refresh->add_option("archive", opts->archive,
                        "Archive holding the RA data (default: /nv1/ra_data.tgz)");
    refresh->callback([opts] {
        check_call(pta20_ra_refresh(opts->archive.empty() ? nullptr : opts->archive.c_str(), 0),
                   "pta20_ra_refresh");
    });
}

} // namespace

void add_attest(CLI::App &app) {
    auto opts = std::make_shared<AttestOptions>();
    CLI::App *attest =
        add_group(app, "attest", "Attestation: dump, data blocks, provisioning, RA refresh",
                  "  karstctl attest dump nonce-0001\n"
                  "  karstctl attest prov-query 1\n");
    add_dump(*attest, opts);
    add_blk_get(*attest, opts);
    add_prov_query(*attest, opts);
    add_ra_refresh(*attest, opts);
}

} // namespace karstctl
