// The echo of what downsync does to local files: the watcher reports it like anybody's work.
//
// An echo must not be acted on like a user's change: by the time it is read another node may have taken the
// old path. Each own delete, rename or move is noted before its event can be read; the event takes the note.
// Notes whose events never came (nobody watched) are forgotten when all events were read.
#pragma once

// The local path is about to lose what it holds. One event of a delete comes from each root that watches it.
void acd_sync_expect_delete_echo(const char* path);
void acd_sync_expect_move_echo(const char* old_path);

// 1 when an event about what left this path is an echo; it is expected once less then.
int acd_sync_take_echo(const char* path);

void acd_sync_forget_echoes();
