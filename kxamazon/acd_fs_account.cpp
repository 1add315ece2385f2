#include "kxamazon/acd_fs_account.h"

#include <cstdlib>

#include "common/json_utils.h"
#include "common/utils.h"
#include "kxamazon/acd_fs_io.h"

namespace
{

const acd_fs_error_t invalid = ACD_FS_ERR_INVALID_RESPONSE;

// The record that a reply's object describes; null, with a message, when a member is missing or not positive.
account_quota_ptr parse_quota(const JSON_Object* object)
{
    static const char func[] = "acd_fs_account_get_quota";
    double quota = json_object_get_number(object, "quota");
    if (!(quota > 0)) {
        LOG_ERROR("%s: Failed to get number quota! %d\n", func, invalid);
        return nullptr;
    }
    double available = json_object_get_number(object, "available");
    if (!(available > 0)) {
        LOG_ERROR("%s: Failed to get number available! %d\n", func, invalid);
        return nullptr;
    }
    const char* last_calculated = json_object_get_string(object, "lastCalculated");
    if (!last_calculated) {
        LOG_ERROR("%s: Failed to get string lastCalculated!\n", func);
        return nullptr;
    }
    account_quota_ptr record(static_cast<acd_fs_account_quota_t*>(std::malloc(sizeof(*record))));
    *record = {to_uint64(quota), to_uint64(available), safe_strdup(last_calculated)};
    return record;
}

} // namespace

acd_fs_error_t acd_fs_account_get_quota(acd_fs_account_quota_t** quota)
{
    if (!quota)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    *quota = nullptr;
    reply_t reply;
    if (auto rc = acd_io_get_account_quota(&reply); rc != ACD_FS_ERR_OK) {
        LOG_ERROR("%s: Failed to call acd_io_get_account_quota! %d\n", __func__, rc);
        return rc;
    }
    json_ptr value(json_parse_string(reply.buf));
    if (json_value_get_type(value.get()) != JSONObject) {
        LOG_ERROR("%s: Mulformed response.\n", __func__);
        LOG_ERROR("%s\n", reply.buf ? reply.buf : "");
        return invalid;
    }
    const JSON_Object* object = json_value_get_object(value.get());
    if (!object) {
        LOG_ERROR("%s: json_value_get_object return NULL\n", __func__);
        return invalid;
    }
    *quota = parse_quota(object).release();
    return *quota ? ACD_FS_ERR_OK : invalid;
}

void acd_fs_account_quota_free(acd_fs_account_quota_t* quota)
{
    if (!quota)
        return;
    std::free(quota->last_calculated);
    std::free(quota);
}

const char* acd_fs_account_quota_to_string(const acd_fs_account_quota_t* quota)
{
    static char text[256];
    if (!quota)
        return nullptr;
    return snprintf_str(text, sizeof text, "{ quota: %lu, available: %lu, last_calculated: %s }",
                        quota->quota, quota->available, quota->last_calculated);
}
