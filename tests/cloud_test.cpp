// The local cloud as its clients see it: the real process, asked over real connections.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <memory>
#include <set>
#include <sys/socket.h>
#include <thread>

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "common/owners.h"
#include "support/cloud.h"
#include "support/support.h"

using namespace kxtest;
using namespace std::string_literals;
using nlohmann::json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

struct answer_t {
    CURLcode code;
    long status;
    std::string body;
    std::string head;

    json value() const { return json::parse(body); }
    std::string operator[](const char* name) const { return value()[name]; }
};

size_t append(char* data, size_t size, size_t n, void* text)
{
    static_cast<std::string*>(text)->append(data, size * n);
    return size * n;
}

// A client of the drive with one connection that it keeps.
class client
{
public:
    explicit client(const std::string& url) : url_(url), handle_(curl_easy_init()) {}
    explicit client(const cloud& server) : client(server.url()) {}
    ~client() { curl_easy_cleanup(handle_); }
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    std::string token = "any";
    std::string ca_file;

    answer_t ask(const std::string& method, const std::string& target, const std::string& body = "")
    {
        prepare(method, target);
        if (!body.empty())
            curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, body.c_str());
        return perform();
    }

    answer_t get(const std::string& target) { return ask("GET", target); }

    answer_t upload(const std::string& method, const std::string& target, const std::string& metadata,
                    const std::string& content)
    {
        prepare(method, target);
        curl_mime* form = curl_mime_init(handle_);
        auto add = [&](const char* name, const std::string& text) {
            curl_mimepart* part = curl_mime_addpart(form);
            curl_mime_name(part, name);
            curl_mime_data(part, text.data(), text.size());
        };
        if (!metadata.empty())
            add("metadata", metadata);
        add("content", content);
        curl_easy_setopt(handle_, CURLOPT_MIMEPOST, form);
        answer_t answer = perform();
        curl_mime_free(form);
        return answer;
    }

    // The usual requests.
    std::string root() { return get("/metadata/nodes?filters=isRoot:true").value()["data"][0]["id"]; }

    answer_t folder(const std::string& parent, const std::string& name)
    {
        return ask("POST", "/metadata/nodes",
                   json{{"name", name}, {"kind", "FOLDER"}, {"parents", {parent}}}.dump());
    }

    answer_t file(const std::string& parent, const std::string& name, const std::string& content)
    {
        json metadata = {{"name", name}, {"kind", "FILE"}, {"parents", {parent}}};
        return upload("POST", "/content/nodes?suppress=deduplication", metadata.dump(), content);
    }

    // The feed's lines from a checkpoint.
    std::vector<json> changes(const std::string& checkpoint, int max_nodes = 100, int chunk_size = 100)
    {
        json body = {{"checkpoint", checkpoint}, {"chunkSize", chunk_size}, {"maxNodes", max_nodes}};
        std::string text = ask("POST", "/metadata/changes", body.dump()).body;
        std::vector<json> lines;
        for (size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
            lines.push_back(json::parse(text.substr(0, end)));
        EXPECT_EQ(text, "") << "every line ends with a newline";
        return lines;
    }

private:
    void prepare(const std::string& method, const std::string& target)
    {
        curl_easy_reset(handle_);
        curl_easy_setopt(handle_, CURLOPT_URL, (url_ + target).c_str());
        if (method != "GET" && method != "POST")
            curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(handle_, CURLOPT_TIMEOUT, 30L);
        curl_easy_setopt(handle_, CURLOPT_ACCEPT_ENCODING, "gzip");
        if (!ca_file.empty())
            curl_easy_setopt(handle_, CURLOPT_CAINFO, ca_file.c_str());
    }

    answer_t perform()
    {
        answer_t answer{};
        curl_slist* headers = curl_slist_append(nullptr, ("Authorization: Bearer " + token).c_str());
        curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, append);
        curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &answer.body);
        curl_easy_setopt(handle_, CURLOPT_HEADERDATA, &answer.head);
        answer.code = curl_easy_perform(handle_);
        curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &answer.status);
        curl_slist_free_all(headers);
        return answer;
    }

    std::string url_;
    CURL* handle_;
};

