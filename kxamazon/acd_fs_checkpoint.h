// The process's position in the cloud's change feed: one opaque text without white space, kept in memory and
// in a one-line file.
#pragma once

// Fetches an up-to-date checkpoint when none is set; tries until the service answers or a stop is asked
// for; none is set then. Not written to the file.
void acd_fs_checkpoint_init();

// Forgets the current checkpoint.
void acd_fs_checkpoint_deinit();

// The current checkpoint, borrowed; null when unknown.
const char* acd_fs_get_checkpoint();

// Replaces the current checkpoint with a copy of text.
void acd_fs_set_checkpoint(const char* text);

// Writes the current checkpoint, if any, to its file.
void acd_fs_save_checkpoint();

// Replaces the current checkpoint when text differs, and writes it to the file in any case; null does
// nothing.
void acd_fs_set_save_checkpoint(const char* text);
