// SPDX-License-Identifier: Apache-2.0
// A small persistent map of names to byte strings, one file in the emulator's state directory.
// Written whole to a temporary file and renamed over the old one, so that a reader in another
// process sees either the old or the new contents.
#pragma once

#include <map>
#include <optional>
#include <string>

namespace karst::emu {

class KvStore {
  public:
    // name: the file's name inside the state directory.
    explicit KvStore(std::string name) : name_(std::move(name)) {}

    // Loads the file. A missing file gives the defaults; false when the state directory is not
    // usable.
    bool load(const std::map<std::string, std::string> &defaults = {});
    bool save() const;

    std::optional<std::string> get(const std::string &key) const;
    void set(const std::string &key, std::string value) { values_[key] = std::move(value); }
    bool erase(const std::string &key) { return values_.erase(key) != 0; }

  private:
    std::string name_;
    std::string path_;
    std::map<std::string, std::string> values_;
};

} // namespace karst::emu
