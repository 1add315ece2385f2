#include <gmock/gmock.h>

#include <cstring>
#include <filesystem>
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
using texts_t = std::vector<std::string>;

namespace
{

sockaddr_un test_journal_address()
{
    sockaddr_un address{AF_UNIX, {}};
    snprintf_str(address.sun_path, sizeof address.sun_path, "%s/journal", sysroot().c_str());
    return address;
}

// Stands where the journal would: entries sent by this program arrive here.
class utils_log : public testing::Test
{
protected:
    utils_log()
    {
        sockaddr_un address = test_journal_address();
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    ~utils_log() override
    {
        unlink(test_journal_address().sun_path);
        g_verbose = 1;
        g_nosystemd = 0;
    }

    // What has arrived since the last call, without the field in which the library names the program.
    texts_t entries() const
    {
        texts_t all;
        std::string datagram(1 << 20, '\0');
        for (ssize_t got; (got = recv(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT)) >= 0;) {
            std::string fields = datagram.substr(0, static_cast<size_t>(got));
            all.push_back(fields.substr(0, fields.find("SYSLOG_IDENTIFIER=")));
        }
        return all;
    }

private:
    fd_owner socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

std::string entry(const std::string& message, int priority)
{
    return "MESSAGE=" + message + "\nPRIORITY=" + std::to_string(priority) +
           "\nCODE_FILE=f.cpp\nCODE_LINE=42\n";
}

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

TEST_F(utils_log, each_level_has_its_priority_name_and_colour)
{
    const std::tuple<unsigned, int, std::string> levels[] = {
        {E_ERROR, 3, "\033[31mf.cpp:42(error) "}, {E_WARN, 4, "\033[33mf.cpp:42(warn) "},
        {E_INFO, 6, "\033[32mf.cpp:42(info) "},   {E_DEBUG, 7, "\033[39mf.cpp:42(debug) "},
        {50, 7, "\033[39mf.cpp:42(debug) "},
    };
    g_verbose = 100;
    for (const auto& [level, priority, prefix] : levels) {
        g_nosystemd = 0;
        kx_log(level, "f.cpp", 42, "x=%d\n", 7);
        EXPECT_THAT(entries(), ElementsAre(entry("x=7", priority)));
        g_nosystemd = 1;
        for (const std::string& text : {std::string("a\r\nb"), std::string(100000, 'x') + "\n"})
            EXPECT_EQ(output_of(2, [&, l = level] { kx_log(l, "f.cpp", 42, "%s", text.c_str()); }),
                      prefix + text + "\033[39m");
    }
}

TEST_F(utils_log, the_journal_gets_each_ended_line)
{
    const std::string lengthy(100000, 'x');
    const std::pair<std::string, texts_t> cases[] = {
        {"a\nb\n", {"a", "b"}},
        {"a\r\nb", {"a"}},
        {"plain", {}},
        {"", {}},
        {"\n\r\n", {}},
        {"\na\r\r100%s\n b\n", {"a", "100%s", " b"}},
        {lengthy + "\n", {lengthy}},
    };
    for (const auto& [text, messages] : cases) {
        texts_t expected;
        for (const std::string& message : messages)
            expected.push_back(entry(message, 3));
        kx_log(E_ERROR, "f.cpp", 42, "%s", text.c_str());
        EXPECT_EQ(entries(), expected) << text;
    }
}

TEST_F(utils_log, verbosity_filters_and_spares_the_arguments)
{
    EXPECT_EQ(g_verbose, 1);
    for (auto [verbose, let_through] : {std::pair{0, 1u}, {1, 2u}, {2, 3u}, {3, 4u}, {4, 5u}, {-1, 5u}}) {
        g_verbose = verbose;
        for (unsigned level = 0; level <= 4; level++)
            kx_log(level, "f.cpp", 42, "x\n");
        EXPECT_EQ(entries().size(), let_through) << verbose;
    }
    g_verbose = 1;
    int evaluated = 0;
    LOG_DEBUG("%d\n", ++evaluated);
    LOG_WARN("%d\n", ++evaluated);
    EXPECT_THAT(entries(), ElementsAre(testing::ContainsRegex("^MESSAGE=1\n.*\nCODE_FILE=utils_test.cpp\n")));
}

TEST(utils, formatting_ends_in_a_nul_and_appending_grows)
{
    char buf[] = "zzzzzzz";
    EXPECT_EQ(safe_snprintf(buf, 4, "%s", "abcdef"), 6);
    EXPECT_STREQ(buf, "abc");
    EXPECT_EQ(buf[4], 'z');
    EXPECT_STREQ(string_ptr(asprintf_str("%0*d", 5000, 1)).get() + 4999, "1");
    EXPECT_EQ(safe_realloc(malloc(1), 0), nullptr);
    EXPECT_EQ(strappend(nullptr, nullptr), nullptr);
    EXPECT_STREQ(string_ptr(strappend(nullptr, "", nullptr)).get(), "");
    EXPECT_STREQ(string_ptr(strappend(strdup("a"), "bc", "", "d", nullptr)).get(), "abcd");
}

TEST(utils, escaped_texts_reach_the_shell_as_they_were)
{
    std::string special = "! \t\\&()|^<>?*[]$`\"'{}";
    for (int c = 1; c < 256; c++) {
        std::string text(1, static_cast<char>(c));
        bool escaped = special.find(text) != std::string::npos;
        EXPECT_EQ(string_ptr(escape_for_shell(text.c_str())).get(), escaped ? "\\" + text : text) << c;
    }
    EXPECT_STREQ(string_ptr(escape_for_shell("")).get(), "");

    std::string text = special + "a$HOME`id`$(id)*'\"\\\\ {1,2}-_.:,/@%+=\xC3\xA4" + special;
    std::string file = new_folder() + "/echo";
    string_ptr quoted(escape_for_shell(text.c_str()));
    string_ptr command(asprintf_str("printf %%s %s > %s; exit 3", quoted.get(), file.c_str()));
    EXPECT_EQ(safe_system(command.get()), 3 << 8);
    EXPECT_EQ(read_file(file), text);
}

TEST(utils, unescaping_undoes_shell_quoting)
{
    const text_case_t cases[] = {
        {"", ""},
        {"'a b'", "a b"},
        {"'a\\'", "a\\"},
        // quotes that are not closed
        {"'abc", nullptr},
        {"\"abc\\", nullptr},
        {"'a'\"b", nullptr},
        // backslashes between double quotes
        {"\"a\\$b\"", "a$b"},
        {"\"\\`\\!\\\\\\\n\"", "`!\\\n"},
        {"\"a\\xb\"", "a\\xb"},
        {"\"a\\\"b\"", "a\\b"},
        // sections follow each other until text without quotes ends
        {"'a'\"b\"''c", "abc"},
        {"ab'cd'", "ab"},
        {"'a'b\"c\"", "ab"},
        {"a\\\nb\\c\\'d", "abc'd"},
        {"a\\", "a"},
    };
    for (auto [from, to] : cases) {
        string_ptr text(strdup(from));
        EXPECT_STREQ(unescape_for_shell(text.get()), to) << from;
    }
    EXPECT_DEATH(unescape_for_shell(nullptr), "`src'");
}

TEST(utils, query_strings_are_read_by_the_first_matching_pair)
{
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"k", "&&a=1&k=x+y&k=z", "x y"},
        {"k", "k", ""},
        {"k", "a&k=", ""},
        {"k", "kk=1&k=b=c%20", "b=c%20"},
        {"a b", "a+b=1", "1"},
        {"K", "k=1", nullptr},
        {"", "a=1&&=2", "2"},
        {"", "&&", nullptr},
        {nullptr, "k=1", nullptr},
    };
    for (auto [key, qs, value] : cases)
        EXPECT_STREQ(string_ptr(get_val_from_qstring(key, qs)).get(), value) << qs;
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
    for (const std::string& path :
         {root + "/file", root + "/file/a", std::string("/proc/none/a"), std::string()})
        EXPECT_EQ(mkdir_p(path.c_str(), 0755), -1) << path;
}

TEST(utils, mv_takes_no_name_for_a_command_or_an_option)
{
    std::filesystem::path before = std::filesystem::current_path();
    const std::string root = new_folder();
    // Whatever a name here does when it reaches the shell after all, it must do it to this folder only.
    std::filesystem::current_path(root);
    for (const std::string name : {"x;touch y", "x\ntouch y", "x\r\x7F\t", "-f", "#x", "=mv",
                                   "x~=,#%\xC3\xA4", "it's a \"file\" $1 & (b) [*]"}) {
        write_file(root + "/" + name, "content");
        safe_mv(name.c_str(), "moved");
        EXPECT_THAT(tree_of(root), ElementsAre("moved")) << name;
        safe_mv("moved", name.c_str());
        EXPECT_THAT(tree_of(root), ElementsAre(name)) << name;
        unlink(name.c_str());
    }
    std::string component(255, ' ');
    // Escaped, each of the two fits the command's buffer, but not both together.
    std::string far = component + "/" + component + "/";
    write_file(root + "/" + far + "from", "content");
    safe_mv((far + "from").c_str(), (far + "to").c_str());
    safe_mv("", "nothing");
    EXPECT_THAT(tree_of(root), ElementsAre(component + "/", far, far + "to"));
    std::filesystem::current_path(before);
}
