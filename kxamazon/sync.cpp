#include "kxamazon/sync.h"

#include <cstdlib>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_sync.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_echo.h"
#include "kxamazon/download_note.h"
#include "kxamazon/global.h"

namespace
{

void upsync_with_status()
{
    write_status(SYNC_STATE_SYNCING);
    acd_upsync_local_drive(global.sync_pairs);
    write_status(SYNC_STATE_UP_TO_DATE);
}

// What an interrupted download left goes before anything is compared with the cloud, and before any watch
// could take its going for the owner's. Cloud first, so that what changed there while the service was down is
// not overwritten by older local copies; the feed after the full pass, so that nothing that changed during
// the pass is missed. A stop asked for on the way leaves the upload out.
void initial_sync()
{
    write_status(SYNC_STATE_SYNCING);
    download_note_recover();
    if (int rc = acd_downsync_cloud_drive(global.sync_pairs); rc != 0)
        LOG_ERROR("%s: Failed to downsync cloud drive! %d\n", "sync_folder", rc);
    if (int rc = acd_downsync_changes(global.sync_pairs); rc != 0)
        LOG_ERROR("%s: Failed to downsync cloud drive changes! %d\n", "sync_folder", rc);
    if (global.exit_flag)
        return;
    acd_upsync_local_drive(global.sync_pairs);
    if (!global.exit_flag)
        notify_of_letters();
    LOG_INFO("Initial sync complete. Start live syncing.\n");
    write_status(SYNC_STATE_UP_TO_DATE);
}

// Watches every pair's folder until a stop is asked for or the watcher fails.
int watch_pairs()
{
    watches_list_ptr list(init_watches_list());
    if (!list) {
        LOG_ERROR("%s:Failed to init watches list!", "sync_folder");
        exit(1);
    }
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, global.sync_pairs, entries) {
        add_folder_to_watches_list(list.get(), pair->local_drive_path);
    }
    acd_sync_forget_echoes(); // nobody watched until now
    return watch_loop(list.get(), kx_idle_poll_sec, watch_notify, nullptr, watch_notify_move,
                      &global.exit_flag);
}

} // namespace

int sync_folder(int, int)
{
    initial_sync();
    while (!global.exit_flag) {
        if (int rc = watch_pairs(); rc != 0)
            return rc;
        upsync_with_status();
    }
    return 0;
}
