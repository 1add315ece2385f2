#include <gmock/gmock.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "common/owners.h"
#include "common/utils.h"
#include "support/support.h"

using namespace kxtest;
using testing::ElementsAre;
using testing::StartsWith;

namespace
{

sockaddr_un test_journal_address()
{
    sockaddr_un address{AF_UNIX, {}};
    snprintf_str(address.sun_path, sizeof address.sun_path, "%s/journal", sysroot().c_str());
    return address;
}

using fields_t = std::vector<std::string>;

// Stands where the journal would: entries sent by this program arrive here.
class journal
{
public:
    journal()
    {
        sockaddr_un address = test_journal_address();
        unlink(address.sun_path);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~journal() { unlink(test_journal_address().sun_path); }

    // The fields of each entry that has arrived since the last call, without the one that names the program.
    std::vector<fields_t> entries() const
    {
        std::vector<fields_t> all;
        std::string datagram(1 << 20, '\0');
        for (ssize_t got; (got = recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT)) >= 0;) {
            fields_t fields;
            std::istringstream lines(datagram.substr(0, static_cast<size_t>(got)));
            for (std::string line; std::getline(lines, line);) {
                if (!line.starts_with("SYSLOG_IDENTIFIER="))
                    fields.push_back(line);
            }
            all.push_back(fields);
        }
        return all;
    }

