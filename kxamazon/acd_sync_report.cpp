#include "kxamazon/acd_sync_report.h"

#include <cstdlib>

#include "common/utils.h"
#include "kxamazon/acd_utils.h"

void report_sync_action(const char* label, const char* event, const char* path)
{
    LOG_INFO("%s %s\n", label, path);
    if (event)
        add_log(event, path, nullptr);
}

void report_sync_move(const char* label, const char* event, const char* old_path, const char* new_path)
{
    LOG_INFO("%s %s -> %s\n", label, old_path, new_path);
    add_log(event, old_path, new_path, nullptr);
}

const char* sync_action_label(std::span<const char* const> labels, int action)
{
    if (action >= -1 && action + 1 < static_cast<int>(labels.size()))
        return labels[action + 1];
    LOG_ERROR("Invalid sync action %d\n", action);
    std::exit(1);
}
