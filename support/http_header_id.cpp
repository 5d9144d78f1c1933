#include "support/http_header_id.h"

#include "support/http_header_table.h"

std::string_view http_header_name(int id)
{
    return id >= 0 && id < NUM_HTTP_HEADS ? HTTP_HEADER_NAMES[id] : std::string_view();
}

int http_header_id(std::string_view name)
{
    if (name.size() > http_header_table::LONGEST_NAME) {
        return HTTP_HEAD_UNKNOWN;
    }
    char line[http_header_table::ROOM] = {};
    *copy_short(line, name) = ':';
    return http_header_id_of_line(line, name.size());
}
