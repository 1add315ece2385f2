// Walks local folders in alphabetical order, and compares local files with what the cloud says of them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <dirent.h>

#include "kxamazon/acd_fs_error.h"

// As scandir takes it: non-zero keeps the entry.
typedef int (*linux_fs_selector_t)(const struct dirent* entry);

// Per entry: 0 or ACD_FS_ERR_SCAN_OP_CONTINUE (200) to go on, anything else to stop this folder's walk.
typedef int (*linux_fs_op_t)(const char* full_path, const struct dirent* entry, void* arg);

// Walks dir, each folder before what it holds; 200 from op keeps the walk out of that folder.
acd_fs_error_t linux_fs_scan_dir_op_first(const char* dir, int recursive, linux_fs_selector_t selector,
                                          linux_fs_op_t op, void* arg);

// Walks dir, each folder after what it holds.
acd_fs_error_t linux_fs_scan_dir_op_next(const char* dir, int recursive, linux_fs_selector_t selector,
                                         linux_fs_op_t op, void* arg);

// 1 when path is a regular file of that size and MD5 (hex digits; an unknown one, null or empty, is no
// match).
int linux_fs_has_content(const char* path, uint64_t size_byte, const char* md5);

// Fills buf with the text of an error number, whichever strerror_r is in use.
void xstrerror_r(int errnum, char* buf, size_t len);
