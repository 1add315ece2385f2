// From inotify's events to notifications: everything but moves is reported at once, the halves of moves are
// queued.
#pragma once

#include <csignal>
#include <cstddef>
#include <sys/inotify.h>

#include "common/watch_v2_move_event.h"
#include "common/watch_v2_set.h"

// Reads what one root's instance holds, at most one buffer, and handles it; the rest stays for the next call.
// Stops before the first event that finds *exit_flag set.
void read_inotify_events(watches* set, move_event_queue_t* queue, watch_notify_t notify, void* ctx,
                         const volatile sig_atomic_t* exit_flag);

// Handles the events in a buffer of length bytes, which must be followed by at least one NUL byte.
void walk_inotify_events(watches* set, move_event_queue_t* queue, const char* buffer, size_t length,
                         watch_notify_t notify, void* ctx, const volatile sig_atomic_t* exit_flag);

// Handles one event: the result of the callback, 0 when there was none to call, -1 for an unknown descriptor.
int process_inotify_events(watches* set, move_event_queue_t* queue, const inotify_event* event,
                           watch_notify_t notify, void* ctx);
