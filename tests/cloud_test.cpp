// The local cloud as its clients see it: the real process, asked over real connections. Its faults, uploads
// and list of requests are what the request engine's own tests stand on.
#include <atomic>
#include <csignal>
#include <gmock/gmock.h>
#include <thread>

#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;
using namespace std::string_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

using names_t = std::vector<std::string>;

names_t names_in(const json& nodes)
{
    names_t names;
    for (const json& node : nodes)
        names.push_back(node.value("name", "/"));
    return names;
}

std::string child(const std::string& name, const std::string& parent)
{
    return json{{"name", name}, {"kind", "FOLDER"}, {"parents", {parent}}}.dump();
}

std::string move_order(const std::string& from, const std::string& id)
{
    return json{{"fromParent", from}, {"childId", id}}.dump();
}

struct drive : cloud {
    using cloud::cloud;

    std::string id(const std::string& path) const { return stat(path)["id"]; }
    json value(const std::string& target) const { return json::parse(ask("GET", target).body); }

    // The feed's lines from a checkpoint.
    std::vector<json> changes(const std::string& checkpoint, int max_nodes = 100, int chunk_size = 100) const
    {
        json body = {{"checkpoint", checkpoint}, {"chunkSize", chunk_size}, {"maxNodes", max_nodes}};
        std::string text = ask("POST", "/metadata/changes", body.dump()).body;
        std::vector<json> lines;
        for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
            lines.push_back(json::parse(text.substr(0, end)));
        EXPECT_EQ(text, "") << "every line ends with a newline";
        return lines;
    }
};

} // namespace

TEST(Cloud, EveryChangeIsNewerAndHasItsOwnTag)
{
    drive server;
    const std::string odd = "/d \"%2F?#&+\xe2\x82\xac\\\n";
    server.put(odd + "/a.txt", "hello");
    json node = server.stat(odd + "/a.txt");
    EXPECT_EQ(node["contentProperties"], (json{{"size", 5}, {"md5", "5d41402abc4b2a76b9719d911017c592"}}));
    EXPECT_THAT(node["modifiedDate"].get<std::string>(), testing::MatchesRegex("....-..-..T..:..:..\\....Z"));
    EXPECT_EQ(node["parents"], json::array({server.id(odd)}));
    const std::string id = node["id"], metadata = "/metadata/nodes/" + id;
    server.set_clock_offset(5000);
    for (auto [method, target, body] :
         {std::tuple("PATCH", metadata, R"({"name": "B.txt"})"s),
          {"POST", "/metadata/nodes/" + server.id("/") + "/children", move_order(server.id(odd), id)},
          {"PUT", "/metadata/trash/" + id, ""s}}) {
        const std::string etag = server.value(metadata)["eTagResponse"];
        json after = json::parse(server.ask(method, target, body).body);
        EXPECT_NE(after["eTagResponse"], etag);
        EXPECT_GT(after["modifiedDate"], node["modifiedDate"]);
    }
    node = server.value(metadata);
    EXPECT_TRUE(node["status"] == "TRASH" && node["name"] == "B.txt" && node["parents"][0] == server.id("/"));
    server.put("/b.TXT", "a trashed namesake is in nobody's way");
    EXPECT_NE(server.id("/b.TXT"), id);
}

