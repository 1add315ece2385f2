// The account's storage quota.
#pragma once

#include <cstdint>

#include "common/owners.h"
#include "kxamazon/acd_fs_error.h"

struct acd_fs_account_quota_t {
    uint64_t quota;        // bytes
    uint64_t available;    // bytes
    char* last_calculated; // the service's own time text, owned
};

// *quota is a new record for the caller; null on failure. -1 for a null out pointer; a quota or free space of
// 0 is an invalid response.
acd_fs_error_t acd_fs_account_get_quota(acd_fs_account_quota_t** quota);

void acd_fs_account_quota_free(acd_fs_account_quota_t* quota);

// One line in a static buffer; null for null.
const char* acd_fs_account_quota_to_string(const acd_fs_account_quota_t* quota);

using account_quota_ptr = owner<acd_fs_account_quota_t, acd_fs_account_quota_free>;
