#include "common/watch_v2_move_event.h"

#include <cstdlib>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/utils.h"

namespace
{

[[noreturn]] void refuse_second_half(const char* function_name)
{
    LOG_ERROR("%s: Shall not happen!\n", function_name);
    std::exit(1);
}

void report(const move_event_t& event, watch_notify_t notify, void* ctx, watch_notify_move_t notify_move)
{
    const char* old_path = event.old_path.get();
    const char* new_path = event.new_path.get();
    if (old_path && new_path && notify_move) {
        notify_move(old_path, new_path, event.is_dir ? WATCH_TYPE_V2_MOVE_DIR : WATCH_TYPE_V2_MOVE_FILE);
        return;
    }
    if (old_path)
        notify(old_path, event.is_dir ? WATCH_TYPE_V2_DEL_DIR : WATCH_TYPE_V2_DEL_FILE, ctx);
    // A folder that arrived is reported with everything in it when it is given its watches.
    if (new_path && !event.is_dir)
        notify(new_path, WATCH_TYPE_V2_ADD_FILE, ctx);
}

// Whether one of the two is the other or lies below it.
bool touches(std::string_view a, std::string_view b)
{
    const auto [shorter, longer] = a.size() < b.size() ? std::pair(a, b) : std::pair(b, a);
    return longer.starts_with(shorter) && (longer.size() == shorter.size() || longer[shorter.size()] == '/');
}

bool touches(const move_event_t& event, const char* path)
{
    return touches(event.old_path.get(), path) || (event.new_path && touches(event.new_path.get(), path));
}

// Events that the kernel has queued already for the watches of a moved folder speak of the new path.
void redirect_watches(watches* set, const char* old_path, const char* new_path)
{
    for (const watch* folder = set->head; folder; folder = folder->next)
        if (folder->path.starts_with(old_path) && touches(folder->path, old_path))
            set->redirected[folder->wd] = folder->path;
    for (auto& [wd, path] : set->redirected)
        if (path.starts_with(old_path) && touches(path, old_path))
            path.replace(0, std::strlen(old_path), new_path);
}

void del_dir(watches_list_t* list, const char* path, const char* new_path)
{
    watches* set = find_root(list, path);
    if (set && new_path)
        redirect_watches(set, path, new_path);
    if (set)
        del_watch_folders(set, path);
}

void add_dir(watches_list_t* list, const char* path, watch_notify_t notify, void* ctx)
{
    if (watches* set = find_root(list, path))
        watch_folder(set, path, notify, ctx);
}

void deliver(const move_event_t& event, const move_handler_t& handler)
{
    const char* old_path = event.old_path.get();
    const char* new_path = event.new_path.get();
    LOG_DEBUG("%s: event->old_wd = %d, event->old_path = %s, event->new_wd = %d, event->new_path = %s\n",
              "process_move_event_queue", event.old_wd, old_path, event.new_wd, new_path);
    report(event, handler.notify, handler.ctx, handler.notify_move);
    if (!event.is_dir)
        return;
    if (old_path)
        del_dir(handler.list, old_path, new_path);
    if (new_path)
        add_dir(handler.list, new_path, old_path && handler.notify_move ? nullptr : handler.notify,
                handler.ctx);
}

} // namespace

move_event_queue_t* init_move_event_queue()
{
    return new move_event_queue_t{};
}

void deinit_move_event_queue(move_event_queue_t* queue)
{
    if (!queue)
        return;
    for (move_event_t *next, *event = queue->head; event; event = next) {
        next = event->next;
        delete event;
    }
    delete queue;
}

move_event_t* init_move_event(uint32_t cookie, int is_dir, int old_wd, const char* old_path, int new_wd,
                              const char* new_path)
{
    return new move_event_t{
        cookie, is_dir, old_wd, string_ptr(safe_strdup(old_path)), new_wd, string_ptr(safe_strdup(new_path)),
        nullptr};
}

void add_move_event(move_event_queue_t* queue, move_event_t* event)
{
    (queue->tail ? queue->tail->next : queue->head) = event;
    queue->tail = event;
}

move_event_t* get_move_event(const move_event_queue_t* queue, uint32_t cookie)
{
    move_event_t* event = queue->head;
    while (event && event->cookie != cookie)
        event = event->next;
    return event;
}

void add_move_from_to_move_event_queue(move_event_queue_t* queue, int wd, uint32_t cookie, int is_dir,
                                       const char* path)
{
    if (cookie == 0 || !queue || !path)
        return;
    move_event_t* event = get_move_event(queue, cookie);
    if (!event) {
        add_move_event(queue, init_move_event(cookie, is_dir, wd, path, -1, nullptr));
        return;
    }
    if (event->old_path && std::strcmp(event->old_path.get(), path) == 0)
        return;
    if (event->old_path)
        refuse_second_half(__func__);
    event->old_wd = wd;
    event->old_path.reset(safe_strdup(path));
}

void add_move_to_to_move_event_queue(move_event_queue_t* queue, int wd, uint32_t cookie, int is_dir,
                                     const char* path)
{
    if (cookie == 0 || !queue || !path)
        return;
    move_event_t* event = get_move_event(queue, cookie);
    if (!event) {
        add_move_event(queue, init_move_event(cookie, is_dir, -1, nullptr, wd, path));
        return;
    }
    if (event->new_path && std::strcmp(event->new_path.get(), path) == 0)
        return;
    if (event->new_path)
        refuse_second_half(__func__);
    event->new_wd = wd;
    event->new_path.reset(safe_strdup(path));
}

int deliver_touched_moves(move_event_queue_t* queue, const char* path, uint32_t cookie)
{
    int count = 0;
    for (move_event_t* event = queue->head; event && queue->handler; event = event->next) {
        if (event->is_delivered || !event->old_path || event->cookie == cookie || !touches(*event, path))
            continue;
        event->is_delivered = true;
        deliver(*event, *queue->handler);
        count++;
    }
    return count > 0;
}

void process_move_event_queue(watches_list_t* list, const move_event_queue_t* queue, watch_notify_t notify,
                              void* ctx, watch_notify_move_t notify_move)
{
    const move_handler_t handler{list, notify, ctx, notify_move};
    for (const move_event_t* event = queue->head; event; event = event->next)
        if (!event->is_delivered)
            deliver(*event, handler);
}
