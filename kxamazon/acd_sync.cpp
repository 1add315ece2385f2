#include "kxamazon/acd_sync.h"

#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_downsync.h"
#include "kxamazon/acd_sync_upsync.h"

int acd_downsync_cloud_drive(acd_sync_pair_list_t* list)
{
    int result = 0;
    acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list, entries) {
        const char* cloud = pair->cloud_drive_path;
        const char* local = pair->local_drive_path;
        if (!pair->need_full_downsync) {
            LOG_INFO("Skip full downsync because it was done already! %s ===> %s\n", cloud, local);
            continue;
        }
        result = acd_downsync_cloud_drive_path(cloud, cloud, local);
        if (result != 0) { // still owed: the next start tries it again
            LOG_ERROR("%s: Failed to download cloud drive. %s ===> %s\n", __func__, cloud, local);
            continue;
        }
        pair->need_full_downsync = 0;
        acd_cache_cache_sync_pair(acd_cache_db(), pair);
    }
    acd_fs_flush_checkpoint();
    return result;
}

int acd_upsync_local_drive(acd_sync_pair_list_t* list)
{
    int result = 0;
    acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list, entries) {
        const char* cloud = pair->cloud_drive_path;
        const char* local = pair->local_drive_path;
        if (!pair->need_full_upsync) {
            LOG_INFO("Skip full upsync because it was done already! %s ===> %s\n", cloud, local);
            continue;
        }
        result = acd_upsync_local_path(local, cloud);
        if (result != 0)
            LOG_ERROR("%s: Failed to upsync local drive. %s ===> %s\n", __func__, local, cloud);
        if (acd_io_is_stopped())
            return result;
        // Failed or not, the pass is not repeated before the next start.
        pair->need_full_upsync = 0;
        acd_cache_cache_sync_pair(acd_cache_db(), pair);
    }
    return result;
}
