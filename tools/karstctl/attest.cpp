// SPDX-License-Identifier: Apache-2.0
// attest dump|blk-get|prov-query|ra-refresh: attestation.
#include "common.hpp"
#include "families.hpp"
#include "json.hpp"
#include "operands.hpp"
#include "tee_failure.hpp"

#include "karst.h"

#include <cstdio>
#include <memory>

namespace karstctl {

namespace {

constexpr uint32_t LAST_BLOCK_TYPE = 3;

struct AttestOptions {
    std::string nonce;
    std::string output;
    std::string archive;
    std::string name;
    uint32_t type = 0;
    uint32_t value = 0;
    uint32_t query = 0;
    bool json = false;
};

void add_dump(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *dump =
        add_command(attest, "dump", "Attestation dump for a nonce: prints the result file's path",
                    "  karstctl attest dump nonce-0001\n"
                    "  karstctl attest dump nonce-0001 -o attestation.bin\n");
    dump->add_option("nonce", opts->nonce, "1 to 64 letters, digits, '-' or '_'")->required();
    add_output(*dump, opts->output, "Also copy the result to this file (-: only its bytes)");
    dump->callback([opts] {
        char path[512] = {0};
        run_call("pta20_att_dump",
                 [&] { return pta20_att_dump(opts->nonce.c_str(), path, sizeof path); });
        if (opts->output != "-") {
            std::printf("%s\n", path);
        }
        if (!opts->output.empty()) {
            const std::vector<uint8_t> result = read_input(path);
            write_output(opts->output, result.data(), result.size());
        }
    });
}

void add_blk_get(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *blk = add_command(attest, "blk-get", "Fetch one of the secure world's data blocks",
                                "  karstctl attest blk-get 1 0 device -o block.bin\n");
    add_number(*blk, "type", opts->type, "Block type", 0, LAST_BLOCK_TYPE)->required();
    add_number(*blk, "value", opts->value, "Value passed with the type", 0, UINT32_MAX)->required();
    blk->add_option("name", opts->name, "Name passed with the type")->required();
    add_output(*blk, opts->output, "Copy the block to this file (-: only its bytes)");
    blk->callback([opts] {
        run_call("pta_invoke_blk_get", [&] {
            return in_session([&] {
                return pta_invoke_blk_get(PTA_DALU_CMD_BLK_GET, opts->type, opts->value,
                                          opts->name.c_str());
            });
        });
        print_board_path(karst::paths::DATABLK_FILE, opts->output);
    });
}

void add_prov_query(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *query = add_command(attest, "prov-query",
                                  "Ask a provisioning question: prints yes (status 0) or no "
                                  "(status 1)",
                                  "  karstctl attest prov-query 1 && echo provisioned\n"
                                  "  karstctl attest prov-query 1 --json\n");
    add_number(*query, "query", opts->query, "Question number", 0, UINT32_MAX)->required();
    add_json(*query, opts->json);
    query->callback([opts] {
        const int result = library([&] { return pta20_prov_query(opts->query); });
        if (result != 0 && last_tee_failure()) {
            check_call(result, "pta20_prov_query"); // no answer: the call failed
        }
        const char *answer = result == 0 ? "yes" : "no";
        if (opts->json) {
            print_json(JsonObject().number("query", opts->query).text("answer", answer));
        } else {
            std::printf("%s\n", answer);
        }
        if (result != 0) {
            std::fflush(stdout);
            throw Exit(Status::call_failed);
        }
    });
}

void add_ra_refresh(CLI::App &attest, const std::shared_ptr<AttestOptions> &opts) {
    CLI::App *refresh = add_command(attest, "ra-refresh",
                                    "Hand the signed RA data of an archive back to the secure "
                                    "world",
                                    "  karstctl attest ra-refresh\n"
                                    "  karstctl attest ra-refresh /nv1/ra_data.tgz\n");
    refresh
        ->add_option("archive", opts->archive,
                     "Archive holding the RA data (default: /nv1/ra_data.tgz)")
        ->check(CLI::ExistingFile);
    refresh->callback([opts] {
        run_call("pta20_ra_refresh", [&] {
            return pta20_ra_refresh(opts->archive.empty() ? nullptr : opts->archive.c_str(), 0);
        });
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
