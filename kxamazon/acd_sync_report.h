// Reports each sync action that was performed, to the log at info level and to the event log.
#pragma once

#include <span>

// One entry that was added, overwritten or deleted. A null event leaves the event log alone.
void report_sync_action(const char* label, const char* event, const char* path);

// One entry that was renamed or moved.
void report_sync_move(const char* label, const char* event, const char* old_path, const char* new_path);

// The label of an action, the first label being that of -1. An action without one ends the process.
const char* sync_action_label(std::span<const char* const> labels, int action);
