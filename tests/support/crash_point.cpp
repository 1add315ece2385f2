// Loaded into a program before its libraries: counts the calls that change what is on disk or talk to the
// cloud, and ends the program with SIGKILL just before call number KXCRASH_AT. Their names, a line each, go
// to the file KXCRASH_COUNT.
//
// Only calls through the C library's names are seen; that takes in SQLite, libcurl and the standard streams'
// open. What a stream writes itself, and rename inside the shell's mv, are not.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::atomic<long> calls;

// The program's own children are left alone.
__attribute__((constructor)) void stay_alone()
{
    unsetenv("LD_PRELOAD");
}

long crash_at()
{
    static const char* text = std::getenv("KXCRASH_AT");
    static const long at = text ? std::strtol(text, nullptr, 10) : 0;
    return at;
}

// Counting keeps a file up to date, as the program may end in any way.
void record(const char* name)
{
    static const char* path = std::getenv("KXCRASH_COUNT");
    if (!path)
        return;
    using open_t = int (*)(const char*, int, ...);
    using write_t = ssize_t (*)(int, const void*, size_t);
    static const auto real_open = reinterpret_cast<open_t>(dlsym(RTLD_NEXT, "open"));
    static const auto real_write = reinterpret_cast<write_t>(dlsym(RTLD_NEXT, "write"));
    static const int fd = real_open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    char line[64];
    const int length = std::snprintf(line, sizeof line, "%s\n", name);
    (void)!real_write(fd, line, static_cast<size_t>(length));
}

// The program's log is no work of its own.
void step(const char* name, int fd = -1)
{
    if (fd == 2)
        return;
    const int error = errno;
    if (++calls == crash_at())
        kill(getpid(), SIGKILL);
    record(name);
    errno = error;
}

} // namespace

#define INTERPOSE(result, name, parameters, arguments, fd)                                                   \
    extern "C" result name parameters                                                                        \
    {                                                                                                        \
        static const auto real = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));            \
        step(#name, fd);                                                                                     \
        return real arguments;                                                                               \
    }

INTERPOSE(int, rename, (const char* from, const char* to), (from, to), -1)
INTERPOSE(int, unlink, (const char* path), (path), -1)
INTERPOSE(int, rmdir, (const char* path), (path), -1)
INTERPOSE(int, mkdir, (const char* path, mode_t mode), (path, mode), -1)
INTERPOSE(int, ftruncate, (int fd, off_t size), (fd, size), fd)
INTERPOSE(int, ftruncate64, (int fd, off64_t size), (fd, size), fd)
INTERPOSE(int, fsync, (int fd), (fd), fd)
INTERPOSE(int, fdatasync, (int fd), (fd), fd)
INTERPOSE(int, utimensat, (int at, const char* path, const timespec* times, int flags),
          (at, path, times, flags), -1)
INTERPOSE(int, futimens, (int fd, const timespec* times), (fd, times), fd)
INTERPOSE(int, utime, (const char* path, const struct utimbuf* times), (path, times), -1)
INTERPOSE(int, utimes, (const char* path, const struct timeval* times), (path, times), -1)
INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), fd)
INTERPOSE(ssize_t, pwrite, (int fd, const void* data, size_t size, off_t at), (fd, data, size, at), fd)
INTERPOSE(ssize_t, pwrite64, (int fd, const void* data, size_t size, off64_t at), (fd, data, size, at), fd)
INTERPOSE(ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags), fd)
INTERPOSE(FILE*, fopen, (const char* path, const char* mode), (path, mode), -1)
INTERPOSE(FILE*, fopen64, (const char* path, const char* mode), (path, mode), -1)
INTERPOSE(int, fclose, (FILE * file), (file), -1)
INTERPOSE(size_t, fwrite, (const void* data, size_t size, size_t count, FILE* file),
          (data, size, count, file), file == stderr ? 2 : -1)
INTERPOSE(int, fflush, (FILE * file), (file), file == stderr ? 2 : -1)

#define INTERPOSE_OPEN(name)                                                                                 \
    extern "C" int name(const char* path, int flags, ...)                                                    \
    {                                                                                                        \
        static const auto real = reinterpret_cast<int (*)(const char*, int, ...)>(dlsym(RTLD_NEXT, #name));  \
        va_list more;                                                                                        \
        va_start(more, flags);                                                                               \
        const mode_t mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;                                      \
        va_end(more);                                                                                        \
        if (flags & (O_WRONLY | O_RDWR | O_CREAT))                                                           \
            step(#name);                                                                                     \
        return real(path, flags, mode);                                                                      \
    }

INTERPOSE_OPEN(open)
INTERPOSE_OPEN(open64)
