// Mixed work at 20 changes a second with a disturbed cloud: memory, descriptors and watches stay flat, and at
// the end both sides hold the same. Runs only when KXTEST_SOAK_SEC asks for it (scripts/soak does).
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <thread>

#include "support/appliance.h"

namespace fs = std::filesystem;
using namespace kxtest;
using clock_type = std::chrono::steady_clock;

namespace
{

struct sample_t {
    long rss_kib = 0;
    long fds = 0;
    long watches = 0;
};

sample_t sample_of(pid_t pid)
{
    const fs::path proc = "/proc/" + std::to_string(pid);
    sample_t sample;
    std::string line;
    for (std::ifstream status(proc / "status"); std::getline(status, line);)
        if (line.starts_with("VmRSS:"))
            sample.rss_kib = std::strtol(line.c_str() + 6, nullptr, 10);
    for (const auto& fd : fs::directory_iterator(proc / "fdinfo")) {
        sample.fds++;
        for (std::ifstream info(fd.path()); std::getline(info, line);)
            sample.watches += line.starts_with("inotify wd:");
    }
    return sample;
}

// The highest of each in a part of the samples.
sample_t highest(const std::vector<sample_t>& samples, size_t from, size_t to)
{
    sample_t top = samples[from];
    for (size_t i = from; i < to; i++)
        top = {std::max(top.rss_kib, samples[i].rss_kib), std::max(top.fds, samples[i].fds),
               std::max(top.watches, samples[i].watches)};
    return top;
}

class Soak : public testing::Test
{
protected:
    unsigned draw(unsigned below) { return static_cast<unsigned>(random_()) % below; }
    std::string some_file() { return "d" + std::to_string(draw(10)) + "/f" + std::to_string(draw(20)); }

    // The local side works below "here", the cloud below "there".
    void change_locally()
    {
        const fs::path file = nas_.drive + "/here/" + some_file();
        const fs::path other = nas_.drive + "/here/" + some_file();
        const unsigned what = draw(10);
        if (what < 6 || !fs::exists(file))
            write_file(file, std::to_string(++writes_) + std::string(draw(20000), 'x'));
        else if (what < 8)
            fs::remove(file);
        else if (!fs::exists(other) && fs::exists(other.parent_path()))
            fs::rename(file, other);
    }
    void change_in_the_cloud()
    {
        const std::string file = "/there/" + some_file();
        if (draw(4) > 0 || !cloud_.has(file))
            cloud_.put(file, std::to_string(++writes_));
        else
            cloud_.trash(file);
    }
    void disturb()
    {
        static const auto faults = nlohmann::json::parse(
            R"([{"status": 401}, {"status": 429}, {"status": 500}, {"status": 503}, {"status": 504},
                {"drop": true, "reset": true}])");
        nlohmann::json fault = faults[draw(faults.size())];
        fault["times"] = 1 + draw(3);
        cloud_.fail(fault);
    }
    bool agree() const
    {
        return std::ranges::all_of(std::array{"/here", "/there"}, [this](const char* folder) {
            return cloud_.contents(folder) == contents_of(nas_.drive + folder);
        });
    }

    cloud cloud_;
    appliance nas_{cloud_};
    std::mt19937 random_{1};
    long writes_ = 0;
};

} // namespace

TEST_F(Soak, NothingGrows)
{
    const char* text = std::getenv("KXTEST_SOAK_SEC");
    if (!text)
        GTEST_SKIP() << "asked for with KXTEST_SOAK_SEC";
    const long seconds = std::strtol(text, nullptr, 10);
    cloud_.set_clock_offset(-3600);
    for (unsigned i = 0; i < 10; i++) {
        fs::create_directories(nas_.drive + "/here/d" + std::to_string(i));
        cloud_.mkdir("/there/d" + std::to_string(i));
    }
    const auto service = nas_.start({"KXTEST_RETRY_SEC=1"}, "0");
    ASSERT_TRUE(
        eventually([&] { return fs::exists(nas_.drive + "/there/d9") && cloud_.has("/here/d9"); }, 60));
    std::this_thread::sleep_for(std::chrono::seconds(3)); // it begins to watch

    std::vector<sample_t> samples;
    const auto begin = clock_type::now();
    auto next = begin;
    for (long event = 0; clock_type::now() < begin + std::chrono::seconds(seconds); event++) {
        event % 10 == 9 ? change_in_the_cloud() : change_locally();
        if (event % 100 == 50)
            disturb();
        if (event % 200 == 199) { // a pause, in which the cloud is polled
            samples.push_back(sample_of(service->pid()));
            const sample_t& now = samples.back();
            std::printf("%ld events: %ld KiB, %ld descriptors, %ld watches\n", event + 1, now.rss_kib,
                        now.fds, now.watches);
            std::fflush(stdout);
            next += std::chrono::seconds(3);
        }
        ASSERT_EQ(service->wait(0), -1) << "the service ended\n" << service->err();
        std::this_thread::sleep_until(next += std::chrono::milliseconds(50));
    }
    cloud_.clear_faults();
    std::this_thread::sleep_for(std::chrono::seconds(5)); // the difference takes many requests to ask for
    EXPECT_TRUE(eventually([&] { return agree(); }, 20)) << service->err();
    ASSERT_GE(samples.size(), 4U);
    const sample_t early = highest(samples, samples.size() / 4, samples.size() / 2);
    const sample_t late = highest(samples, samples.size() / 2, samples.size());
    EXPECT_LE(late.rss_kib, early.rss_kib + 1024);
    EXPECT_LE(late.fds, early.fds + 2) << "a request or a file may be open at a sample";
    EXPECT_LE(late.watches, early.watches);
    EXPECT_EQ(nas_.stop(*service), 0);
}
