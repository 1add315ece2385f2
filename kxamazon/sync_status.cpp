#include <cstdarg>
#include <cstdlib>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"
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
    string_ptr text(asprintf_str("<ACDStatus>\n"
                                 "  <SyncState>%s</SyncState>\n"
                                 "  <Current>%d</Current>\n"
                                 "  <Total>%d</Total>\n"
                                 "  <Percentage>%d</Percentage>\n"
                                 "  <ProgressMsg>%s</ProgressMsg>\n"
                                 "  <LastSync>%ld</LastSync>\n"
                                 "</ACDStatus>\n",
                                 sync_state_texts[state], global.current, global.total, global.percentage,
                                 shown(global.progress_msg), global.last_sync));
    // Not waited for to be on the disk: it is written with every event, and anew at every start.
    if (text && replace_file(kx_status_path, text.get(), false) == 0)
        global.sync_state = state;
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