std::vector<std::string> names_in(const json& nodes)
{
    std::vector<std::string> names;
    for (const json& node : nodes)
        names.push_back(node.value("name", "/"));
    return names;
}

} // namespace

TEST(Cloud, LifeOfANode)
{
    cloud server;
    client drive(server);
    std::string root = drive.root();
    json top = drive.get("/metadata/nodes/" + root).value();
    EXPECT_TRUE(top["isRoot"] == true && !top.contains("name") && top["parents"].empty());

    std::string folder = drive.folder(root, "Fold \"er\\")["id"];
    EXPECT_EQ(folder.size(), 22u);
    answer_t file = drive.file(folder, "a.txt", "hello");
    EXPECT_EQ(file.status, 201);
    json node = file.value();
    EXPECT_EQ(node["contentProperties"], (json{{"size", 5}, {"md5", "5d41402abc4b2a76b9719d911017c592"}}));
    EXPECT_EQ(node["parents"], json::array({folder}));
    EXPECT_THAT(node["modifiedDate"].get<std::string>(), testing::MatchesRegex("....-..-..T..:..:..\\....Z"));
    std::string id = node["id"];
    EXPECT_EQ(drive.get("/content/nodes/" + id + "/content").body, "hello");

    server.set_clock_offset(5000);
    struct {
        answer_t answer;
        const char* pointer;
        const char* value;
    } steps[] = {
        {drive.upload("PUT", "/content/nodes/" + id + "/content", "", ""), "/contentProperties/size", "0"},
        {drive.ask("PATCH", "/metadata/nodes/" + id, R"({"name": "B.txt"})"), "/name", "\"B.txt\""},
        {drive.ask("POST", "/metadata/nodes/" + root + "/children",
                   json{{"fromParent", folder}, {"childId", id}}.dump()),
         "/parents/0", nullptr},
        {drive.ask("PUT", "/metadata/trash/" + id), "/status", "\"TRASH\""},
    };
    std::string etag = node["eTagResponse"], date = node["modifiedDate"];
    for (auto& step : steps) {
        ASSERT_EQ(step.answer.status, 200) << step.answer.body;
        json after = step.answer.value();
        EXPECT_EQ(after[json::json_pointer(step.pointer)], step.value ? json::parse(step.value) : json(root));
        EXPECT_NE(std::exchange(etag, after["eTagResponse"].get<std::string>()), after["eTagResponse"]);
        EXPECT_LE(std::exchange(date, after["modifiedDate"].get<std::string>()), after["modifiedDate"]);
        EXPECT_GT(after["modifiedDate"], node["modifiedDate"]);
    }
    EXPECT_EQ(drive.get("/metadata/nodes/" + id)["status"], "TRASH");
    EXPECT_EQ(drive.file(root, "b.TXT", "").status, 201) << "a trashed namesake is in nobody's way";
}

