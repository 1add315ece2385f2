#include "kxamazon/acd_sync.h"

#include <filesystem>
#include <gmock/gmock.h>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_utils.h"
#include "support/support.h"
#include "support/sync_test.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace
{

// A pair that works, and one whose local folder is missing.
struct acd_sync : kxtest::sync_test {
    acd_sync() { kxtest::write_file(base_ + "/good/file", "content"); }

    sync_pair_list_ptr new_list() const
    {
        sync_pair_list_ptr list(acd_sync_create_sync_pair_list());
        for (const std::string name : {"/good", "/bad"})
            kxtest::add_pair(list.get(), base_ + name, name);
        return list;
    }
    // Of both pairs: as a restart would find them when they are configured again.
    std::string cached_flags() const
    {
        const sync_pair_list_ptr list = new_list();
        EXPECT_EQ(acd_cache_load_sync_pair_config(list.get()), ACD_CACHE_ERR_OK);
        return flags(list);
    }
    static std::string flags(const sync_pair_list_ptr& list)
    {
        std::string text;
        acd_sync_pair_entry_t* pair;
        TAILQ_FOREACH (pair, list, entries)
            text += std::to_string(pair->need_full_downsync) + std::to_string(pair->need_full_upsync) + " ";
        return text;
    }

    sync_pair_list_ptr list_ = new_list();
    int result_ = -2;
};

TEST_F(acd_sync, FailedDownloadIsStillOwed)
{
    cloud_.put("/good/cloud", "content");
    const auto pass = [&] { result_ = acd_downsync_cloud_drive(list_.get()); };
    const char* failed = "error: acd_downsync_cloud_drive: Failed to download cloud drive. /bad ===> bad\n";
    EXPECT_THAT(log(pass, E_INFO), AllOf(HasSubstr(failed), Not(HasSubstr("Skip"))));
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(flags(list_) + cached_flags(), "01 11 01 11 ");
    EXPECT_EQ(kxtest::read_file(base_ + "/good/cloud"), "content");

    EXPECT_NE(kxtest::read_file(ACD_FS_CHECKPOINT), "");
    std::filesystem::remove(ACD_FS_CHECKPOINT);
    const char* skipped = "info: Skip full downsync because it was done already! /good ===> good\n";
    EXPECT_THAT(log(pass, E_INFO), AllOf(HasSubstr(failed), HasSubstr(skipped)));
    EXPECT_NE(kxtest::read_file(ACD_FS_CHECKPOINT), "") << "saved also when nothing succeeded";
}

TEST_F(acd_sync, FailedUploadIsNotRepeated)
{
    const auto pass = [&] { result_ = acd_upsync_local_drive(list_.get()); };
    EXPECT_THAT(log(pass, E_INFO),
                HasSubstr("error: acd_upsync_local_drive: Failed to upsync local drive. bad ===> /bad\n"));
    EXPECT_EQ(result_, -1);
    EXPECT_EQ(flags(list_) + cached_flags(), "10 10 10 10 ");
    EXPECT_TRUE(cloud_.has("/good/file"));

    EXPECT_EQ(log(pass, E_INFO), "info: Skip full upsync because it was done already! /good ===> good\n"
                                 "info: Skip full upsync because it was done already! /bad ===> bad\n");
    EXPECT_EQ(result_, 0);
    EXPECT_FALSE(kxtest::exists(ACD_FS_CHECKPOINT));
}

} // namespace
