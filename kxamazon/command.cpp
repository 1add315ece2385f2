#include "kxamazon/command.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "common/json_utils.h"
#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/acd_utils.h"

// Messages are errors throughout, those of success too: a tool shows them whatever the verbosity.

namespace
{

constexpr off_t max_put_size_byte = 150000;

using words_t = std::vector<const char*>;

// The words that a command takes behind its name.
struct words_rule_t {
    size_t least;
    size_t most;
    const char* options; // letters of the options that are taken and ignored
    void (*missing)();
    void (*excess)(const char* word);
};

void two_paths(const char*)
{
    LOG_ERROR("Cannot specify two remote_path\n");
}

void two_checkpoints(const char*)
{
    LOG_ERROR("Cannot specify two checkpoints\n");
}

void bad_operand(const char* word)
{
    LOG_ERROR("Bad operand %s\n", word);
}

void no_put_paths()
{
    LOG_ERROR("Need to specify local_path and remote_path\n");
}

void no_json_path()
{
    LOG_ERROR("Need to specify jsonfile_path\n");
}

const words_rule_t remote_path = {0, 1, "", nullptr, two_paths};
const words_rule_t checkpoint = {0, 1, "", nullptr, two_checkpoints};
const words_rule_t put_paths = {2, 2, "f", no_put_paths, bad_operand};
const words_rule_t json_path = {1, 1, "", no_json_path, bad_operand};

// Who may call a command how, and what it answers otherwise.
struct command_rule_t {
    const char* name;
    int min_argc;
    int wrong_call;
    int not_provisioned;       // 0: needs no account
    const words_rule_t* words; // null: the command looks at its words itself, or not at all
};

const command_rule_t rules[] = {
    {"info", 2, 1, 2, nullptr},         {"ls", 2, -1, -2, &remote_path},    {"put", 3, 1, 2, &put_paths},
    {"get", 3, 1, 0, nullptr},          {"mkdir", 1, -1, -2, &remote_path}, {"rm", 1, -1, -2, &remote_path},
    {"delta", 1, -1, -2, &checkpoint},  {"sync", 1, -1, -2, nullptr},       {"stat", 2, -1, -2, nullptr},
    {"dump-json", 1, 1, 0, &json_path}, {"upload", 1, 1, 2, nullptr},
};

const command_rule_t& rule_of(const char* name)
{
    const command_rule_t* rule = rules;
    while (std::strcmp(rule->name, name) != 0)
        ++rule;
    return *rule;
}

int check_words(const words_rule_t& rule, int argc, char** argv, words_t& words)
{
    for (int i = 1; i < argc; ++i) {
        const char* word = argv[i];
        if (word[0] == '-') {
            if (word[1] != '\0' && std::strchr(rule.options, word[1]))
                continue;
            LOG_ERROR("Unknown option -%s\n", word + 1);
            return -1;
        }
        if (words.size() == rule.most) {
            rule.excess(word);
            return -1;
        }
        words.push_back(word);
    }
    if (words.size() < rule.least) {
        rule.missing();
        return -1;
    }
    return 0;
}

// Loads the account if the command needs it and sorts its words. 0 to go on; else the command's result.
int begin(const char* name, int argc, char** argv, words_t& words)
{
    const command_rule_t& rule = rule_of(name);
    if (argc < rule.min_argc || std::strcmp(argv[0], name) != 0)
        return rule.wrong_call;
    if (rule.not_provisioned != 0 && acd_init() != 0) {
        LOG_ERROR("Not provisioned\n");
        return rule.not_provisioned;
    }
    return rule.words ? check_words(*rule.words, argc, argv, words) : 0;
}

// A command that only checks its call.
int check_only(const char* name, int argc, char** argv)
{
    words_t words;
    return begin(name, argc, argv, words);
}

int show_quota()
{
    acd_quota_t quota = {};
    int rc = acd_account_get_quota(&quota);
    std::printf("quota: %lu available: %lu\nlast updated: %s\n", quota.quota, quota.available,
                quota.last_calculated);
    return rc;
}

int show_usage()
{
    acd_usage_t usage = {};
    int rc = acd_account_get_usage(&usage);
    const std::pair<const char*, const acd_file_type_usage_t&> types[] = {
        {"other", usage.other}, {"docs", usage.doc}, {"photo", usage.photo}, {"video", usage.video}};
    for (const auto& [label, type] : types)
        std::printf("%s -- bytes: %lu count: %lu\n", label, type.total.bytes, type.total.count);
    std::printf("last updated: %s\n", usage.last_calculated);
    return rc;
}

struct info_option_t {
    char letter;
    int (*show)();
};

const info_option_t info_options[] = {
    {'e', acd_account_get_endpoint},
    {'i', acd_account_get_info},
    {'q', show_quota},
    {'u', show_usage},
};

} // namespace

int command_info(int argc, char** argv)
{
    if (int rc = check_only("info", argc, argv))
        return rc;
    int rc = 0;
    for (int i = 1; i < argc; ++i)
        for (const info_option_t& option : info_options)
            if (argv[i][0] == '-' && argv[i][1] == option.letter)
                rc = option.show();
    return rc;
}

int command_ls(int argc, char** argv)
{
    int rc = check_only("ls", argc, argv);
    return rc != 0 ? rc : 500;
}

int command_put(int argc, char** argv)
{
    words_t words;
    if (int rc = begin("put", argc, argv, words))
        return rc;
    const char* local_path = words[0];
    struct stat st;
    if (stat(local_path, &st) != 0) {
        LOG_ERROR("Cannot stat local_path=%s\n", local_path);
        return 3;
    }
    if (st.st_size > max_put_size_byte)
        LOG_ERROR("File too big.\n");
    LOG_ERROR("Upload completed.\n");
    return 0;
}

int command_get(int argc, char** argv)
{
    if (int rc = check_only("get", argc, argv))
        return rc;
    const char *remote = argv[1], *local_path = argv[2];
    if (!remote || !local_path) {
        LOG_ERROR("Need to specify remote_path and local_path\n");
        return -1;
    }
    struct stat st;
    if (stat(local_path, &st) != 0) {
        LOG_ERROR("Stat failed local path: %s\n", local_path);
        return -1;
    }
    LOG_ERROR("Download completed.\n");
    return 0;
}

int command_mkdir(int argc, char** argv)
{
    return check_only("mkdir", argc, argv);
}

int command_rm(int argc, char** argv)
{
    return check_only("rm", argc, argv);
}

int command_delta(int argc, char** argv)
{
    words_t words;
    if (int rc = begin("delta", argc, argv, words))
        return rc;
    string_ptr feed;
    int rc = acd_get_sync_changes(words.empty() ? nullptr : words[0], out(feed));
    if (feed)
        std::fputs(feed.get(), stdout);
    return rc;
}

int command_sync(int argc, char** argv)
{
    LOG_ERROR("Unknown option %d\n", argc);
    return check_only("sync", argc, argv);
}

int command_stat(int argc, char** argv)
{
    return check_only("stat", argc, argv);
}

int command_dump_json(int argc, char** argv)
{
    words_t words;
    if (int rc = begin("dump-json", argc, argv, words))
        return rc;
    dump_jsonfile(words[0]);
    return 0;
}

int command_upload(int argc, char** argv)
{
    return check_only("upload", argc, argv);
}
