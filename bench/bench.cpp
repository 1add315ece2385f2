#include "bench.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "common/owners.h"

namespace kxbench
{

namespace
{

double status_kib(const std::string& pid, const std::string& name)
{
    std::ifstream status("/proc/" + pid + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name + ":"))
            return std::stod(line.substr(name.size() + 1));
    throw std::runtime_error("no " + name + " of process " + pid);
}

// The child's end: its numbers go through the pipe, its failures to standard error.
[[noreturn]] void run_child(int fd, const std::function<std::vector<double>()>& work)
{
    int status = 1;
    try {
        reset_peak();
        std::vector<double> values = work();
        values.push_back(peak_kib());
        size_t size = values.size() * sizeof(double);
        status = write(fd, values.data(), size) == static_cast<ssize_t>(size) ? 0 : 1;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "kxbench: %s\n", failure.what());
    }
    _exit(status);
}

} // namespace

void expect(bool done, const std::string& text)
{
    if (!done)
        throw std::runtime_error(text);
}

bool cpu_times = false;

double now()
{
    timespec time;
    clock_gettime(cpu_times ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double timed(const std::function<void()>& work)
{
    double start = now();
    work();
    return now() - start;
}

sample_t in_child(const std::function<std::vector<double>()>& work)
{
    int ends[2];
    expect(pipe(ends) == 0, "no pipe");
    fd_owner from(ends[0]), to(ends[1]);
    std::fflush(nullptr);
    pid_t child = fork();
    if (child == 0)
        run_child(to.get(), work);
    {
        fd_owner closed(to.release());
    } // so that the child's end of the pipe is the only one
    sample_t sample;
    for (double value; read(from.get(), &value, sizeof value) == sizeof value;)
        sample.values.push_back(value);
    int status = 0;
    waitpid(child, &status, 0);
    expect(WIFEXITED(status) && WEXITSTATUS(status) == 0 && !sample.values.empty(),
           "the measured process failed");
    sample.peak_kib = sample.values.back();
    sample.values.pop_back();
    return sample;
}

void settle()
{
    sync();
}

double resident_kib(int pid)
{
    return status_kib(pid ? std::to_string(pid) : "self", "VmRSS");
}

void reset_peak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

double peak_kib()
{
    return status_kib("self", "VmHWM");
}

double percentile(std::vector<double> values, double part)
{
    expect(!values.empty(), "nothing was measured");
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1,
                           static_cast<size_t>(part * static_cast<double>(values.size())))];
}

double median(std::vector<double> values)
{
    return percentile(std::move(values), 0.5);
}

std::string text(const char* fmt, ...)
{
    char buffer[256];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

std::string micros(double seconds)
{
    return text("%.1f µs", seconds * 1e6);
}

std::string millis(double seconds)
{
    return text("%.2f ms", seconds * 1e3);
}

std::string secs(double seconds)
{
    return text("%.2f s", seconds);
}

std::string mib(double kib)
{
    return text("%.1f MiB", kib / 1024);
}

std::string times(double ratio)
{
    return text("%.2f", ratio);
}

std::string count(size_t n)
{
    return n < 1000 ? std::to_string(n) : count(n / 1000) + text(",%03zu", n % 1000);
}

} // namespace kxbench