    std::vector<std::string> messages() const
    {
        std::vector<std::string> all;
        for (const fields_t& fields : entries())
            all.push_back(fields.at(0).substr(strlen("MESSAGE=")));
        return all;
    }

private:
    fd_owner socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

class utils_log : public testing::Test
{
protected:
    ~utils_log() override
    {
        g_verbose = 1;
        g_nosystemd = 0;
    }
};

struct text_case_t {
    const char* from;
    const char* to;
};

} // namespace

// The journal's library sends to a fixed socket: its datagrams are turned to the test's own.
extern "C" ssize_t sendmsg(int fd, const msghdr* message, int flags)
{
    msghdr turned = *message;
    sockaddr_un address = test_journal_address();
    auto* target = static_cast<const sockaddr_un*>(message->msg_name);
    if (target && strstr(target->sun_path, "/journal/socket")) {
        turned.msg_name = &address;
        turned.msg_namelen = sizeof address;
    }
    return syscall(SYS_sendmsg, fd, &turned, flags);
}

TEST_F(utils_log, journal_entries_carry_the_callers_place_and_nothing_else)
{
    journal journal;
    g_verbose = 100;
    for (unsigned level : {0u, 1u, 2u, 3u, 50u})
        kx_log(level, "f.cpp", 42, "%s=%d\n", "x", 7);
    EXPECT_THAT(journal.entries(),
                ElementsAre(ElementsAre("MESSAGE=x=7", "PRIORITY=3", "CODE_FILE=f.cpp", "CODE_LINE=42"),
                            ElementsAre("MESSAGE=x=7", "PRIORITY=4", "CODE_FILE=f.cpp", "CODE_LINE=42"),
                            ElementsAre("MESSAGE=x=7", "PRIORITY=6", "CODE_FILE=f.cpp", "CODE_LINE=42"),
                            ElementsAre("MESSAGE=x=7", "PRIORITY=7", "CODE_FILE=f.cpp", "CODE_LINE=42"),
                            ElementsAre("MESSAGE=x=7", "PRIORITY=7", "CODE_FILE=f.cpp", "CODE_LINE=42")));
    LOG_ERROR("here\n");
    EXPECT_EQ(journal.entries().at(0).at(2), "CODE_FILE=utils_test.cpp");
}

TEST_F(utils_log, journal_gets_each_ended_line)
{
    struct {
        std::string text;
        std::vector<std::string> messages;
    } cases[] = {
        {"a\nb\n", {"a", "b"}}, {"a\r\nb", {"a"}},
        {"plain", {}},          {"", {}},
        {"\n\r\n", {}},         {"\na\r\r100%s\n", {"a", "100%s"}},
        {" a\n", {" a"}},       {std::string(100000, 'x') + "\n", {std::string(100000, 'x')}},
    };
    journal journal;
    for (const auto& c : cases) {
        LOG_ERROR("%s", c.text.c_str());
        EXPECT_EQ(journal.messages(), c.messages) << c.text;
    }
}

TEST_F(utils_log, standard_error_gets_the_bytes_as_they_are)
{
    g_nosystemd = 1;
    g_verbose = 9;
    auto written = [](unsigned level, const std::string& text) {
        return output_of(2, [&] { kx_log(level, "f.cpp", 42, "%s", text.c_str()); });
    };
    EXPECT_EQ(written(E_ERROR, "x\n"), "\033[31mf.cpp:42(error) x\n\033[39m");
    EXPECT_EQ(written(E_WARN, "x\n"), "\033[33mf.cpp:42(warn) x\n\033[39m");
    EXPECT_EQ(written(E_INFO, "a\r\nb"), "\033[32mf.cpp:42(info) a\r\nb\033[39m");
    EXPECT_EQ(written(E_DEBUG, ""), "\033[39mf.cpp:42(debug) \033[39m");
    EXPECT_EQ(written(9, std::string(100000, 'x')),
              "\033[39mf.cpp:42(debug) " + std::string(100000, 'x') + "\033[39m");
}

TEST_F(utils_log, verbosity_filters_and_spares_the_arguments)
{
    struct {
        int verbose;
        size_t let_through; // of the levels 0, 1, 2, 3, 4
    } cases[] = {{0, 1}, {1, 2}, {2, 3}, {3, 4}, {4, 5}, {-1, 5}};
    journal journal;
    EXPECT_EQ(g_verbose, 1);
    for (auto [verbose, let_through] : cases) {
        g_verbose = verbose;
        for (unsigned level = 0; level <= 4; level++)
            kx_log(level, "f", 1, "x\n");
        EXPECT_EQ(journal.entries().size(), let_through) << verbose;
    }
    g_verbose = 1;
    int evaluated = 0;
    LOG_DEBUG("%d\n", ++evaluated);
    LOG_INFO("%d\n", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    LOG_WARN("%d\n", ++evaluated);
    EXPECT_THAT(journal.messages(), ElementsAre("1"));
}

TEST(utils, formatting_always_ends_in_a_nul)
{
    char buf[8];
    memset(buf, 'z', sizeof buf);
    EXPECT_EQ(safe_snprintf(buf, 4, "%s", "abcdef"), 6);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'z');
    EXPECT_EQ(snprintf_str(buf, sizeof buf, "%d", 12), buf);
    EXPECT_STREQ(buf, "12");
    EXPECT_EQ(buf[7], '\0');

    char* raw;
    EXPECT_EQ(safe_asprintf(&raw, "%s-%d", "a", 1), 3);
    EXPECT_STREQ(string_ptr(raw).get(), "a-1");
    EXPECT_STREQ(string_ptr(asprintf_str("%0*d", 5000, 1)).get() + 4999, "1");
}

TEST(utils, memory_helpers_take_null_and_do_not_leak)
{
    EXPECT_EQ(safe_strdup(nullptr), nullptr);
    EXPECT_STREQ(string_ptr(safe_strdup("a")).get(), "a");
    EXPECT_EQ(safe_realloc(malloc(1), 0), nullptr);
#ifndef __SANITIZE_ADDRESS__ // which ends the program instead
    volatile size_t too_much = PTRDIFF_MAX;
    EXPECT_EQ(safe_realloc(malloc(1), too_much), nullptr);
#endif

    EXPECT_EQ(strappend(nullptr, nullptr), nullptr);
    EXPECT_STREQ(string_ptr(strappend(nullptr, "", nullptr)).get(), "");
    EXPECT_STREQ(string_ptr(strappend(strdup("a"), "bc", "", "d", nullptr)).get(), "abcd");
}

TEST(utils, chomp_cuts_white_space_behind)
{
    for (auto [from, to] : {text_case_t{"a \r\n", "a"}, {" a b\t\v\f", " a b"}, {"", ""}, {" \n", ""}}) {
        string_ptr text(strdup(from));
        chomp(text.get());
        EXPECT_STREQ(text.get(), to);
    }
    EXPECT_DEATH(chomp(nullptr), "`str'");
}

TEST(utils, escaped_texts_reach_the_shell_as_they_were)
{
    EXPECT_EQ(escape_for_shell(nullptr), nullptr);
    EXPECT_STREQ(string_ptr(escape_for_shell("")).get(), "");
    std::string special = "! \t\\&()|^<>?*[]$`\"'{}";
    for (int c = 1; c < 256; c++) {
        std::string text(1, static_cast<char>(c));
        bool escaped = special.find(text) != std::string::npos;
        EXPECT_EQ(string_ptr(escape_for_shell(text.c_str())).get(), escaped ? "\\" + text : text) << c;
    }
    std::string text = special + "a$HOME`id`$(id)*'\"\\\\ {1,2}-_.:,/@%+=\xC3\xA4" + special;
    string_ptr quoted(escape_for_shell(text.c_str()));
    std::string file = new_folder() + "/echo";
    string_ptr command(asprintf_str("printf %%s %s > %s", quoted.get(), file.c_str()));
    EXPECT_EQ(safe_system(command.get()), 0);
    EXPECT_EQ(read_file(file), text);
    EXPECT_EQ(safe_system("exit 3"), 3 << 8);
}

TEST(utils, unescaping_undoes_shell_quoting)
{
    const text_case_t cases[] = {
        {"", ""},
        {"abc", "abc"},
        {"'a b'", "a b"},
        {"''", ""},
        {"'a\\'", "a\\"},
        {"'abc", nullptr},
        {"\"abc", nullptr},
        {"\"abc\\", nullptr},
        {"'a'\"b", nullptr},
        {"\"a\\$b\"", "a$b"},
        {"\"\\`\\!\\\\\\\n\"", "`!\\\n"},
        {"\"a\\xb\"", "a\\xb"},
        {"\"a\\\"b\"", "a\\b"}, // the backslash stays, so the quote closes; b is unquoted, the text ends
        {"'a'\"b\"''c", "abc"},
        {"'ab'cd", "abcd"},
        {"ab'cd'", "ab"},
        {"'a'b\"c\"", "ab"},
        {"a\\\nb\\c\\'d", "abc'd"},
        {"a\\", "a"},
    };
    for (auto [from, to] : cases) {
        string_ptr text(strdup(from));
        char* result = unescape_for_shell(text.get());
        EXPECT_STREQ(result, to) << from;
        EXPECT_TRUE(!result || result == text.get());
    }
    EXPECT_DEATH(unescape_for_shell(nullptr), "`src'");
}

TEST(utils, query_strings_are_read_by_the_first_matching_pair)
{
    struct {
        const char* key;
        const char* qs;
        const char* value;
    } cases[] = {
        {"k", "&&a=1&k=x+y&k=z", "x y"},
        {"k", "k", ""},
        {"k", "a&k=", ""},
        {"k", "kk=1&k=b=c%20", "b=c%20"},
        {"a b", "a+b=1", "1"},
        {"K", "k=1", nullptr},
        {"k", "a=k&&b", nullptr},
        {"", "a=1&&=2", "2"},
        {"", "&&", nullptr},
        {"k", "", nullptr},
        {"k", nullptr, nullptr},
        {nullptr, "k=1", nullptr},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(string_ptr(get_val_from_qstring(c.key, c.qs)).get(), c.value) << (c.qs ? c.qs : "null");
}

TEST(utils, mkdir_p_makes_what_is_missing)
{
    std::string root = new_folder();
    mode_t old_mask = umask(0);
    EXPECT_EQ(mkdir_p((root + "//a///b/c/").c_str(), 0751), 0);
    EXPECT_EQ(mkdir_p((root + "/a/b/c").c_str(), 0700), 0);
    umask(old_mask);
    EXPECT_THAT(tree_of(root), ElementsAre("a/", "a/b/", "a/b/c/"));
    struct stat st;
    ASSERT_EQ(stat((root + "/a/b").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0751u);

    write_file(root + "/file", "");
    EXPECT_EQ(mkdir_p((root + "/file").c_str(), 0755), -1);
    EXPECT_EQ(mkdir_p((root + "/file/a").c_str(), 0755), -1);
    EXPECT_EQ(mkdir_p("/proc/none/a", 0755), -1);
    EXPECT_EQ(mkdir_p("", 0755), -1);
    EXPECT_EQ(mkdir_p(nullptr, 0755), -1);
}

TEST(utils, mv_moves_files_and_folders_with_any_quoting)
{
    std::string root = new_folder();
    write_file(root + "/it's a \"file\" $1", "content");
    write_file(root + "/folder/a", "");
    safe_mv((root + "/it's a \"file\" $1").c_str(), (root + "/folder/(b) [*]").c_str());
    safe_mv((root + "/folder").c_str(), (root + "/moved & gone").c_str());
    EXPECT_THAT(tree_of(root), ElementsAre("moved & gone/", "moved & gone/(b) [*]", "moved & gone/a"));
    EXPECT_EQ(read_file(root + "/moved & gone/(b) [*]"), "content");
    safe_mv(nullptr, root.c_str());
}
