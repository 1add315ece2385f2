#include "kxamazon/service.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include <libxml/parser.h>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_fs.h"
#include "kxamazon/acd_fs_cache.h"
#include "kxamazon/acd_sync_utils.h"
#include "kxamazon/acd_utils.h"
#include "kxamazon/global.h"
#include "kxamazon/sync.h"

namespace
{

constexpr size_t local_path_size = 4096;
constexpr size_t share_command_size = 256;
constexpr size_t account_line_size = 128;

void free_xml_string(xmlChar* text)
{
    xmlFree(text);
}

using xml_doc_ptr = owner<xmlDoc, xmlFreeDoc>;
using xml_string_ptr = owner<xmlChar, free_xml_string>;

// ---- XML files ----

// Null when the file is missing or does not parse. A missing file is asked for first: libxml2 would print a
// warning.
xml_doc_ptr read_xml_file(const char* path)
{
    if (access(path, R_OK) != 0)
        return nullptr;
    xmlInitParser();
    xmlKeepBlanksDefault(0);
    return xml_doc_ptr(xmlReadFile(path, "utf-8", XML_PARSE_NOERROR));
}

bool is_element(const xmlNode* node, const char* name)
{
    return node->type == XML_ELEMENT_NODE && strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

// The text that an element begins with, borrowed; null when it begins with something else or is empty.
const char* first_text(const xmlNode* element)
{
    const xmlNode* child = element->children;
    if (!child || (child->type != XML_TEXT_NODE && child->type != XML_CDATA_SECTION_NODE))
        return nullptr;
    return reinterpret_cast<const char*>(child->content);
}

string_ptr attribute(xmlNode* element, const char* name)
{
    xml_string_ptr value(xmlGetProp(element, reinterpret_cast<const xmlChar*>(name)));
    return string_ptr(safe_strdup(reinterpret_cast<const char*>(value.get())));
}

void read_last_sync()
{
    xml_doc_ptr doc = read_xml_file(kx_status_path);
    const xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    if (!root)
        return;
    for (const xmlNode* node = root->children; node; node = node->next) {
        if (!is_element(node, "LastSync"))
            continue;
        const char* text = first_text(node);
        global.last_sync = text ? static_cast<int32_t>(strtol(text, nullptr, 10)) : 0;
    }
}

// ---- Configuration ----

struct sync_mode_t {
    const char* text;
    int mode;
};
const sync_mode_t sync_modes[] = {{"bidir", 3}, {"up", 1}, {"down", 2}};

void read_mode_and_serial(xmlNode* root)
{
    if (string_ptr mode = attribute(root, "mode")) {
        for (const sync_mode_t& row : sync_modes) {
            if (strcmp(mode.get(), row.text) == 0)
                global.syncmode = row.mode;
        }
    }
    if (string_ptr serial = attribute(root, "serial"); serial && *serial)
        global.serial = serial.release();
}

// A pair of copies of both paths that owes both full passes.
sync_pair_entry_ptr new_pair(const char* local_path, const char* cloud_path)
{
    sync_pair_entry_ptr pair(acd_sync_create_sync_pair_entry());
    pair->local_drive_path = safe_strdup(local_path);
    pair->cloud_drive_path = safe_strdup(cloud_path);
    pair->need_full_downsync = 1;
    pair->need_full_upsync = 1;
    return pair;
}

// The pair of one ShareId element; null, with a message, when it names no share of a volume.
sync_pair_entry_ptr read_share(const xmlNode* share)
{
    const char* content = first_text(share);
    if (!content) {
        LOG_ERROR("Bad Configuration for <LocalFolder>\n");
        return nullptr;
    }
    char local_path[local_path_size];
    safe_snprintf(local_path, sizeof local_path, "/%s", content);
    const char* slash = strrchr(content, '/');
    if (!slash) {
        LOG_ERROR("Bad local_root_folder=%s\n", local_path);
        return nullptr;
    }
    string_ptr cloud_path(asprintf_str("%s/%s", get_nas_drive_root_path(), slash + 1));
    return new_pair(local_path, cloud_path.get());
}

sync_pair_list_ptr read_configuration()
{
    xml_doc_ptr doc = read_xml_file(kx_config_path);
    xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
    if (!root) {
        LOG_ERROR("%s: Failed to read configuration!\n", "service");
        exit(1);
    }
    read_mode_and_serial(root);
    return sync_pair_list_ptr(read_sync_pair_config(root->children));
}

// ---- Start-up ----

void init_global()
{
    global.syncmode = 3;
    global.sync_pairs = nullptr;
    global.amazon_default_folder[0] = '\0';
    global.dmode = 0777;
    global.fmode = 0666;
    global.current = global.total = global.percentage = 0;
    global.progress_msg = nullptr;
}

void read_default_volume()
{
    char line[account_line_size] = "";
    if (file_ptr file{fopen(kx_account_conf_path, "r")})
        (void)!fgets(line, sizeof line, file.get());

    char name[16 + 1];
    char volume[112 + 1] = "";
    if (sscanf(line, "%16[^!!]!!%112[^\n]", name, volume) != 2)
        LOG_ERROR("Failed to get default volume from account.conf\n");
    else
        global.default_vol = safe_strdup(volume);
    LOG_DEBUG("Default volume is %s\n", volume);
}

// Without a default volume there is no default folder, and no default pair later.
void ensure_default_folder()
{
    if (!global.default_vol) {
        LOG_ERROR("%s: No default volume, the default folder is not synced!\n", "service");
        return;
    }
    safe_snprintf(global.amazon_default_folder, sizeof global.amazon_default_folder, "/%s/AmazonCloudDrive",
                  global.default_vol);
    struct stat st;
    if (stat(global.amazon_default_folder, &st) == 0)
        return;
    char command[share_command_size];
    safe_snprintf(command, sizeof command, "vz_nml -a share:/%s/AmazonCloudDrive", global.default_vol);
    if (system(command) != 0)
        LOG_ERROR("ERROR creating sub volume %s\n", global.amazon_default_folder);
}

// False when a stop came first.
bool init_filesystem()
{
    const acd_fs_error_t rc = acd_fs_init();
    if (rc == ACD_FS_ERR_STOPPED)
        return false;
    if (rc != ACD_FS_ERR_OK) {
        LOG_ERROR("Failed to initialize ACD filesystem!\n");
        exit(1);
    }
    LOG_INFO("Initialize ACD filesystem successfully.\n");
    return true;
}

// The configured pairs and, last, the default pair, with the flags that the cache kept. Every start owes
// every pair a full upload, since local changes made while the service was down left no event.
sync_pair_list_ptr load_sync_pairs()
{
    sync_pair_list_ptr list = read_configuration();
    if (global.default_vol)
        acd_sync_sync_pair_list_insert_tail(list.get(),
                                            new_pair(global.amazon_default_folder, "/").release());

    if (acd_cache_error_t rc = acd_cache_load_sync_pair_config(list.get()); rc != ACD_CACHE_ERR_OK)
        LOG_ERROR("%s: Failed to load sync pair configuration! %d\n", "service", rc);
    else
        LOG_INFO("Cache: Load sync pair configuration successfully!\n");

    acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list.get(), entries) {
        LOG_INFO("Setup sync [%s] <===> [%s] (need_full_downsync: %d, need_full_upsync: %d)\n",
                 pair->local_drive_path, pair->cloud_drive_path, pair->need_full_downsync,
                 pair->need_full_upsync);
        pair->need_full_upsync = 1;
    }
    return list;
}

void shut_down(sync_pair_list_ptr list)
{
    acd_fs_deinit();
    write_status(SYNC_STATE_UP_TO_DATE);
    add_log("LOGMSG_AMAZONDRIVE_SERVICE_STOP", nullptr);
    if (global.log_fp)
        fclose(global.log_fp);
    global.log_fp = nullptr;
    list.reset();
    global.sync_pairs = nullptr;
    LOG_DEBUG("Exit from service()\n");
}

} // namespace

