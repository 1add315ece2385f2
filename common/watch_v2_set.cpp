#include "common/watch_v2_set.h"

#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string_view>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "common/dir_list.h"
#include "common/utils.h"
#include "common/watch_v2_limit.h"

namespace
{

constexpr uint32_t watch_mask =
    IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_DELETE_SELF;

int select_folders(const dirent* entry)
{
    const std::string_view name = entry->d_name;
    return entry->d_type == DT_DIR && name != "." && name != "..";
}

int select_folders_and_files(const dirent* entry)
{
    return entry->d_type == DT_REG || select_folders(entry);
}

bool may_be_watched(const watches& set, const char* folder)
{
    struct stat st;
    if (lstat(folder, &st) != 0)
        return false;
    if (!S_ISDIR(st.st_mode)) {
        LOG_ERROR("%s: Failed to watch %s! It is not a folder.\n", "watch_folder", folder);
        return false;
    }
    if (st.st_dev == set.dev)
        return true;
    LOG_ERROR("%s: Failed to watch folder %s! Don't watch folders accross devices. root folder %s (%d/%d), "
              "folder %s (%d/%d).\n",
              "watch_folder", folder, set.root_path.c_str(), major(set.dev), minor(set.dev), folder,
              major(st.st_dev), minor(st.st_dev));
    return false;
}

// False when the descriptor is known already: the folder keeps the path that it is known by.
bool append_watch(watches* set, int wd, const char* folder)
{
    auto [place, added] = set->by_wd.try_emplace(wd);
    if (!added)
        return false;
    watch* appended = &place->second;
    *appended = {wd, folder, set->tail, nullptr};
    (set->tail ? set->tail->next : set->head) = appended;
    set->tail = appended;
    set->num_watch++;
    return true;
}

void unlink_watch(watches* set, watch* old)
{
    (old->prev ? old->prev->next : set->head) = old->next;
    (old->next ? old->next->prev : set->tail) = old->prev;
    set->num_watch--;
}

} // namespace

const char* watch_type_v2_to_string(watch_type_v2_t type)
{
    static const char* const labels[] = {"NONE",          "Add File",    "Add Folder", "Delete File",
                                         "Delete Folder", "Move Folder", "Move File"};
    if (static_cast<size_t>(type) < std::size(labels))
        return labels[type];
    LOG_ERROR("%s: Invalid watch_type_v2 %d\n", __func__, type);
    std::exit(1);
}

watch* find_watch(watches* set, int wd)
{
    const auto place = set->by_wd.find(wd);
    return place == set->by_wd.end() ? nullptr : &place->second;
}

int add_watch(watches* set, const char* folder)
{
    int wd = inotify_add_watch(set->inotify.get(), folder, watch_mask);
    int error = wd < 0 ? errno : 0;
    if (error == ENOSPC && (error = raise_max_user_watches()) == 0) {
        wd = inotify_add_watch(set->inotify.get(), folder, watch_mask);
        error = wd < 0 ? errno : 0;
    }
    if (error != 0) {
        LOG_ERROR("add_watch(%s) ==> errno=%d\n", folder, error);
        return -1;
    }
    LOG_DEBUG("WillAdd: add_watch(%s) ==> wd=%d num_watches=%lu\n", folder, wd, set->num_watch);
    if (append_watch(set, wd, folder))
        LOG_DEBUG("DidAdd: add_watch(%s) ==> wd=%d num_watches=%lu\n", folder, wd, set->num_watch);
    return wd;
}

void del_watch(watches* set, int wd)
{
    watch* old = find_watch(set, wd);
    if (!old) {
        LOG_ERROR("%s: del_watch(%d) ==> error num=%lu\n", __func__, wd, set->num_watch);
        return;
    }
    unlink_watch(set, old);
    LOG_DEBUG("del_watch(%s, %d) ==> num=%lu\n", old->path.c_str(), wd, set->num_watch);
    inotify_rm_watch(set->inotify.get(), wd);
    set->by_wd.erase(wd);
}

const std::string* find_watched_path(watches* set, int wd)
{
    if (const watch* folder = find_watch(set, wd))
        return &folder->path;
    const auto redirected = set->redirected.find(wd);
    return redirected == set->redirected.end() ? nullptr : &redirected->second;
}

void watch_folder(watches* set, const char* folder, watch_notify_t notify, void* ctx)
{
    LOG_DEBUG("watch_folder(%s,%s)\n", set->root_path.c_str(), folder);
    if (!may_be_watched(*set, folder))
        return;
    if (notify)
        notify(folder, WATCH_TYPE_V2_ADD_DIR, ctx);
    // Files matter only to notify; without it they need not even be sorted.
    const dir_list entries(folder, notify ? select_folders_and_files : select_folders);
    if (!entries) {
        LOG_ERROR("%s: Failed to scan dir '%s'! %d\n", __func__, folder, errno);
        return;
    }
    add_watch(set, folder);
    // What came since the listing began and before the watch is in no event.
    const dir_list since(folder, notify ? select_folders_and_files : select_folders);
    for (const dirent* entry : since ? since : entries) {
        const std::string path = std::string(folder) + "/" + entry->d_name;
        if (entry->d_type == DT_DIR)
            watch_folder(set, path.c_str(), notify, ctx);
        else
            notify(path.c_str(), WATCH_TYPE_V2_ADD_FILE, ctx);
    }
}

watches* find_root(watches_list_t* list, const char* path)
{
    watches* set = list->head;
    while (set && !std::string_view(path).starts_with(set->root_path))
        set = set->next;
    return set;
}

void del_watch_folders(watches* set, const char* path)
{
    const char* root = set->root_path.c_str();
    LOG_DEBUG("%s: Will del_watch_folders(%s, %s) ==> num=%lu\n", __func__, root, path, set->num_watch);
    for (watch *next, *old = set->head; old; old = next) {
        next = old->next;
        if (!old->path.starts_with(path))
            continue;
        const int wd = old->wd;
        inotify_rm_watch(set->inotify.get(), wd);
        unlink_watch(set, old);
        LOG_DEBUG("%s: Did del_watch_folders(%s, %s, %d) ==> num=%lu\n", __func__, root, old->path.c_str(),
                  wd, set->num_watch);
        set->by_wd.erase(wd);
    }
}
