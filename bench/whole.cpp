// Whole passes of the sync engine against kxcloud.
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <utime.h>

#include "common/utils.h"
#include "drive.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_checkpoint.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_fs_node.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_upsync.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxbench
{

namespace
{

double as_double(size_t n)
{
    return static_cast<double>(n);
}

// The local paths of the files whose contents were read, in that order.
std::vector<std::string> content_paths(const nlohmann::json& requests, const std::vector<cached_node_t>& rows,
                                       const std::string& base)
{
    std::map<std::string, const cached_node_t*> by_id;
    for (const cached_node_t& row : rows)
        by_id[row.id] = &row;
    std::vector<std::string> paths;
    for (const auto& request : requests) {
        std::string path = request["path"];
        if (request["method"] != "GET" || !path.ends_with("/content"))
            continue;
        std::string id = path.substr(7, path.size() - 15); // between "/nodes/" and "/content"
        const cached_node_t* node = by_id.at(id);
        auto parent = by_id.find(node->parent);
        paths.push_back(base + "/" + (parent == by_id.end() ? "" : parent->second->name + "/") + node->name);
    }
    return paths;
}

// The rows of the cache that the last measured process left.
std::vector<cached_node_t> rows_left()
{
    expect(acd_cache_init(0) == ACD_CACHE_ERR_OK, "no cache");
    std::vector<cached_node_t> rows = read_rows();
    acd_cache_deinit();
    return rows;
}

struct downsync_t {
    double seconds, floor, unsynced_floor, peak_kib;
    double pass_kib; // what the pass itself added to the memory that the start of the engine had taken
    size_t requests;
};

downsync_t measure_downsync(size_t folders, size_t files)
{
    const std::string content(4096, 'k');
    drive_t drive;
    drive.seed(folders, files, content);
    settle();
    drive.cloud.forget_requests();
    auto sample = in_child([&] {
        engine_t engine(drive);
        drive.cloud.forget_requests();
        const double before = peak_kib();
        double seconds = timed([&] {
            expect(acd_downsync_cloud_drive_path("/", "/", drive.base.c_str()) == 0, "the downsync failed");
        });
        acd_cache_deinit();
        return std::vector<double>{seconds, peak_kib() - before};
    });
    expect(files_below(drive.base) == folders * files &&
               bytes_below(drive.base) == folders * files * content.size(),
           "not every file came down");

    // The floor: the same requests, the same files, the same rows.
    auto floor = in_child([&] {
        nlohmann::json requests = drive.cloud.requests();
        std::vector<cached_node_t> rows = rows_left();
        expect(rows.size() == folders * (files + 1), "not every node was cached");
        std::vector<std::string> paths = content_paths(requests, rows, drive.base);
        std::vector<double> floors;
        for (bool synced : {true, false}) {
            fs::remove_all(drive.base);
            fs::create_directories(drive.base);
            settle();
            floors.push_back(timed([&] {
                for (size_t i = 0; i < folders; ++i)
                    fs::create_directory(drive.base + "/folder-" + std::to_string(i));
                replay(drive.cloud.url(), requests, paths, synced);
            }));
        }
        fs::remove_all(fs::path(kxtest::sysroot()) / "var/cache/kxamazon");
        acd_cache_init(0);
        double written = timed([&] { write_rows(rows); });
        return std::vector<double>{floors[0] + written, floors[1] + written, as_double(requests.size())};
    });
    expect(bytes_below(drive.base) == folders * files * content.size(),
           "the floor brought down something else");
    return {sample.values[0], floor.values[0],  floor.values[1],
            sample.peak_kib,  sample.values[1], static_cast<size_t>(floor.values[2])};
}

} // namespace

namespace
{

std::string floor_text(const downsync_t& run)
{
    return secs(run.floor) + "; without the syncs to the disk " + secs(run.unsynced_floor);
}

} // namespace

lines_t downsync_small(const options_t& options)
{
    size_t files = options.size(100, 10);
    downsync_t some = measure_downsync(options.size(10, 10), files), many = measure_downsync(100, files);
    size_t n = 100 * files;
    return {{count(n / 10) + " files of 4 KiB", "", secs(some.seconds), floor_text(some),
             times(some.seconds / some.floor), mib(some.peak_kib)},
            {count(n) + " files of 4 KiB in 100 folders", "≤ 1.5 × the floor; peak ≤ 4 MiB above a tenth's",
             secs(many.seconds) + ", " + count(many.requests) + " requests", floor_text(many),
             times(many.seconds / many.floor),
             mib(many.peak_kib) + ", +" + mib(many.peak_kib - some.peak_kib) + "; the pass alone +" +
                 mib(many.pass_kib)}};
}

// ---- A large file ----

namespace
{

void write_large(const std::string& path, size_t mebibytes)
{
    std::ofstream file(path, std::ios::binary);
    std::string block(1 << 20, '\0');
    uint32_t number = 1;
    for (char& c : block)
        c = static_cast<char>((number = number * 1664525 + 1013904223) >> 24);
    for (size_t i = 0; i < mebibytes; ++i) {
        block[0] = static_cast<char>(i); // no two blocks alike
        file.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
}

struct transfer_t {
    double up, down, up_peak, down_peak;
};

std::string metadata(const std::string& name, const std::string& parent)
{
    return "{\"name\": \"" + name + "\", \"kind\": \"FILE\", \"parents\": [\"" + parent + "\"]}";
}

double measure_upload(const drive_t& drive, const std::string& file, const std::string& name, double* peak)
{
    settle();
    auto sample = in_child([&] {
        engine_t engine(drive);
        reset_peak();
        double seconds = timed([&] {
            node_ptr node;
            expect(acd_fs_upload_file(file.c_str(), ("/" + name).c_str(), out(node)) == ACD_FS_ERR_OK,
                   "the upload failed");
        });
        return std::vector<double>{seconds};
    });
    expect(drive.cloud.stat("/" + name)["contentProperties"]["size"] == fs::file_size(file),
           "the cloud holds another size");
    *peak = sample.peak_kib;
    return sample.values[0];
}

double measure_download(const drive_t& drive, const std::string& file, const std::string& id, double* peak)
{
    settle();
    std::string copy = drive.base + "/copy";
    auto sample = in_child([&] {
        engine_t engine(drive);
        reset_peak();
        double seconds = timed([&] {
            expect(acd_fs_download_file(id.c_str(), copy.c_str()) == ACD_FS_ERR_OK, "the download failed");
        });
        return std::vector<double>{seconds};
    });
    expect(std::system(("cmp -s " + file + " " + copy).c_str()) == 0, "another content came down");
    fs::remove(copy);
    *peak = sample.peak_kib;
    return sample.values[0];
}

double upload_floor(const drive_t& drive, const std::string& file)
{
    settle();
    return in_child([&] {
               http_floor http;
               std::string root = nlohmann::json::parse(http.send(
                   "GET", drive.cloud.url() + "/metadata/nodes?filters=isRoot:true"))["data"][0]["id"];
               return std::vector<double>{timed([&] {
                   http.upload("POST", drive.cloud.url() + "/content/nodes?suppress=deduplication",
                               metadata("floor", root), file);
               })};
           })
        .values[0];
}

double download_floor(const drive_t& drive, const std::string& file, const std::string& id)
{
    settle();
    std::string copy = drive.base + "/floor";
    double seconds =
        in_child([&] {
            http_floor http;
            return std::vector<double>{timed([&] {
                file_ptr to(fopen(copy.c_str(), "wb"));
                http.send("GET", drive.cloud.url() + "/content/nodes/" + id + "/content", "", to.get());
            })};
        }).values[0];
    expect(fs::file_size(copy) == fs::file_size(file), "the floor brought down something else");
    fs::remove(copy);
    return seconds;
}

// The best of three in turn with the floor: what the machine pays for memory that it has not used yet would
// else be paid by whichever comes second.
transfer_t measure_transfer(const drive_t& drive, const std::string& file, const std::string& name,
                            transfer_t* floor)
{
    transfer_t best = {1e9, 1e9, 0, 0};
    *floor = best;
    floor->up = upload_floor(drive, file);
    best.up = measure_upload(drive, file, name, &best.up_peak);
    std::string id = drive.cloud.stat("/" + name)["id"];
    for (int i = 0; i < 3; ++i) {
        floor->down = std::min(floor->down, download_floor(drive, file, id));
        best.down = std::min(best.down, measure_download(drive, file, id, &best.down_peak));
    }
    drive.cloud.trash("/floor");
    return best;
}

} // namespace

lines_t large_file(const options_t& options)
{
    size_t size_mib = options.size(2048, 128);
    drive_t drive;
    std::string small = drive.base + "/small.src", large = drive.base + "/large.src";
    write_large(small, 1);
    write_large(large, size_mib);
    transfer_t floor;
    transfer_t little = measure_transfer(drive, small, "small", &floor);
    transfer_t much = measure_transfer(drive, large, "large", &floor);
    const char* wanted = "≤ 1.1 × the floor; peak ≤ 4 MiB above a 1 MiB file's";
    std::string size = count(size_mib) + " MiB";
    return {{size + " down", wanted, secs(much.down), secs(floor.down), times(much.down / floor.down),
             mib(much.down_peak) + ", +" + mib(much.down_peak - little.down_peak)},
            {size + " up", wanted, secs(much.up), secs(floor.up), times(much.up / floor.up),
             mib(much.up_peak) + ", +" + mib(much.up_peak - little.up_peak)}};
}

// ---- The change feed ----

namespace
{

void apply_feed_from(const char* checkpoint, acd_sync_pair_list_t* pairs)
{
    if (checkpoint)
        acd_fs_set_checkpoint(checkpoint);
    expect(acd_downsync_changes(pairs) == 0, "the feed failed");
}

// The second reading of a whole feed: the first has filled the cache.
sample_t measure_feed_in_step(size_t folders, size_t files)
{
    drive_t drive;
    drive.seed(folders, files);
    drive.make_local_tree(folders, files);
    settle();
    return in_child([&] {
        engine_t engine(drive);
        apply_feed_from("", engine.pairs);
        settle();
        reset_peak();
        drive.cloud.forget_requests();
        double seconds = timed([&] { apply_feed_from("", engine.pairs); });
        double peak = peak_kib();
        nlohmann::json requests = drive.cloud.requests();
        expect(files_below(drive.base) == folders * files, "a file went");

        std::vector<cached_node_t> rows = read_rows();
        expect(rows.size() == folders * (files + 1), "not every node was cached");
        settle();
        double floor = timed([&] {
            replay(drive.cloud.url(), requests);
            struct stat st;
            for (size_t i = 0; i < folders; ++i)
                for (size_t j = 0; j < files; ++j)
                    expect(stat((drive.base + "/folder-" + std::to_string(i) + "/file-" + std::to_string(j) +
                                 ".txt")
                                    .c_str(),
                                &st) == 0,
                           "a file went");
            write_rows(rows);
        });
        return std::vector<double>{seconds, floor, as_double(requests.size()), peak};
    });
}

} // namespace

lines_t feed_in_step(const options_t& options)
{
    lines_t lines;
    double first_peak = 0;
    for (size_t folders : {size_t{10}, size_t{100}}) {
        size_t files = options.size(1000, 50), nodes = folders * (files + 1);
        std::vector<double> values = measure_feed_in_step(folders, files).values;
        bool last = folders == 100;
        lines.push_back({count(nodes) + " nodes in " + count(static_cast<size_t>(values[2]) - 1) + " replies",
                         last ? "≤ 200 µs a node; memory bounded by one reply" : "",
                         micros(values[0] / as_double(nodes)) + " a node",
                         micros(values[1] / as_double(nodes)), times(values[0] / values[1]),
                         mib(values[3]) + (last ? ", +" + mib(values[3] - first_peak) : "")});
        first_peak = values[3];
    }
    return lines;
}

namespace
{

// What another client does to a seeded drive, a quarter each; and the same done to local files, as the floor.
struct changes_t {
    size_t folders,
        each; // files 0..each renamed, ..2 each moved to the next folder, ..3 each trashed, each added

    std::string folder(size_t i) const { return "/folder-" + std::to_string(i); }
    std::string file(size_t i, size_t j) const { return folder(i) + "/file-" + std::to_string(j) + ".txt"; }
    void make(const drive_t& drive) const
    {
        http_floor http;
        std::string url = drive.cloud.url() + "/files";
        for (size_t i = 0; i < folders; ++i) {
            for (size_t j = 0; j < each; ++j) {
                std::string number = std::to_string(j);
                http.send("POST", url + file(i, j) + "?rename=renamed-" + number + ".txt");
                http.send("POST", url + folder(i) + "/file-" + std::to_string(each + j) +
                                      ".txt?move=" + folder((i + 1) % folders) + "%2Fin");
                http.send("DELETE", url + file(i, 2 * each + j));
                http.send("PUT", url + folder(i) + "/added-" + number + ".txt", "four");
            }
        }
    }
    void make_locally(const std::string& base) const
    {
        for (size_t i = 0; i < folders; ++i) {
            for (size_t j = 0; j < each; ++j) {
                std::string number = std::to_string(j), from = base + folder(i);
                fs::rename(base + file(i, j), from + "/renamed-" + number + ".txt");
                std::string moved = "/file-" + std::to_string(each + j) + ".txt";
                safe_system(
                    ("/bin/mv " + from + moved + " " + base + folder((i + 1) % folders) + "/in" + moved)
                        .c_str());
                fs::remove(base + file(i, 2 * each + j));
            }
        }
    }
};

} // namespace

lines_t feed_changes(const options_t& options)
{
    const changes_t changes{options.size(25, 10), options.size(100, 10)};
    const size_t files = 3 * changes.each, n = 4 * changes.folders * changes.each;
    drive_t drive;
    drive.seed(changes.folders, files, "seed");
    for (size_t i = 0; i < changes.folders; ++i)
        drive.cloud.mkdir(changes.folder(i) + "/in");
    std::string second = kxtest::new_folder("floor");
    auto sample = in_child([&] {
        engine_t engine(drive);
        expect(acd_downsync_cloud_drive_path("/", "/", drive.base.c_str()) == 0, "the downsync failed");
        expect(std::system(("cp -a " + drive.base + "/. " + second).c_str()) == 0, "no copy");
        drive.cloud.set_clock_offset(100);
        changes.make(drive);
        settle();
        drive.cloud.forget_requests();
        reset_peak();
        double seconds = timed([&] { apply_feed_from(nullptr, engine.pairs); });
        double peak = peak_kib();
        nlohmann::json requests = drive.cloud.requests();
        std::vector<cached_node_t> rows = read_rows();
        std::vector<std::string> paths = content_paths(requests, rows, second);
        expect(paths.size() == n / 4,
               "other files came down than were added: " + std::to_string(paths.size()));
        settle();
        double floor = timed([&] {
            replay(drive.cloud.url(), requests, paths, true);
            changes.make_locally(second);
            rows.resize(std::min(rows.size(), n));
            write_rows(rows);
        });
        return std::vector<double>{seconds, floor, as_double(requests.size()), peak};
    });
    expect(kxtest::tree_of(drive.base) == kxtest::tree_of(second), "the changes did not arrive");
    fs::remove_all(second);
    return {{count(n) + " changes", "≤ 1.5 × the floor",
             secs(sample.values[0]) + ", " + count(static_cast<size_t>(sample.values[2])) + " requests",
             secs(sample.values[1]), times(sample.values[0] / sample.values[1]), mib(sample.values[3])}};
}

// ---- A large folder ----

namespace
{

size_t walked;

acd_fs_error_t count_node(const char*, const acd_node_t*, acd_sync_path_t*)
{
    walked++;
    return ACD_FS_ERR_OK;
}

// Times of listing, walking and the floor, then the memory of the listing above the process before it.
std::vector<double> measure_listing(size_t children)
{
    drive_t drive;
    drive.seed(1, children);
    return in_child([&] {
               engine_t engine(drive);
               node_ptr folder;
               expect(acd_fs_get_node("/folder-0", out(folder)) == ACD_FS_ERR_OK, "no folder");
               node_list_ptr warm_up;
               node_ptr root;
               acd_node_get_root_node(out(root));
               acd_node_scan_dir(root.get(), out(warm_up), nullptr);
               drive.cloud.forget_requests();
               reset_peak();
               double before = peak_kib();
               node_list_ptr list;
               double listed = timed([&] { acd_node_scan_dir(folder.get(), out(list), nullptr); });
               double peak = peak_kib();
               expect(list && list->count == children, "not every child was listed");
               list.reset();
               nlohmann::json requests = drive.cloud.requests();
               double floor = timed([&] { replay(drive.cloud.url(), requests); });
               double walked_in =
                   timed([&] { acd_node_scan_dir_ex(folder.get(), 1, nullptr, count_node, nullptr); });
               expect(walked == children, "not every child was walked");
               return std::vector<double>{listed, walked_in, floor, (peak - before) * 1024};
           })
        .values;
}

} // namespace

lines_t listing(const options_t& options)
{
    size_t most = options.size(100000, 10000);
    std::vector<double> tenth = measure_listing(most / 10), all = measure_listing(most);
    double n = as_double(most), bytes = (all[3] - tenth[3]) / (n * 0.9);
    return {{count(most / 10) + " children listed", "", micros(tenth[0] / (n / 10)) + " a child",
             micros(tenth[2] / (n / 10)), times(tenth[0] / tenth[2]), ""},
            {count(most) + " children listed", "linear; ≤ 400 bytes a child", micros(all[0] / n) + " a child",
             micros(all[2] / n), times(all[0] / all[2]), text("%.0f bytes a child", bytes)},
            {count(most / 10) + " children walked", "", micros(tenth[1] / (n / 10)) + " a child", "", "", ""},
            {count(most) + " children walked", "linear", micros(all[1] / n) + " a child", "", "", ""}};
}

// ---- Full upsync ----

lines_t upsync_in_step(const options_t& options)
{
    size_t folders = options.size(200, 20), files = 99, entries = folders * (files + 1);
    drive_t drive;
    drive.make_local_tree(folders, files);
    drive.seed(folders, files);
    for (const auto& entry : fs::recursive_directory_iterator(drive.base)) {
        utimbuf times = {1433160000, 1433160000};
        utime(entry.path().c_str(), &times);
    }
    settle();
    auto sample = in_child([&] {
        engine_t engine(drive);
        acd_fs_set_checkpoint("");
        // Without local times to compare, a pass that caches every node.
        expect(acd_fs_scan_dir_ex("/", 1, nullptr, nullptr, nullptr) == ACD_FS_ERR_OK, "no walk");
        settle();
        drive.cloud.forget_requests();
        reset_peak();
        double seconds =
            timed([&] { expect(acd_upsync_local_path(drive.base.c_str(), "/") == 0, "the upsync failed"); });
        double peak = peak_kib();
        size_t requests = drive.cloud.requests().size();
        double floor = timed([&] {
            size_t seen = 0;
            struct stat st;
            for (const auto& entry : fs::recursive_directory_iterator(drive.base))
                seen += stat(entry.path().c_str(), &st) == 0;
            expect(seen == entries, "the floor saw other entries");
        });
        return std::vector<double>{seconds, floor, as_double(requests), peak};
    });
    return {{count(entries) + " entries", "≤ 150 µs an entry; no request that the cache can answer",
             micros(sample.values[0] / as_double(entries)) + " an entry, " +
                 count(static_cast<size_t>(sample.values[2])) + " requests",
             micros(sample.values[1] / as_double(entries)), times(sample.values[0] / sample.values[1]),
             mib(sample.values[3])}};
}

} // namespace kxbench
