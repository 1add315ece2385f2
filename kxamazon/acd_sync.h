// The full passes over every sync pair that still owes one.
#pragma once

#include "kxamazon/acd_sync_pair.h"

// Full download of each pair that owes one; a failed pair keeps owing it. The result is that of the last pass
// run.
int acd_downsync_cloud_drive(acd_sync_pair_list_t* list);

// Full upload of each pair that owes one; afterwards it owes none, failed or not.
int acd_upsync_local_drive(acd_sync_pair_list_t* list);
