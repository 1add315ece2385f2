// Shell escaping: a text that is safe with it is one word, and itself, to /bin/sh. Were the escaping broken,
// the shell still finds no program, no variable and no way out of its own empty folder: neither a "/" nor a
// "~" gets into a text.
#include <algorithm>
#include <cerrno>
#include <fcntl.h>

#include "common/utils_shell.cpp" // NOLINT: what decides on safety is private to it
#include "fuzz.h"

namespace
{

std::string shell_reads(const std::string& escaped)
{
    static const std::string folder = kxtest::sysroot() + "/shell";
    std::filesystem::create_directories(folder);
    const std::string script = "set -- " + escaped + "\nprintf '%s ' $# \"$1\"";
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        std::abort();
    const pid_t child = fork();
    if (child == 0) {
        const char* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
        const char* env[] = {"PATH=/nonexistent", nullptr};
        dup2(ends[1], 1);
        if (chdir(folder.c_str()) == 0)
            execve(argv[0], const_cast<char**>(argv), const_cast<char**>(env));
        _exit(127);
    }
    close(ends[1]);
    std::string text;
    char block[4096];
    // The fuzzer's own timer signals interrupt both waits.
    for (ssize_t got; (got = read(ends[0], block, sizeof block)) > 0 || (got < 0 && errno == EINTR);)
        text.append(block, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    close(ends[0]);
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    return text;
}

} // namespace

FUZZ_TARGET
{
    std::string text = kxtest::fuzz_text(data, size).c_str();
    std::replace(text.begin(), text.end(), '/', 's');
    std::replace(text.begin(), text.end(), '~', 't');
    const string_ptr escaped(escape_for_shell(text.c_str()));
    if (text.size() < 1000 && escaping_makes_safe(text.c_str()))
        kxtest::fuzz_check(shell_reads(escaped.get()) == "1 " + text + " ", "the shell reads it back");
    return 0;
}
