// The remote attestation answer of command 27, kept for the refresh: written to
// /tmp/attestation/ra_data.bin, packed into ra_data.tgz beside it and copied to /nv1.
#include "replace_crt.hpp"

#include "karst.h"

#include "core/log.hpp"
#include "core/run_root.hpp"
#include "core/shell.hpp"

#include <string>
#include <sys/stat.h>

namespace karst::certs {

bool archive_ra_result(const char *routine, const uint8_t *result, size_t size) {
    const std::string dir = platform_path(RA_DIR);
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0 && ::mkdir(dir.c_str(), 0777) != 0) {
        KARST_E_AS(routine, "Failed to create path (%s)\n", dir.c_str());
        return false;
    }
    const std::string data_path = dir + "/ra_data.bin";
    writebin(data_path.c_str(), result, static_cast<uint32_t>(size));

    // Each step only when the one before it worked, so a failed archive is never copied over a
    // good one; the trailing "/" makes cp refuse rather than create a file named nv1.
    const std::string archive = "ra_data.tgz";
    shell::run("cd " + shell::quote(dir) + " && tar zcf " + shell::quote(archive) + " " +
               shell::quote("ra_data.bin") + " && cp " + shell::quote(archive) + " " +
               shell::quote(platform_path("/nv1") + "/"));
    return true;
}

} // namespace karst::certs
