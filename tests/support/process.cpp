#include "support/process.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/support.h"

namespace kxtest
{

namespace
{

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
    std::vector<char*> list;
    for (const std::string& text : texts)
        list.push_back(const_cast<char*>(text.c_str()));
    list.push_back(nullptr);
    return list;
}

std::string name_of(const std::string& setting)
{
    return setting.substr(0, setting.find('=') + 1);
}

std::vector<std::string> environment_with(std::vector<std::string> env)
{
    env.insert(env.begin(), "KXTEST_SYSROOT=" + sysroot());
    std::vector<std::string> all;
    auto add = [&all](const std::string& setting) {
        std::erase_if(all, [&](const std::string& other) { return name_of(other) == name_of(setting); });
        all.push_back(setting);
    };
    for (char** setting = environ; *setting; setting++)
        add(*setting);
    for (const std::string& setting : env)
        add(setting);
    return all;
}

// The program writes through the same open file, so its place must be left alone.
std::string written_to(FILE* file)
{
    std::string text;
    char block[65536];
    while (ssize_t got = pread(fileno(file), block, sizeof block, static_cast<off_t>(text.size()))) {
        if (got < 0)
            break;
        text.append(block, static_cast<size_t>(got));
    }
    return text;
}

} // namespace

std::string program(const std::string& name)
{
    return (name == "kxamazon" || name.ends_with(".so") ? KXTEST_TEST_DIR "/" : KXTEST_BIN_DIR "/") + name;
}

process::process(const std::vector<std::string>& argv, const std::vector<std::string>& env)
    : out_(std::tmpfile()), err_(std::tmpfile())
{
    std::vector<std::string> settings = environment_with(env);
    std::vector<char*> words = pointers(argv);
    std::vector<char*> environment = pointers(settings);
    std::fflush(nullptr);
    pid_ = fork();
    if (pid_ != 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(fileno(out_.get()), 1);
    dup2(fileno(err_.get()), 2);
    execve(words[0], words.data(), environment.data());
    dprintf(2, "%s: %s\n", words[0], strerror(errno));
    _exit(127);
}

process::~process()
{
    signal(SIGKILL);
    wait();
}

bool process::ended()
{
    int raw;
    if (status_ == -1 && waitpid(pid_, &raw, WNOHANG) == pid_)
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return status_ != -1;
}

void process::signal(int sig) const
{
    if (pid_ > 0 && status_ == -1)
        kill(pid_, sig);
}

int process::wait(double seconds)
{
    eventually([this] { return ended(); }, seconds);
    return status_;
}

std::string process::out() const
{
    return written_to(out_.get());
}

std::string process::err() const
{
    return written_to(err_.get());
}

run_result_t run(const std::vector<std::string>& argv, const std::vector<std::string>& env)
{
    process running(argv, env);
    int status = running.wait();
    return {status, running.out(), running.err()};
}

} // namespace kxtest