TEST(Cloud, RefusesWithStatusAndMessage)
{
    cloud server;
    client drive(server);
    std::string root = drive.root();
    std::string folder = drive.folder(root, "folder")["id"], inner = drive.folder(folder, "inner")["id"];
    std::string file = drive.file(root, "file", "x")["id"], gone = drive.folder(root, "gone")["id"];
    drive.ask("PUT", "/metadata/trash/" + gone);
    auto child = [](const std::string& name, const std::string& parent) {
        return json{{"name", name}, {"kind", "FOLDER"}, {"parents", {parent}}}.dump();
    };
    auto move = [](const std::string& from, const std::string& id) {
        return json{{"fromParent", from}, {"childId", id}}.dump();
    };
    struct {
        long status;
        const char* method;
        std::string target;
        std::string body;
    } rows[] = {
        {404, "GET", "/metadata/nodes/unknown", ""},
        {404, "GET", "/metadata/nodes/unknown/children", ""},
        {404, "PUT", "/metadata/trash/unknown", ""},
        {404, "GET", "/content/nodes/unknown/content", ""},
        {404, "POST", "/metadata/nodes", child("x", "unknown")},
        {404, "POST", "/metadata/nodes", child("x", gone)},
        {404, "POST", "/metadata/nodes/unknown/children", move(root, file)},
        {404, "GET", "/metadata/elsewhere", ""},
        {405, "PATCH", "/metadata/changes", "{}"},
        {409, "POST", "/metadata/nodes", child("FILE", root)},
        {409, "PATCH", "/metadata/nodes/" + file, R"({"name": "Folder"})"},
        {400, "POST", "/metadata/nodes", child("x", file)},
        {400, "POST", "/metadata/nodes", child("", root)},
        {400, "POST", "/metadata/nodes", child("a/b", root)},
        {400, "POST", "/metadata/nodes", R"({"name": "a"b","kind": "FOLDER","parents": [""]})"},
        {400, "POST", "/metadata/nodes", "[]"},
        {400, "PATCH", "/metadata/nodes/" + file, R"({"name": "\xff"})"},
        {400, "PATCH", "/metadata/nodes/" + root, R"({"name": "x"})"},
        {400, "PUT", "/metadata/trash/" + root, ""},
        {400, "POST", "/metadata/nodes/" + folder + "/children", move(folder, file)},
        {400, "POST", "/metadata/nodes/" + inner + "/children", move(root, folder)},
        {400, "GET", "/metadata/nodes?filters=colour:red", ""},
        {400, "GET", "/metadata/nodes/" + root + "/children?startToken=x", ""},
        {400, "POST", "/metadata/changes", R"({"checkpoint": 7})"},
        {400, "POST", "/content/nodes", "no form"},
        {400, "POST", "/auth/o2/token", "grant_type=password&refresh_token=x"},
    };
    for (const auto& row : rows) {
        answer_t answer = drive.ask(row.method, row.target, row.body);
        EXPECT_EQ(answer.status, row.status) << row.method << row.target << row.body << answer.body;
        EXPECT_TRUE(answer.value().at("message").is_string()) << answer.body;
    }
    EXPECT_EQ(drive.upload("POST", "/content/nodes", "{", "x").status, 400);
    EXPECT_EQ(drive.ask("PATCH", "/metadata/nodes/" + file, R"({"name": "File"})").status, 200)
        << "a node is no duplicate of itself";
}

TEST(Cloud, TokensExpireAndAreRenewed)
{
    cloud server;
    client drive(server);
    std::string endpoint = "/drive/v1/account/endpoint";
    json urls = drive.get(endpoint).value();
    EXPECT_EQ(urls["metadataUrl"], server.url() + "/metadata/");
    EXPECT_EQ(urls["contentUrl"], server.url() + "/content/");
    server.expire_token();
    EXPECT_EQ(drive.get(endpoint).status, 401);
    answer_t granted = drive.ask("POST", "/auth/o2/token",
                                 "grant_type=refresh_token&refresh_token=r&client_id=i&client_secret=s");
    EXPECT_NE(granted["refresh_token"], "");
    drive.token = granted["access_token"];
    EXPECT_EQ(drive.get(endpoint).status, 200);
    drive.token = "";
    EXPECT_THAT(drive.get(endpoint).body, HasSubstr("message"));

    drive.token = granted["access_token"];
    drive.file(drive.root(), "a.JPG", "1234");
    EXPECT_EQ(drive.get("/metadata/account/usage").value()["photo"]["total"],
              (json{{"bytes", 4}, {"count", 1}}));
    json quota = drive.get("/metadata/account/quota").value();
    EXPECT_EQ(quota["quota"].get<int64_t>() - quota["available"].get<int64_t>(), 4);
    EXPECT_EQ(drive.get("/metadata/account/info").status, 200);
}

