#include "common/utils.h"

// The journal's header brings syslog.h, whose priorities bear the names of our macros.
#undef LOG_INFO
#undef LOG_DEBUG

// Else the journal would get this file's place beside the caller's.
#define SD_JOURNAL_SUPPRESS_LOCATION

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <systemd/sd-journal.h>

#include "common/owners.h"

int g_verbose = 1;
int g_nosystemd = 0;

namespace
{

enum kx_log_err_color_t {
    FG_RED = 31,
    FG_GREEN = 32,
    FG_YELLOW = 33,
    FG_BLUE = 34,
    FG_DEFAULT = 39,
    BG_RED = 41,
    BG_GREEN = 42,
    BG_BLUE = 44,
    BG_DEFAULT = 49,
};

struct kx_log_err_t {
    const char* errstr;
    kx_log_err_color_t color;
    int priority;
};

constexpr kx_log_err_t log_levels[] = {
    {"error", FG_RED, LOG_ERR},
    {"warn", FG_YELLOW, LOG_WARNING},
    {"info", FG_GREEN, LOG_INFO},
    {"debug", FG_DEFAULT, LOG_DEBUG},
};

void log_to_journal(const kx_log_err_t& row, const char* file, int line, std::string_view message)
{
    for (size_t end; (end = message.find_first_of("\r\n")) != message.npos; message.remove_prefix(end + 1)) {
        if (end > 0)
            sd_journal_send("MESSAGE=%.*s", static_cast<int>(end), message.data(), "PRIORITY=%d",
                            row.priority, "CODE_FILE=%s", file, "CODE_LINE=%d", line, nullptr);
    }
}

void log_to_stderr(const kx_log_err_t& row, const char* file, int line, const char* fmt, va_list args)
{
    fprintf(stderr, "\033[%dm%s:%d(%s) ", row.color, file, line, row.errstr);
    vfprintf(stderr, fmt, args);
    fprintf(stderr, "\033[%dm", FG_DEFAULT);
}

} // namespace

void kx_log(unsigned level, const char* file, int line, const char* fmt, ...)
{
    if (static_cast<unsigned>(g_verbose) < level)
        return;
    const kx_log_err_t& row = log_levels[std::min<unsigned>(level, E_DEBUG)];

    va_list args;
    va_start(args, fmt);
    if (g_nosystemd) {
        log_to_stderr(row, file, line, fmt, args);
    } else {
        char* raw = nullptr;
        int length = vasprintf(&raw, fmt, args);
        string_ptr message(length < 0 ? nullptr : raw);
        if (message)
            log_to_journal(row, file, line, {message.get(), static_cast<size_t>(length)});
    }
    va_end(args);
}
