#pragma once

#include "support/log.h"

#include <cerrno>
#include <cstring>
#include <span>
#include <string>

/// One option of a plug-in: `--name VALUE` or `--name=VALUE`, the last one given counts; or the
/// bare flag `--name`.
struct Plugin_Option {
    const char* name_;     ///< with its two dashes
    std::string* value_;   ///< receives the value; not used for a flag
    bool* flag_ = nullptr; ///< not null: a flag, set to true when it is given
};

/**
 * Reads the parameters of a plug-in's record.
 *
 * @param plugin  names the plug-in in the error line
 * @param argv    argv[0] is the first parameter; null when there are none
 * @return 0; -1 with EINVAL and one error line that names the parameter at fault. Throws
 *         std::bad_alloc.
 */
inline int read_plugin_options(const char* plugin, int argc, char** argv,
                               std::span<const Plugin_Option> options)
{
    for (int i = 0; argv != nullptr && i < argc; ++i) {
        const char* const argument = argv[i];
        const Plugin_Option* found = nullptr;
        const char* value = nullptr;
        for (const Plugin_Option& option : options) {
            const size_t length = std::strlen(option.name_);
            if (std::strncmp(argument, option.name_, length) != 0) {
                continue;
            }
            if (argument[length] == '=') {
                found = &option;
                value = argument + length + 1;
            } else if (argument[length] == '\0') {
                found = &option;
                value = option.flag_ == nullptr && i + 1 < argc ? argv[++i] : nullptr;
            }
        }
        if (found == nullptr) {
            errno = EINVAL;
            HTTPD_ERROR("%C: unknown parameter '%C'", plugin, argument);
            return -1;
        }
        if (found->flag_ != nullptr) {
            if (value != nullptr) {
                errno = EINVAL;
                HTTPD_ERROR("%C: parameter '%C' takes no value", plugin, found->name_);
                return -1;
            }
            *found->flag_ = true;
            continue;
        }
        if (value == nullptr) {
            errno = EINVAL;
            HTTPD_ERROR("%C: parameter '%C' lacks its value", plugin, argument);
            return -1;
        }
        *found->value_ = value;
    }
    return 0;
}
