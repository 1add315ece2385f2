// The service as a process of its own: how soon it reacts, and what it costs at rest.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <sys/inotify.h>
#include <thread>
#include <unistd.h>

#include "bench.h"
#include "common/cipher_utils.h"
#include "fixture.h"
#include "support/cloud.h"
#include "support/process.h"
#include "support/support.h"

namespace fs = std::filesystem;
using namespace kxtest;

namespace kxbench
{

namespace
{

// The appliance of one service: the default pair, and shares.
struct appliance_t {
    appliance_t(const std::string& cloud_url, const std::vector<std::string>& shares) : url(cloud_url)
    {
        string_ptr sealed(encrypt_str2hexstr("user=x&state=authorized", 1));
        write_file(root + "/etc/default/services", "AMAZONDRIVE_PROVISION=" + std::string(sealed.get()) +
                                                       "\nAMAZONDRIVE_ACCESS_TOKEN='access'\n"
                                                       "AMAZONDRIVE_REFRESH_TOKEN='refresh'\n");
        write_file(root + "/etc/brisal/account.conf", "admin!!" + volume.substr(1) + "\n");
        std::string ids;
        for (const std::string& share : shares) {
            ids += "<ShareId>" + volume.substr(1) + "/" + share + "</ShareId>";
            fs::create_directories(volume + "/" + share);
        }
        write_file(root + "/etc/brisal/amazon/config.xml", "<config mode=\"bidir\">" + ids + "</config>");
        write_file(root + "/var/log/brisal/amazoncd.log", "");
        fs::create_directories(drive);
    }
    ~appliance_t()
    {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }

    // Starts it and waits until it watches its folders.
    std::unique_ptr<process> start(double idle_sec, double seconds = 60) const
    {
        auto service = std::make_unique<process>(
            std::vector<std::string>{program("kxamazon"), "-d", "-v", "2"},
            std::vector<std::string>{"KXTEST_SYSROOT=" + root, "KXTEST_CLOUD_URL=" + url,
                                     "KXTEST_IDLE_SEC=" + text("%.0f", idle_sec)});
        expect(eventually([&] { return service->err().find("Start live syncing") != std::string::npos; },
                          seconds),
               "the service does not get live: " + service->err());
        // The watches are set when the process waits: its switches stand still.
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        return service;
    }

    std::string url;
    std::string root = new_folder("nas");
    std::string volume = root + "/data";
    std::string drive = volume + "/AmazonCloudDrive";
};

void stop(process& service)
{
    service.signal(SIGUSR1);
    expect(service.wait(60) == 0, "the service did not end in order");
}

// Waits until an entry of the folder gets another time, which is what follows an upload.
class upload_watch
{
public:
    explicit upload_watch(const std::string& folder) : inotify_(inotify_init1(IN_CLOEXEC))
    {
        inotify_add_watch(inotify_.get(), folder.c_str(), IN_ATTRIB);
    }
    void wait()
    {
        pollfd ready = {inotify_.get(), POLLIN, 0};
        expect(poll(&ready, 1, 10000) == 1, "a file was not uploaded within 10 seconds");
        char events[4096];
        expect(read(inotify_.get(), events, sizeof events) > 0, "no event");
    }

private:
    fd_owner inotify_;
};

// Saves a file and waits for its upload, from the close on.
double save(const std::string& path, char content, upload_watch& uploads)
{
    double start;
    {
        file_ptr file(fopen(path.c_str(), "wb"));
        std::string bytes(4096, content);
        fwrite(bytes.data(), 1, bytes.size(), file.get());
        file.reset();
        start = now();
    }
    uploads.wait();
    return now() - start;
}

std::string requests_text(const nlohmann::json& requests, size_t files)
{
    std::map<std::string, size_t> methods;
    for (const auto& request : requests)
        methods[request["method"]]++;
    std::string text;
    for (const auto& [method, n] : methods)
        text += (text.empty() ? "" : " + ") +
                kxbench::text("%.3g ", static_cast<double>(n) / static_cast<double>(files)) + method;
    return text;
}

} // namespace

lines_t live(const options_t& options)
{
    const size_t files = options.size(1000, 200);
    cloud drive;
    appliance_t nas(drive.url(), {});
    auto service = nas.start(3600);
    upload_watch uploads(nas.drive);
    save(nas.drive + "/first", 'f', uploads);
    drive.forget_requests();
    std::vector<double> seconds;
    for (size_t i = 0; i < files; ++i) {
        seconds.push_back(save(nas.drive + "/file-" + std::to_string(i), 'a', uploads));
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    nlohmann::json requests = drive.requests();
    for (size_t i = 0; i < files; ++i)
        expect(drive.stat("/file-" + std::to_string(i))["contentProperties"]["size"] == 4096,
               "a file is not in the cloud");
    double peak = resident_kib(service->pid());
    stop(*service);

    // The floor: the same requests by a bare handle.
    auto floor = in_child([&] {
        http_floor http;
        std::string root = nlohmann::json::parse(
            http.send("GET", drive.url() + "/metadata/nodes?filters=isRoot:true"))["data"][0]["id"];
        std::vector<double> each;
        for (size_t i = 0; i < files; ++i)
            each.push_back(timed([&] {
                http.send("GET", drive.url() + "/metadata/nodes/" + root + "/children?filters=name:floor-" +
                                     std::to_string(i));
                http.upload("POST", drive.url() + "/content/nodes?suppress=deduplication",
                            "{\"name\": \"floor-" + std::to_string(i) +
                                "\", \"kind\": \"FILE\", \"parents\": [\"" + root + "\"]}",
                            nas.drive + "/file-" + std::to_string(i));
            }));
        return each;
    });
    return {{count(files) + " files of 4 KiB", "median ≤ 5 ms, 99 in 100 ≤ 25 ms",
             "median " + millis(median(seconds)) + ", 99 in 100 " + millis(percentile(seconds, 0.99)) +
                 "; a file: " + requests_text(requests, files),
             "median " + millis(median(floor.values)), times(median(seconds) / median(floor.values)),
             mib(peak)}};
}

namespace
{

struct usage_t {
    double cpu_sec, resident_kib;
    size_t open_files;
};

usage_t usage_of(int pid)
{
    std::string folder = "/proc/" + std::to_string(pid);
    std::string stat = read_file(folder + "/stat");
    unsigned long user = 0, system = 0;
    sscanf(stat.c_str() + stat.rfind(')') + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user,
           &system);
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(folder + "/fd"))
        files += entry.is_symlink();
    return {static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK)), resident_kib(pid),
            files};
}

} // namespace

