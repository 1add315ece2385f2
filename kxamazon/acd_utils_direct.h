// One request to the cloud without the request engine: a handle of its own, one attempt, certificates not
// verified. The token and account calls are made of it.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "common/json_utils.h"
#include "kxamazon/acd_utils.h"

// The result of a call that got no usable answer, whether the cause is local or on the way.
constexpr int direct_failed = 500;

// A GET, or a POST when there is a body. All pointers are borrowed.
struct direct_call_t {
    std::string url = {};
    std::string header = {}; // the only header line; empty for none
    const char* post_body = nullptr;
    const char* accept_encoding = nullptr;
    FILE* download_fp = nullptr; // takes the reply's body in place of the reply buffer
    int quiet_verbosity = 2;     // the highest verbosity at which -V shows nothing yet
};

// Collects a reply and frees it.
struct direct_reply_t : rcvbuf {
    long status = 0; // HTTP status; 0 when there was no answer

    direct_reply_t() : rcvbuf{0, nullptr} {}
    direct_reply_t(const direct_reply_t&) = delete;
    direct_reply_t& operator=(const direct_reply_t&) = delete;
    ~direct_reply_t() { std::free(buf); }
};

// 0 for status 200; the status of any other answer, which the caller reports; direct_failed, already logged,
// without one.
int direct_call(const direct_call_t& call, direct_reply_t& reply);

// "Authorization: Bearer " and the current access token.
std::string bearer_header();
