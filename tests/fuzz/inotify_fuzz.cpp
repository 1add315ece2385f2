// inotify's buffers, and the queue of moves that they fill. Two things never come from the kernel and are
// kept out: a
// "/" in a name, and the same half of a move twice, which ends the process.
#include <algorithm>
#include <cstring>
#include <set>
#include <vector>

#include "common/watch_v2.h"
#include "common/watch_v2_event.h"
#include "fuzz.h"

namespace
{

int notify(const char* path, watch_type_v2_t type, void*)
{
    kxtest::fuzz_check(path && type != WATCH_TYPE_V2_NONE, "a change has a path");
    return 0;
}

int notify_move(const char* old_path, const char* new_path, watch_type_v2_t)
{
    kxtest::fuzz_check(old_path && new_path, "a move has two paths");
    return 0;
}

bool has_a_half_twice(const char* buffer, size_t length)
{
    std::set<std::pair<uint32_t, uint32_t>> halves;
    for (size_t pos = 0; pos + sizeof(inotify_event) <= length;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + pos);
        const uint32_t half = event->mask & IN_MOVED_FROM ? IN_MOVED_FROM : event->mask & IN_MOVED_TO;
        if (half && !halves.emplace(half, event->cookie).second)
            return true;
        pos += sizeof *event + event->len;
    }
    return false;
}

watches_list_t* watched_folders()
{
    watches_list_t* list = init_watches_list();
    for (const char* name : {"/one", "/one two"}) {
        std::filesystem::create_directories(kxtest::sysroot() + name + "/sub/deep");
        add_folder_to_watches_list(list, (kxtest::sysroot() + name).c_str());
    }
    return list;
}

} // namespace

FUZZ_TARGET
{
    kxtest::fuzz_text(data, size);
    std::vector<uint32_t> aligned(size / 4 + 2);
    char* buffer = reinterpret_cast<char*>(aligned.data());
    std::copy(data, data + size, buffer);
    std::replace(buffer, buffer + size, '/', '_');
    // A length that is no multiple of four leaves the next event where the kernel puts none.
    for (size_t pos = 0; pos + sizeof(inotify_event) <= size;) {
        auto* event = reinterpret_cast<inotify_event*>(buffer + pos);
        event->len &= ~3U;
        pos += sizeof *event + event->len;
    }
    if (has_a_half_twice(buffer, size))
        return 0;
    // Closing an instance is slow, so one serves many inputs.
    static owner<watches_list_t, deinit_watches_list> list;
    static int runs = 0;
    if (runs++ % 500 == 0)
        list.reset(watched_folders());
    const move_event_queue_ptr queue(init_move_event_queue());
    const volatile sig_atomic_t exit_flag = 0;
    walk_inotify_events(list->head, queue.get(), buffer, size, notify, nullptr, &exit_flag);
    process_move_event_queue(list.get(), queue.get(), notify, nullptr, notify_move);
    return 0;
}
