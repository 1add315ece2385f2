// The state that the status file shows to the management interface.
#pragma once

enum sync_state_t {
    SYNC_STATE_UP_TO_DATE = 0,
    SYNC_STATE_SYNCING = 1,
    SYNC_STATE_ACCOUNT_ERROR = 2, // never written by the service
    SYNC_STATE_UNKNOWN = 3,       // never written by the service
};
