// The program-wide state record. One zero-filled instance lives for the whole process; its strings are
// malloc'd and owned by it. Only the SIGUSR1 handler touches it outside the working thread, and only
// exit_flag.
#pragma once

#include <csignal>
#include <cstdio>
#include <ctime>
#include <sys/types.h>

#include "kxamazon/sync_state.h"

struct acd_sync_pair_list_t;
struct sqlite3;

struct global_t {
    int debug_curl;                   // 1: trace every HTTP request (-V)
    volatile sig_atomic_t exit_flag;  // number of the signal that asked for the stop; 0 while none did
    int syncmode;                     // 1 up, 2 down, 3 two-way; read from the configuration, without effect
    const char* token;                // OAuth2 access token
    const char* refresh;              // OAuth2 refresh token
    const char* secret;               // not used
    const char* content_url;          // base URL of uploads and downloads; ends in "/"; null while unknown
    const char* metadata_url;         // base URL of nodes, changes and quota; ends in "/"; null while unknown
    const char* serial;               // the appliance's serial, kept for reference
    const char* default_vol;          // name of the default volume
    acd_sync_pair_list_t* sync_pairs; // the configured pairs and, last, the default pair
    char amazon_default_folder[4096]; // local folder of the default pair
    mode_t dmode;                     // permission bits of folders made locally
    mode_t fmode;                     // permission bits of files; reserved
    sync_state_t sync_state;          // state last written to the status file
    time_t last_sync;                 // LastSync of the status file, seconds since the epoch
    int current;                      // progress: items done
    int total;                        // progress: items of this run
    int percentage;
    char* progress_msg;
    const char* local_snapshot; // not used
    sqlite3* db_root;           // not used: the node cache keeps its own handle
    FILE* log_fp;               // the event log, line-buffered; null when not open
};

extern global_t global;
