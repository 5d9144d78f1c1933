#include "httpd/detail/loop_io.h"

#include <cerrno>

Loop_IO::Loop_IO() = default;
Loop_IO::~Loop_IO() = default;

bool Loop_IO::sends_from_files() const
{
    return false;
}

int Loop_IO::send_file_part(int, off_t, size_t, size_t, bool, File_Sent::Outcome& outcome)
{
    outcome = File_Sent::READ_FAILED;
    errno = ENOTSUP;
    return -1;
}
