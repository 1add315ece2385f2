// The frame of the benchmarks: rows of one table, each measured in processes of its own.
//
// A row asserts that its work was done (expect) and throws when it was not; a time is never a reason to fail.
// Sizes come from the run's options: the full ones, or a hundredth or so of them for a quick look.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kxbench
{

struct line_t {
    std::string size;
    std::string wanted;
    std::string result;
    std::string floor = {};
    std::string ratio = {};
    std::string memory = {};
};

struct options_t {
    bool quick = false;
    double idle_minutes = 10;

    size_t size(size_t full, size_t small) const { return quick ? small : full; }
};

using lines_t = std::vector<line_t>;

struct row_t {
    const char* name;
    const char* what;
    lines_t (*run)(const options_t& options);
};

// The rows of each source file.
lines_t cache_write(const options_t& options);
lines_t cache_lookup(const options_t& options);
lines_t downsync_small(const options_t& options);
lines_t large_file(const options_t& options);
lines_t feed_in_step(const options_t& options);
lines_t feed_changes(const options_t& options);
lines_t listing(const options_t& options);
lines_t upsync_in_step(const options_t& options);
lines_t watch_setup(const options_t& options);
lines_t watch_event(const options_t& options);
lines_t watch_move(const options_t& options);
lines_t live(const options_t& options);
lines_t idle(const options_t& options);
lines_t rest(const options_t& options);

// Throws when the work was not done.
void expect(bool done, const std::string& text);

// Times are those of this process on the processor instead of the clock's: for a look on a busy machine.
extern bool cpu_times;

double now(); // seconds

// Seconds that it takes.
double timed(const std::function<void()>& work);

struct sample_t {
    std::vector<double> values; // what the work returned
    double peak_kib = 0;        // the highest resident size while it ran
};

// Runs work in a forked child, so that its memory peak is its own and nothing that it caches helps the next.
sample_t in_child(const std::function<std::vector<double>()>& work);

// Lets the disk finish what earlier runs wrote.
void settle();

double resident_kib(int pid); // 0: this process
void reset_peak();            // of this process
double peak_kib();

double median(std::vector<double> values);
double percentile(std::vector<double> values, double part);

// Cells of the table.
std::string micros(double seconds);
std::string millis(double seconds);
std::string secs(double seconds);
std::string mib(double kib);
std::string times(double ratio);
std::string count(size_t n);
std::string text(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

} // namespace kxbench
