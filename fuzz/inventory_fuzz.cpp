// SPDX-License-Identifier: Apache-2.0
// Fuzzes the inventory file routines on arbitrary file contents, keys and values.
//
// Input: byte 0 the key length, byte 1 the value length, bytes 2-3 the value size given to
// write_config, byte 4 the read buffer size, then the key, the value and the file contents.
// Checks against a scan of the file made with the pattern the line format is defined by:
//   - read_config finds exactly the first entry with the key, cut to the buffer;
//   - write_config keeps every other entry, in order: a replacement leaves the entries exactly
//     as they were except for the key's new value; an append keeps them all and adds the key;
//     a key that already holds the new value leaves the file byte for byte as it was;
//   - a key that no line can hold leaves the file byte for byte as it was.
#include <karst.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

std::string g_dir;
std::string g_file;

void check(bool ok, const char *what) {
    if (!ok) {
        std::fprintf(stderr, "inventory_fuzz: %s\n", what);
        std::abort();
    }
}

Entries scan(const std::string &text) {
    Entries entries;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        eol = eol == std::string::npos ? text.size() : eol + 1;
        const std::string line = text.substr(pos, eol - pos);
        pos = eol;
        char key[65] = {};
        char value[512] = {};
        const int count = std::sscanf(line.c_str(), "%64[^'=']=%511[^\n]", key, value);
        if ((count == 1 || count == 2) && std::strlen(key) <= 63) {
            entries.emplace_back(key, count == 2 ? value : "");
        }
    }
    return entries;
}

std::string read_whole() {
    std::string text;
    const int fd = open(g_file.c_str(), O_RDONLY);
    char chunk[4096];
    ssize_t n = 0;
    while (fd >= 0 && (n = read(fd, chunk, sizeof chunk)) > 0) {
        text.append(chunk, static_cast<size_t>(n));
    }
    if (fd >= 0) {
        close(fd);
    }
    return text;
}

void write_whole(const uint8_t *data, size_t size) {
    const int fd = open(g_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    check(fd >= 0, "cannot write the work file");
    check(write(fd, data, size) == static_cast<ssize_t>(size), "short write of the work file");
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Memory-backed when the system has it: the work file is rewritten on every run.
    char shm_dir[] = "/dev/shm/karst-fuzz-XXXXXX";
    char tmp_dir[] = "/tmp/karst-fuzz-XXXXXX";
    const char *dir = mkdtemp(shm_dir);
    dir = dir != nullptr ? dir : mkdtemp(tmp_dir);
    check(dir != nullptr, "no work directory");
    g_dir = dir;
    g_file = g_dir + "/inventory.txt";
    std::atexit([] {
        unlink(g_file.c_str());
        rmdir(g_dir.c_str());
    });
    check(std::freopen("/dev/null", "w", stdout) != nullptr, "stdout"); // xstrcpy's warnings
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 5) {
        return 0;
    }
    const size_t key_len = std::min<size_t>(data[0] % 80, size - 5);
    const size_t value_len = std::min<size_t>(data[1] * 3u, size - 5 - key_len);
    const uint32_t value_size = static_cast<uint32_t>(data[2] | data[3] << 8) % 700;
    const uint32_t out_size = data[4] * 3u;
    const std::string key(reinterpret_cast<const char *>(data + 5), key_len);
    // The value lives in a buffer of exactly value_len bytes: the sanitizer sees any overrun.
    std::vector<char> value(data + 5 + key_len, data + 5 + key_len + value_len);
    const uint8_t *file = data + 5 + key_len + value_len;
    const size_t file_size = size - 5 - key_len - value_len;

    write_whole(file, file_size);
    const std::string before_text = read_whole();
    const Entries before = scan(before_text);
    const char *k = key.c_str(); // up to the first zero byte, as the routines take it
    const std::string k_text(k);

    // read_config: the first entry with the key.
    std::vector<char> out(out_size + 1, '#');
    const int read_rc = read_config(g_file.c_str(), k, out.data(), out_size);
    auto first = std::find_if(before.begin(), before.end(),
                              [&](const auto &e) { return e.first == k_text; });
    check(read_rc == (first != before.end() ? 0 : -1), "read_config result");
    if (read_rc == 0 && out_size > 0) {
        check(std::string(out.data()) == first->second.substr(0, out_size - 1), "read value");
    }
    check(out[out_size] == '#', "read_config wrote past its buffer");

    // write_config with a value of at most value_size bytes from the caller's buffer.
    const uint32_t given_size = std::min<uint32_t>(value_size, static_cast<uint32_t>(value_len));
    const char *given = value_len > 0 ? value.data() : nullptr;
    const int write_rc = write_config(g_file.c_str(), k, given, given_size);
    const std::string after_text = read_whole();
    const Entries after = scan(after_text);

    const bool key_ok = k_text.size() <= 63 && k_text.find_first_of("='\n") == std::string::npos;
    if (!key_ok || k_text.empty()) {
        check(write_rc == (key_ok ? 0 : -1), "write_config result for an unusable key");
        check(after_text == before_text, "file changed for an unusable key");
        return 0;
    }
    check(write_rc == 0, "write_config failed");

    // The new value as text: to its size, first zero byte or line end.
    std::string text;
    uint32_t capacity = 1;
    if (given != nullptr && given_size > 0) {
        for (uint32_t i = 0; i < given_size && given[i] != '\0' && given[i] != '\n'; ++i) {
            text.push_back(given[i]);
        }
        capacity = std::min<uint32_t>(given_size, 512);
    }
    if (first != before.end()) {
        // A match counts as a change when it has no value or another value than the new one
        // (before the new value is cut to its capacity); without a change nothing is written.
        const bool changed = std::any_of(before.begin(), before.end(), [&](const auto &e) {
            return e.first == k_text && (e.second.empty() || e.second != text);
        });
        if (!changed) {
            check(after_text == before_text, "file written without a change");
            return 0;
        }
        const std::string stored = text.size() >= capacity ? text.substr(0, capacity - 1) : text;
        Entries expected = before;
        for (auto &e : expected) {
            if (e.first == k_text) {
                e.second = stored;
            }
        }
        check(after == expected, "replacement changed other entries");
    } else {
        Entries expected = before;
        expected.emplace_back(k_text, text.substr(0, 511));
        check(after.size() >= expected.size() &&
                  std::equal(expected.begin(), expected.end(), after.begin()),
              "append lost or changed an entry");
    }
    return 0;
}
