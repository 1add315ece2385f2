// What a start makes of the note that an interrupted download left.
#include "kxamazon/download_note.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

#include "common/constants.h"
#include "common/owners.h"
#include "common/utils.h"
#include "support/support.h"

using namespace kxtest;

namespace
{

constexpr time_t finished = 1433160000;

class DownloadNote : public testing::Test
{
protected:
    DownloadNote() { mkdir_p((sysroot() + "/var/cache/kxamazon").c_str(), 0755); }

    // The file as a download writes it.
    void download()
    {
        fd_owner file(open(path_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        download_write write(file.get());
        EXPECT_EQ(pwrite(file.get(), "half", 4, 0), 4);
    }
    bool survives_a_start() const
    {
        download_note_recover();
        const bool there = exists(path_);
        write_file(path_, "later", finished - 1);
        download_note_recover(); // the note went with the first
        EXPECT_TRUE(exists(path_));
        return there;
    }

    std::string path_ = new_folder() + "/a file\nof two lines";
};

} // namespace

TEST_F(DownloadNote, TellsALeftoverFromAFileThatWasFinishedOrEdited)
{
    struct {
        const char* when;
        std::function<void()> leave;
        char state;
        bool stays;
    } rows[] = {
        {"between two writes", [this] { download(); }, 'i', false},
        {"in a write", [this] { write_file(path_, "half"); }, 'w', false},
        {"not yet opened", [this] { write_file(path_, "old", finished - 100); }, 'w', true},
        {"finished", [this] { write_file(path_, "whole", finished); }, 'i', true},
        {"edited since", [this] { download(), write_file(path_, "the owner's"); }, 'i', true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.when);
        {
            download_note note(path_.c_str(), finished);
            row.leave();
        }
        std::string note = read_file(kx_download_note_path);
        write_file(kx_download_note_path, row.state + note.substr(1));
        EXPECT_EQ(survives_a_start(), row.stays);
    }
}

TEST_F(DownloadNote, FinishTakesItAwayAndADownloadWithoutItIsNotMarked)
{
    {
        download_note note(path_.c_str(), finished);
        download();
        EXPECT_EQ(mtime_of(path_), 0);
        EXPECT_TRUE(note.finish());
    }
    download_note_sync();
    EXPECT_TRUE(survives_a_start());
    download();
    EXPECT_GT(mtime_of(path_), finished);
    download_note_recover();
    EXPECT_TRUE(exists(path_)) << "there is no note";
}
