#include "httpd/detail/loop_io.h"

Loop_IO::Loop_IO() = default;
Loop_IO::~Loop_IO() = default;
