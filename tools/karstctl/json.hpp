// SPDX-License-Identifier: Apache-2.0
// The JSON that --json prints: one object per result, built member by member.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace karstctl {

// text as a JSON string: quotes, backslashes and control characters escaped; text that is not
// valid UTF-8 has each byte above 0x7f written as \u00XX.
std::string json_string(std::string_view text);

class JsonObject {
  public:
    JsonObject &text(std::string_view key, std::string_view text);
    JsonObject &number(std::string_view key, uint64_t number);
    JsonObject &flag(std::string_view key, bool yes);
    // An array of objects.
    JsonObject &array(std::string_view key, const std::vector<JsonObject> &items);
    std::string str() const { return "{" + members_ + "}"; }

  private:
    JsonObject &member(std::string_view key, const std::string &json);
    std::string members_;
};

// Prints the object and a line end on standard output.
void print_json(const JsonObject &object);

} // namespace karstctl
