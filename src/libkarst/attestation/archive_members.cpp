// SPDX-License-Identifier: Apache-2.0
#include "archive_members.hpp"

#include "core/file_handle.hpp"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <unistd.h>
#include <zlib.h>

namespace karst::att {
namespace {

constexpr std::size_t BLOCK = 512;
constexpr std::size_t NAME_FIELD = 100;
constexpr std::size_t MODE_AT = 100;
constexpr std::size_t MODE_FIELD = 8;
constexpr std::size_t SIZE_AT = 124;
constexpr std::size_t SIZE_FIELD = 12;
constexpr std::size_t TYPE_AT = 156;
constexpr std::size_t PREFIX_AT = 345;
constexpr std::size_t PREFIX_FIELD = 155;
constexpr std::uint64_t SPECIAL_BITS = 07000; // set-user-ID, set-group-ID, sticky
// A long name or pax header larger than this is not one the library would ever need.
constexpr std::uint64_t MAX_HEADER_DATA = 65536;

struct GzCloser {
    void operator()(gzFile file) const { gzclose(file); }
};
using GzStream = std::unique_ptr<gzFile_s, GzCloser>;

std::string field(const std::uint8_t *header, std::size_t at, std::size_t size) {
    const char *text = reinterpret_cast<const char *>(header + at);
    return std::string(text, strnlen(text, size));
}

// An octal number field (spaces and zeros around it allowed); false for base-256 or garbage.
bool octal(const std::uint8_t *header, std::size_t at, std::size_t size, std::uint64_t &value) {
    value = 0;
    std::size_t i = 0;
    while (i < size && header[at + i] == ' ') {
        ++i;
    }
    bool digits = false;
    for (; i < size && header[at + i] >= '0' && header[at + i] <= '7'; ++i) {
        value = value * 8 + (header[at + i] - '0');
        digits = true;
    }
    for (; i < size; ++i) {
        if (header[at + i] != ' ' && header[at + i] != '\0') {
            return false;
        }
    }
    return digits;
}

bool read_exact(gzFile in, void *data, std::size_t size) {
    return gzread(in, data, static_cast<unsigned>(size)) == static_cast<int>(size);
}

bool skip(gzFile in, std::uint64_t size) {
    const std::uint64_t padded = (size + BLOCK - 1) / BLOCK * BLOCK;
    std::array<std::uint8_t, BLOCK> scratch{};
    for (std::uint64_t done = 0; done < padded; done += BLOCK) {
        if (!read_exact(in, scratch.data(), BLOCK)) {
            return false;
        }
    }
    return true;
}

bool read_data(gzFile in, std::uint64_t size, std::string &data) {
    if (size > MAX_HEADER_DATA) {
        return false;
    }
    const std::uint64_t padded = (size + BLOCK - 1) / BLOCK * BLOCK;
    data.assign(padded, '\0');
    if (padded > 0 && !read_exact(in, data.data(), padded)) {
        return false;
    }
    data.resize(size);
    return true;
}

// The "path" record of a pax header ("<length> path=<name>\n" records), when it has one.
bool pax_path(const std::string &records, std::string &path) {
    std::size_t at = 0;
    while (at < records.size()) {
        const std::size_t space = records.find(' ', at);
        if (space == std::string::npos) {
            return false;
        }
        const std::size_t length = std::strtoul(records.c_str() + at, nullptr, 10);
        if (length == 0 || at + length > records.size()) {
            return false;
        }
        const std::string_view record(records.data() + space + 1, at + length - space - 2);
        for (std::string_view key : {"path=", "linkpath="}) {
            if (record.substr(0, key.size()) == key) {
                if (key == "linkpath=") {
                    path = std::string(record.substr(key.size()));
                    return false; // a link target: links are never extracted
                }
                path = std::string(record.substr(key.size()));
            }
        }
        at += length;
    }
    return true;
}

bool name_inside(std::string_view name) {
    if (name.empty() || name.front() == '/') {
        return false;
    }
    while (!name.empty()) {
        const std::size_t slash = name.find('/');
        if (name.substr(0, slash) == "..") {
            return false;
        }
        if (slash == std::string_view::npos) {
            break;
        }
        name.remove_prefix(slash + 1);
    }
    return true;
}

bool zero_block(const std::uint8_t *block) {
    for (std::size_t i = 0; i < BLOCK; ++i) {
        if (block[i] != 0) {
            return false;
        }
    }
    return true;
}

// The archive read from fd's start through a descriptor of its own (fd is left open); null when
// it cannot be read.
GzStream open_from_start(int fd) {
    Fd own(::dup(fd));
    if (!own || ::lseek(own.get(), 0, SEEK_SET) != 0) {
        return nullptr;
    }
    GzStream in(gzdopen(own.get(), "rb"));
    if (in) {
        own.release(); // closed with the stream
    }
    return in;
}

// The data of an extended header ('L' a GNU long name, 'x' or 'g' pax records) of size bytes:
// the name it gives the next member into long_name. Null, or the problem (member then names the
// link).
const char *read_extended(gzFile in, char type, std::uint64_t size, std::string &long_name,
                          std::string &member) {
    std::string data;
    if (!read_data(in, size, data)) {
        return "a member header is not one of a tar archive";
    }
    if (type == 'L') {
        long_name = data.substr(0, data.find('\0'));
    } else if (!pax_path(data, long_name)) {
        member = long_name;
        return "a link or an unreadable extended header";
    }
    return nullptr;
}

// The member's name: the long name that came before its header, or the header's own name after
// its prefix.
std::string member_name(const std::uint8_t *header, const std::string &long_name) {
    if (!long_name.empty()) {
        return long_name;
    }
    std::string name = field(header, PREFIX_AT, PREFIX_FIELD);
    if (!name.empty()) {
        name += '/';
    }
    name += field(header, 0, NAME_FIELD);
    return name;
}

// Null when a member of the type and mode, named member, may be extracted; else the reason.
const char *member_problem(char type, std::uint64_t mode, const std::string &member) {
    if (type != '0' && type != '\0' && type != '5') {
        return "a link, device or FIFO";
    }
    if (!name_inside(member)) {
        return "a name outside the directory";
    }
    if ((mode & SPECIAL_BITS) != 0) {
        return "set-user-ID, set-group-ID or sticky";
    }
    return nullptr;
}

} // namespace

const char *archive_members_problem(int fd, std::string &member) {
    member.clear();
    const GzStream in = open_from_start(fd);
    if (!in) {
        return "the archive cannot be read";
    }
    std::string long_name;
    std::array<std::uint8_t, BLOCK> header{};
    for (;;) {
        if (!read_exact(in.get(), header.data(), BLOCK)) {
            return "the archive is cut short or not a gzip-compressed tar archive";
        }
        if (zero_block(header.data())) {
            return nullptr; // the end of the archive
        }
        std::uint64_t size = 0;
        std::uint64_t mode = 0;
        if (!octal(header.data(), SIZE_AT, SIZE_FIELD, size) ||
            !octal(header.data(), MODE_AT, MODE_FIELD, mode)) {
            return "a member header is not one of a tar archive";
        }
        const char type = static_cast<char>(header[TYPE_AT]);
        if (type == 'L' || type == 'x' || type == 'g') {
            if (const char *problem = read_extended(in.get(), type, size, long_name, member)) {
                return problem;
            }
            continue;
        }
        member = member_name(header.data(), long_name);
        long_name.clear();
        if (const char *problem = member_problem(type, mode, member)) {
            return problem;
        }
        if (!skip(in.get(), size)) {
            return "the archive is cut short";
        }
    }
}

} // namespace karst::att
