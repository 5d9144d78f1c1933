#pragma once

#include "host/host_options.h"

#include <string>

/**
 * Starts what the command line asks for, through the service configurator, so that
 * ACE_Service_Config::close() stops it again, also after a failure. The process-wide reactor must
 * be in place.
 *
 * @param error  the file or directive and the reason when it fails
 * @return false when any directive failed, or when no service was started
 */
bool load_services(Host_Options& options, std::string& error);
