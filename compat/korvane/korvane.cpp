#include "korvane.h"

#include <cstdio>

event_push_record_t event_push_last;

int event_push(const char* source, const char* target, const char* message, int, int)
{
    snprintf(event_push_last.source, sizeof event_push_last.source, "%s", source);
    snprintf(event_push_last.target, sizeof event_push_last.target, "%s", target);
    snprintf(event_push_last.message, sizeof event_push_last.message, "%s", message);
    event_push_last.calls++;
    return 0;
}
