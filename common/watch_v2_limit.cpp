#include "common/watch_v2_limit.h"

#include <cerrno>
#include <cstdio>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"

namespace
{

constexpr unsigned long default_watches = 8192;
constexpr unsigned long step_watches = 8192;
constexpr unsigned long most_watches = 262144;

void write_max_user_watches(unsigned long desired_watches, unsigned long current)
{
    file_ptr file(std::fopen(kx_max_user_watches_path, "w"));
    if (!file) {
        LOG_DEBUG("Cannot open (w) %s. current_max_watch stays %lu.\n", kx_max_user_watches_path, current);
        return;
    }
    // fprintf answers the number of characters, so the message also follows a successful write. Meant so.
    if (std::fprintf(file.get(), "%lu", desired_watches) != 0)
        LOG_ERROR("%s: Failed to write desired_watches %lu to %s!\n", "set_max_user_watches", desired_watches,
                  kx_max_user_watches_path);
}

} // namespace

unsigned long get_max_user_watches()
{
    file_ptr file(std::fopen(kx_max_user_watches_path, "r"));
    if (!file) {
        LOG_ERROR("Cannot open (r) %s\n", kx_max_user_watches_path);
        return 0;
    }
    unsigned long limit = 0;
    return std::fscanf(file.get(), "%lu", &limit) == 1 ? limit : default_watches;
}

unsigned long set_max_user_watches(unsigned long desired_watches)
{
    const unsigned long current = get_max_user_watches();
    if (desired_watches > most_watches)
        LOG_ERROR("Too many watch wanted %lu. Stay with current watch %lu.\n", desired_watches, current);
    else if (desired_watches <= current)
        LOG_INFO("We don't reduce max_user_watches to %lu.Stay with current watch %lu.\n", desired_watches,
                 current);
    else
        write_max_user_watches(desired_watches, current);
    return current;
}

int raise_max_user_watches()
{
    LOG_ERROR("%s: Need to set max user wathces! max user watches = %lu\n", "add_watch",
              get_max_user_watches());
    const unsigned long limit = get_max_user_watches();
    if (limit == 0)
        return EACCES;
    // Both numbers are read before the new limit is written, so they differ only when someone else raised it
    // meanwhile: the folder that met the limit usually stays unwatched, and later folders profit.
    const unsigned long current = set_max_user_watches(limit + step_watches);
    if (limit >= current)
        return ENOSPC;
    LOG_INFO("Set max user watches to %lu\n", current);
    return 0;
}
