#include "attestation/att_support.hpp"

#include "core/shell.hpp"

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace karst::test {

std::string re_escape(const std::string &text) {
    return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
}

void make_dirs(const std::string &path) {
    fs::create_directories(path);
}

Bytes pattern(size_t n, unsigned seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) {
        b[i] = static_cast<uint8_t>((seed + i) % 251);
    }
    return b;
}

void write_bytes(const std::string &path, const Bytes &data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char *>(data.data()),
              static_cast<std::streamsize>(data.size()));
}

Bytes read_bytes(const std::string &path) {
    return to_bytes(read_file(path));
}

bool exists(const std::string &path) {
    std::error_code ec;
    return fs::exists(fs::symlink_status(path, ec));
}

void make_tgz(const std::string &archive, const std::map<std::string, Bytes> &files) {
    const std::string work = archive + ".work";
    fs::remove_all(work);
    make_dirs(work);
    for (const auto &[name, content] : files) {
        write_bytes(work + "/" + name, content);
    }
    std::string cmd = "tar -C " + shell::quote(work) + " -czf " + shell::quote(archive);
    for (const auto &entry : files) {
        cmd += " " + shell::quote(entry.first);
    }
    EXPECT_EQ(shell::run(cmd), 0) << cmd;
    fs::remove_all(work);
}

std::map<std::string, Bytes> tgz_files(const Bytes &archive) {
    char templ[] = "/tmp/karst-tgz-XXXXXX";
    std::map<std::string, Bytes> files;
    if (mkdtemp(templ) == nullptr) {
        ADD_FAILURE() << "no scratch folder";
        return files;
    }
    const std::string dir = templ;
    write_bytes(dir + "/a.tgz", archive);
    make_dirs(dir + "/x");
    EXPECT_EQ(
        shell::run("tar -C " + shell::quote(dir + "/x") + " -xzf " + shell::quote(dir + "/a.tgz")),
        0);
    for (const auto &e : fs::recursive_directory_iterator(dir + "/x")) {
        if (e.is_regular_file()) {
            files[fs::relative(e.path(), dir + "/x").string()] = read_bytes(e.path().string());
        }
    }
    fs::remove_all(dir);
    return files;
}

std::map<std::string, std::string> snapshot(const std::string &dir,
                                            const std::vector<std::string> &skip) {
    std::map<std::string, std::string> view;
    for (auto it = fs::recursive_directory_iterator(dir); it != fs::recursive_directory_iterator();
         ++it) {
        const std::string rel = fs::relative(it->path(), dir).string();
        bool skipped = false;
        for (const std::string &s : skip) {
            skipped = skipped || rel == s || rel.rfind(s + "/", 0) == 0;
        }
        if (skipped) {
            if (it->is_directory() && !it->is_symlink()) {
                it.disable_recursion_pending();
            }
            continue;
        }
        if (it->is_symlink()) {
            view[rel] = "l:" + fs::read_symlink(it->path()).string();
        } else if (it->is_directory()) {
            view[rel] = "d";
        } else {
            view[rel] = "f:" + read_file(it->path().string());
        }
    }
    return view;
}

std::vector<std::string> find_named(const std::string &dir, const std::string &word) {
    std::vector<std::string> found;
    for (const auto &e : fs::recursive_directory_iterator(dir)) {
        if (e.path().filename().string().find(word) != std::string::npos) {
            found.push_back(e.path().string());
        }
    }
    return found;
}

void install_recording_tool(const std::string &root, const std::string &log,
                            const std::string &body) {
    const std::string path = root + "/usr/bin/reedata_tool.sh";
    write_file(path, "#!/bin/sh\nprintf '%s|%s|%s\\n' \"$#\" \"${1:-}\" \"${2:-}\" >> " +
                         shell::quote(log) + "\n" + body + "\n");
    fs::permissions(path, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
}

std::vector<std::pair<std::string, Bytes>> klv_pairs(const uint8_t *p, size_t n) {
    std::vector<std::pair<std::string, Bytes>> pairs;
    size_t at = 0;
    while (at < n && p[at] != 0) {
        if (p[at] != 0x16 || at + 2 > n) {
            ADD_FAILURE() << "no name tag at " << at;
            break;
        }
        const size_t name_len = p[at + 1];
        at += 2;
        if (at + name_len + 2 > n || p[at + name_len] != 0x02) {
            ADD_FAILURE() << "no value tag after the name at " << at;
            break;
        }
        std::string name = to_text(p + at, name_len);
        at += name_len + 1;
        const size_t count = p[at++];
        if (count == 0 || count > 4 || at + count > n) {
            ADD_FAILURE() << "bad length count at " << at;
            break;
        }
        size_t len = 0;
        for (size_t i = 0; i < count; ++i) {
            len = (len << 8) | p[at++];
        }
        if (at + len > n) {
            ADD_FAILURE() << "value runs past the end at " << at;
            break;
        }
        pairs.emplace_back(std::move(name), Bytes(p + at, p + at + len));
        at += len;
    }
    return pairs;
}

std::vector<std::pair<std::string, Bytes>> block_pairs(const uint8_t *block, size_t n) {
    if (n < 16) {
        ADD_FAILURE() << "no block header";
        return {};
    }
    return klv_pairs(block + 16, n - 16);
}

} // namespace karst::test
