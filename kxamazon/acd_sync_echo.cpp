#include "kxamazon/acd_sync_echo.h"

#include <string>
#include <string_view>
#include <unordered_map>

#include "kxamazon/acd_sync_pair.h"
#include "kxamazon/global.h"

namespace
{

// How many events are to come, by path.
std::unordered_map<std::string, int>& expected()
{
    static std::unordered_map<std::string, int> events;
    return events;
}

int roots_above(std::string_view path)
{
    int count = 0;
    const acd_sync_pair_entry_t* pair;
    if (!global.sync_pairs)
        return 0;
    TAILQ_FOREACH (pair, global.sync_pairs, entries) {
        const std::string_view root = pair->local_drive_path;
        count += path.starts_with(root) && path.substr(root.size()).starts_with('/');
    }
    return count;
}

} // namespace

void acd_sync_expect_delete_echo(const char* path)
{
    if (const int roots = roots_above(path); roots > 0)
        expected()[path] += roots;
}

void acd_sync_expect_move_echo(const char* old_path)
{
    expected()[old_path]++;
}

int acd_sync_take_echo(const char* path)
{
    const auto found = expected().find(path);
    if (found == expected().end())
        return 0;
    if (--found->second == 0)
        expected().erase(found);
    return 1;
}

void acd_sync_forget_echoes()
{
    expected().clear();
}
