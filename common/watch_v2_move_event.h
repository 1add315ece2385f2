// Pairs the two halves of each move, which inotify reports as separate events with one cookie, and reports
// moves, or the half that stayed alone as a delete or an add.
//
// One queue lives for one round of the watch loop and serves every root read in it, so that a move between
// two roots pairs up. It owns its events, which own their paths.
#pragma once

#include <cstdint>

#include "common/owners.h"
#include "common/watch_v2_set.h"

struct move_event_t {
    uint32_t cookie;
    int is_dir;
    int old_wd;          // -1 when unknown
    string_ptr old_path; // null when no source was seen
    int new_wd;          // -1 when unknown
    string_ptr new_path; // null when no target was seen
    move_event_t* next;
    bool is_delivered = false; // reported before the rest, see deliver_touched_moves
};

// Whom moves are reported to.
struct move_handler_t {
    watches_list_t* list;
    watch_notify_t notify;
    void* ctx;
    watch_notify_move_t notify_move;
};

// In the order in which the first halves came.
struct move_event_queue_t {
    move_event_t* head;
    move_event_t* tail;
    const move_handler_t* handler; // null: nothing is delivered before its time
};

move_event_queue_t* init_move_event_queue();
void deinit_move_event_queue(move_event_queue_t* queue);
using move_event_queue_ptr = owner<move_event_queue_t, deinit_move_event_queue>;

// A new event with copies of the paths; a null path stays null.
move_event_t* init_move_event(uint32_t cookie, int is_dir, int old_wd, const char* old_path, int new_wd,
                              const char* new_path);

// Appends; the queue owns the event then.
void add_move_event(move_event_queue_t* queue, move_event_t* event);

// The first event with that cookie, borrowed; null when there is none.
move_event_t* get_move_event(const move_event_queue_t* queue, uint32_t cookie);

// Add one half, to the event with that cookie or as a new one. A cookie of 0 and null arguments are ignored,
// and so is a half that is there already: of two roots one may lie within the other. With another path such a
// half ends the process.
void add_move_from_to_move_event_queue(move_event_queue_t* queue, int wd, uint32_t cookie, int is_dir,
                                       const char* path);
void add_move_to_to_move_event_queue(move_event_queue_t* queue, int wd, uint32_t cookie, int is_dir,
                                     const char* path);

// Reports those moves, and moves out, whose paths an event about path touches: what is new at the old path
// must not be taken for what is about to leave it. The event's own half is of no account, by its cookie. 1
// when something was reported.
int deliver_touched_moves(move_event_queue_t* queue, const char* path, uint32_t cookie);

// Reports every event that was not delivered yet in order and lets the watches follow moved folders. Without
// notify_move a move is reported as a delete and an add.
void process_move_event_queue(watches_list_t* list, const move_event_queue_t* queue, watch_notify_t notify,
                              void* ctx, watch_notify_move_t notify_move);
