// The watcher on trees of many folders.
#include <dirent.h>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "bench.h"
#include "common/watch_v2.h"
#include "common/watch_v2_event.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxbench
{

namespace
{

constexpr uint32_t mask =
    IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF;

// Makes folders below root, a hundred in each but the last; returns how many there are with root.
size_t make_tree(const std::string& root, size_t folders)
{
    size_t made = 1;
    for (size_t i = 0; made < folders; ++i, ++made) {
        std::string parent = root + "/" + std::to_string(i);
        fs::create_directories(parent);
        for (size_t j = 0; j < 99 && made + 1 < folders; ++j, ++made)
            fs::create_directory(parent + "/" + std::to_string(j));
    }
    return made;
}

int only_folders(const dirent* entry)
{
    return entry->d_type == DT_DIR && entry->d_name[0] != '.';
}

size_t watch_barely(int inotify, const std::string& folder)
{
    dirent** entries;
    int n = scandir(folder.c_str(), &entries, only_folders, alphasort);
    expect(n >= 0 && inotify_add_watch(inotify, folder.c_str(), mask) >= 0, "the floor cannot watch");
    size_t watched = 1;
    for (int i = 0; i < n; ++i) {
        watched += watch_barely(inotify, folder + "/" + entries[i]->d_name);
        free(entries[i]);
    }
    free(entries);
    return watched;
}

sample_t measure_setup(const std::string& root, size_t folders)
{
    return in_child([&] {
        fd_owner inotify(inotify_init1(IN_CLOEXEC));
        watch_barely(inotify.get(), root); // so that neither finds cold directories
        inotify = fd_owner(inotify_init1(IN_CLOEXEC));
        double floor = timed(
            [&] { expect(watch_barely(inotify.get(), root) == folders, "the floor left folders out"); });
        inotify = fd_owner();
        reset_peak();
        double before = peak_kib();
        watches_list_ptr list(init_watches_list());
        double seconds =
            timed([&] { expect(add_folder_to_watches_list(list.get(), root.c_str()) == 0, "no watches"); });
        expect(list->head->num_watch == folders, "not every folder is watched");
        return std::vector<double>{seconds, floor, (peak_kib() - before) * 1024};
    });
}

} // namespace

lines_t watch_setup(const options_t& options)
{
    lines_t lines;
    for (size_t folders : {size_t{1000}, size_t{10000}, options.size(100000, 20000)}) {
        std::string root = kxtest::new_folder("tree");
        size_t made = make_tree(root, folders);
        sample_t sample = measure_setup(root, made);
        fs::remove_all(root);
        double n = static_cast<double>(made);
        lines.push_back({count(made) + " folders", "≤ 2 × the floor, linear",
                         millis(sample.values[0]) + ", " + micros(sample.values[0] / n) + " a folder",
                         millis(sample.values[1]), times(sample.values[0] / sample.values[1]),
                         mib(sample.peak_kib) + text(", %.0f bytes a folder", sample.values[2] / n)});
    }
    return lines;
}

// ---- Moves ----

namespace
{

int ignore(const char*, watch_type_v2_t, void*)
{
    return 0;
}

int ignore_move(const char*, const char*, watch_type_v2_t)
{
    return 0;
}

// Follows what happened, in as many rounds as the loop would make: each watch that goes gives an event too.
double follow(watches_list_t* list)
{
    const volatile sig_atomic_t go_on = 0;
    return timed([&] {
        for (int bytes = 1; bytes > 0; ioctl(list->head->inotify.get(), FIONREAD, &bytes)) {
            move_event_queue_ptr queue(init_move_event_queue());
            read_inotify_events(list->head, queue.get(), ignore, nullptr, &go_on);
            process_move_event_queue(list, queue.get(), ignore, nullptr, ignore_move);
        }
    });
}

// Renames a folder of folders below a watched root with many others, then moves it out. Two times and the
// floor's, which takes the same watches away and adds them.
std::vector<double> measure_moves(size_t folders, size_t others)
{
    std::string root = kxtest::new_folder("tree"), outside = kxtest::new_folder("outside");
    fs::create_directory(root + "/moved");
    make_tree(root + "/others", others);
    size_t moved = make_tree(root + "/moved", folders);
    watches_list_ptr list(init_watches_list());
    expect(add_folder_to_watches_list(list.get(), root.c_str()) == 0, "no watches");
    uint64_t watched = list->head->num_watch;
    fs::rename(root + "/moved", root + "/renamed");
    double renamed = follow(list.get());
    expect(list->head->num_watch == watched, "a renamed folder lost watches");
    fs::rename(root + "/renamed", outside + "/out");
    double moved_out = follow(list.get());
    expect(list->head->num_watch == watched - moved, "a folder that went keeps watches");
    list.reset();

    fd_owner inotify(inotify_init1(IN_CLOEXEC));
    watch_barely(inotify.get(), outside + "/out");
    double removed = timed([&] {
        for (size_t wd = 1; wd <= moved; ++wd)
            inotify_rm_watch(inotify.get(), static_cast<int>(wd));
    });
    double added = timed([&] { watch_barely(inotify.get(), outside + "/out"); });
    fs::remove_all(root);
    fs::remove_all(outside);
    return {renamed, moved_out, removed + added, removed};
}

} // namespace

lines_t watch_move(const options_t& options)
{
    lines_t lines;
    const size_t others = options.size(50000, 5000), most = options.size(10000, 2000);
    for (size_t folders : {size_t{1}, most / 10, most}) {
        sample_t sample = in_child([&] { return measure_moves(folders, others); });
        const char* wanted = folders == most ? "linear in the folders moved" : "";
        const char* names[] = {" renamed", " moved out"};
        for (size_t i = 0; i < 2; ++i)
            lines.push_back({count(folders) + " of " + count(others + folders) + " folders" + names[i],
                             wanted, millis(sample.values[i]), millis(sample.values[i + 2]),
                             times(sample.values[i] / sample.values[i + 2]),
                             i == 0 ? mib(sample.peak_kib) : ""});
    }
    return lines;
}

} // namespace kxbench
