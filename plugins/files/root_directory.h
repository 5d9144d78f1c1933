#pragma once

#include "plugins/files/unique_fd.h"

/**
 * The directory below which files are served. It is held open: names are looked up beneath it,
 * whatever becomes of its own path, and no link, mount of /proc or rename leads out of it.
 *
 * Opened once; afterwards any thread may open files.
 */
class Root_Directory {
public:
    /// How a name is followed below the directory.
    enum class Lookup {
        BENEATH,   ///< by openat2(2): links are followed as long as they stay below the root
        COMPONENTS ///< name by name, no link is followed: for systems without openat2
    };

    /// @return 0; -1 with errno (ENOTDIR for anything but a directory). Does not log.
    int open(const char* path);

    /**
     * Opens for reading, without ever waiting for a FIFO or a device.
     * @param name  relative, without "." and ".."; "" is the root itself
     * @return the descriptor, the caller's to close; -1 with errno: EXDEV, ELOOP or ENOENT for a
     *         name that leads out of the root. Does not log.
     */
    int open_file(const char* name) const;

    Lookup lookup() const { return lookup_; }

    /// For tests: BENEATH needs the system's support.
    void lookup(Lookup lookup) { lookup_ = lookup; }

private:
    int open_by_component(const char* name) const;

    Unique_Fd directory_;
    Lookup lookup_ = Lookup::BENEATH;
};
