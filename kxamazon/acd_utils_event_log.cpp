#include "kxamazon/acd_utils.h"

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include <korvane.h>

#include "common/owners.h"
#include "common/utils.h"
#include "kxamazon/global.h"

namespace
{

constexpr size_t tag_size = 512;
constexpr size_t item_size = 4096;
constexpr size_t record_size = 2048; // longer records are cut

const char* const severities[] = {"error", "warning", "info"}; // by kx_error_t

// The attributes item_1, item_2, ... of an event's arguments; null when there are none.
string_ptr items_of(va_list arguments)
{
    string_ptr items;
    for (int number = 1; const char* argument = va_arg(arguments, const char*); ++number) {
        char item[item_size];
        safe_snprintf(item, sizeof item, " item_%d=\"%s\"", number, argument);
        items.reset(strappend(items.release(), item, nullptr));
    }
    return items;
}

} // namespace

int add_log(const char* fmt, ...)
{
    time_t now = time(nullptr);
    if (!global.log_fp)
        return -1;
    char tag[tag_size];
    safe_snprintf(tag, sizeof tag, "message-tag=\"%s\"", fmt);
    va_list arguments;
    va_start(arguments, fmt);
    string_ptr items = items_of(arguments);
    va_end(arguments);
    // Paths go in as they are: the reader of these records expects no XML escapes.
    char record[record_size];
    safe_snprintf(
        record, sizeof record,
        "<Log id=\"\" timestamp=\"%ld\" localized_ts=\"\" severity=\"\" category=\"\" %s><args%s/></Log>",
        static_cast<long>(now), tag, items ? items.get() : "");
    std::fprintf(global.log_fp, "%s\n", record);
    return 0;
}

void shout(unsigned log_level, const char* key, const char* args)
{
    if (log_level > E_INFO)
        return;
    string_ptr element(args ? asprintf_str("<args %s/>", args) : safe_strdup(""));
    string_ptr record(asprintf_str("<xs:add-s resource-type=\"Log\" resource-id=\"Log\"><Log severity=\"%s\" "
                                   "message-tag=\"%s\" category=\"system\">%s</Log></xs:add-s>",
                                   severities[log_level], key, element.get()));
    event_push("kxamazon", "korvaned", record.get(), 0, 0);
}
