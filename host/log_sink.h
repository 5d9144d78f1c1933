#pragma once

#include "host/host_options.h"

#include <string>

/**
 * Sends every line that ACE logs, whatever thread it comes from, to standard error or to a file,
 * with time and priority in front, each with one write, and sets which priorities are logged.
 *
 * To be called once, before the first thread is made. The log stays in force until the process has
 * ended. Nothing is ever logged to standard output.
 *
 * @param file   appended to, created with mode 0640; empty: standard error
 * @param error  names the file and the reason when it fails
 */
bool open_log(Log_Level level, const std::string& file, std::string& error);
