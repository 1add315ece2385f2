#include "kxamazon/download_note.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"

namespace
{

// The first byte of the note.
enum note_state_t : char {
    NOTE_WRITING = 'w', // the file is being opened, written or emptied
    NOTE_WAITING = 'i', // between two writes: the file bears the oldest time
    NOTE_DONE = '-',
};

constexpr time_t oldest_time = 0;
constexpr size_t note_size = PATH_MAX + 64;

// The note of the download under way.
fd_owner s_note;

void set_state(note_state_t state)
{
    if (s_note && pwrite(s_note.get(), &state, 1, 0) != 1)
        LOG_ERROR("%s: Failed to write %s! errno=%d\n", __func__, kx_download_note_path, errno);
}

void set_oldest_time(int file)
{
    const timespec times[] = {{0, UTIME_OMIT}, {oldest_time, 0}};
    futimens(file, times);
}

// A note as it is read back.
struct noted_t {
    char state;
    long long begun;    // when the file was about to be opened
    long long modified; // the time that the finished file bears
    std::string path;
};

// "w BEGUN MODIFIED PATH" and a NUL, which ends a path that an older and longer one stood behind.
bool read_note(noted_t& note)
{
    fd_owner file(open(kx_download_note_path, O_RDONLY | O_CLOEXEC));
    char text[note_size] = "";
    if (!file || read(file.get(), text, sizeof text - 1) <= 0)
        return false;
    int path_at = 0;
    if (sscanf(text, "%c %lld %lld%n", &note.state, &note.begun, &note.modified, &path_at) != 3 ||
        text[path_at] != ' ')
        return false;
    note.path = text + path_at + 1;
    return true;
}

// A write that was under way leaves a time since its beginning. Any other time but the oldest was set by the
// finished download, as a whole second, or by the owner.
bool is_leftover(const noted_t& note, const struct stat& st)
{
    if (st.st_mtime == note.modified && st.st_mtim.tv_nsec == 0)
        return false;
    return st.st_mtime == oldest_time || (note.state == NOTE_WRITING && st.st_mtime >= note.begun);
}

bool is_disk_error(int error)
{
    return error == EIO || error == ENOSPC || error == EDQUOT;
}

} // namespace

download_note::download_note(const char* local_path, time_t modified_date) : local_path_(local_path)
{
    char text[note_size];
    int length = safe_snprintf(text, sizeof text, "%c %lld %lld %s", NOTE_WRITING,
                               static_cast<long long>(time(nullptr)), static_cast<long long>(modified_date),
                               local_path);
    if (length >= static_cast<int>(sizeof text)) // no such file can be opened
        return;
    s_note = fd_owner(open(kx_download_note_path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!s_note || pwrite(s_note.get(), text, length + 1, 0) != length + 1 || fdatasync(s_note.get()) != 0)
        LOG_ERROR("%s: Failed to write %s! errno=%d\n", __func__, kx_download_note_path, errno);
}

download_note::~download_note()
{
    s_note = fd_owner();
}

bool download_note::finish()
{
    fd_owner file(open(local_path_, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (file && fsync(file.get()) != 0 && is_disk_error(errno)) {
        LOG_ERROR("%s: Failed to write %s to the disk! errno=%d\n", __func__, local_path_, errno);
        set_oldest_time(file.get());
        return false;
    }
    set_state(NOTE_DONE);
    return true;
}

download_write::download_write(int file) : file_(file)
{
    set_state(NOTE_WRITING);
}

download_write::~download_write()
{
    if (!s_note)
        return;
    set_oldest_time(file_);
    set_state(NOTE_WAITING);
}

void download_note_recover()
{
    noted_t note;
    if (!read_note(note) || note.state == NOTE_DONE)
        return;
    const char* path = note.path.c_str();
    struct stat st;
    if (lstat(path, &st) == 0 && S_ISREG(st.st_mode) && is_leftover(note, st)) {
        if (unlink(path) != 0) {
            LOG_ERROR("%s: Failed to remove %s, the rest of an interrupted download! errno=%d\n", __func__,
                      path, errno);
            return;
        }
        LOG_INFO("%s: Removed %s, the rest of an interrupted download.\n", __func__, path);
    }
    unlink(kx_download_note_path);
}

void download_note_sync()
{
    fd_owner file(open(kx_download_note_path, O_RDONLY | O_CLOEXEC));
    if (file)
        fdatasync(file.get());
}
