#pragma once

#include <string>

/**
 * A file that tells the process id and is locked while the process lives, so that a second process
 * with the same file is refused and a file left by a crash is not.
 */
class Pid_File {
public:
    Pid_File() = default;
    ~Pid_File(); ///< removes the file when it is locked by this object
    Pid_File(const Pid_File&) = delete;
    Pid_File& operator=(const Pid_File&) = delete;

    /**
     * Creates and locks the file, and empties it.
     * @param error  names the file and the reason when it fails
     */
    bool lock(const std::string& path, std::string& error);

    /// Writes the process id; does nothing when no file is locked.
    bool write(std::string& error);

private:
    bool try_lock(bool& replaced, std::string& error);

    std::string path_;
    int fd_ = -1;
};
