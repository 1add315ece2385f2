// kxbench [--quick] [--cpu] [--idle-minutes N] [--commit TEXT] [--results FILE] [ROW...]
//
// Measures the rows, prints them as one table, and writes the table to FILE. Status 1 when a row's work was
// not done.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <vector>

#include "bench.h"
#include "common/utils.h"

using namespace kxbench;

namespace
{

const row_t rows[] = {
    {"cache-write", "write one node to the cache", cache_write},
    {"cache-lookup", "look nodes up in the cache", cache_lookup},
    {"downsync-small", "full downsync of many small files", downsync_small},
    {"large-file", "one large file", large_file},
    {"feed-in-step", "change feed, every node in step", feed_in_step},
    {"feed-changes", "change feed that renames, moves, trashes, adds", feed_changes},
    {"listing", "one folder listed and walked", listing},
    {"upsync-in-step", "full upsync of a tree in step", upsync_in_step},
    {"watch-setup", "watch set-up", watch_setup},
    {"watch-event", "one event, from the read to the callback", watch_event},
    {"watch-move", "a folder of folders renamed, and moved out", watch_move},
    {"live", "local close to upload complete", live},
    {"rest", "memory of the service at rest", rest},
    {"idle", "idle service, 3 pairs", idle},
};

struct command_line_t {
    options_t options;
    std::string commit = "?";
    std::string results;
    std::vector<std::string> names;
};

command_line_t parse(int argc, char** argv)
{
    command_line_t line;
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        bool valued = word == "--commit" || word == "--results" || word == "--idle-minutes";
        if (valued && ++i == argc) {
            std::cerr << word << " wants a value\n";
            std::exit(2);
        }
        if (word == "--quick")
            line.options.quick = true;
        else if (word == "--cpu")
            cpu_times = true;
        else if (word == "--commit")
            line.commit = argv[i];
        else if (word == "--results")
            line.results = argv[i];
        else if (word == "--idle-minutes")
            line.options.idle_minutes = std::atof(argv[i]);
        else
            line.names.push_back(word);
    }
    if (line.options.quick)
        line.options.idle_minutes = std::min(line.options.idle_minutes, 0.25);
    return line;
}

bool known(const std::string& name)
{
    for (const row_t& row : rows)
        if (name == row.name)
            return true;
    return false;
}

bool chosen(const command_line_t& line, const char* name)
{
    for (const std::string& wanted : line.names)
        if (wanted == name)
            return true;
    return line.names.empty();
}

std::string load()
{
    std::string average;
    std::getline(std::ifstream("/proc/loadavg"), average);
    return average.substr(0, average.find(' '));
}

std::string markdown(const row_t& row, const line_t& cells)
{
    std::string text = "|";
    for (const std::string& cell : {std::string(row.what), cells.size, cells.wanted, cells.result,
                                    cells.floor, cells.ratio, cells.memory})
        text += " " + cell + " |";
    return text + "\n";
}

const char head[] = "| what | size | wanted | result | floor | ratio | memory peak |\n"
                    "|---|---|---|---|---|---|---|\n";

} // namespace

int main(int argc, char** argv)
{
    command_line_t line = parse(argc, argv);
    for (const std::string& name : line.names) {
        if (known(name))
            continue;
        std::cerr << "no row " << name << "; there are:";
        for (const row_t& row : rows)
            std::cerr << ' ' << row.name;
        std::cerr << '\n';
        return 2;
    }
    g_nosystemd = 1;
    g_verbose = 1; // as the service has it
    setenv("KXTEST_IDLE_SEC", "15", 0);
    int status = 0;
    std::string before = load(), table = head;
    std::cout << head << std::flush;
    for (const row_t& row : rows) {
        if (!chosen(line, row.name))
            continue;
        lines_t lines;
        try {
            lines = row.run(line.options);
        } catch (const std::exception& failure) {
            lines = {{"", "", std::string("FAILED: ") + failure.what()}};
            status = 1;
        }
        for (const line_t& cells : lines) {
            std::cout << markdown(row, cells) << std::flush;
            table += markdown(row, cells);
        }
    }
    if (!line.results.empty())
        std::ofstream(line.results) << "# Measured\n\nAt commit " << line.commit
                                    << (line.options.quick ? ", quick sizes" : "")
                                    << ". Load average of the machine " << before << " before and " << load()
                                    << " after. How: [README.md](README.md).\n\n"
                                    << table;
    return status;
}
