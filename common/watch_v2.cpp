#include "common/watch_v2.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sys/inotify.h>
#include <sys/select.h>
#include <sys/stat.h>

#include "common/utils.h"
#include "common/watch_v2_event.h"
#include "common/watch_v2_move_event.h"

namespace
{

// A root without watches; null when the system gives no instance, or one that select cannot wait for.
std::unique_ptr<watches> init_watches(const char* folder, dev_t dev)
{
    fd_owner inotify(inotify_init1(IN_CLOEXEC));
    if (inotify.get() >= FD_SETSIZE) {
        inotify = fd_owner();
        errno = EMFILE;
    }
    if (!inotify) {
        LOG_ERROR("%s: Failed to call inotify_init(). errno=%d\n", __func__, errno);
        return nullptr;
    }
    auto set = std::make_unique<watches>();
    set->inotify = std::move(inotify);
    set->root_path = folder;
    set->dev = dev;
    return set;
}

// False when a stop was asked for; else *count is what select answers, and *ready holds the instances that
// have events. Signals are held back from the look at the flag to the wait: one that came in between would
// leave the wait to its full time.
bool wait_for_events(const watches_list_t* list, int timeout_sec, const volatile sig_atomic_t* exit_flag,
                     fd_set* ready, int* count)
{
    int highest = -1;
    FD_ZERO(ready);
    for (const watches* set = list->head; set; set = set->next) {
        FD_SET(set->inotify.get(), ready);
        highest = std::max(highest, set->inotify.get());
    }
    const timespec timeout{timeout_sec, 0};
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool go_on = *exit_flag == 0;
    if (go_on)
        *count = pselect(highest + 1, ready, nullptr, nullptr, &timeout, &before);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return go_on;
}

bool has_lone_half(const move_event_queue_t* queue)
{
    for (const move_event_t* event = queue->head; event; event = event->next)
        if (!event->old_path || !event->new_path)
            return true;
    return false;
}

// Reads every ready instance and delivers what it reports, moves last. The kernel queues the halves of a
// rename one after the other, and the first already ends the wait: when a half stands alone, the other is
// looked for before the round is over.
void handle_round(watches_list_t* list, fd_set* ready, watch_notify_t notify, void* ctx,
                  watch_notify_move_t notify_move, const volatile sig_atomic_t* exit_flag)
{
    const move_event_queue_ptr queue(init_move_event_queue());
    const move_handler_t handler{list, notify, ctx, notify_move};
    queue->handler = &handler;
    const auto read_all = [&] {
        for (watches* set = list->head; set; set = set->next)
            if (FD_ISSET(set->inotify.get(), ready))
                read_inotify_events(set, queue.get(), notify, ctx, exit_flag);
    };
    read_all();
    int count = 0;
    if (has_lone_half(queue.get()) && wait_for_events(list, 0, exit_flag, ready, &count) && count > 0)
        read_all();
    process_move_event_queue(list, queue.get(), notify, ctx, notify_move);
}

} // namespace

watches_list_t* init_watches_list()
{
    return new watches_list_t{};
}

void deinit_watches_list(watches_list_t* list)
{
    if (!list)
        return;
    for (watches *next, *set = list->head; set; set = next) {
        next = set->next;
        for (const watch* folder = set->head; folder; folder = folder->next)
            inotify_rm_watch(set->inotify.get(), folder->wd);
        delete set;
    }
    delete list;
}

int add_folder_to_watches_list(watches_list_t* list, const char* folder)
{
    if (!list || !folder)
        return -1;
    struct stat st;
    if (lstat(folder, &st) != 0) {
        LOG_ERROR("%s: Failed to call lstat %s\n", __func__, folder);
        return -1;
    }
    if (S_ISLNK(st.st_mode)) {
        LOG_ERROR("%s: Can't add %s to watches list! It is a synmlink\n", __func__, folder);
        return -1;
    }
    if (!S_ISDIR(st.st_mode)) {
        LOG_ERROR("%s: Can't add %s to watches list! It is not a folder\n", __func__, folder);
        return -1;
    }
    watches* set = init_watches(folder, st.st_dev).release();
    if (!set)
        return -1;
    watch_folder(set, folder, nullptr, nullptr);
    (list->tail ? list->tail->next : list->head) = set;
    list->tail = set;
    return 0;
}

int watch_loop(watches_list_t* list, int timeout_sec, watch_notify_t notify, void* ctx,
               watch_notify_move_t notify_move, const volatile sig_atomic_t* exit_flag)
{
    if (!list || !notify || !exit_flag || timeout_sec < 0)
        return -1;
    fd_set ready;
    int count = 0;
    while (wait_for_events(list, timeout_sec, exit_flag, &ready, &count)) {
        if (count == 0) {
            notify(nullptr, WATCH_TYPE_V2_NONE, ctx);
        } else if (count > 0) {
            handle_round(list, &ready, notify, ctx, notify_move, exit_flag);
        } else if (errno != EINTR) { // a signal may be the request to stop
            LOG_ERROR("Got error from select(). errno=%d\n", errno);
            return count;
        }
    }
    LOG_INFO("Received exit signal.\n");
    return 0;
}
