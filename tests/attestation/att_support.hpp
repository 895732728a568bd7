// Common ground of the attestation tests: files and archives made in the test, a view of the
// run root's files to prove what changed, KLV pairs read back, and a recording stand-in for the
// REE data tool.
#pragma once

#include "support/blocks.hpp"
#include "support/test_env.hpp"

#include <cstdint>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace karst::test {

inline Bytes to_bytes(const std::string &s) {
    return Bytes(s.begin(), s.end());
}
inline std::string to_text(const uint8_t *p, size_t n) {
    return std::string(reinterpret_cast<const char *>(p), n);
}

// Escapes text for use inside a regular expression.
std::string re_escape(const std::string &text);

// mkdir -p.
void make_dirs(const std::string &path);
// A file of n bytes, byte i = (seed + i) mod 251.
Bytes pattern(size_t n, unsigned seed = 0);
void write_bytes(const std::string &path, const Bytes &data);
Bytes read_bytes(const std::string &path);
bool exists(const std::string &path);

// A gzip'ed tar archive at archive holding the named files (written fresh in a scratch folder).
void make_tgz(const std::string &archive, const std::map<std::string, Bytes> &files);
// The files of a gzip'ed tar archive (its bytes), extracted with tar: name -> content.
std::map<std::string, Bytes> tgz_files(const Bytes &archive);

// Every entry under dir (recursively), except under the given subpaths: relative path ->
// "d" for a directory, "l:<target>" for a link, "f:<content>" for a file.
std::map<std::string, std::string> snapshot(const std::string &dir,
                                            const std::vector<std::string> &skip = {});
// Names of entries anywhere under dir whose file name contains word.
std::vector<std::string> find_named(const std::string &dir, const std::string &word);

// Replaces the REE data tool of the run root with a script that appends one line per run to
// log ("<argument count>|<arg 1>|<arg 2>") and then runs body (shell text, may be empty).
void install_recording_tool(const std::string &root, const std::string &log,
                            const std::string &body);

// KLV pairs back to back (a data block's records, or an evidence buffer): name -> value in
// order. Stops at a zero tag or at the end; a malformed pair fails the test.
std::vector<std::pair<std::string, Bytes>> klv_pairs(const uint8_t *p, size_t n);
// The pairs of a data block (after its 16-byte header).
std::vector<std::pair<std::string, Bytes>> block_pairs(const uint8_t *block, size_t n);

} // namespace karst::test
