// SPDX-License-Identifier: Apache-2.0
// Messages of the library. Every message goes to standard output through these macros, so that
// each kind of line has one format: "[E:func:line] ..." for errors, "[I:func:line] ..." for
// information, where func is the printing routine's own name and line its source line.
#pragma once

namespace karst::log {

// Where a message is reported from: a routine's name and one of its source lines. Helpers that
// act for a routine take one (KARST_SITE at the call) and print under it.
struct Site {
    const char *func;
    int line;
};

void error(const char *func, int line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
void info(const char *func, int line, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
// "[func] ..." lines, used by the helpers that print their own name without a line number.
void named(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// "[func]..." lines: the text follows the closing bracket directly.
void named_joined(const char *func, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// A line with no prefix at all (printed values, "Invalid arguments:" lines).
void plain(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
// "[kind time file:line] ..." lines of the image API: kind is "Debug" or "Error", time the
// current time in seconds (hexadecimal), file the base name of the API's source file.
void dated(const char *kind, const char *file, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));
// "[E:func:line] out of memory" for a std::bad_alloc, "[E:func:line] internal error" for any
// other exception: the line of an exported call that an exception ended. Only inside a handler.
void exception(const char *func, int line) noexcept;

} // namespace karst::log

#define KARST_E(...) ::karst::log::error(__func__, __LINE__, __VA_ARGS__)
#define KARST_I(...) ::karst::log::info(__func__, __LINE__, __VA_ARGS__)
#define KARST_NAMED(...) ::karst::log::named(__func__, __VA_ARGS__)
#define KARST_NAMED_JOINED(...) ::karst::log::named_joined(__func__, __VA_ARGS__)
#define KARST_PRINT(...) ::karst::log::plain(__VA_ARGS__)
// The same lines for a helper that prints on behalf of a named routine (several routines share
// one body, each reporting under its own name).
#define KARST_NAMED_AS(func, ...) ::karst::log::named((func), __VA_ARGS__)
#define KARST_NAMED_JOINED_AS(func, ...) ::karst::log::named_joined((func), __VA_ARGS__)
#define KARST_E_AS(func, ...) ::karst::log::error((func), __LINE__, __VA_ARGS__)
#define KARST_I_AS(func, ...) ::karst::log::info((func), __LINE__, __VA_ARGS__)
#define KARST_SITE (::karst::log::Site{__func__, __LINE__})
#define KARST_E_AT(site, ...) ::karst::log::error((site).func, (site).line, __VA_ARGS__)
#define KARST_DEBUG(file, ...) ::karst::log::dated("Debug", file, __LINE__, __VA_ARGS__)
#define KARST_ERROR(file, ...) ::karst::log::dated("Error", file, __LINE__, __VA_ARGS__)
