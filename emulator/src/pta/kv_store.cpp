// SPDX-License-Identifier: Apache-2.0
#include "kv_store.hpp"

#include "../state_dir.hpp"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace karst::emu {
namespace {

// Format: per entry "<key length> <value length>\n<key><value>\n".
bool parse(const std::string &data, std::map<std::string, std::string> &out) {
    size_t pos = 0;
    while (pos < data.size()) {
        const size_t eol = data.find('\n', pos);
        if (eol == std::string::npos) {
            return false;
        }
        unsigned long klen = 0, vlen = 0;
        if (std::sscanf(data.c_str() + pos, "%lu %lu", &klen, &vlen) != 2) {
            return false;
        }
        pos = eol + 1;
        if (klen > data.size() - pos || vlen > data.size() - pos - klen ||
            pos + klen + vlen >= data.size() || data[pos + klen + vlen] != '\n') {
            return false;
        }
        out[data.substr(pos, klen)] = data.substr(pos + klen, vlen);
        pos += klen + vlen + 1;
    }
    return true;
}

} // namespace

bool KvStore::load(const std::map<std::string, std::string> &defaults) {
    const std::string dir = state_dir();
    if (dir.empty()) {
        return false;
    }
    path_ = dir + "/" + name_;
    std::ifstream in(path_, std::ios::binary);
    if (!in) {
        values_ = defaults;
        return true;
    }
    std::ostringstream text;
    text << in.rdbuf();
    values_.clear();
    if (!parse(text.str(), values_)) {
        std::fprintf(stderr, "karst-emulator: %s is damaged; entries after the damage dropped\n",
                     path_.c_str());
    }
    return true;
}

bool KvStore::save() const {
    const std::string tmp = path_ + ".tmp";
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        for (const auto &[key, value] : values_) {
            out << key.size() << ' ' << value.size() << '\n' << key << value << '\n';
        }
        if (!out.flush()) {
            return false;
        }
    }
    return std::rename(tmp.c_str(), path_.c_str()) == 0;
}

std::optional<std::string> KvStore::get(const std::string &key) const {
    auto it = values_.find(key);
    if (it == values_.end()) {
        return std::nullopt;
    }
    return it->second;
}

} // namespace karst::emu
