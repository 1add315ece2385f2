#include "fixture.h"

#include <filesystem>

#include "bench.h"
#include "common/constants.h"
#include "kxamazon/acd_fs_cache.h"
#include "support/support.h"

namespace fs = std::filesystem;

namespace kxbench
{

namespace
{

constexpr size_t big = 1, first_deep = 2, depth = 8, first_folder = first_deep + depth;
constexpr char cache_place[] = "/var/cache/kxamazon/acd_fs_cache";

// Each number another one without an order.
uint64_t scattered(uint64_t number)
{
    number = (number + 0x9E3779B97F4A7C15) * 0xBF58476D1CE4E5B9;
    number = (number ^ (number >> 27)) * 0x94D049BB133111EB;
    return number ^ (number >> 31);
}

fs::path file_of(const fixture_t& fixture)
{
    return fs::path(kxtest::sysroot()) / ("cache-" + std::to_string(fixture.nodes));
}

void fill(const fixture_t& fixture)
{
    expect(acd_cache_init(0) == ACD_CACHE_ERR_OK, "no cache");
    sqlite3_exec(acd_cache_db(), "PRAGMA cache_size=-600000; PRAGMA wal_autocheckpoint=1000000000", nullptr,
                 nullptr, nullptr);
    std::vector<cached_node_t> rows;
    for (size_t number = 1; number < fixture.nodes; ++number)
        rows.push_back(fixture.node(number));
    write_rows(rows);
    rows = {fixture.node(0)};
    write_rows(rows);
    expect(acd_cache_deinit() == ACD_CACHE_ERR_OK, "the cache stays open");
}

} // namespace

std::string fixture_t::id(size_t number) const
{
    constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string id;
    for (uint64_t half : {scattered(number), scattered(number + nodes * 7)})
        for (int i = 0; i < 11; ++i, half >>= 6)
            id += digits[half & 63];
    return id;
}

cached_node_t fixture_t::node(size_t number) const
{
    cached_node_t node{id(number), "", "FOLDER", "", id(0), 1433160000, 1433160000, 0};
    if (number == 0) {
        node.name = "/";
        node.parent = "no_parent_for_root";
    } else if (number == big) {
        node.name = "big";
    } else if (number < first_folder) {
        bool last = number == first_folder - 1;
        node.name = last ? "deep.jpg" : "d" + std::to_string(number - first_deep + 1);
        node.kind = last ? "FILE" : "FOLDER";
        node.parent = id(number == first_deep ? 0 : number - 1);
    } else if (number < first_folder + folders()) {
        node.name = "folder-" + std::to_string(number - first_folder);
    } else {
        bool in_big = number < first_folder + folders() + big_children();
        node.name = number / folders() == cover(0) / folders() ? "cover.jpg"
                                                               : "file-" + std::to_string(number) + ".jpg";
        node.kind = "FILE";
        node.md5 = "d41d8cd98f00b204e9800998ecf8427e";
        node.size = 4096;
        node.parent = id(in_big ? big : first_folder + number % folders());
    }
    return node;
}

acd_node_t record_of(const cached_node_t& row, char** parent)
{
    *parent = const_cast<char*>(row.parent.c_str());
    acd_node_t node = {};
    node.id = const_cast<char*>(row.id.c_str());
    node.name = const_cast<char*>(row.name.c_str());
    node.md5 = const_cast<char*>(row.md5.c_str());
    node.kind = row.kind == "FILE" ? NODE_KIND_FILE : NODE_KIND_FOLDER;
    node.create_date = row.created;
    node.modified_date = row.modified;
    node.size_byte = static_cast<uint64_t>(row.size);
    node.parents = {1, parent};
    return node;
}

void make_fixture(const fixture_t& fixture)
{
    if (fs::exists(file_of(fixture)))
        return;
    in_child([&] {
        fs::remove_all(fs::path(kx_cache_path).parent_path());
        fill(fixture);
        fs::rename(kx_cache_path, file_of(fixture));
        return std::vector<double>{};
    });
}

void copy_fixture(const fixture_t& fixture, const std::string& sysroot)
{
    fs::path place = sysroot + cache_place;
    fs::remove_all(place.parent_path());
    fs::create_directories(place.parent_path());
    fs::copy_file(file_of(fixture), place);
}

void open_fixture(const fixture_t& fixture)
{
    copy_fixture(fixture, kxtest::sysroot());
    settle();
    expect(acd_cache_init(0) == ACD_CACHE_ERR_OK, "no cache");
}

} // namespace kxbench
