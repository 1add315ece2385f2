#include "common/watch_v2.h"

#include <cerrno>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#include "common/constants.h"
#include "common/utils.h"
#include "common/watch_v2_event.h"
#include "support/support.h"

namespace fs = std::filesystem;
using testing::StartsWith;

static int adds_to_fail = 0;
static int add_errno = 0;
static void (*before_add)(const char* path) = [](const char*) {};

// Takes the place of the library's: a real limit cannot be met without disturbing the machine.
extern "C" int inotify_add_watch(int fd, const char* path, uint32_t mask) noexcept
{
    before_add(path);
    if (adds_to_fail == 0)
        return static_cast<int>(syscall(SYS_inotify_add_watch, fd, path, mask));
    adds_to_fail--;
    errno = add_errno;
    return -1;
}

static int signal_before_wait = 0;
static int fd_not_ready_yet = -1;

// Takes the place of the library's, to send a signal at the worst moment: before the wait, after the last
// look at the exit flag; and to let one wait end before an instance has its events.
extern "C" int pselect(int count, fd_set* read, fd_set* write, fd_set* except, const timespec* timeout,
                       const sigset_t* mask)
{
    static const auto real = reinterpret_cast<decltype(&pselect)>(dlsym(RTLD_NEXT, "pselect"));
    if (signal_before_wait != 0)
        raise(signal_before_wait);
    const int ready = real(count, read, write, except, timeout, mask);
    const int late = std::exchange(fd_not_ready_yet, -1);
    if (ready <= 0 || late < 0 || !FD_ISSET(late, read))
        return ready;
    FD_CLR(late, read);
    return ready - 1;
}

namespace
{

std::string seen; // what was reported, each with "; " behind it
volatile sig_atomic_t stop;

int note(const char* path, watch_type_v2_t type, void* ctx)
{
    if (path)
        seen += watch_type_v2_to_string(type) + (" " + fs::relative(path).string()) + "; ";
    else
        stop = ctx == &seen && type == WATCH_TYPE_V2_NONE ? 1 : 2;
    return 0;
}

int note_move(const char* old_path, const char* new_path, watch_type_v2_t type)
{
    seen += watch_type_v2_to_string(type) + (" " + fs::relative(old_path).string()) + " -> " +
            fs::relative(new_path).string() + "; ";
    return -1;
}

int note_and_stop(const char* path, watch_type_v2_t type, void* ctx)
{
    note(path, type, ctx);
    stop = 1;
    return 7;
}

void sh(const std::string& command)
{
    ASSERT_EQ(std::system(("{ " + command + "; } > /dev/null").c_str()), 0) << command;
}

// The log without debug lines, the working directory taken off.
std::string messages(const std::function<void()>& run)
{
    std::string log = kxtest::log_of(run, E_INFO);
    const std::string here = fs::current_path().string() + "/";
    for (size_t at; (at = log.find(here)) != std::string::npos;)
        log.erase(at, here.size());
    return log;
}

// Two watched roots, "one" and "two", and "out" beside them, in a working directory of the test's own.
struct Watcher : testing::Test {
    watches_list_ptr list;

