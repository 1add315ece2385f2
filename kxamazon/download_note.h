// Tells what an interrupted download left behind from a file that its owner wrote.
//
// Half a file has a fresh time, and the next start would take it for newer than the cloud's good copy. So a
// file bears the oldest time for as long as a download writes it: every comparison then finds it older than
// the cloud's. Between a write and the setting of that time stands a note, made durable before the file is
// opened, which says whether a write was under way. docs/reliability.md has the whole of it. One download at
// a time.
#pragma once

#include <ctime>

// The note of one download; it stands until finish, also when the process ends before.
class download_note
{
public:
    // Before local_path is opened. modified_date is the time that the finished file will bear.
    download_note(const char* local_path, time_t modified_date);
    download_note(const download_note&) = delete;
    download_note& operator=(const download_note&) = delete;
    ~download_note();

    // After the file's time was set: puts the file on the disk, then takes the note away. False when the disk
    // refused; the note stays then, and the file bears the oldest time again.
    bool finish();

private:
    const char* local_path_;
};

// Stands around everything that changes the open file of a download. Without a note it does nothing.
class download_write
{
public:
    explicit download_write(int file);
    download_write(const download_write&) = delete;
    download_write& operator=(const download_write&) = delete;
    ~download_write();

private:
    int file_;
};

// At the start, before anything is compared: removes the file that an interrupted download left behind, so
// that it is downloaded anew. A file that was written since is left alone.
void download_note_recover();

// Makes the last finish as durable as the checkpoint that is about to be saved.
void download_note_sync();