TEST(Cloud, ListsByPageAndByName)
{
    cloud server({"--page-size", "2"});
    client drive(server);
    std::string root = drive.root(), children = "/metadata/nodes/" + root + "/children";
    const std::vector<std::string> names = {"a b&c=d", "Salt AND Pepper", "100%", "name:x", "\u00fcber+"};
    for (const std::string& name : names)
        drive.folder(root, name);
    server.put("/gone", "");
    server.trash("/gone");

    std::vector<std::string> listed;
    std::set<size_t> counts;
    for (std::string token;;) {
        json page = drive.get(children + (token.empty() ? "" : "?startToken=" + token)).value();
        for (const std::string& name : names_in(page["data"]))
            listed.push_back(name);
        counts.insert(page["count"].get<size_t>());
        if (!page.contains("nextToken"))
            break;
        token = page["nextToken"];
    }
    EXPECT_EQ(listed, names);
    EXPECT_THAT(counts, ElementsAre(names.size())) << "every page tells the whole count";

    const char* const lookups[] = {"A%20B%26c%3Dd", "salt%20and%20pepper", "100%25", "name%3Ax",
                                   "%C3%BCber%2B"};
    for (size_t i = 0; i < names.size(); ++i) {
        json found = drive.get(children + "?filters=name:" + lookups[i]).value();
        EXPECT_EQ(found["count"], 1);
        EXPECT_THAT(names_in(found["data"]), ElementsAre(names[i]));
    }
    EXPECT_EQ(drive.get(children + "?filters=name:gone").value(),
              (json{{"count", 0}, {"data", json::array()}}));
    auto found = drive.get("/metadata/nodes?filters=kind:FILE%20AND%20status:TRASH%20AND%20parents:" + root);
    EXPECT_THAT(names_in(found.value()["data"]), ElementsAre("gone"));
}

TEST(Cloud, ListsTrashedNodesWhenTold)
{
    cloud server({"--list-trashed"});
    client drive(server);
    std::string children = "/metadata/nodes/" + drive.root() + "/children",
                lookup = children + "?filters=name:X";
    for (const char* content : {"1", "2"}) {
        server.put("/x", content);
        server.trash("/x");
    }
    EXPECT_EQ(drive.get(lookup).value()["count"], 1);
    EXPECT_EQ(drive.get(lookup).value()["data"][0]["contentProperties"]["md5"],
              "c81e728d9d4c2f636f067f89cc14862c")
        << "of trashed namesakes the latest";
    server.put("/X", "3");
    EXPECT_EQ(drive.get(lookup).value()["data"][0]["status"], "AVAILABLE");
    EXPECT_EQ(drive.get(children).value()["count"], 3);
}

TEST(Cloud, FeedTellsEachChangedNodeOnce)
{
    cloud server;
    client drive(server);
    for (const char* name : {"/d/1", "/d/2", "/d/3"})
        server.put(name, "");
    std::vector<json> lines = drive.changes("", 4, 3);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("/", "d", "1"));
    EXPECT_THAT(names_in(lines[1]["nodes"]), ElementsAre("2")) << "no more than maxNodes";
    EXPECT_EQ(lines[2], (json{{"end", true}}));
    lines = drive.changes(lines[1]["checkpoint"]);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("3"));
    std::string newest = lines[0]["checkpoint"];
    EXPECT_THAT(newest, testing::Not(testing::AnyOf(HasSubstr(" "), HasSubstr("\""), IsEmpty())));

    lines = drive.changes(newest);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0]["nodes"], IsEmpty());
    EXPECT_EQ(lines[0]["checkpoint"], newest);

    server.rename("/d/1", "one");
    server.put("/d/2", "new");
    server.trash("/d");
    lines = drive.changes(newest);
    EXPECT_THAT(names_in(lines[0]["nodes"]), ElementsAre("one", "2", "d"));
    EXPECT_EQ(lines[0]["nodes"][2]["status"], "TRASH");
    EXPECT_EQ(lines[0]["nodes"][0]["status"], "AVAILABLE") << "what is below a trashed folder did not change";
    EXPECT_FALSE(server.has("/d/one"));
    EXPECT_EQ(lines[0]["reset"], false);

    lines = drive.changes("of-another-drive.1");
    EXPECT_EQ(lines[0]["reset"], true);
    EXPECT_EQ(lines[0]["nodes"].size(), 5u);
}

