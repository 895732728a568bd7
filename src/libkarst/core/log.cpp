// SPDX-License-Identifier: Apache-2.0
#include "log.hpp"

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <new>

namespace karst::log {
namespace {

// One whole line at a time: a message's prefix and text are never split by another thread's.
__attribute__((format(printf, 4, 0))) void emit(char tag, const char *func, int line,
                                                const char *fmt, va_list ap) {
    flockfile(stdout);
    std::printf("[%c:%s:%d] ", tag, func, line);
    std::vprintf(fmt, ap);
    funlockfile(stdout);
}

// "[func]", then separator, then the message, as one line.
__attribute__((format(printf, 3, 0))) void emit_named(const char *func, const char *separator,
                                                      const char *fmt, va_list ap) {
    flockfile(stdout);
    std::printf("[%s]%s", func, separator);
    std::vprintf(fmt, ap);
    funlockfile(stdout);
}

} // namespace

void error(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit('E', func, line, fmt, ap);
    va_end(ap);
}

void info(const char *func, int line, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit('I', func, line, fmt, ap);
    va_end(ap);
}

void named(const char *func, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit_named(func, " ", fmt, ap);
    va_end(ap);
}

void named_joined(const char *func, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    emit_named(func, "", fmt, ap);
    va_end(ap);
}

void plain(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vprintf(fmt, ap);
    va_end(ap);
}

void dated(const char *kind, const char *file, int line, const char *fmt, ...) {
    // time_t is 32 or 64 bits wide depending on the platform; the digits are the same.
    const auto now = static_cast<unsigned long long>(std::time(nullptr));
    va_list ap;
    va_start(ap, fmt);
    flockfile(stdout);
    std::fprintf(stdout, "[%s %llx %s:%d] ", kind, now, file, line);
    std::vfprintf(stdout, fmt, ap);
    funlockfile(stdout);
    va_end(ap);
}

void exception(const char *func, int line) noexcept {
    try {
        throw;
    } catch (const std::bad_alloc &) {
        error(func, line, "out of memory\n");
    } catch (...) {
        error(func, line, "internal error\n");
    }
}

} // namespace karst::log
