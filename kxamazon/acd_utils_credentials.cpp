#include "kxamazon/acd_utils.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/cipher_utils.h"
#include "common/constants.h"
#include "common/json_utils.h"
#include "common/owners.h"
#include "common/secrets.h"
#include "common/utils.h"
#include "kxamazon/acd_utils_direct.h"
#include "kxamazon/global.h"

namespace
{

constexpr int drive_module = 1; // the key pair of the cloud drive
constexpr size_t line_size = 4096;

// The application's own credential; empty until a renewal first needs it.
char client_id[62];
char client_secret[65];

// True while a renewal runs: the discovery at its end may be refused too, and must not start another one.
bool renewing = false;

class renewal_scope
{
public:
    renewal_scope() { renewing = true; }
    renewal_scope(const renewal_scope&) = delete;
    ~renewal_scope() { renewing = false; }
};

// ---- Settings file ----

bool read_line(FILE* file, char (&line)[line_size])
{
    if (!std::fgets(line, sizeof line, file))
        return false;
    line[sizeof line - 1] = '\0';
    chomp(line);
    return true;
}

// What follows "KEY=" when the line begins so; else null.
const char* value_of(const char* line, const char* key)
{
    size_t length = std::strlen(key);
    return std::strncmp(line, key, length) == 0 && line[length] == '=' ? line + length + 1 : nullptr;
}

string_ptr read_provision()
{
    file_ptr file(std::fopen(kx_settings_path, "r"));
    char line[line_size];
    while (file && read_line(file.get(), line))
        if (const char* value = value_of(line, "AMAZONDRIVE_PROVISION"))
            return string_ptr(safe_strdup(value));
    return nullptr;
}

bool _check_authorization()
{
    string_ptr provision = read_provision();
    string_ptr record(decrypt_hexstr2str(provision.get(), drive_module));
    string_ptr state(get_val_from_qstring("state", record.get()));
    return state && std::strcmp(state.get(), "authorized") == 0;
}

struct tokens_t {
    string_ptr access;
    string_ptr refresh;
};

void unquote(string_ptr& value)
{
    if (value && !unescape_for_shell(value.get()))
        value.reset();
}

// The last line of each key counts, even where its quoting is broken and leaves no value.
tokens_t read_tokens(FILE* file)
{
    tokens_t tokens;
    char line[line_size];
    while (read_line(file, line)) {
        if (const char* access = value_of(line, "AMAZONDRIVE_ACCESS_TOKEN"))
            tokens.access.reset(safe_strdup(access));
        else if (const char* refresh = value_of(line, "AMAZONDRIVE_REFRESH_TOKEN"))
            tokens.refresh.reset(safe_strdup(refresh));
    }
    unquote(tokens.access);
    unquote(tokens.refresh);
    return tokens;
}

// ---- Renewal ----

// Fills client_id and client_secret; leaves them empty, to be tried again, when the credential cannot be
// read.
void _get_amazon_credential()
{
    if (client_id[0] != '\0')
        return;
    string_ptr credential(decrypt_hexstr2str(kx_client_credential, drive_module));
    char* colon = credential ? std::strchr(credential.get(), ':') : nullptr;
    if (!colon) {
        LOG_ERROR("Error: cannot get credential.\n");
        return;
    }
    *colon = '\0';
    safe_snprintf(client_id, sizeof client_id, "%s", credential.get());
    safe_snprintf(client_secret, sizeof client_secret, "%s", colon + 1);
}

std::string renewal_body()
{
    _get_amazon_credential();
    return std::string("grant_type=refresh_token&refresh_token=") + (global.refresh ? global.refresh : "") +
           "&client_id=" + client_id + "&client_secret=" + client_secret;
}

// Puts the tokens of a renewal's reply in place of the current ones, which stay when the reply lacks any:
// without them no later renewal could succeed.
int take_tokens(const JSON_Object* reply)
{
    const char* token = json_object_get_string(reply, "access_token");
    const char* refresh = json_object_get_string(reply, "refresh_token");
    if (!token || !refresh) {
        LOG_ERROR("%s: The reply holds no tokens!\n", "acd_refresh_token");
        return direct_failed;
    }
    _free_global();
    global.token = safe_strdup(token);
    global.refresh = safe_strdup(refresh);
    return 0;
}

// ---- Error replies ----

struct status_text_t {
    int http_code;
    const char* text;
};

const status_text_t status_texts[] = {
    {400, "Bad input parameter."},
    {401, "Client has passed in an invalid Auth token."},
    {403, "Forbidden."},
    {404, "Resource not found."},
    {405, "Method not allowed."},
    {409, "Conflict."},
    {411, "The Content-Length header was not specified."},
    {412, "Precondition Failed."},
    {429, "Too Many Requests."},
    {500, "Internal server Error. Servers are not working as expected. The request is probably valid, please "
          "again later."},
    {503, "Service Unavailable."},
};

void log_status(int http_code, const char* error_msg)
{
    auto row = std::find_if(std::begin(status_texts), std::end(status_texts),
                            [&](const status_text_t& status) { return status.http_code == http_code; });
    if (row != std::end(status_texts))
        LOG_ERROR("ACD Error: %s [ERROR_MSG]: %s\n", row->text, error_msg);
    else
        LOG_ERROR("ACD Error: Unknown http_code %d. [ERROR_MSG]: %s\n", http_code, error_msg);
}

const char* message_of(const JSON_Object* reply)
{
    for (const char* name : {"message", "Message"})
        if (const char* text = json_object_get_string(reply, name))
            return text;
    return "(null)";
}

} // namespace