TEST(Cloud, PathDoorIsAnotherClient)
{
    cloud server;
    const std::string odd = "/d \"%2F?#&+\xe2\x82\xac/n%\n";
    server.put(odd, "first");
    server.put(odd, "second");
    EXPECT_EQ(server.get(odd).body, "second");
    server.mkdir("/to");
    server.mkdir("/to");
    server.rename(odd, "plain");
    server.move(odd.substr(0, odd.rfind('/')), "/to");
    json moved = server.stat("/to" + odd.substr(0, odd.rfind('/')) + "/plain");
    EXPECT_EQ(moved["name"], "plain");
    EXPECT_THAT(names_in(json::parse(server.get("/to").body)["data"]),
                ElementsAre("d \"%2F?#&+\xe2\x82\xac"));
    EXPECT_EQ(server.get("/missing").status, 404);

    client curl(server);
    EXPECT_EQ(curl.ask("PUT", "/files/to", "bytes").status, 409) << "a folder does not become a file";
    EXPECT_EQ(curl.ask("PUT", "/files/bad%ff", "bytes").status, 400);
    answer_t dated = curl.ask("PUT", "/files/old?modified=2015-06-01T12:00:00Z", "x");
    EXPECT_EQ(dated["modifiedDate"], "2015-06-01T12:00:00.000Z");
    server.edit({{"path", "/old"}, {"modifiedDate", "2014-01-01T00:00:00.5Z"}, {"status", "PENDING"}});
    EXPECT_EQ(server.stat("/old")["modifiedDate"], "2014-01-01T00:00:00.500Z");
    EXPECT_EQ(server.stat("/old")["status"], "PENDING");
}

TEST(Cloud, FaultsReachTheClient)
{
    cloud server;
    server.put("/file", std::string(1000, 'x'));
    std::string id = server.stat("/file")["id"], target = "/content/nodes/" + id + "/content";
    struct {
        json fault;
        CURLcode code;
        long status;
        size_t size;
    } rows[] = {
        {{{"drop", true}}, CURLE_GOT_NOTHING, 0, 0},
        {{{"drop", true}, {"reset", true}}, CURLE_RECV_ERROR, 0, 0},
        {{{"cut", 10}}, CURLE_PARTIAL_FILE, 200, 10},
        {{{"cut", 10}, {"reset", true}}, CURLE_RECV_ERROR, 200, 10},
        {{{"raw", "HTTP/1.1 299 Odd\r\nContent-Length: 3\r\n\r\nabc"}}, CURLE_OK, 299, 3},
        {{{"status", 503}, {"body", {{"message", "later"}}}, {"headers", {{"X-Test", "1"}}}},
         CURLE_OK,
         503,
         19},
        {{{"delay_ms", 100}}, CURLE_OK, 200, 1000},
        {{{"method", "POST"}, {"drop", true}}, CURLE_OK, 200, 1000},
        {{{"path", "^/nodes/[^/]*$"}, {"drop", true}}, CURLE_OK, 200, 1000},
        {{{"query", "name:x"}, {"drop", true}}, CURLE_OK, 200, 1000},
    };
    for (const auto& row : rows) {
        server.fail(row.fault);
        answer_t answer = client(server).get(target);
        EXPECT_EQ(answer.code, row.code) << row.fault;
        EXPECT_EQ(answer.status, row.status) << row.fault;
        EXPECT_EQ(answer.body.size(), row.size) << row.fault;
        EXPECT_EQ(answer.head.find("X-Test: 1") != std::string::npos, row.fault.contains("headers"));
        client(server).ask("DELETE", "/control/faults");
    }

    server.fail({{"skip", 1}, {"times", 2}, {"status", 500}});
    std::vector<long> statuses;
    for (int i = 0; i < 4; ++i)
        statuses.push_back(client(server).get(target).status);
    EXPECT_THAT(statuses, ElementsAre(200, 500, 500, 200));

    server.fail({{"method", "PUT"}, {"run", true}, {"drop", true}});
    EXPECT_EQ(client(server).ask("PUT", "/metadata/trash/" + id).code, CURLE_GOT_NOTHING);
    EXPECT_FALSE(server.has("/file")) << "the reply was lost, not the request";
    EXPECT_THROW(server.fail({{"stauts", 500}}), std::runtime_error);
}

