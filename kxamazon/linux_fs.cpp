#include "kxamazon/linux_fs.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "common/dir_list.h"
#include "common/utils.h"

namespace
{

constexpr size_t error_text_size = 256;

// One of the two takes strerror_r's answer: the text, in buf or elsewhere, or a code with the text in buf.
[[maybe_unused]] void take_error_text(const char* text, char* buf, size_t len)
{
    if (text != buf)
        safe_snprintf(buf, len, "%s", text);
}
[[maybe_unused]] void take_error_text(int, char*, size_t) {}

acd_fs_error_t failed_scan(const char* function_name, const char* dir, int errnum)
{
    char text[error_text_size];
    xstrerror_r(errnum, text, sizeof text);
    LOG_ERROR("%s: Failed to scan dir '%s' (%s)\n", function_name, dir, text);
    return ACD_FS_ERR_LOCAL_IO;
}

bool goes_on(int answer)
{
    return answer == ACD_FS_ERR_OK || answer == ACD_FS_ERR_SCAN_OP_CONTINUE;
}

std::string path_of(const char* dir, const dirent* entry)
{
    return std::string(dir) + "/" + entry->d_name;
}

} // namespace

acd_fs_error_t linux_fs_scan_dir_op_first(const char* dir, int recursive, linux_fs_selector_t selector,
                                          linux_fs_op_t op, void* arg)
{
    if (!dir)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    const dir_list entries(dir, selector);
    if (!entries)
        return failed_scan(__func__, dir, errno);
    auto result = ACD_FS_ERR_OK;
    for (const dirent* entry : entries) {
        const std::string path = path_of(dir, entry);
        const int answer = op(path.c_str(), entry, arg);
        if (!goes_on(answer))
            return static_cast<acd_fs_error_t>(answer);
        if (recursive == 1 && entry->d_type == DT_DIR && answer != ACD_FS_ERR_SCAN_OP_CONTINUE)
            result = linux_fs_scan_dir_op_first(path.c_str(), recursive, selector, op, arg);
    }
    return result;
}

acd_fs_error_t linux_fs_scan_dir_op_next(const char* dir, int recursive, linux_fs_selector_t selector,
                                         linux_fs_op_t op, void* arg)
{
    if (!dir)
        return ACD_FS_ERR_INVALID_ARGUMENTS;
    const dir_list entries(dir, selector);
    if (!entries)
        return failed_scan(__func__, dir, errno);
    auto result = ACD_FS_ERR_OK;
    for (const dirent* entry : entries) {
        const std::string path = path_of(dir, entry);
        if (recursive == 1 && entry->d_type == DT_DIR)
            result = linux_fs_scan_dir_op_next(path.c_str(), recursive, selector, op, arg);
        if (const int answer = op(path.c_str(), entry, arg); !goes_on(answer))
            return static_cast<acd_fs_error_t>(answer);
    }
    return result;
}

void xstrerror_r(int errnum, char* buf, size_t len)
{
    take_error_text(strerror_r(errnum, buf, len), buf, len);
}