    void SetUp() override
    {
        fs::current_path(kxtest::new_folder());
        sh("mkdir -p one/a/sub one/ab one/empty two/t out/tree/sub; echo 1 | tee one/f one/a/g two/t/h "
           "out/file out/tree/top out/tree/sub/deep");
        list.reset(init_watches_list());
        EXPECT_EQ(add("one") + add("two"), 0);
        stop = 0;
        seen.clear();
    }
    int add(const char* folder)
    {
        return add_folder_to_watches_list(list.get(), fs::absolute(folder).c_str());
    }
    int loop(int timeout_sec, watch_notify_t notify, watch_notify_move_t move = note_move)
    {
        return watch_loop(list.get(), timeout_sec, notify, &seen, move, &stop);
    }
    // What is reported of everything that happened so far.
    std::string changes(watch_notify_move_t move = note_move)
    {
        stop = 0;
        seen.clear();
        EXPECT_EQ(loop(0, note, move), 0);
        EXPECT_EQ(stop, 1);
        return seen;
    }
    uint64_t size()
    {
        const watches *one = list->head, *two = one->next;
        EXPECT_EQ(one->num_watch + two->num_watch, one->by_wd.size() + two->by_wd.size());
        return one->num_watch + two->num_watch;
    }
};

constexpr uint64_t all = 7; // folders of both roots
#define TREE                                                                                                 \
    "Add Folder one/tree; Add Folder one/tree/sub; Add File one/tree/sub/deep; Add File one/tree/top; "

TEST_F(Watcher, ReportsEveryKindOfChangeAndKeepsTheWatchesRight)
{
    const struct {
        const char *command, *expected;
        uint64_t watches;
        const char *later, *expected_later;
    } rows[] = {
        {"echo 2 > one/new", "Add File one/new; ", all, "echo 2 >> one/f", "Add File one/f; "},
        {"chmod 600 one/f; cat one/f; ln -s ../out one/link", "", all, "echo 2 > out/file", ""},
        {"rm one/a/g", "Delete File one/a/g; ", all, "rmdir one/empty", "Delete Folder one/empty; "},
        {"mkdir one/n", "Add Folder one/n; ", all + 1, "echo 2 > one/n/x", "Add File one/n/x; "},
        {"cp -r out/tree one", TREE, all + 2, "rm one/tree/sub/deep", "Delete File one/tree/sub/deep; "},
        {"mv out/tree one", TREE, all + 2, "echo 2 > one/tree/x", "Add File one/tree/x; "},
        {"mv out/file one/a", "Add File one/a/file; ", all, "mv one/f out", "Delete File one/f; "},
        {"mv one/empty out", "Delete Folder one/empty; ", all - 1, "echo 2 > out/empty/x", ""},
        {"mv one/f one/a/f", "Move File one/f -> one/a/f; ", all, "true", ""},
        {"mv two/t/h one/h", "Move File two/t/h -> one/h; ", all, "true", ""},
        {"mv two/t two/u", "Move Folder two/t -> two/u; ", all, "echo 2 > two/u/x", "Add File two/u/x; "},
        {"mv two/t one", "Move Folder two/t -> one/t; ", all, "rm one/t/h", "Delete File one/t/h; "},
        // one/ab begins like one/a and loses its watch with it; that is meant so.
        {"mv one/a one/z", "Move Folder one/a -> one/z; ", all - 1, "rmdir one/z/sub one/ab",
         "Delete Folder one/z/sub; "},
        {"echo 2 > one/n; mv one/n one/m; rm one/f",
         "Add File one/n; Delete File one/f; Move File one/n -> one/m; ", all, "true", ""},
        {"rm -r two", "Delete File two/t/h; Delete Folder two/t; Delete Folder two; ", all - 2, "mkdir two",
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        SetUp();
        EXPECT_EQ(size(), all);
        sh(row.command);
        EXPECT_EQ(changes(), row.expected);
        EXPECT_EQ(size(), row.watches);
        sh(row.later);
        EXPECT_EQ(changes(), row.expected_later);
    }
}

TEST_F(Watcher, PairsAHalfThatComesLate)
{
    for (const watches* late : {list->head, list->tail}) {
        sh("mv one/f two/f");
        fd_not_ready_yet = late->inotify.get();
        EXPECT_EQ(changes(), "Move File one/f -> two/f; ");
        sh("mv two/f one/f");
        changes();
    }
}

TEST_F(Watcher, QueuesHalvesByCookieAndRefusesASecondOne)
{
    const move_event_queue_ptr queue(init_move_event_queue());
    add_move_from_to_move_event_queue(queue.get(), 1, 0, 0, "/dropped");
    EXPECT_EQ(queue->head, nullptr);
    add_move_to_to_move_event_queue(queue.get(), 1, 5, 0, "/new");
    add_move_from_to_move_event_queue(queue.get(), 2, 6, 1, "/other");
    add_move_from_to_move_event_queue(queue.get(), 3, 5, 0, "/old");
    EXPECT_EQ(queue->head->next, queue->tail);
    g_nosystemd = 1;
    EXPECT_EXIT(add_move_from_to_move_event_queue(queue.get(), 3, 6, 1, "/2"), testing::ExitedWithCode(1),
                "add_move_from_to_move_event_queue: Shall not happen!");
}

TEST_F(Watcher, RaisesTheLimitThatItMeets)
{
    const std::string file = kx_max_user_watches_path;
    const std::string need = "error: add_watch: Need to set max user wathces! max user watches = ";
    const std::string cannot_open = "error: Cannot open (r) " + file + "\n";
    const auto raised = [&](const char* from, const std::string& to) {
        return need + from + "\nerror: set_max_user_watches: Failed to write desired_watches " + to + " to " +
               file + "!\n";
    };
    const struct {
        const char* before; // null: no file
        int error;
        std::string log;
        int given_up_with;
        const char* after;
    } rows[] = {
        {"10000", ENOSPC, raised("10000", "18192"), 28, "18192"},
        {"junk", ENOSPC, raised("8192", "16384"), 28, "16384"},
        {"253952", ENOSPC, raised("253952", "262144"), 28, "262144"},
        {"253953", ENOSPC,
         need + "253953\nerror: Too many watch wanted 262145. Stay with current watch 253953.\n", 28,
         "253953"},
        {nullptr, ENOSPC, cannot_open + need + "0\n" + cannot_open, 13, ""},
        {"10000", ENOMEM, "", ENOMEM, "10000"},
    };
    for (const auto& row : rows) {
        fs::remove(file);
        if (row.before)
            kxtest::write_file(file, row.before);
        list.reset(init_watches_list());
        adds_to_fail = 1;
        add_errno = row.error;
        EXPECT_EQ(messages([&] { add("one/a"); }),
                  row.log + "error: add_watch(one/a) ==> errno=" + std::to_string(row.given_up_with) + "\n");
        EXPECT_EQ(kxtest::read_file(file), row.after);
        EXPECT_EQ(list->head->num_watch, 1u) << "the subfolder is watched all the same";
    }
}

TEST_F(Watcher, RefusesRootsThatItCannotWatch)
{
    sh("ln -s one link");
    const auto log = [&](const char* folder) { return messages([&] { EXPECT_EQ(add(folder), -1); }); };
    const std::string name = "error: add_folder_to_watches_list: ";
    EXPECT_EQ(log("missing"), name + "Failed to call lstat missing\n");
    EXPECT_EQ(log("link"), name + "Can't add link to watches list! It is a synmlink\n");
    EXPECT_EQ(log("one/f"), name + "Can't add one/f to watches list! It is not a folder\n");
    EXPECT_EQ(add_folder_to_watches_list(list.get(), nullptr), -1);

    rlimit files;
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit more{FD_SETSIZE + 100, files.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    std::vector<fd_owner> taken(1);
    while (taken.back().get() < FD_SETSIZE)
        taken.emplace_back(dup(0));
    EXPECT_EQ(log("out"), "error: init_watches: Failed to call inotify_init(). errno=24\n");
    setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_EQ(list->tail, list->head->next) << "nothing was appended";
}

TEST_F(Watcher, LeavesOutFoldersThatItCannotWatch)
{
    const watch_notify_t removing = [](const char* path, watch_type_v2_t, void*) { return rmdir(path); };
    const auto log = [&](const char* folder, watch_notify_t notify = nullptr) {
        return messages([&] { watch_folder(list->head, fs::absolute(folder).c_str(), notify, nullptr); });
    };
    EXPECT_EQ(log("missing", note), "");
    EXPECT_EQ(log("one/f"), "error: watch_folder: Failed to watch one/f! It is not a folder.\n");
    EXPECT_THAT(log("/proc"), StartsWith("error: watch_folder: Failed to watch folder /proc! Don't watch "
                                         "folders accross devices. root folder one ("));
    EXPECT_EQ(log("one/empty", removing), "error: watch_folder: Failed to scan dir 'one/empty'! 2\n");
    EXPECT_EQ(size(), all);
}

TEST_F(Watcher, SurvivesBrokenAndForeignEvents)
{
    const std::string name = "error: read_inotify_events: ", overflow = name + "inotify buffer overflow!\n";
    const struct {
        int wd;
        uint32_t mask, len, length;
        std::string log;
    } rows[] = {
        {99, IN_IGNORED, 0, 16, ""},
        {99, IN_CREATE, 0, 16,
         "error: process_inotify_events: wd 99 is not registered to watches one\n" + name +
             "process_inotify_events return -1\n"},
        {1, IN_CREATE, 32, 32, overflow},
        {1, IN_CREATE, 0, 8, overflow},
        {-1, IN_Q_OVERFLOW, 0, 16, name + "inotify event Q overflow.\n"},
    };
    for (const auto& row : rows) {
        const uint32_t buffer[16] = {static_cast<uint32_t>(row.wd), row.mask, 0, row.len};
        EXPECT_EQ(messages([&] {
                      walk_inotify_events(list->head, nullptr, reinterpret_cast<const char*>(buffer),
                                          row.length, note, nullptr, &stop);
                  }),
                  row.log);
    }
}

TEST_F(Watcher, StopsBeforeTheNextEventButDeliversTheMovesItRead)
{
    sh("mv one/f one/g; rm one/a/g; rm two/t/h");
    EXPECT_EQ(messages([&] { loop(0, note_and_stop); }),
              "error: read_inotify_events: process_inotify_events return 7\ninfo: Received exit signal.\n");
    EXPECT_EQ(seen, "Delete File one/a/g; Move File one/f -> one/g; ");
}

TEST_F(Watcher, LooksAtTheExitFlagAfterEverySignalBeforeAWait)
{
    static int signals;
    signals = 0;
    signal(SIGUSR1, [](int) { stop = ++signals == 3; });
    signal_before_wait = SIGUSR1;
    EXPECT_EQ(messages([&] { EXPECT_EQ(loop(60, note), 0); }), "info: Received exit signal.\n");
    signal_before_wait = 0;
    EXPECT_EQ(signals, 3);
}

TEST_F(Watcher, DeliversAMoveBeforeWhatComesAfterItAtItsPaths)
{
    const struct {
        const char *command, *expected, *later, *expected_later;
    } rows[] = {
        {"mv one/f one/g; echo 2 > one/f; rm one/g",
         "Move File one/f -> one/g; Add File one/f; Delete File one/g; ", "true", ""},
        {"mv one/f out; echo 2 > one/f", "Delete File one/f; Add File one/f; ", "true", ""},
        {"mv one/f one/g; mv one/g one/h; echo 2 > one/f",
         "Move File one/f -> one/g; Add File one/f; Move File one/g -> one/h; ", "true", ""},
        {"mv one/a one/z; mkdir one/a; echo 2 > one/z/n; rm one/z/n",
         "Move Folder one/a -> one/z; Add Folder one/a; Add File one/z/n; Delete File one/z/n; ",
         "echo 2 > one/a/x; echo 2 > one/z/x", "Add File one/a/x; Add File one/z/x; "},
        {"mv one/a one/y; mv one/y one/z; echo 2 > one/z/n",
         "Move Folder one/a -> one/y; Move Folder one/y -> one/z; Add File one/z/n; ", "echo 2 > one/z/x",
         "Add File one/z/x; "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.command);
        SetUp();
        sh(row.command);
        EXPECT_EQ(changes(), row.expected);
        sh(row.later);
        EXPECT_EQ(changes(), row.expected_later);
        EXPECT_TRUE(list->head->redirected.empty());
    }
}

TEST_F(Watcher, TakesAMoveThatTwoRootsSeeForOne)
{
    EXPECT_EQ(add("one/a"), 0);
    sh("mv one/a/g one/a/h; mv one/a/sub one/a/sub2; echo 2 > one/a/g");
    EXPECT_EQ(changes(), "Move File one/a/g -> one/a/h; Add File one/a/g; Add File one/a/g; "
                         "Move Folder one/a/sub -> one/a/sub2; ");
}

TEST_F(Watcher, ReportsWhatComesIntoANewFolderBeforeItsWatch)
{
    before_add = [](const char* path) {
        if (fs::path(path).filename() == "n")
            sh("mkdir one/n/d; echo 1 > one/n/d/late; echo 1 > one/n/late");
    };
    sh("mkdir one/n");
    EXPECT_EQ(changes(),
              "Add Folder one/n; Add Folder one/n/d; Add File one/n/d/late; Add File one/n/late; ");
    before_add = [](const char*) {};
    sh("echo 2 > one/n/d/x");
    EXPECT_EQ(changes(), "Add File one/n/d/x; ");
}

} // namespace
