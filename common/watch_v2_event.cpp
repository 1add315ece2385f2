#include "common/watch_v2_event.h"

#include <cerrno>
#include <unistd.h>

#include "common/utils.h"

namespace
{

constexpr size_t buffer_size = 16384;
constexpr size_t path_size = 4096;

void log_event(const inotify_event* event)
{
    const auto has = [event](uint32_t bit) { return (event->mask & bit) != 0 ? 1 : 0; };
    LOG_DEBUG("inotify() ==> wd=%d len=%d mask=%08x name=%s(IN_MOVED_FROM=%d, IN_MOVED_TO=%d, IN_DELETE=%d, "
              "IN_CLOSE_WRITE=%d, IN_CREATE=%d, IN_DELETE_SELF=%d, IN_ISDIR=%d)\n",
              event->wd, event->len, event->mask, event->len > 0 ? event->name : "", has(IN_MOVED_FROM),
              has(IN_MOVED_TO), has(IN_DELETE), has(IN_CLOSE_WRITE), has(IN_CREATE), has(IN_DELETE_SELF),
              has(IN_ISDIR));
}

// False for an unknown descriptor.
bool get_event_path(watches* set, const inotify_event* event, char (&path)[path_size])
{
    const std::string* folder = find_watched_path(set, event->wd);
    if (!folder)
        return false;
    if (event->len > 0)
        safe_snprintf(path, sizeof path, "%s/%s", folder->c_str(), event->name);
    else
        safe_snprintf(path, sizeof path, "%s", folder->c_str());
    return true;
}

} // namespace

void read_inotify_events(watches* set, move_event_queue_t* queue, watch_notify_t notify, void* ctx,
                         const volatile sig_atomic_t* exit_flag)
{
    alignas(inotify_event) char buffer[buffer_size] = {};
    const ssize_t length = read(set->inotify.get(), buffer, buffer_size - 1);
    if (length < 0) {
        LOG_ERROR("Error in read(inotify) errno=%d\n", errno);
        return;
    }
    walk_inotify_events(set, queue, buffer, static_cast<size_t>(length), notify, ctx, exit_flag);
}

void walk_inotify_events(watches* set, move_event_queue_t* queue, const char* buffer, size_t length,
                         watch_notify_t notify, void* ctx, const volatile sig_atomic_t* exit_flag)
{
    for (size_t pos = 0; pos < length;) {
        if (*exit_flag != 0) {
            LOG_DEBUG("Received exit signal\n");
            return;
        }
        const auto* event = reinterpret_cast<const inotify_event*>(buffer + pos);
        const size_t rest = length - pos;
        if (rest < sizeof *event || rest - sizeof *event < event->len) {
            LOG_ERROR("%s: inotify buffer overflow!\n", "read_inotify_events");
            return;
        }
        log_event(event);
        pos += sizeof *event + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
            LOG_ERROR("%s: inotify event Q overflow.\n", "read_inotify_events");
            return;
        }
        if ((event->mask & ~IN_IGNORED) == 0) {
            set->redirected.erase(event->wd); // the last event that bears the descriptor
            continue;
        }
        if (int rc = process_inotify_events(set, queue, event, notify, ctx); rc != 0)
            LOG_ERROR("%s: process_inotify_events return %d\n", "read_inotify_events", rc);
    }
}

int process_inotify_events(watches* set, move_event_queue_t* queue, const inotify_event* event,
                           watch_notify_t notify, void* ctx)
{
    char path[path_size];
    bool is_known = get_event_path(set, event, path);
    // A moved folder's events speak of its new path once the move was delivered.
    if (is_known && queue && deliver_touched_moves(queue, path, event->cookie))
        is_known = get_event_path(set, event, path);
    if (!is_known) {
        LOG_ERROR("%s: wd %d is not registered to watches %s\n", __func__, event->wd, set->root_path.c_str());
        return -1;
    }
    const uint32_t mask = event->mask;
    const int is_dir = (mask & IN_ISDIR) != 0;
    if (mask & IN_DELETE_SELF) {
        LOG_DEBUG("DEL DIRECTORY: %s\n", path);
        if (find_watch(set, event->wd))
            del_watch(set, event->wd);
        return notify(path, WATCH_TYPE_V2_DEL_DIR, ctx);
    }
    if (mask & IN_MOVED_FROM) {
        LOG_DEBUG("PRE-RENAME: %s\n", path);
        add_move_from_to_move_event_queue(queue, event->wd, event->cookie, is_dir, path);
    } else if (mask & IN_MOVED_TO) {
        LOG_DEBUG("RENAMED: %s\n", path);
        add_move_to_to_move_event_queue(queue, event->wd, event->cookie, is_dir, path);
    } else if (is_dir && mask & (IN_CREATE | IN_CLOSE_WRITE | IN_MODIFY)) {
        LOG_DEBUG("ADD DIRECTORY: %s\n", path);
        watch_folder(set, path, notify, ctx);
    } else if (!is_dir && mask & (IN_CLOSE_WRITE | IN_MODIFY)) {
        LOG_DEBUG("ADD FILE: %s\n", path);
        return notify(path, WATCH_TYPE_V2_ADD_FILE, ctx);
    } else if (!is_dir && mask & IN_DELETE) {
        LOG_DEBUG("DEL FILE: %s\n", path);
        return notify(path, WATCH_TYPE_V2_DEL_FILE, ctx);
    } else {
        LOG_DEBUG("%s: ev->mask = %08x, %s\n", __func__, mask, path);
    }
    return 0;
}