lines_t idle(const options_t& options)
{
    cloud drive;
    appliance_t nas(drive.url(), {"Photos", "Music"});
    const double poll_sec = options.quick ? 3 : 15, seconds = options.idle_minutes * 60;
    auto service = nas.start(poll_sec);
    // The first polls load what later ones use again.
    std::this_thread::sleep_for(std::chrono::duration<double>(2 * poll_sec + 1));
    drive.forget_requests();
    usage_t before = usage_of(service->pid());
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    usage_t after = usage_of(service->pid());
    size_t requests = drive.requests().size(), polls = static_cast<size_t>(seconds / poll_sec);
    stop(*service);
    expect(requests > 0, "nothing was polled");
    return {{text("%.3g minutes", options.idle_minutes), "≤ 1 request a poll, CPU ≤ 0.05 %, no growth",
             count(requests) + text(" requests, CPU %.3f %%, memory %+.0f KiB, open files %+d",
                                    100 * (after.cpu_sec - before.cpu_sec) / seconds,
                                    after.resident_kib - before.resident_kib,
                                    static_cast<int>(after.open_files) - static_cast<int>(before.open_files)),
             count(polls) + " polls", times(static_cast<double>(requests) / static_cast<double>(polls)),
             mib(after.resident_kib)}};
}

lines_t rest(const options_t& options)
{
    const fixture_t fixture{options.size(1000000, 100000)};
    const size_t folders = options.size(10000, 1000);
    make_fixture(fixture);
    cloud drive;
    appliance_t nas(drive.url(), {});
    http_floor().send("POST", drive.url() + "/control/seed",
                      nlohmann::json{{"path", "/"}, {"folders", folders}, {"files", 0}}.dump());
    for (size_t i = 0; i < folders; ++i)
        fs::create_directory(nas.drive + "/folder-" + std::to_string(i));
    copy_fixture(fixture, nas.root);
    // The fixture's nodes belong to no drive here: without their root they are only there. The feed is owed
    // whole.
    std::string adapt =
        "DELETE FROM node WHERE name='/'; INSERT INTO sync_folders (local_drive_path, cloud_drive_path, "
        "need_full_downsync, need_full_upsync) VALUES ('" +
        nas.drive + "', '/', 0, 0)";
    {
        sqlite3* db = nullptr;
        sqlite3_open((nas.root + "/var/cache/kxamazon/acd_fs_cache").c_str(), &db);
        expect(sqlite3_exec(db, adapt.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK,
               "the cache cannot be adapted");
        sqlite3_close(db);
    }
    write_file(nas.root + "/var/cache/kxamazon/checkpoint", "start");
    auto service = nas.start(1, 600);
    // Watches, and a few polls.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    size_t watches = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(service->pid()) + "/fdinfo")) {
        std::ifstream info(entry.path());
        for (std::string line; std::getline(info, line);)
            watches += line.starts_with("inotify wd:");
    }
    expect(watches == folders + 1, "other folders are watched: " + std::to_string(watches));
    double resident = resident_kib(service->pid());
    stop(*service);
    return {{count(fixture.nodes) + " cached nodes, " + count(folders) + " watches", "≤ 24 MiB resident",
             mib(resident), "", "", ""}};
}

} // namespace kxbench
