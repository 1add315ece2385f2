// Stand-in for the appliance library's event interface on machines that lack it.
#pragma once

// Hands one event record to the management daemon. Here it reaches nobody: it is kept as event_push_last.
int event_push(const char* source, const char* target, const char* message, int flags, int reserved);

// What event_push was last given, and how often it was called; for tests. The texts are empty until then.
struct event_push_record_t {
    char source[64];
    char target[64];
    char message[8192];
    unsigned calls;
};
extern event_push_record_t event_push_last;
