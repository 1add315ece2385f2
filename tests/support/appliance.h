// An appliance with one volume, a share on it and the default folder, linked to a cloud; and its service as a
// process of its own. Everything lies below a new folder of the test's.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/cloud.h"
#include "support/process.h"
#include "support/support.h"

namespace kxtest
{

struct appliance {
    explicit appliance(const cloud& its_cloud);

    std::string name() const { return volume.substr(1); }
    void settings(const std::string& text) const;
    std::string status(const std::string& element = "SyncState") const; // what the status file holds there
    bool becomes(const std::string& state) const;                       // the status, before long
    std::string events() const;                                         // the event log with short places

    // The service, with these settings of its environment.
    std::unique_ptr<process> start(std::vector<std::string> env = {},
                                   const std::string& verbosity = "3") const;

    // Whether it watches a folder before long: what changes before that, finds nobody looking. The default
    // folder is the last.
    static bool watches(const process& service, const std::string& folder, double seconds = 30);
    bool is_live(const process& service) const { return watches(service, drive); }
    bool is_live_now(const process& service) const { return watches(service, drive, 0); }
    static int stop(process& service); // in order; its status

    std::string cloud_url;
    std::string root = new_folder("appliance");
    std::string volume = root + "/data";
    std::string photos = volume + "/Photos";
    std::string drive = volume + "/AmazonCloudDrive";
    std::string cloud_photos; // the share's folder in the cloud
};

} // namespace kxtest
