// A test of the sync engine: a cloud of its own, an open cache with an up-to-date checkpoint, an event log,
// and a folder for the local side. Texts that come back name local paths relative to that folder.
#pragma once

#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <string>

#include "common/owners.h"
#include "kxamazon/acd_sync_utils.h"
#include "support/cloud.h"

namespace kxtest
{

// Appends a pair that owes both passes.
void add_pair(acd_sync_pair_list_t* list, const std::string& local, const std::string& cloud);

class sync_test : public testing::Test
{
protected:
    explicit sync_test(const std::vector<std::string>& cloud_options = {});
    ~sync_test() override;

    // As events_in, of the records since the last call.
    std::string events();

    // As log_of.
    std::string log(const std::function<void()>& run, int verbosity = 3) const;

    // The modified time of the node at a cloud path, in seconds since the epoch; 0 when there is none.
    time_t cloud_time(const std::string& path) const;

    kxtest::cloud cloud_;
    std::string base_;

private:
    std::string relative(const std::string& text) const;

    file_ptr event_log_;
};

// The pairs P (/Korvane_nas1/Photos) and D (/), with empty folders. The cloud's clock is an hour behind.
class pairs_test : public sync_test
{
protected:
    pairs_test();
    ~pairs_test() override;

    // What the cloud does from now on is newer than all that is there.
    void later() { cloud_.set_clock_offset(clock_offset_ += 10); }

    // The full passes to the local side: from a cloud folder to a local one, and of both pairs.
    int pass(const std::string& local, const std::string& cloud);
    int full_passes();

    sync_pair_list_ptr pairs_;
    int clock_offset_ = 0;
};

} // namespace kxtest
