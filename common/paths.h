// Parts of a cloud or local path, as new strings, and what stands at a local one.
#pragma once

#include <libgen.h>
#include <string>
#include <sys/stat.h>
#include <vector>

// The folder that holds the entry; "/" for the entries of the root.
inline std::string folder_of_path(const char* path)
{
    std::string copy(path); // dirname writes into its argument
    return dirname(copy.data());
}

// The last component, trailing slashes left out.
inline std::string name_of_path(const char* path)
{
    std::string copy(path); // basename may write into its argument
    return basename(copy.data());
}

// The components from the root down; empty ones are left out.
inline std::vector<std::string> split_path(const std::string& path)
{
    std::vector<std::string> names;
    for (size_t begin = 0; (begin = path.find_first_not_of('/', begin)) != std::string::npos;) {
        size_t end = path.find('/', begin);
        names.push_back(path.substr(begin, end - begin));
        begin = end;
    }
    return names;
}

// Whether anything stands there, a link that leads nowhere too.
inline bool is_there(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
