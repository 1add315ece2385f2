// Logging, and the string, shell and file helpers that every module uses.
//
// Strings that a function returns are malloc'd and belong to the caller, who frees them (string_ptr does).
// Everything runs on the program's one thread.
#pragma once

#include <cstddef>
#include <sys/types.h>
#include <utility>

#include "common/owners.h"

enum kx_error_t { E_ERROR = 0, E_WARN = 1, E_INFO = 2, E_DEBUG = 3 };

extern int
    g_verbose; // highest level that is logged; compared as unsigned, so a negative value logs everything
extern int g_nosystemd; // 1: log to standard error with colours; 0: log to the systemd journal

// Logs a message with its caller's place. To the journal goes each line that a CR or LF ends; text after the
// last of them is dropped. To standard error goes the message as it is. Never fails visibly.
void kx_log(unsigned level, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

// One macro a level. The arguments of a message that the level filters out are not evaluated.
#define KX_LOG_AT(level, ...)                                                                                \
    (static_cast<unsigned>(g_verbose) < static_cast<unsigned>(level)                                         \
         ? static_cast<void>(0)                                                                              \
         : kx_log(level, __FILE_NAME__, __LINE__, __VA_ARGS__))
#define LOG_ERROR(...) KX_LOG_AT(E_ERROR, __VA_ARGS__)
#define LOG_WARN(...) KX_LOG_AT(E_WARN, __VA_ARGS__)
#define LOG_INFO(...) KX_LOG_AT(E_INFO, __VA_ARGS__)
#define LOG_DEBUG(...) KX_LOG_AT(E_DEBUG, __VA_ARGS__)

// A copy of s; null for null.
char* safe_strdup(const char* s);

// Puts a copy of by (null for null) in the place of a malloc'd text or null, which is freed.
template <class Char>
void replace_text(Char*& text, const char* by)
{
    string_ptr old(const_cast<char*>(std::exchange(text, safe_strdup(by))));
}

// s as a message shows it: "(null)" for null.
inline const char* shown(const char* s)
{
    return s ? s : "(null)";
}

// Formats into a new string stored through text. Returns the length; negative on failure, text is then
// undefined.
int safe_asprintf(char** text, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

// The formatted text as a new string; null on failure.
char* asprintf_str(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Formats at most n bytes into buf and always ends them with a NUL. Returns the length before any cut.
int safe_snprintf(char* buf, size_t n, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// The same; returns buf.
char* snprintf_str(char* buf, size_t n, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

// Resizes a malloc'd block. On failure p is freed and null returned, so the old block never leaks.
void* safe_realloc(void* p, size_t size);

// Appends bytes, and a NUL behind them, to a malloc'd text of this length (null and 0 at first). Returns len;
// 0 when memory ran out, text is then null and length 0.
size_t append_bytes(char*& text, size_t& length, const void* bytes, size_t len);

// Runs a shell command and waits for it. Returns pclose's status; -1 when it could not be started.
int safe_system(const char* cmd);

// A copy of s with a backslash before every character that the shell would take for its own (newline
// excepted); null for null.
char* escape_for_shell(const char* s);

// Undoes shell quoting in place. Returns s (must not be null); null when a quote is not closed.
char* unescape_for_shell(char* s);

// Moves a local file or folder with /bin/mv, whatever characters the paths hold: no path runs a command or
// gives an option. Nothing is reported.
void safe_mv(const char* from, const char* to);

// The value of the first pair with this key in a query string, as a new string: '+' reads as a space, nothing
// is percent-decoded, a pair without '=' has the empty value. Null for a null argument, an empty query string
// or no match.
char* get_val_from_qstring(const char* key, const char* qs);

// Creates every missing folder of path with these permission bits. 0 on success; -1 when a part cannot be
// made or is no folder.
int mkdir_p(const char* path, mode_t mode);

// Replaces a file by one of this content: whoever reads it, also after a crash, finds the old content or the
// new, never a mixture or half of it. A durable one is on the disk before it takes the place, so that this
// holds after a power cut too. 0 on success; -1, with the old file in place, when it cannot be written.
int replace_file(const char* path, const char* content, bool durable);

// Appends strings, up to a null, to base (a malloc'd string or null), which is consumed. Returns the result.
char* strappend(char* base, ...) __attribute__((sentinel));

// Cuts trailing white space in place; s must not be null.
void chomp(char* s);

// Sleeps for this many milliseconds; a signal ends the sleep early.
void kx_sleep_ms(unsigned ms);
