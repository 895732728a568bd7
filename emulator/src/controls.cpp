// SPDX-License-Identifier: Apache-2.0
#include "controls.hpp"

#include "answers.hpp"
#include "pta/image_model.hpp"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <string>

namespace karst::emu {
namespace {

// Input bytes a journal entry keeps of each memory reference, until a test sets another limit.
constexpr size_t DEFAULT_INPUT_LIMIT = size_t{1} << 20; // 1 MiB

struct Bookkeeping {
    std::mutex mutex;
    bool env_read = false;
    std::deque<uint32_t> script[KARST_EMU_OP_COUNT];
    size_t calls[KARST_EMU_OP_COUNT] = {};
    std::set<const TEEC_Context *> contexts;
    std::set<const TEEC_Session *> sessions;
    std::map<const TEEC_SharedMemory *, Registration> memory;
    std::deque<JournalEntry> journal; // deque: records handed out stay where they are
    size_t input_limit = DEFAULT_INPUT_LIMIT;
    bool registers_memory = true;
};

Bookkeeping &book() {
    static Bookkeeping b;
    return b;
}

std::deque<uint32_t> parse_codes(const char *text) {
    std::deque<uint32_t> codes;
    while (text != nullptr && *text != '\0') {
        char *end = nullptr;
        errno = 0;
        const unsigned long v = std::strtoul(text, &end, 0);
        if (end == text || errno != 0) {
            std::fprintf(stderr, "karst-emulator: ignoring bad script text \"%s\"\n", text);
            break;
        }
        codes.push_back(static_cast<uint32_t>(v));
        text = *end == ',' ? end + 1 : end;
        if (*end != ',' && *end != '\0') {
            break;
        }
    }
    return codes;
}

// Scripts given to a whole process through its environment, read once.
void read_environment(Bookkeeping &b) {
    if (b.env_read) {
        return;
    }
    b.env_read = true;
    static const char *const names[KARST_EMU_OP_COUNT] = {
        "KARST_EMU_SCRIPT_INIT", "KARST_EMU_SCRIPT_OPEN", "KARST_EMU_SCRIPT_REGISTER",
        "KARST_EMU_SCRIPT_INVOKE"};
    for (int op = 0; op < KARST_EMU_OP_COUNT; ++op) {
        if (const char *text = std::getenv(names[op]); text != nullptr) {
            b.script[op] = parse_codes(text);
        }
    }
    const char *registered = std::getenv("KARST_EMU_REGISTERED_MEMORY");
    b.registers_memory = registered == nullptr || std::strcmp(registered, "0") != 0;
}

void append_journal_file(const JournalEntry &e) {
    const char *path = std::getenv("KARST_EMU_JOURNAL");
    if (path == nullptr || *path == '\0') {
        return;
    }
    std::FILE *f = std::fopen(path, "ae");
    if (f == nullptr) {
        return;
    }
    std::fprintf(f, "cmd=%" PRIu32 " types=0x%" PRIx32 " result=0x%" PRIx32 " origin=0x%" PRIx32,
                 e.command, e.param_types, e.result, e.origin);
    for (int i = 0; i < 4; ++i) {
        const JournalParam &p = e.params[i];
        if (p.type == TEEC_NONE) {
            continue;
        }
        std::fprintf(f, " p%d=0x%" PRIx32, i, p.type);
        if (p.type >= TEEC_VALUE_INPUT && p.type <= TEEC_VALUE_INOUT) {
            std::fprintf(f, ":a=0x%" PRIx32 ",b=0x%" PRIx32, p.a, p.b);
        } else {
            std::fprintf(f, ":size=%zu,flags=0x%" PRIx32 ",out=%zu,in=", p.size, p.flags,
                         p.output_size);
            for (uint8_t byte : p.input) {
                std::fprintf(f, "%02x", byte);
            }
        }
    }
    std::fputc('\n', f);
    std::fclose(f);
}

} // namespace

std::optional<uint32_t> next_scripted(karst_emu_op op) {
    Bookkeeping &b = book();
    std::lock_guard lock(b.mutex);
    read_environment(b);
    ++b.calls[op];
    if (b.script[op].empty()) {
        return std::nullopt;
    }
    const uint32_t code = b.script[op].front();
    b.script[op].pop_front();
    if (code == 0) {
        return std::nullopt;
    }
    return code;
}

void context_opened(TEEC_Context *ctx) {
    std::lock_guard lock(book().mutex);
    book().contexts.insert(ctx);
}
bool context_known(const TEEC_Context *ctx) {
    std::lock_guard lock(book().mutex);
    return book().contexts.count(ctx) != 0;
}
void context_closed(TEEC_Context *ctx) {
    std::lock_guard lock(book().mutex);
    book().contexts.erase(ctx);
}

void session_opened(TEEC_Session *session) {
    std::lock_guard lock(book().mutex);
    book().sessions.insert(session);
}
bool session_known(const TEEC_Session *session) {
    std::lock_guard lock(book().mutex);
    return book().sessions.count(session) != 0;
}
void session_closed(TEEC_Session *session) {
    std::lock_guard lock(book().mutex);
    book().sessions.erase(session);
}

void memory_registered(TEEC_SharedMemory *shm, const Registration &reg) {
    std::lock_guard lock(book().mutex);
    book().memory[shm] = reg;
}
std::optional<Registration> registration_of(const TEEC_SharedMemory *shm) {
    std::lock_guard lock(book().mutex);
    auto it = book().memory.find(shm);
    if (it == book().memory.end()) {
        return std::nullopt;
    }
    return it->second;
}
std::optional<Registration> memory_released(TEEC_SharedMemory *shm) {
    std::lock_guard lock(book().mutex);
    auto node = book().memory.extract(shm);
    if (node.empty()) {
        return std::nullopt;
    }
    return node.mapped();
}

bool registers_memory() {
    std::lock_guard lock(book().mutex);
    read_environment(book());
    return book().registers_memory;
}

size_t journal_input_limit() {
    std::lock_guard lock(book().mutex);
    return book().input_limit;
}

void journal_add(JournalEntry entry) {
    append_journal_file(entry);
    std::lock_guard lock(book().mutex);
    book().journal.push_back(std::move(entry));
}

} // namespace karst::emu

