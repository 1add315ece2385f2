#include <cstdarg>
#include <cstdlib>

#include "common/constants.h"
#include "common/owners.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"

namespace
{

const char* const sync_state_texts[] = {
    "SYNC_STATE_UP_TO_DATE",
    "SYNC_STATE_SYNCING",
    "SYNC_STATE_ACCOUNT_ERROR",
    "SYNC_STATE_UNKNOWN",
};

} // namespace

void write_status(sync_state_t state)
{
    file_ptr file(fopen(kx_status_path, "wb"));
    if (!file)
        return;
    global.sync_state = state;
    fprintf(file.get(),
            "<ACDStatus>\n"
            "  <SyncState>%s</SyncState>\n"
            "  <Current>%d</Current>\n"
            "  <Total>%d</Total>\n"
            "  <Percentage>%d</Percentage>\n"
            "  <ProgressMsg>%s</ProgressMsg>\n"
            "  <LastSync>%ld</LastSync>\n"
            "</ACDStatus>\n",
            sync_state_texts[state], global.current, global.total, global.percentage,
            global.progress_msg ? global.progress_msg : "(null)", global.last_sync);
}

void update_progress_msg(const char* fmt, ...)
{
    char* text = nullptr;
    va_list args;
    va_start(args, fmt);
    int length = vasprintf(&text, fmt, args);
    va_end(args);
    if (length < 0)
        return;
    free(global.progress_msg);
    global.progress_msg = text;
}

void update_acd_progress(int current, int total)
{
    global.current = current;
    global.total = total;
    // Divided first, so that only whole multiples of the total show.
    global.percentage = total == 0 ? 0 : (current / total) * 100;
}
