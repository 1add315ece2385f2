// A null text given to unescape_for_shell stops the program in every kind of build.
#undef NDEBUG
#include <cassert>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owners.h"
#include "common/utils.h"

namespace
{

constexpr size_t mv_command_size = 2048;

bool is_special_to_shell(char c)
{
    return c != '\0' && strchr("! \t\\&()|^<>?*[]$`\"'{}", c) != nullptr;
}

// Where unescape_for_shell reads and writes; the text shrinks, so that writing never overtakes reading.
struct unescape_t {
    const char* from;
    char* to;
};

// Both readers of a quoted section stand behind its opening quote, and leave behind its closing one; false
// when that is missing.
bool unescape_single_quoted(unescape_t& at)
{
    while (*at.from && *at.from != '\'')
        *at.to++ = *at.from++;
    return *at.from++ == '\'';
}

bool unescape_double_quoted(unescape_t& at)
{
    while (*at.from && *at.from != '"') {
        if (*at.from == '\\' && at.from[1] && strchr("`$!\\\n", at.from[1]))
            at.from++;
        *at.to++ = *at.from++;
    }
    return *at.from++ == '"';
}

// Ends at the end of the text or before a quote.
void unescape_unquoted(unescape_t& at)
{
    while (*at.from && *at.from != '\'' && *at.from != '"') {
        if (*at.from != '\\') {
            *at.to++ = *at.from++;
            continue;
        }
        at.from++;
        if (*at.from && *at.from != '\n')
            *at.to++ = *at.from;
        if (*at.from)
            at.from++;
    }
}

// Whether the shell takes the escaped path for one plain word. Escaping leaves alone what separates commands,
// what begins an option, a comment or a home folder in front of a word, and the empty path.
bool escaping_makes_safe(const char* path)
{
    if (*path == '\0' || strchr("-#~=", *path))
        return false;
    for (; *path; path++)
        if (*path == ';' || (iscntrl(static_cast<unsigned char>(*path)) && !is_special_to_shell(*path)))
            return false;
    return true;
}

using spawn_actions_ptr = owner<posix_spawn_file_actions_t, posix_spawn_file_actions_destroy>;

void mv_without_shell(const char* from, const char* to)
{
    const char* argv[] = {"/bin/mv", "--", from, to, nullptr};
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0)
        return;
    spawn_actions_ptr actions_owner(&actions);
    // Reading from a terminal, mv would ask before it replaces a read-only file, and wait.
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t child;
    if (posix_spawn(&child, argv[0], &actions, nullptr, const_cast<char**>(argv), environ) != 0)
        return;
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR)
        ;
}

bool make_folder(const char* path, mode_t mode)
{
    if (mkdir(path, mode) == 0)
        return true;
    struct stat st;
    return errno == EEXIST && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The file that takes a path's place belongs to the same owner and opens to the same readers.
void keep_owner(const char* path, int fresh)
{
    struct stat st;
    if (stat(path, &st) == 0 && (fchown(fresh, st.st_uid, st.st_gid) != 0 || fchmod(fresh, st.st_mode) != 0))
        LOG_DEBUG("%s: Failed to keep the owner of %s! errno=%d\n", __func__, path, errno);
}

} // namespace

int safe_system(const char* cmd)
{
    FILE* pipe = popen(cmd, "w");
    return pipe ? pclose(pipe) : -1;
}

char* escape_for_shell(const char* s)
{
    if (!s)
        return nullptr;
    size_t size = 1;
    for (const char* c = s; *c; c++)
        size += is_special_to_shell(*c) ? 2 : 1;

    char* escaped = static_cast<char*>(malloc(size));
    if (!escaped)
        return nullptr;
    char* to = escaped;
    for (; *s; s++) {
        if (is_special_to_shell(*s))
            *to++ = '\\';
        *to++ = *s;
    }
    *to = '\0';
    return escaped;
}

char* unescape_for_shell(char* src)
{
    assert(src);
    unescape_t at = {src, src};
    while (*at.from == '\'' || *at.from == '"') {
        bool closed = *at.from++ == '\'' ? unescape_single_quoted(at) : unescape_double_quoted(at);
        if (!closed)
            return nullptr;
    }
    // A quote that follows unquoted text is not opened: the text ends there.
    unescape_unquoted(at);
    *at.to = '\0';
    return src;
}

void safe_mv(const char* from, const char* to)
{
    string_ptr quoted_from(escape_for_shell(from));
    string_ptr quoted_to(escape_for_shell(to));
    if (!quoted_from || !quoted_to)
        return;
    char command[mv_command_size];
    int length = safe_snprintf(command, sizeof command, "/bin/mv %s %s", quoted_from.get(), quoted_to.get());
    bool whole = length >= 0 && static_cast<size_t>(length) < sizeof command;
    // Names come from the cloud: none may run a command, and a cut path would be another one.
    if (whole && escaping_makes_safe(from) && escaping_makes_safe(to))
        safe_system(command);
    else
        mv_without_shell(from, to);
}

int mkdir_p(const char* path, mode_t mode)
{
    if (!path)
        return -1;
    std::string prefix;
    for (const char* rest = path; *rest;) {
        size_t step = strcspn(rest, "/");
        step += strspn(rest + step, "/");
        prefix.append(rest, step);
        rest += step;
        if (!make_folder(prefix.c_str(), mode))
            return -1;
    }
    return *path ? 0 : -1;
}

int replace_file(const char* path, const char* content, bool durable)
{
    const std::string fresh = std::string(path) + ".new";
    file_ptr file(fopen(fresh.c_str(), "wb"));
    if (!file)
        return -1;
    keep_owner(path, fileno(file.get()));
    bool written = fputs(content, file.get()) >= 0 && fflush(file.get()) == 0 &&
                   (!durable || fdatasync(fileno(file.get())) == 0);
    written = fclose(file.release()) == 0 && written;
    if (written && rename(fresh.c_str(), path) == 0)
        return 0;
    unlink(fresh.c_str());
    return -1;
}

void kx_sleep_ms(unsigned ms)
{
    if (ms == 0)
        return;
    timespec pause = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000};
    nanosleep(&pause, nullptr);
}