using namespace karst::emu;

extern "C" void karst_emu_script(karst_emu_op op, const uint32_t *codes, size_t count) {
    if (op < 0 || op >= KARST_EMU_OP_COUNT) {
        return;
    }
    std::lock_guard lock(book().mutex);
    read_environment(book());
    book().script[op].assign(codes, codes + count);
}

extern "C" void karst_emu_fail_nth(karst_emu_op op, size_t nth, uint32_t code) {
    if (op < 0 || op >= KARST_EMU_OP_COUNT || nth == 0) {
        return;
    }
    std::lock_guard lock(book().mutex);
    read_environment(book());
    std::deque<uint32_t> &s = book().script[op];
    s.assign(nth - 1, 0);
    s.push_back(code);
}

extern "C" void karst_emu_registered_memory(int on) {
    std::lock_guard lock(book().mutex);
    read_environment(book());
    book().registers_memory = on != 0;
}

extern "C" size_t karst_emu_calls(karst_emu_op op) {
    if (op < 0 || op >= KARST_EMU_OP_COUNT) {
        return 0;
    }
    std::lock_guard lock(book().mutex);
    return book().calls[op];
}

extern "C" void karst_emu_get_stats(karst_emu_stats *stats) {
    std::lock_guard lock(book().mutex);
    stats->contexts = book().contexts.size();
    stats->sessions = book().sessions.size();
    stats->registered = book().memory.size();
}

extern "C" size_t karst_emu_journal_count(void) {
    std::lock_guard lock(book().mutex);
    return book().journal.size();
}

extern "C" int karst_emu_journal_get(size_t index, karst_emu_invoke_record *record) {
    std::lock_guard lock(book().mutex);
    if (record == nullptr || index >= book().journal.size()) {
        return -1;
    }
    const JournalEntry &e = book().journal[index];
    *record = karst_emu_invoke_record{};
    record->command = e.command;
    record->param_types = e.param_types;
    record->result = e.result;
    record->origin = e.origin;
    for (int i = 0; i < 4; ++i) {
        const JournalParam &p = e.params[i];
        karst_emu_param &out = record->params[i];
        out.type = p.type;
        out.a = p.a;
        out.b = p.b;
        out.size = p.size;
        out.flags = p.flags;
        out.input = p.input.empty() ? nullptr : p.input.data();
        out.input_kept = p.input.size();
        out.output_size = p.output_size;
    }
    return 0;
}

extern "C" void karst_emu_journal_clear(void) {
    std::lock_guard lock(book().mutex);
    book().journal.clear();
}

extern "C" void karst_emu_journal_input_limit(size_t bytes) {
    std::lock_guard lock(book().mutex);
    book().input_limit = bytes;
}

extern "C" void karst_emu_reset(void) {
    clear_answers();
    std::lock_guard lock(book().mutex);
    for (auto &s : book().script) {
        s.clear();
    }
    for (auto &c : book().calls) {
        c = 0;
    }
    book().journal.clear();
    book().registers_memory = true;
    reset_program_rate();
}
