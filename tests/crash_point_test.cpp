// The service killed just before each call that changes its disk or talks to the cloud: every restart brings
// both sides together. KXTEST_CRASH_STRIDE=1 takes each call in turn; by default only a few are tried.
// KXTEST_CRASH_PARTS and KXTEST_CRASH_PART, from 0, share them out among processes (scripts/crash-points
// does).
#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>
#include <ostream>
#include <sstream>

#include "support/constants.h"
#include "support/twin.h"

using namespace kxtest;

namespace
{

using steps_t = std::vector<step_t>;

// What is there before the service that crashes is started, and what happens when it is live.
struct scenario_t {
    const char* name;
    bool synced; // the sides agree before the second list
    steps_t first;
    steps_t away;
    steps_t live;

    friend void PrintTo(const scenario_t& scenario, std::ostream* text) { *text << scenario.name; }
};

const steps_t mixed = {{CLOUD_MKDIR, {0, 1, 0, 0}},  {CLOUD_CREATE, {0, 3, 1, 0}},
                       {CLOUD_CREATE, {1, 4, 2, 0}}, {LOCAL_TREE, {1, 2, 3, 1}},
                       {LOCAL_CREATE, {0, 3, 4, 0}}, {LOCAL_CREATE, {0, 1, 5, 0}}};

const scenario_t scenarios[] = {
    {"FirstSync", false, mixed, {{CONFLICT, {0, 1, 2, 0}}, {CONFLICT, {1, 2, 3, 0}}}, {}},
    {"Feed",
     true,
     mixed,
     {{STOP, {}},
      {CLOUD_RENAME, {2, 1, 6, 1}},
      {CLOUD_MOVE, {4, 1, 0, 0}},
      {CLOUD_EDIT, {3, 3, 0, 0}},
      {CLOUD_TRASH, {7, 0, 0, 0}},
      {CLOUD_CREATE, {1, 4, 7, 0}},
      {LOCAL_CREATE, {0, 2, 8, 0}}},
     {}},
    {"Live",
     true,
     mixed,
     {{STOP, {}}},
     {{LOCAL_CREATE, {0, 3, 6, 0}},
      {LOCAL_EDIT, {2, 1, 0, 0}},
      {LOCAL_TREE, {1, 1, 7, 1}},
      {LOCAL_RENAME, {1, 0, 8, 1}},
      {LOCAL_DELETE, {6, 0, 0, 0}}}},
};

long lines_in(const std::string& path)
{
    const std::string text = read_file(path);
    return std::count(text.begin(), text.end(), '\n');
}

std::string line_of(const std::string& path, long number)
{
    std::istringstream text(read_file(path));
    std::string line;
    for (long i = 0; i < number; i++)
        std::getline(text, line);
    return line;
}

// The calls that the service has made when its live part begins. An empty failure means that all agreed.
struct run_t {
    std::string failure;
    long calls_before_live = 0;
};

run_t run(const scenario_t& scenario, long call, const std::string& count_file)
{
    twin_world world(30, 120);
    run_t result;
    try {
        for (const step_t& step : scenario.first)
            world.take(step);
        if (scenario.synced)
            world.settle();
        for (const step_t& step : scenario.away)
            world.take(step);
        world.crash_at(call, count_file);
        world.start();
        if (!scenario.live.empty()) {
            world.await_live();
            result.calls_before_live = lines_in(count_file);
        }
        for (const step_t& step : scenario.live)
            world.take(step);
        world.finish();
    } catch (const std::exception& error) {
        result.failure = error.what();
        for (const std::string& line : world.story())
            result.failure += "  " + line + "\n";
        if (const char* file = std::getenv("KXTEST_LOG"))
            write_file(file, world.log());
    }
    return result;
}

class CrashPoints : public testing::TestWithParam<scenario_t>
{
};

} // namespace

TEST_P(CrashPoints, EveryRestartBringsBothSidesTogether)
{
    const std::string count_file = new_folder("calls") + "/names";
    const run_t counted = run(GetParam(), 0, count_file);
    ASSERT_EQ(counted.failure, "");
    const long last = lines_in(count_file);
    const long first = counted.calls_before_live + 1;
    ASSERT_GT(last - first, 50) << "the library was not loaded";

    // The calls vary a little from run to run, so the parts share out their numbers alone.
    const long stride = setting("KXTEST_CRASH_STRIDE", static_cast<unsigned>(last - first) / 6);
    const long parts = setting("KXTEST_CRASH_PARTS", 1);
    const long part = setting("KXTEST_CRASH_PART", 0);
    int runs = 0;
    for (long call = first; call <= last; call++) {
        if (call % stride != 0 || call / stride % parts != part)
            continue;
        runs++;
        EXPECT_EQ(run(GetParam(), call, "/dev/null").failure, "")
            << "killed before call " << call << ", " << line_of(count_file, call);
    }
    std::printf("%s: %d runs, calls %ld to %ld\n", GetParam().name, runs, first, last);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, CrashPoints, testing::ValuesIn(scenarios),
                         [](const testing::TestParamInfo<scenario_t>& each) {
                             return std::string(each.param.name);
                         });
