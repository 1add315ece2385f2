#include "kxamazon/acd_utils.h"

#include <cerrno>
#include <utime.h>

#include "common/utils.h"

time_t acdtime_to_unix(const char* s)
{
    // The parse stops at a fraction's dot, with every field that matters already set; so its result says
    // nothing.
    struct tm fields = {};
    strptime(s, "%FT%TZ", &fields);
    return timegm(&fields);
}

void set_mtime(const char* path, time_t mtime)
{
    utimbuf times{};
    times.actime = time(nullptr);
    times.modtime = mtime;
    if (utime(path, &times) != 0)
        LOG_ERROR("Cannto utime(%s). errno=%d\n", path, errno);
}
