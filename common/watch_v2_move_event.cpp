#include "common/watch_v2_move_event.h"

#include <cstdlib>

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

void del_dir(watches_list_t* list, const char* path)
{
    if (watches* set = find_root(list, path))
        del_watch_folders(set, path);
}

void add_dir(watches_list_t* list, const char* path, watch_notify_t notify, void* ctx)
{
    if (watches* set = find_root(list, path))
        watch_folder(set, path, notify, ctx);
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
    if (event->new_path)
        refuse_second_half(__func__);
    event->new_wd = wd;
    event->new_path.reset(safe_strdup(path));
}

void process_move_event_queue(watches_list_t* list, const move_event_queue_t* queue, watch_notify_t notify,
                              void* ctx, watch_notify_move_t notify_move)
{
    for (const move_event_t* event = queue->head; event; event = event->next) {
        const char* old_path = event->old_path.get();
        const char* new_path = event->new_path.get();
        LOG_DEBUG("%s: event->old_wd = %d, event->old_path = %s, event->new_wd = %d, event->new_path = %s\n",
                  __func__, event->old_wd, old_path, event->new_wd, new_path);
        report(*event, notify, ctx, notify_move);
        if (!event->is_dir)
            continue;
        if (old_path)
            del_dir(list, old_path);
        if (new_path)
            add_dir(list, new_path, old_path && notify_move ? nullptr : notify, ctx);
    }
}
