// SPDX-License-Identifier: Apache-2.0
#include "bus.hpp"

#include <cstdio>
#include <cstring>

namespace karstd {

int check(int rc, const char *what) {
    if (rc < 0) {
        throw BusError(error::INTERNAL_FAILURE,
                       std::string(what) + " failed: " + std::strerror(-rc));
    }
    return rc;
}

Slot add_interface(sd_bus *bus, const std::string &path, const char *interface,
                   const sd_bus_vtable *vtable, void *owner) {
    sd_bus_slot *slot = nullptr;
    check(sd_bus_add_object_vtable(bus, &slot, path.c_str(), interface, vtable, owner),
          (std::string("registering ") + interface + " at " + path).c_str());
    return Slot(slot);
}

int refuse(sd_bus_message *m, sd_bus_error *error, const char *name, const char *message) {
    if (std::strcmp(name, error::INTERNAL_FAILURE) == 0) {
        std::fprintf(stderr, "karstd: %s failed: %s\n", sd_bus_message_get_member(m), message);
    }
    return sd_bus_error_set(error, name, message);
}

int append(sd_bus_message *reply, const std::string &value) {
    return sd_bus_message_append_basic(reply, 's', value.c_str());
}

int append(sd_bus_message *reply, uint8_t value) {
    return sd_bus_message_append_basic(reply, 'y', &value);
}

int append(sd_bus_message *reply, bool value) {
    const int b = value ? 1 : 0;
    return sd_bus_message_append_basic(reply, 'b', &b);
}

int append(sd_bus_message *reply, uint64_t value) {
    return sd_bus_message_append_basic(reply, 't', &value);
}

int append(sd_bus_message *reply, const std::vector<std::string> &value) {
    std::vector<char *> words;
    words.reserve(value.size() + 1);
    for (const std::string &word : value) {
        words.push_back(const_cast<char *>(word.c_str()));
    }
    words.push_back(nullptr);
    return sd_bus_message_append_strv(reply, words.data());
}

std::vector<std::string> read_strings(sd_bus_message *m) {
    char **words = nullptr;
    check(sd_bus_message_read_strv(m, &words), "reading the arguments");
    std::vector<std::string> result;
    for (char **w = words; w != nullptr && *w != nullptr; ++w) {
        result.emplace_back(*w);
        std::free(*w);
    }
    std::free(words);
    return result;
}

} // namespace karstd
