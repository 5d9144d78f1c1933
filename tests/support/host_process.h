#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/// A folder of its own under the system's temporary folder, removed with everything in it.
class Temporary_Folder {
public:
    Temporary_Folder();
    ~Temporary_Folder();
    Temporary_Folder(const Temporary_Folder&) = delete;
    Temporary_Folder& operator=(const Temporary_Folder&) = delete;

    const std::string& path() const { return path_; }

    /// Writes a file in the folder, making the folders above it. @return its path.
    std::string write(const std::string& name, const std::string& content) const;

private:
    std::string path_;
};

/**
 * The real host program with the service loaded, run as a child process for one test.
 *
 * Every process of the suite has a loopback address of its own, so that tests run at once without
 * meeting on a port. Log lines (standard error of the host) are collected as they come.
 */
class Host_Process {
public:
    /// Words for the host itself (in front of "--") and for the service (behind it).
    struct Command {
        std::vector<std::string> host;
        std::vector<std::string> service;
        std::vector<std::string> wrapper; ///< words that stand before the program (prlimit ...)
        std::string log_level = "debug";
        bool wait_until_ready = true; ///< until one listen line for each -p has been logged
        /// The host's descriptors 0 to 2; -1: the null device, this process's own, the log.
        int standard_input = -1;
        int standard_output = -1;
        int standard_error = -1;
    };

    explicit Host_Process(const Command& command);
    ~Host_Process(); ///< stops it if it runs
    Host_Process(const Host_Process&) = delete;
    Host_Process& operator=(const Host_Process&) = delete;

    pid_t pid() const { return pid_; }

    /// Waits until a log line holds `text`. @return false after `limit`, or when the host has
    /// ended.
    bool wait_for_log(const std::string& text,
                      std::chrono::seconds limit = std::chrono::seconds(20)) const;
    /// Waits until `times` lines hold it.
    bool wait_for_log_count(const std::string& text, size_t times,
                            std::chrono::seconds limit = std::chrono::seconds(20)) const;
    size_t count_log(const std::string& text) const;
    std::vector<std::string> log() const;
    std::string log_text() const;

    /// Sends `signal` (0: none), waits for the end. @return the exit status, or -signal.
    int stop(int signal);

    /// True while the process has not ended.
    bool is_running();

private:
    void read_log(int handle);
    int wait_for_end(std::chrono::seconds limit);

    pid_t pid_ = -1;
    int status_ = 0;
    bool ended_ = false;
    std::thread reader_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool log_ended_ = false;
};

/// A loopback address that no other process of the suite uses.
std::string own_loopback_address();

/// A TCP port below the ephemeral range that is free on 127.0.0.1 now (for what binds there only).
unsigned short free_local_port();

/// Path of a library of the build, by its bare name ("httpd_files", "probe_plugin").
std::string library_path(const std::string& name);

/// One record of a plug-in configuration file.
struct Plugin_Record {
    std::string uri;
    std::string dll; ///< bare name of a library of the build, or a path
    std::string init;
    std::string params = "";
};

std::string plugin_configuration(const std::vector<Plugin_Record>& records);
