#include "kxamazon/acd_fs_checkpoint.h"

#include <cstring>
#include <utility>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_fs_io.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/download_note.h"
#include "kxamazon/global.h"

namespace
{

string_ptr current_checkpoint;

} // namespace

void acd_fs_checkpoint_init()
{
    if (current_checkpoint)
        return;
    LOG_INFO("Start to fetch the up-to-date checkpoint.\n");
    string_ptr working(safe_strdup(""));
    string_ptr latest;
    while (auto rc = acd_io_get_latest_checkpoint(working.get(), out(latest))) {
        HANDLE_ACD_FS_ERROR(rc);
        LOG_ERROR("%s: Failed to get the latest checkpoint, current checkpoint = %s! Keep trying...\n",
                  __func__, working.get());
        if (latest)
            working = std::move(latest);
        if (!global.exit_flag)
            kx_sleep_ms(kx_checkpoint_retry_ms);
        if (global.exit_flag)
            return;
    }
    LOG_DEBUG("%s: Get the latest checkpoint. \"\" ---> %s\n", __func__, latest.get());
    LOG_INFO("Finish fetching the up-to-date checkpoint.\n");
    current_checkpoint = std::move(latest);
}

void acd_fs_checkpoint_deinit()
{
    current_checkpoint.reset();
}

const char* acd_fs_get_checkpoint()
{
    return current_checkpoint.get();
}

void acd_fs_set_checkpoint(const char* text)
{
    current_checkpoint.reset(safe_strdup(text));
}

void acd_fs_save_checkpoint()
{
    if (!current_checkpoint)
        return;
    download_note_sync();
    acd_cache_cache_checkpoint(current_checkpoint.get());
}

void acd_fs_set_save_checkpoint(const char* text)
{
    if (!text)
        return;
    if (!current_checkpoint || std::strcmp(current_checkpoint.get(), text) != 0)
        acd_fs_set_checkpoint(text);
    acd_fs_save_checkpoint();
}
