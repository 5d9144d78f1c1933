#pragma once

#include <string_view>

/**
 * Adds log lines to a file of this process in the folder that the environment variable
 * HTTPD_TEST_LOG_DIR names, where it is set. So a whole run of the suite leaves behind what was
 * logged, for scripts/check-messages to look through. Any thread; without effect on errno.
 *
 * @param lines  each with its newline
 */
void keep_log(std::string_view lines);
