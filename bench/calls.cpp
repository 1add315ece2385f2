// Single calls, by Google Benchmark.
#include <benchmark/benchmark.h>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench.h"
#include "common/watch_v2_event.h"
#include "fixture.h"
#include "kxamazon/acd_fs_cache.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxbench
{

namespace
{

// Keeps the times of the repetitions instead of printing them.
class collector : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const Run& run : runs)
            if (!run.error_occurred)
                times.push_back((cpu_times ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime()) * 1e-9);
    }
    std::vector<double> times;
};

// The median of five repetitions of the call, in seconds; call answers whether it did its work.
template <class Call>
double measure(size_t iterations, Call call)
{
    bool done = true;
    benchmark::ClearRegisteredBenchmarks();
    benchmark::RegisterBenchmark("call",
                                 [&](benchmark::State& state) {
                                     for (auto _ : state)
                                         done = call() && done;
                                 })
        ->Iterations(static_cast<benchmark::IterationCount>(iterations))
        ->Repetitions(5)
        ->UseRealTime();
    collector reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    expect(done, "a call did not do its work");
    // The last ones of the list are means and the like.
    reporter.times.resize(5);
    return median(reporter.times);
}

// Nodes that the fixture lacks, in folders that it has.
cached_node_t new_node(const fixture_t& fixture, size_t number)
{
    cached_node_t node = fixture.node(fixture.nodes - 1 - number % (fixture.nodes / 2));
    node.id = fixture_t{fixture.nodes}.id(fixture.nodes * 2 + number);
    node.name = "new-" + std::to_string(number) + ".jpg";
    return node;
}

bool cache(const cached_node_t& row)
{
    char* parent;
    acd_node_t node = record_of(row, &parent);
    return acd_cache_node(&node) == ACD_CACHE_ERR_OK;
}

size_t cached_count()
{
    statement select(acd_cache_db(), "SELECT count(*) FROM node");
    select.step();
    return std::stoul(select.column(0));
}

struct write_times_t {
    double fresh, again, floor, peak_kib;
};

write_times_t measure_writes(const fixture_t& fixture, size_t iterations)
{
    make_fixture(fixture);
    auto floor = in_child([&] {
        open_fixture(fixture);
        std::vector<cached_node_t> rows;
        for (size_t i = 0; i < iterations * 5; ++i)
            rows.push_back(new_node(fixture, i));
        double seconds = timed([&] { write_rows(rows); });
        expect(cached_count() == fixture.nodes + rows.size(), "the floor wrote other rows");
        return std::vector<double>{seconds / static_cast<double>(rows.size())};
    });
    auto call = in_child([&] {
        open_fixture(fixture);
        size_t number = 0;
        double fresh = measure(iterations, [&] { return cache(new_node(fixture, number++)); });
        expect(cached_count() == fixture.nodes + number, "not every node was cached");
        number = 0;
        double again =
            measure(iterations, [&] { return cache(new_node(fixture, number++ * 7919 % (iterations * 5))); });
        expect(cached_count() == fixture.nodes + iterations * 5, "a known node was cached twice");
        return std::vector<double>{fresh, again};
    });
    return {call.values[0], call.values[1], floor.values[0], call.peak_kib};
}

} // namespace

lines_t cache_write(const options_t& options)
{
    size_t iterations = options.size(10000, 2000);
    const fixture_t small{10000}, large{options.size(1000000, 100000)};
    write_times_t at_small = measure_writes(small, iterations), at_large = measure_writes(large, iterations);
    lines_t lines;
    for (auto [fixture, times] : {std::pair{small, at_small}, std::pair{large, at_large}}) {
        bool second = fixture.nodes == large.nodes;
        lines.push_back(
            {count(fixture.nodes) + " nodes, a new node", second ? "≤ 150 µs, ≤ 2 × the cost at 10,000" : "",
             micros(times.fresh) + (second ? ", " + kxbench::times(times.fresh / at_small.fresh) + " ×" : ""),
             micros(times.floor), kxbench::times(times.fresh / times.floor), mib(times.peak_kib)});
        lines.push_back(
            {count(fixture.nodes) + " nodes, a known node", second ? "the same" : "",
             micros(times.again) + (second ? ", " + kxbench::times(times.again / at_small.again) + " ×" : ""),
             micros(times.floor), kxbench::times(times.again / times.floor), mib(times.peak_kib)});
    }
    return lines;
}

