#include "kxamazon/acd_fs_checkpoint.h"

#include <gmock/gmock.h>

#include "common/constants.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_account.h"
#include "support/cloud.h"
#include "support/support.h"

using kxtest::log_of;
using nlohmann::json;
using std::string;
using testing::HasSubstr;

namespace
{

class acd_fs_checkpoint : public testing::Test
{
protected:
    acd_fs_checkpoint()
    {
        cloud.connect();
        kxtest::write_file(ACD_FS_CHECKPOINT, "saved");
    }
    ~acd_fs_checkpoint() override { acd_fs_checkpoint_deinit(); }

    void answer(int status, const string& body) { cloud.fail({{"status", status}, {"body", body}}); }

    kxtest::cloud cloud;
};

} // namespace

TEST_F(acd_fs_checkpoint, fetches_the_newest_once_and_goes_on_after_a_failure_where_it_stood)
{
    cloud.put("/a.txt", "a");
    const string lines = R"({"checkpoint":"c1","nodes":[{}]})"
                         "\nbroken\n";
    answer(200, lines);
    string log = log_of(acd_fs_checkpoint_init);
    EXPECT_THAT(log,
                HasSubstr("Failed to get the latest checkpoint, current checkpoint = ! Keep trying...\n"));
    EXPECT_THAT(cloud.requests()[1]["body"].get<string>(), HasSubstr(R"({"checkpoint": "c1",)"));
    ASSERT_NE(acd_fs_get_checkpoint(), nullptr);
    EXPECT_STRNE(acd_fs_get_checkpoint(), "c1");
    EXPECT_EQ(kxtest::read_file(ACD_FS_CHECKPOINT), "saved");

    cloud.forget_requests();
    acd_fs_checkpoint_init();
    EXPECT_TRUE(cloud.requests().empty());
}

TEST_F(acd_fs_checkpoint, saving_writes_the_current_one_even_unchanged)
{
    acd_fs_save_checkpoint();
    acd_fs_set_save_checkpoint(nullptr);
    EXPECT_EQ(kxtest::read_file(ACD_FS_CHECKPOINT), "saved");
    EXPECT_EQ(acd_fs_get_checkpoint(), nullptr);

    acd_fs_set_checkpoint("one");
    acd_fs_set_checkpoint(acd_fs_get_checkpoint());
    EXPECT_EQ(kxtest::read_file(ACD_FS_CHECKPOINT), "saved");
    for (const char* text : {"one", "two"}) {
        acd_fs_set_save_checkpoint(text);
        EXPECT_STREQ(acd_fs_get_checkpoint(), text);
        EXPECT_EQ(kxtest::read_file(ACD_FS_CHECKPOINT), text);
    }
}

TEST_F(acd_fs_checkpoint, reads_the_quota_and_refuses_an_account_without_space)
{
    // The record, or what the log says.
    const std::tuple<int, string, int, string> rows[] = {
        {200, R"({"quota":9223372036854775808,"available":18446744073709551616,"lastCalculated":"T"})", 0,
         "{ quota: 9223372036854775808, available: 18446744073709551615, last_calculated: T }"},
        {200, R"({"quota":1,"available":0,"lastCalculated":"T"})", 7, "Failed to get number available! 7\n"},
        {200, R"({"quota":1,"available":1})", 7, "Failed to get string lastCalculated!\n"},
        {200, "[1]", 7, "acd_fs_account_get_quota: Mulformed response.\nerror: [1]\n"},
        {404, "", 4, "Failed to call acd_io_get_account_quota! 4\n"},
    };
    for (const auto& [status, body, result, expected] : rows) {
        answer(status, body);
        account_quota_ptr quota;
        string log = log_of([&, r = result] { EXPECT_EQ(acd_fs_account_get_quota(out(quota)), r); });
        const char* text = acd_fs_account_quota_to_string(quota.get());
        EXPECT_THAT(text ? text : log, HasSubstr(expected)) << body;
        EXPECT_EQ(text == nullptr, result != 0);
    }
    EXPECT_EQ(acd_fs_account_get_quota(nullptr), ACD_FS_ERR_INVALID_ARGUMENTS);
}
