// Result codes of the cloud filesystem and of the request layers below it.
#pragma once

enum acd_fs_error_t : int {
    ACD_FS_ERR_INVALID_ARGUMENTS = -1, // a null argument, or a path that is not absolute
    ACD_FS_ERR_OK = 0,
    ACD_FS_ERR_INTERNAL_ERROR = 1,     // the cache could not be started or reset, or a request was malformed
    ACD_FS_ERR_SERVER_TIMEOUT = 2,     // the service did not answer in time
    ACD_FS_ERR_FORBIDDEN = 3,          // the service refused the request
    ACD_FS_ERR_RESOURCE_NOT_FOUND = 4, // no node at the path or id, or a parent that is not a folder
    ACD_FS_ERR_INVALID_TOKEN = 5,      // the access token was rejected
    ACD_FS_ERR_RESOURCE_DUPLICATE = 6, // a node of that name already exists
    ACD_FS_ERR_INVALID_RESPONSE = 7,   // a reply that could not be parsed or did not describe what was asked
    ACD_FS_ERR_OUT_OF_SPACE = 8,       // the account's storage is full
    ACD_FS_ERR_LOCAL_IO = 9,           // a local file could not be opened or written
    ACD_FS_IO_ERR_READ_WRITE_ERROR = 100, // transfer failure in the request engine
    ACD_FS_ERR_SCAN_OP_CONTINUE = 200,    // from walk callbacks only: go on, but do not descend into this one
    ACD_FS_ERR_STOPPED = 300, // the program is to end, and the cloud does not answer; see acd_io_is_stopped
};
