// The entries of one folder in alphabetical order, as scandir lists them; owned by the list.
#pragma once

#include <dirent.h>

#include <cstdlib>

class dir_list
{
public:
    // Keeps the entries for which selector answers non-zero. False, with errno set, when the folder cannot be
    // read.
    dir_list(const char* folder, int (*selector)(const dirent*))
        : count_(scandir(folder, &entries_, selector, alphasort))
    {
    }
    dir_list(const dir_list&) = delete;
    dir_list& operator=(const dir_list&) = delete;
    ~dir_list()
    {
        for (const dirent* entry : *this)
            std::free(const_cast<dirent*>(entry));
        std::free(entries_);
    }
    explicit operator bool() const { return count_ >= 0; }
    const dirent* const* begin() const { return entries_; }
    const dirent* const* end() const { return entries_ + (count_ > 0 ? count_ : 0); }

private:
    dirent** entries_ = nullptr;
    int count_;
};