namespace
{

bool finds(const cached_node_t& row, const char* parent_id, const char* name)
{
    cached_node_t folder;
    folder.id = parent_id;
    char* none;
    acd_node_t parent = record_of(folder, &none);
    node_ptr found;
    auto rc = acd_cache_get_child_node(&parent, name, out(found));
    return row.id.empty() ? rc == ACD_CACHE_ERR_RESOURCE_NOT_FOUND
                          : rc == ACD_CACHE_ERR_OK && row.id == found->id;
}

std::vector<double> measure_lookups(const fixture_t& fixture)
{
    const size_t folders = fixture.folders(), first_child = 10 + folders,
                 plain = first_child + fixture.big_children();
    size_t number = 0;
    auto spread = [&number](size_t from, size_t span) { return from + number++ * 7919 % span; };
    auto hit_in = [&](size_t from, size_t span) {
        return measure(5000, [&, from, span] {
            cached_node_t row = fixture.node(spread(from, span));
            return row.name == "cover.jpg" || finds(row, row.parent.c_str(), row.name.c_str());
        });
    };
    double in_big = hit_in(first_child, fixture.big_children());
    double in_folder = hit_in(plain, fixture.nodes - plain);
    double miss = measure(
        5000, [&] { return finds({}, fixture.id(1).c_str(), ("none-" + std::to_string(number++)).c_str()); });
    double namesake = measure(4, [&] {
        cached_node_t row = fixture.node(fixture.cover(number++ * 7919 % folders));
        return finds(row, row.parent.c_str(), "cover.jpg");
    });
    cached_node_t deep = fixture.node(9);
    double path = measure(5000, [&] {
        char* parent;
        acd_node_t node = record_of(deep, &parent);
        string_ptr text;
        acd_cache_get_node_path(&node, out(text));
        return text && std::strcmp(text.get(), "/d1/d2/d3/d4/d5/d6/d7/deep.jpg") == 0;
    });
    return {in_big, in_folder, miss, path, namesake};
}

// The same look-ups by prepared statements.
std::vector<double> lookup_floor(const fixture_t& fixture)
{
    statement child(acd_cache_db(), "SELECT id FROM node, parents WHERE node.id = parents.node_id AND "
                                    "parents.parent_id=? AND node.name=? AND node.status='AVAILABLE'");
    size_t number = 0;
    const size_t first_child = 10 + fixture.folders();
    double hit = measure(5000, [&] {
        cached_node_t row = fixture.node(first_child + number++ * 7919 % fixture.big_children());
        child.bind(1, row.parent);
        child.bind(2, row.name);
        bool found = child.step() && child.column(0) == row.id;
        child.reset();
        return found;
    });
    statement parent(acd_cache_db(), "SELECT name, parent_id FROM node, parents WHERE id=? AND node_id=id");
    double path = measure(5000, [&] {
        std::string id = fixture.id(9), text;
        for (bool more = true; more;) {
            parent.bind(1, id);
            more = parent.step() && parent.column(0) != "/";
            text = more ? "/" + parent.column(0) + text : text;
            id = more ? parent.column(1) : id;
            parent.reset();
        }
        return text == "/d1/d2/d3/d4/d5/d6/d7/deep.jpg";
    });
    return {hit, path};
}

} // namespace

lines_t cache_lookup(const options_t& options)
{
    lines_t lines;
    for (size_t nodes : {size_t{10000}, options.size(1000000, 100000)}) {
        const fixture_t fixture{nodes};
        make_fixture(fixture);
        auto floor = in_child([&] {
                         open_fixture(fixture);
                         return lookup_floor(fixture);
                     }).values;
        auto sample = in_child([&] {
            open_fixture(fixture);
            return measure_lookups(fixture);
        });
        const std::string names[] = {"child of a folder of " + count(fixture.big_children()),
                                     "child of a small folder", "no such child", "path at depth 8",
                                     "child whose name " + count(fixture.folders()) + " others bear"};
        const char* const wanted[] = {"≤ 60 µs", "≤ 60 µs", "≤ 60 µs", "≤ 100 µs", ""};
        for (size_t i = 0; i < sample.values.size(); ++i) {
            double least = floor[i == 3];
            bool bare = i < 4;
            lines.push_back({count(nodes) + " nodes, " + names[i], wanted[i], micros(sample.values[i]),
                             bare ? micros(least) : "", bare ? times(sample.values[i] / least) : "",
                             mib(sample.peak_kib)});
        }
    }
    return lines;
}

// ---- Watch events ----

namespace
{

double heard_at;
size_t heard;

int hear(const char*, watch_type_v2_t, void*)
{
    heard_at = now();
    heard++;
    return 0;
}

void drain(watches* set)
{
    move_event_queue_ptr queue(init_move_event_queue());
    const volatile sig_atomic_t go_on = 0;
    read_inotify_events(set, queue.get(), hear, nullptr, &go_on);
}

// The time of one save: the read, and both of its events up to the callback.
double measure_event(size_t folders)
{
    std::string root = kxtest::new_folder("watched");
    for (size_t i = 0; i < folders - 1; ++i)
        fs::create_directories(root + "/" + std::to_string(i / 100) + "/" + std::to_string(i));
    watches_list_t list;
    watches set;
    set.inotify = fd_owner(inotify_init1(IN_CLOEXEC));
    set.root_path = root;
    struct stat root_folder;
    expect(::stat(root.c_str(), &root_folder) == 0, "no folder");
    set.dev = root_folder.st_dev;
    watch_folder(&set, root.c_str(), nullptr, nullptr);
    expect(set.num_watch >= folders, "not every folder is watched");
    std::vector<double> seconds;
    for (size_t i = 0; i < 2000; ++i) {
        size_t folder = i % 99 * ((folders - 1) / 99); // a hundred of them: few folders are busy at a time
        std::string path = root + "/" + std::to_string(folder / 100) + "/" + std::to_string(folder) + "/f";
        fd_owner(open(path.c_str(), O_WRONLY | O_CREAT, 0666));
        size_t before = heard;
        double start = now();
        drain(&set);
        seconds.push_back(heard_at - start);
        expect(heard == before + 1, "a save was not reported once");
    }
    fs::remove_all(root);
    return median(seconds);
}

} // namespace

lines_t watch_event(const options_t& options)
{
    size_t most = options.size(100000, 10000);
    auto few = in_child([] { return std::vector<double>{measure_event(100)}; });
    auto many = in_child([&] { return std::vector<double>{measure_event(most)}; });
    return {{"100 watches", "≤ 20 µs", micros(few.values[0]), "", "", mib(few.peak_kib)},
            {count(most) + " watches", "≤ 20 µs, ≤ 1.2 × the cost at 100", micros(many.values[0]), "",
             times(many.values[0] / few.values[0]), mib(many.peak_kib)}};
}

} // namespace kxbench