TEST(Cloud, ListsTheRequestsReceived)
{
    cloud server;
    client drive(server);
    std::string root = drive.root();
    server.forget_requests();
    drive.file(root, "a", "con\r\ntent");
    drive.get("/metadata/nodes/" + root + "/children?filters=name:a%20b");
    server.fail({{"drop", true}, {"times", 2}});
    drive.get("/metadata/account/quota"); // libcurl asks twice: the first connection was an old one
    EXPECT_TRUE(server.has("/a")) << "the other doors are not in the list";

    json list = server.requests();
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list[0]["path"], "/nodes");
    EXPECT_EQ(list[0]["target"], "/content/nodes?suppress=deduplication");
    EXPECT_THAT(list[0]["body"].get<std::string>(), HasSubstr("name=\"content\"\r\n\r\ncon\r\ntent\r\n--"));
    EXPECT_EQ(list[0]["body_size"].dump(), list[0]["headers"]["Content-Length"]);
    EXPECT_EQ(list[0]["headers"]["Authorization"], "Bearer any");
    EXPECT_EQ(list[1]["query"], "filters=name:a%20b");
    EXPECT_EQ(list[1]["status"], 200);
    EXPECT_EQ(list[1]["connection"], list[0]["connection"]) << "connections are kept alive";
    EXPECT_EQ(list[3]["status"], 0);
    EXPECT_EQ(server.count("GET", "^/nodes/.*/children"), 1);
}

TEST(Cloud, StoreOutlivesTheServer)
{
    std::string store = new_folder("store"), checkpoint, token;
    {
        cloud server({"--store", store});
        client drive(server);
        drive.file(drive.root(), "kept", "content");
        checkpoint = drive.changes("")[0]["checkpoint"];
        drive.file(drive.root(), "later", std::string(200000, 'y'));
        kill(server.pid(), SIGKILL); // an end without any warning
    }
    write_file(store + "/bodies/incoming/half-an-upload", "x");
    cloud server({"--store", store});
    client drive(server);
    EXPECT_EQ(server.get("/kept").body, "content");
    EXPECT_EQ(server.get("/later").body.size(), 200000u);
    EXPECT_THAT(names_in(drive.changes(checkpoint)[0]["nodes"]), ElementsAre("later"));
    EXPECT_FALSE(exists(store + "/bodies/incoming/half-an-upload"));

    server.put("/later", "");
    server.put("/kept", "new");
    size_t bodies = 0;
    for (const std::string& path : tree_of(store + "/bodies"))
        bodies += path.back() != '/';
    EXPECT_EQ(bodies, 1u) << "an overwritten content is deleted";
}

TEST(Cloud, ManyNodesManyClients)
{
    cloud server;
    for (const char* order : {R"({"path": "/few", "folders": 1, "files": 2, "content": "c"})",
                              R"({"path": "/many", "folders": 50, "files": 20})"}) {
        server.mkdir(json::parse(order)["path"]);
        EXPECT_EQ(client(server).ask("POST", "/control/seed", order).status, 200);
    }
    EXPECT_EQ(server.get("/few/folder-0/file-1.txt").body, "c");
    std::string many = server.stat("/many")["id"];
    std::atomic<int> created = 0;
    std::vector<std::thread> clients;
    for (int i = 0; i < 8; ++i)
        clients.emplace_back([&, i] {
            client drive(server);
            std::string folder = server.stat("/many/folder-" + std::to_string(i))["id"];
            for (int j = 0; j < 20; ++j) {
                EXPECT_EQ(drive.file(folder, "f" + std::to_string(j), j == 0 ? "x" : "").status, 201);
                created += drive.folder(many, "shared").status == 201;
            }
        });
    for (std::thread& thread : clients)
        thread.join();
    EXPECT_EQ(created, 1);
    EXPECT_EQ(client(server).changes("", 10000, 10000)[0]["nodes"].size(),
              1u + 4 + 1 + 50 + 50 * 20 + 8 * 20 + 1);
}

