// SPDX-License-Identifier: Apache-2.0
// Common ground of the attestation and certificate tests: files and archives made in the test,
// calls checked by result and output, what an invoke carried, a view of a folder's files to prove
// what changed, and a recording stand-in for the REE data tool.
#pragma once

#include "core/shell.hpp"
#include "support/blocks.hpp"
#include "support/sweep_session.hpp"
#include "support/test_env.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>
#include <source_location>

namespace karst::test {

inline constexpr auto to_bytes = bytes_of;

inline std::string to_text(const uint8_t *p, size_t n) {
    return std::string(reinterpret_cast<const char *>(p), n);
}

inline Bytes join(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// n bytes, byte i = (seed + i) mod 251.
inline Bytes pattern(size_t n, unsigned seed = 0) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>((seed + i) % 251);
    }
    return b;
}

inline void make_dirs(const std::string &path) {
    std::filesystem::create_directories(path);
}

inline void write_bytes(const std::string &path, const Bytes &data) {
    write_file(path, to_text(data.data(), data.size()));
}

inline bool exists(const std::string &path) {
    std::error_code ec;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ec));
}

// A gzip'ed tar archive at archive holding the named files.
inline void make_tgz(const std::string &archive, const std::map<std::string, Bytes> &files) {
    const std::string work = archive + ".work";
    make_dirs(work);
    std::string cmd = "tar -C " + shell::quote(work) + " -czf " + shell::quote(archive);
    for (const auto &[name, content] : files) {
        write_bytes(work + "/" + name, content);
        cmd += " " + shell::quote(name);
    }
    EXPECT_EQ(shell::run(cmd), 0) << cmd;
    std::filesystem::remove_all(work);
}

// Runs fn with standard output captured (in a session of its own when session) and expects the
// result rc; returns what it printed. A failure names the caller's line and shows the output.
inline std::string printed(int rc, const std::function<int()> &fn, bool session = false,
                           std::source_location at = std::source_location::current()) {
    const ::testing::ScopedTrace trace(at.file_name(), static_cast<int>(at.line()), "");
    int got = 0;
    const std::string out = capture_stdout([&] { got = session ? in_session(fn) : fn(); });
    EXPECT_EQ(got, rc) << out;
    return out;
}

// A call, the result it is expected to return, and a regular expression for all it prints; a
// table of them is made in order (each in a session of its own when session).
struct Call {
    std::function<int()> fn;
    int rc;
    std::string out;
};
inline void expect_calls(const std::vector<Call> &calls, bool session = false) {
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_TRUE(matches(printed(calls[i].rc, calls[i].fn, session), calls[i].out)) << i;
    }
}

// The journal's last invoke in brief: command, parameter types, then per parameter "-" (none),
// "v<a>,<b>" (value) or "<size>" with "i"/"o" for the registered memory's directions.
inline std::string shape() {
    const auto records = journal();
    const karst_emu_invoke_record r = records.empty() ? karst_emu_invoke_record{} : records.back();
    char head[32];
    std::snprintf(head, sizeof head, "%u %04x", r.command, r.param_types);
    std::string out = head;
    for (int i = 0; i < 4; ++i) {
        const karst_emu_param &p = r.params[i];
        const unsigned type = (r.param_types >> (4 * i)) & 0xFu;
        out += type == TEEC_NONE ? " -"
               : type <= TEEC_VALUE_INOUT
                   ? " v" + std::to_string(p.a) + "," + std::to_string(p.b)
                   : " " + std::to_string(p.size) + ((p.flags & TEEC_MEM_INPUT) ? "i" : "") +
                         ((p.flags & TEEC_MEM_OUTPUT) ? "o" : "");
    }
    return out;
}

// The input bytes parameter i of the journal's last invoke carried, as text.
inline std::string sent(int i) {
    const auto records = journal();
    return records.empty()
               ? ""
               : to_text(records.back().params[i].input, records.back().params[i].input_kept);
}

// Every entry under dir (recursively) but the skipped relative paths (and what is under them):
// relative path -> "<size> <hash of the content>" (the content "d" for anything but a regular
// file); and the entries that differ between two such views, one a line.
using Tree = std::map<std::string, std::string>;
inline Tree snapshot(const std::string &dir, const std::vector<std::string> &skip = {}) {
    namespace fs = std::filesystem;
    Tree view;
    for (auto it = fs::recursive_directory_iterator(dir); it != fs::end(it); ++it) {
        const std::string rel = fs::relative(it->path(), dir).string();
        if (std::find(skip.begin(), skip.end(), rel) != skip.end()) {
            it.disable_recursion_pending();
        } else {
            const std::string content = it->is_regular_file() ? read_file(it->path()) : "d";
            view[rel] = std::to_string(content.size()) + " " +
                        std::to_string(std::hash<std::string>{}(content));
        }
    }
    return view;
}
inline std::string changes(const Tree &before, const Tree &after) {
    std::vector<Tree::value_type> differ;
    std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                  std::back_inserter(differ));
    std::string out;
    for (const auto &[name, what] : differ) {
        out += name + " " + what + "\n";
    }
    return out;
}

// Replaces the REE data tool of the run root with a script that appends one line per run to
// log ("<argument count>|<arg 1>|<arg 2>") and then runs body (shell text, may be empty).
inline void install_recording_tool(const std::string &root, const std::string &log,
                                   const std::string &body) {
    const std::string path = root + "/usr/bin/reedata_tool.sh";
    write_file(path, "#!/bin/sh\nprintf '%s|%s|%s\\n' \"$#\" \"${1:-}\" \"${2:-}\" >> " +
                         shell::quote(log) + "\n" + body + "\n");
    std::filesystem::permissions(path, static_cast<std::filesystem::perms>(0755));
}

} // namespace karst::test
