#pragma once

#include "support/export.h"

class YAJL_Handler;

/**
 * Reads the JSON file at `path` block by block into `handler`. A file that cannot be read and a
 * syntax error are logged, the latter with its line, column and reason.
 *
 * @return 0, or -1 with errno: that of open(2) or read(2), EINVAL for a null path or a syntax
 * error.
 */
HTTPD_SUPPORT_EXPORT int load_json_file(const char* path, YAJL_Handler& handler);

/// Loads a configuration file into a `Conf`, a YAJL_Handler such as JSON_Base_Conf.
template <class Conf>
class Conf_Loader_T {
public:
    /**
     * What was complete before a failure stays loaded.
     * @return 0, or -1 with errno when the file cannot be read or is not JSON, which is logged. A
     *         record that fails is no failure of the file.
     */
    static int load(const char* path, Conf& conf) { return load_json_file(path, conf); }
};