namespace
{

// A certificate for 127.0.0.1 that signs itself, and its key, in PEM files.
void make_certificate(const std::string& cert_path, const std::string& key_path)
{
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    std::unique_ptr<X509, void (*)(X509*)> cert(X509_new(), X509_free);
    X509_set_version(cert.get(), 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_NAME* name = X509_get_subject_name(cert.get());
    auto* text = reinterpret_cast<const unsigned char*>("kxcloud test");
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_set_pubkey(cert.get(), key.get());
    X509_EXTENSION* address = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1");
    X509_add_ext(cert.get(), address, -1);
    X509_EXTENSION_free(address);
    X509_sign(cert.get(), key.get(), EVP_sha256());
    file_ptr cert_file(fopen(cert_path.c_str(), "w")), key_file(fopen(key_path.c_str(), "w"));
    PEM_write_X509(cert_file.get(), cert.get());
    PEM_write_PrivateKey(key_file.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr);
}

} // namespace

TEST(Cloud, ServesTlsAndPackedReplies)
{
    std::string folder = new_folder("tls"), cert = folder + "/cert.pem", key = folder + "/key.pem";
    make_certificate(cert, key);
    cloud server({"--tls-cert", cert, "--tls-key", key});
    client drive(server);
    EXPECT_EQ(drive.get("/files/").code, CURLE_PEER_FAILED_VERIFICATION);
    drive.ca_file = cert;
    EXPECT_EQ(drive.get("/drive/v1/account/endpoint")["contentUrl"], server.url() + "/content/");
    std::string content(3000000, 'z');
    std::string id = drive.file(drive.root(), "big", content)["id"];
    EXPECT_TRUE(drive.get("/content/nodes/" + id + "/content").body == content);
    answer_t feed = drive.ask("POST", "/metadata/changes", R"({"checkpoint":""})");
    EXPECT_THAT(feed.head, HasSubstr("Content-Encoding: gzip"));
    EXPECT_THAT(feed.body, testing::EndsWith("{\"end\":true}\n"));
}

TEST(Cloud, ListensWhereItMayAndEndsWhenTold)
{
    struct {
        std::vector<std::string> words;
        int status;
    } rows[] = {
        {{}, 2},
        {{"--listen", "0.0.0.0:0"}, 2},
        {{"--listen", "127.0.0.1:http"}, 2},
        {{"--listen", "127.0.0.1:0", "--tls-cert", "x"}, 2},
        {{"--listen", "127.0.0.1:0", "--tls-cert", "/none", "--tls-key", "/none"}, 1},
    };
    for (auto& row : rows) {
        row.words.insert(row.words.begin(), program("kxcloud"));
        run_result_t result = run(row.words);
        EXPECT_EQ(result.status, row.status);
        EXPECT_THAT(result.err, HasSubstr("kxcloud"));
    }
    cloud taken;
    std::string address = taken.url().substr(taken.url().rfind('/') + 1);
    EXPECT_EQ(run({program("kxcloud"), "--listen", address}).status, 1) << "a port is not shared";

    process server({program("kxcloud"), "--listen", "127.0.0.1:0"}, {"TMPDIR=" + new_folder("tmp")});
    ASSERT_TRUE(eventually([&] { return server.out().find("store") != std::string::npos; }));
    std::string url = server.out().substr(0, server.out().find('\n'));
    client drive(url);
    drive.get("/files/");
    EXPECT_EQ(drive.ask("POST", "/control/faults", R"({"delay_ms": 20000})").status, 200);
    std::thread waiting([&] { client(url).get("/metadata/account/info"); });
    ASSERT_TRUE(eventually([&] { return drive.get("/control/faults").body == "[]"; }));
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(5), 0) << "neither a kept connection nor a request under way holds it up";
    waiting.join();
}
