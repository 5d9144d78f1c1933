#pragma once

#include <string>
#include <vector>

/// What is printed on the log, each level with everything before it.
enum class Log_Level {
    ERRORS,
    WARNINGS,
    INFO,
    DEBUG,
    TRACE ///< DEBUG, and ACE's own debugging output
};

/// The host's command line.
struct Host_Options {
    enum class Action { RUN, SHOW_HELP, SHOW_VERSION };

    /// Something that the service configurator is to process: a file, or one directive.
    struct Source {
        enum class Kind { CONF_FILE, DIRECTIVE };
        Kind kind_;
        std::string text_; ///< the file's path, or the directive itself
    };

    Action action_ = Action::RUN;
    std::vector<Source> sources_;     ///< in the order given; empty in the short form
    bool short_form_ = false;         ///< a "--" was given: run one service with service_args_
    bool stdio_ = false;              ///< that service is the one on standard input and output
    std::vector<char*> service_args_; ///< words of the command line, not owned
    std::string tls_certificate_;
    std::string tls_private_key_;
    std::string proxy_from_; ///< an address in the form in which peers are printed, or empty
    Log_Level log_level_ = Log_Level::INFO;
    std::string log_file_; ///< empty: standard error
    std::string pid_file_; ///< empty: none
};

/**
 * Reads the command line.
 * @param argv   with the program's name first; must outlive `options`
 * @param error  one line that names the offending option, without newline, when it fails
 * @return false when the command line is wrong
 */
bool parse_host_options(int argc, char** argv, Host_Options& options, std::string& error);

/// Whether the command line asks for the service on standard input and output, told before anything
/// is printed, also of a command line that is wrong.
bool asks_for_stdio(int argc, char** argv);

/// The text of --help.
const char* host_help();
