#pragma once

#include "support/export.h"

#include <sys/types.h>

#include <string>

/**
 * The file of a UNIX-domain listener. The system creates it when the listener is bound and leaves
 * it behind when it is closed; a file that is left behind keeps others from being bound.
 */
class HTTPD_SUPPORT_EXPORT Socket_File {
public:
    /**
     * Removes the file at `path` if it is a socket that nobody listens on.
     * @return 0 when nothing is in the way any more; -1 with EADDRINUSE, and the file left alone,
     *         for a file of another kind or a socket that a server answers on (or that cannot be
     *         asked).
     */
    static int remove_stale(const char* path);

    /// Remembers the file that was just bound.
    void remember(const char* path);

    /// Removes the remembered file, unless another has taken its place.
    void remove();

private:
    std::string path_; ///< absolute; empty = nothing to remove
    dev_t device_ = 0;
    ino_t inode_ = 0;
};