TEST(Cloud, RefusesWithStatusAndMessage)
{
    drive server;
    for (const char* path : {"/folder/inner", "/gone"})
        server.mkdir(path);
    server.put("/file", "x");
    std::string root = server.id("/"), folder = server.id("/folder"), inner = server.id("/folder/inner");
    std::string file = server.id("/file"), gone = server.id("/gone");
    server.trash("/gone");
    const struct {
        int status;
        const char* method;
        std::string target;
        std::string body;
    } rows[] = {
        {404, "GET", "/metadata/nodes/unknown/children", ""},
        {404, "PUT", "/metadata/trash/unknown", ""},
        {404, "GET", "/content/nodes/unknown/content", ""},
        {404, "POST", "/metadata/nodes", child("x", "unknown")},
        {404, "POST", "/metadata/nodes", child("x", gone)},
        {404, "POST", "/metadata/nodes/unknown/children", move_order(root, file)},
        {405, "PATCH", "/metadata/changes", "{}"},
        {409, "POST", "/metadata/nodes", child("FILE", root)},
        {409, "PATCH", "/metadata/nodes/" + file, R"({"name": "Folder"})"},
        {409, "PUT", "/files/folder", "a folder does not become a file"},
        {400, "PUT", "/files/bad%ff", ""},
        {400, "POST", "/metadata/nodes", child("x", file)},
        {400, "POST", "/metadata/nodes", child("", root)},
        {400, "POST", "/metadata/nodes", child("a/b", root)},
        {400, "POST", "/metadata/nodes", R"({"name": "a"b","kind": "FOLDER","parents": [""]})"},
        {400, "PATCH", "/metadata/nodes/" + file, R"({"name": "\xff"})"},
        {400, "PUT", "/metadata/trash/" + root, ""},
        {400, "POST", "/metadata/nodes/" + folder + "/children", move_order(folder, file)},
        {400, "POST", "/metadata/nodes/" + inner + "/children", move_order(root, folder)},
        {400, "GET", "/metadata/nodes?filters=colour:red", ""},
        {400, "POST", "/metadata/changes", R"({"checkpoint": 7})"},
        {400, "POST", "/content/nodes", "no form"},
        {400, "POST", "/auth/o2/token", "grant_type=password&refresh_token=x"},
    };
    for (const auto& row : rows) {
        http_reply_t reply = server.ask(row.method, row.target, row.body);
        EXPECT_EQ(reply.status, row.status) << row.method << row.target << row.body << reply.body;
        EXPECT_TRUE(json::parse(reply.body).at("message").is_string()) << reply.body;
    }
    EXPECT_EQ(server.ask("PATCH", "/metadata/nodes/" + file, R"({"name": "File"})").status, 200)
        << "a node is no duplicate of itself";
}

TEST(Cloud, FeedTellsEachChangedNodeOnce)
{
    drive server;
    for (const char* name : {"/d/1", "/d/2", "/d/3"})
        server.put(name, "");
    std::vector<json> lines = server.changes("", 4, 3);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("/", "d", "1"));
    EXPECT_THAT(names_in(lines[1]["nodes"]), ElementsAre("2")) << "no more than maxNodes";
    EXPECT_EQ(lines[2], (json{{"end", true}}));
    lines = server.changes(lines[1]["checkpoint"]);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("3"));
    const std::string newest = lines[0]["checkpoint"];
    lines = server.changes(newest);
    EXPECT_TRUE(lines.size() == 2 && lines[0]["nodes"].empty() && lines[0]["checkpoint"] == newest);

    server.rename("/d/1", "one");
    server.put("/d/2", "new");
    server.trash("/d");
    lines = server.changes(newest);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("one", "2", "d"));
    EXPECT_EQ(lines[0]["nodes"][2]["status"], "TRASH");
    EXPECT_EQ(lines[0]["nodes"][0]["status"], "AVAILABLE") << "what is below a trashed folder did not change";
    EXPECT_FALSE(server.has("/d/one"));
    lines = server.changes("of-another-drive.1");
    EXPECT_EQ(lines[0]["reset"], true);
    EXPECT_EQ(lines[0]["nodes"].size(), 5u);
}

TEST(Cloud, FaultsMeetTheirRequestsOnly)
{
    drive server;
    server.put("/file", "content");
    const std::string node = "/metadata/nodes/" + server.id("/file");
    const std::pair<json, std::vector<int>> rows[] = {
        {{{"skip", 1}, {"times", 2}, {"status", 503}}, {200, 503, 503, 200}},
        {{{"status", 503}, {"delay_ms", 10}}, {503, 200}},
        {{{"drop", true}, {"times", -1}}, {0, 0}},
        {{{"method", "POST"}, {"status", 503}}, {200}},
        {{{"path", "^/nodes/x$"}, {"status", 503}}, {200}},
        {{{"query", "name:x"}, {"status", 503}}, {200}},
        {{{"method", "GET"}, {"path", "^/nodes/"}, {"status", 503}}, {503}},
        {{{"raw", "HTTP/1.1 299 Odd\r\nContent-Length: 3\r\n\r\nabc"}}, {299}},
    };
    for (const auto& [fault, statuses] : rows) {
        server.fail(fault);
        for (int status : statuses)
            EXPECT_EQ(server.ask("GET", node).status, status) << fault;
        server.clear_faults();
    }
    server.fail({{"method", "PUT"}, {"run", true}, {"drop", true}});
    server.ask("PUT", "/metadata/trash/" + server.id("/file"));
    EXPECT_FALSE(server.has("/file")) << "the reply was lost, not the request";
    EXPECT_THROW(server.fail({{"stauts", 500}}), std::runtime_error);
}

