#include "support/appliance.h"

#include <csignal>
#include <filesystem>
#include <regex>
#include <unistd.h>

#include "common/cipher_utils.h"
#include "common/owners.h"

namespace fs = std::filesystem;

namespace kxtest
{

namespace
{

std::string host_name()
{
    char name[64] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

} // namespace

appliance::appliance(const cloud& its_cloud)
    : cloud_url(its_cloud.url()), cloud_photos("/Korvane_" + host_name() + "/Photos")
{
    string_ptr sealed(encrypt_str2hexstr("user=x&state=authorized", 1));
    settings("AMAZONDRIVE_PROVISION=" + std::string(sealed.get()) +
             "\nAMAZONDRIVE_ACCESS_TOKEN='access'\nAMAZONDRIVE_REFRESH_TOKEN='refresh'\n");
    write_file(root + "/etc/brisal/account.conf", "admin!!" + name() + "\n");
    write_file(root + "/etc/brisal/amazon/config.xml",
               "<config mode=\"down\"><ShareId>" + name() + "/Photos</ShareId></config>");
    write_file(root + "/var/log/brisal/amazoncd.log", "");
    fs::create_directories(photos);
    fs::create_directories(drive);
}

void appliance::settings(const std::string& text) const
{
    write_file(root + "/etc/default/services", text);
}

std::unique_ptr<process> appliance::start(std::vector<std::string> env, const std::string& verbosity) const
{
    env.push_back("KXTEST_SYSROOT=" + root);
    env.push_back("KXTEST_CLOUD_URL=" + cloud_url);
    return std::make_unique<process>(std::vector<std::string>{program("kxamazon"), "-d", "-v", verbosity},
                                     env);
}

bool appliance::watches(const process& service, const std::string& folder, double seconds)
{
    const std::string line = "DidAdd: add_watch(" + folder + ") ";
    return eventually([&] { return service.err().find(line) != std::string::npos; }, seconds);
}

int appliance::stop(process& service)
{
    service.signal(SIGUSR1);
    return service.wait(30);
}

std::string appliance::status(const std::string& element) const
{
    std::smatch found;
    std::string text = read_file(root + "/etc/brisal/amazon/status.xml");
    return std::regex_search(text, found, std::regex("<" + element + ">(.*)<")) ? found.str(1) : "";
}

bool appliance::becomes(const std::string& state) const
{
    return eventually([&] { return status() == state; });
}

std::string appliance::events() const
{
    std::string text = events_in(root + "/var/log/brisal/amazoncd.log");
    text = std::regex_replace(text, std::regex(photos), "PHOTOS");
    text = std::regex_replace(text, std::regex(drive), "DRIVE");
    return std::regex_replace(text, std::regex(cloud_photos), "CLOUD");
}

} // namespace kxtest