acd_sync_pair_list_t* read_sync_pair_config(xmlNode* first_child)
{
    sync_pair_list_ptr list(acd_sync_create_sync_pair_list());
    for (const xmlNode* node = first_child; node; node = node->next) {
        if (is_element(node, "ShareId"))
            acd_sync_sync_pair_list_insert_tail(list.get(), read_share(node).release());
    }
    const acd_sync_pair_entry_t* pair;
    TAILQ_FOREACH (pair, list.get(), entries) {
        LOG_DEBUG("%s: %s <===> %s %d %d\n", __func__, pair->local_drive_path, pair->cloud_drive_path,
                  pair->need_full_downsync, pair->need_full_upsync);
    }
    return list.release();
}

int service()
{
    LOG_INFO("kxamazon service started.\n");
    add_log("LOGMSG_AMAZONDRIVE_SERVICE_START", nullptr);
    if (acd_init() != 0) {
        LOG_ERROR("Not provisioned\n");
        return -1;
    }
    init_global();
    read_default_volume();
    ensure_default_folder();
    read_last_sync();
    write_status(SYNC_STATE_UP_TO_DATE);
    sync_pair_list_ptr list;
    if (init_filesystem()) {
        list = load_sync_pairs();
        global.sync_pairs = list.get();
        global.last_sync = time(nullptr);
        sync_folder(global.syncmode, 0);
    }
    shut_down(std::move(list));
    return 0;
}
