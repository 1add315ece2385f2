// What a test may read and set of its own constants.
#pragma once

#include <string>

namespace kxtest
{

// The folder below which all fixed places of this program lie: $KXTEST_SYSROOT, or a new one in /tmp.
const std::string& sysroot();

// A number from the environment.
unsigned setting(const char* name, unsigned otherwise);

// Points the account API and the authorization server at this address.
void set_cloud_url(const std::string& url);

} // namespace kxtest