TEST(Cloud, StoreOutlivesTheServer)
{
    const std::string store = new_folder("store");
    std::string checkpoint;
    {
        drive server({"--store", store});
        server.put("/kept", "content");
        checkpoint = server.changes("")[0]["checkpoint"];
        server.put("/later", std::string(200000, 'y'));
        kill(server.pid(), SIGKILL); // an end without any warning
    }
    write_file(store + "/bodies/incoming/half-an-upload", "x");
    drive server({"--store", store});
    EXPECT_EQ(server.get("/kept").body, "content");
    EXPECT_EQ(server.get("/later").body.size(), 200000u);
    EXPECT_THAT(names_in(server.changes(checkpoint)[0]["nodes"]), ElementsAre("later"));
    server.put("/later", "");
    server.put("/kept", "new");
    EXPECT_EQ(
        std::ranges::count_if(tree_of(store + "/bodies"), [](auto& path) { return path.back() != '/'; }), 1)
        << "half an upload and an overwritten content are deleted";
}

TEST(Cloud, ManyNodesManyClients)
{
    drive server;
    server.mkdir("/many");
    EXPECT_EQ(server.ask("POST", "/control/seed", R"({"path": "/many", "folders": 50, "files": 20})").status,
              200);
    const std::string many = server.id("/many");
    std::atomic<int> created = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i)
        clients.emplace_back([&, i] {
            for (int j = 0; j < 20; ++j) {
                server.put("/many/folder-" + std::to_string(i) + "/f" + std::to_string(j), "");
                created += server.ask("POST", "/metadata/nodes", child("shared", many)).status == 201;
            }
        });
    for (std::thread& thread : clients)
        thread.join();
    EXPECT_EQ(created, 1);
    EXPECT_EQ(server.changes("", 10000, 10000)[0]["nodes"].size(), 1u + 1 + 50 + 50 * 20 + 8 * 20 + 1);
}

TEST(Cloud, ListensWhereItMayAndEndsWhenTold)
{
    drive taken;
    const std::string address = taken.url().substr(taken.url().rfind('/') + 1);
    const std::pair<names_t, int> rows[] = {
        {{}, 2},
        {{"--listen", "0.0.0.0:0"}, 2},
        {{"--listen", "127.0.0.1:http"}, 2},
        {{"--listen", "127.0.0.1:0", "--tls-cert", "x"}, 2},
        {{"--listen", "127.0.0.1:0", "--tls-cert", "/none", "--tls-key", "/none"}, 1},
        {{"--listen", address}, 1}, // a port is not shared
    };
    for (const auto& [words, status] : rows) {
        names_t line = {program("kxcloud")};
        line.insert(line.end(), words.begin(), words.end());
        run_result_t result = run(line);
        EXPECT_EQ(result.status, status);
        EXPECT_THAT(result.err, HasSubstr("kxcloud"));
    }
    taken.fail({{"delay_ms", 20000}});
    std::thread waiting([&] { taken.ask("GET", "/metadata/account/info"); });
    ASSERT_TRUE(eventually([&] { return taken.ask("GET", "/control/faults").body == "[]"; }));
    kill(taken.pid(), SIGTERM);
    EXPECT_TRUE(eventually([&] { return taken.ask("GET", "/files/").status == 0; }, 5))
        << "a request under way does not hold it up";
    waiting.join();
}
