// SPDX-License-Identifier: Apache-2.0
#include "evidence_file.hpp"

#include "attestation/bounded_text.hpp"
#include "attestation/directory.hpp"
#include "attestation/spdm_evidence.hpp"
#include "core/board_files.hpp"
#include "core/run_root.hpp"

#include <cstdint>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace karst::att {

namespace {

constexpr std::size_t PATH_FIELD = 256;

} // namespace

void note_missing(const char *what, std::string_view board_path, log::Site site) {
    log::info(site.func, site.line, "SPDM %s not found: %s\n", what,
              platform_path(board_path).c_str());
}

bool read_evidence_file(std::string_view board_path, const char *kind, HeapBuffer &content,
                        log::Site site, const char *missing_as) {
    const board::Opened file = board::open_file(board_path, O_RDONLY, site);
    const std::string path = platform_path(board_path);
    if (file.found == board::Found::refused) {
        return false;
    }
    if (!file) {
        if (file.found == board::Found::missing && missing_as != nullptr) {
            note_missing(missing_as, board_path, site);
            return false;
        }
        KARST_E_AT(site, "Failed to open %s file: %s\n", kind, path.c_str());
        return false;
    }
    struct stat st {};
    if (::fstat(file.get(), &st) != 0 || st.st_size <= 0 ||
        static_cast<std::uint64_t>(st.st_size) > UINT32_MAX) {
        KARST_E_AT(site, "Invalid %s file size: %s\n", kind, path.c_str());
        return false;
    }
    const auto size = static_cast<std::size_t>(st.st_size);
    if (!content.allocate(size, true)) {
        KARST_E_AT(site, "Failed to allocate memory for %s buffer\n", kind);
        return false;
    }
    const ssize_t got = ::read(file.get(), content.data(), size);
    if (got < 0 || static_cast<std::size_t>(got) != size) {
        KARST_E_AT(site, "Failed to read complete %s file: %s\n", kind, path.c_str());
        return false;
    }
    return true;
}

Directory open_evidence_directory(std::string_view board_dir, const char *what, log::Site site) {
    board::Found found{};
    Directory dir = open_directory(board_dir, site, found);
    if (!dir && found != board::Found::refused) {
        note_missing(what, board_dir, site);
    }
    return dir;
}

void append_directory(DIR *listing, const std::string &board_dir, std::string_view extension,
                      const char *kind, const RecordBuffer &out, std::uint32_t &records,
                      log::Site site) {
    while (records < SPDM_KLV_MAX_RECORDS) {
        const dirent *entry = ::readdir(listing);
        if (entry == nullptr) {
            return;
        }
        std::string key;
        if (hidden(entry->d_name) || !has_extension(entry->d_name, extension, key)) {
            continue;
        }
        HeapBuffer content;
        if (!read_evidence_file(bounded(board_dir + "/" + entry->d_name, PATH_FIELD), kind, content,
                                site)) {
            continue;
        }
        if (klv_append(key.c_str(), content.data(), static_cast<std::uint32_t>(content.size()),
                       out.data, out.capacity, out.used) != 0) {
            KARST_E_AT(site, "Failed to append %s KLV: %s\n", kind, key.c_str());
            continue;
        }
        ++records;
    }
}

} // namespace karst::att
