// Both sides, changed at random while the service syncs, stops, crashes and meets faults, agree with the
// model in the end. KXTEST_SEEDS, KXTEST_STEPS and KXTEST_FIRST_SEED ask for more than the few that run by
// default (scripts/converge does); KXTEST_SHRINK_SEC is the time to look for a shorter list when one fails.
#include <chrono>
#include <cstdlib>
#include <gtest/gtest.h>

#include "support/constants.h"
#include "support/twin.h"

using namespace kxtest;

namespace
{

struct outcome_t {
    std::string failure; // empty when all agreed
    std::string story;
    std::string log;
};

outcome_t run_steps(const std::vector<step_t>& steps, double patience_sec)
{
    twin_world world(steps.size(), patience_sec);
    outcome_t outcome;
    try {
        for (const step_t& step : steps)
            world.take(step);
        world.finish();
    } catch (const std::exception& error) {
        outcome.failure = error.what();
        outcome.log = world.log();
    }
    for (const std::string& line : world.story())
        outcome.story += "  " + line + "\n";
    return outcome;
}

// Takes out runs of steps, shorter and shorter ones, as long as it still fails without them.
outcome_t shortest(std::vector<step_t> steps, outcome_t failed)
{
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(setting("KXTEST_SHRINK_SEC", 60));
    for (size_t run = steps.size() / 2; run > 0; run /= 2)
        for (size_t at = 0; at + run <= steps.size() && std::chrono::steady_clock::now() < end;) {
            std::vector<step_t> fewer = steps;
            fewer.erase(fewer.begin() + static_cast<long>(at), fewer.begin() + static_cast<long>(at + run));
            outcome_t outcome = run_steps(fewer, 10);
            if (outcome.failure.empty()) {
                at += run;
                continue;
            }
            steps = fewer;
            failed = outcome;
        }
    return failed;
}

} // namespace

TEST(Convergence, BothSidesAgreeWithTheModel)
{
    const unsigned first = setting("KXTEST_FIRST_SEED", 1);
    const unsigned seeds = setting("KXTEST_SEEDS", 5);
    const unsigned count = setting("KXTEST_STEPS", 25);
    for (unsigned seed = first; seed < first + seeds; seed++) {
        const std::vector<step_t> steps = random_steps(seed, count);
        const auto begin = std::chrono::steady_clock::now();
        outcome_t outcome = run_steps(steps, 120);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
        std::printf("seed %u: %s, %.1f s\n", seed, outcome.failure.empty() ? "agreed" : "FAILED",
                    took.count());
        std::fflush(stdout);
        if (outcome.failure.empty())
            continue;
        ADD_FAILURE() << "seed " << seed << ": " << outcome.failure;
        outcome = shortest(steps, outcome);
        ADD_FAILURE() << "seed " << seed << ", the shortest list that was found:\n"
                      << outcome.story << outcome.failure;
        if (const char* file = std::getenv("KXTEST_LOG"))
            write_file(file, outcome.log);
    }
}