int acd_init()
{
    LOG_DEBUG("amazon_clouddrive_init()\n");
    if (!_check_authorization())
        return 1;
    file_ptr file(std::fopen(kx_settings_path, "r"));
    if (!file)
        return 2;
    tokens_t tokens = read_tokens(file.get());
    if (!tokens.access)
        return 3;
    if (!tokens.refresh)
        return 4;
    _free_global();
    global.token = tokens.access.release();
    global.refresh = tokens.refresh.release();
    acd_account_get_endpoint();
    return 0;
}

int acd_account_get_endpoint()
{
    direct_call_t call{.url = std::string(kx_account_url) + "/drive/v1/account/endpoint"};
    call.header = bearer_header();
    direct_reply_t reply;
    if (int rc = direct_call(call, reply)) {
        if (reply.status != 0)
            _http_response_handler(rc, reply.buf);
        return rc;
    }
    json_ptr json(json_parse_string(reply.buf));
    const JSON_Object* urls = json_value_get_object(json.get());
    replace_text(global.content_url, json_object_get_string(urls, "contentUrl"));
    replace_text(global.metadata_url, json_object_get_string(urls, "metadataUrl"));
    if (g_verbose > 2)
        dump_json_value_flex("account_info", json.get());
    return 0;
}

int acd_refresh_token()
{
    renewal_scope scope;
    std::string body = renewal_body();
    LOG_DEBUG("POST=%s\n", body.c_str());
    direct_call_t call{.url = std::string(kx_auth_url) + "/auth/o2/token"};
    call.post_body = body.c_str();
    direct_reply_t reply;
    if (int rc = direct_call(call, reply))
        return rc;
    json_ptr json(json_parse_string(reply.buf));
    if (int rc = take_tokens(json_value_get_object(json.get())))
        return rc;
    acd_account_get_endpoint();
    if (g_verbose > 2)
        dump_json_value_flex("refresh_access_token", json.get());
    return 0;
}

void _free_global()
{
    replace_text(global.token, nullptr);
    replace_text(global.refresh, nullptr);
    replace_text(global.metadata_url, nullptr);
    replace_text(global.content_url, nullptr);
}

int _http_response_handler(int http_code, const char* msg)
{
    if (!msg)
        return http_code;
    json_ptr json(json_parse_string(msg));
    log_status(http_code, message_of(json_value_get_object(json.get())));
    if (http_code == 401 && !renewing) {
        LOG_DEBUG("Retrieving new token...\n");
        acd_refresh_token();
    }
    return http_code;
}
