// Programs that a test runs.
#pragma once

#include <cstdio>
#include <string>
#include <sys/types.h>
#include <vector>

#include "common/owners.h"

namespace kxtest
{

// The path of a program of this build. "kxamazon" is the one with the tests' own constants.
// A NAME.so is a library of the tests.
std::string program(const std::string& name);

struct run_result_t {
    int status; // the exit status; 128 and the signal's number when a signal ended it
    std::string out;
    std::string err;
};

// A running program; killed by its id when still there at the end, also when the test itself dies.
// argv[0] is a path, searched nowhere. It sees this test's environment and sysroot(), and env, a list of
// "NAME=VALUE", on top. Its standard input is empty.
class process
{
public:
    explicit process(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~process();
    process(const process&) = delete;
    process& operator=(const process&) = delete;

    pid_t pid() const { return pid_; }
    void signal(int sig) const;    // nothing once it has ended
    int wait(double seconds = 60); // its status as above; -1 when it still runs then
    std::string out() const;       // what it has written so far
    std::string err() const;

private:
    bool ended();

    pid_t pid_ = -1;
    int status_ = -1;
    file_ptr out_;
    file_ptr err_;
};

// Runs a program to its end; status -1 when that does not come within a minute.
run_result_t run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});

} // namespace kxtest
