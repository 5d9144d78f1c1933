#pragma once

#include "plugins/basic_auth/htpasswd_table.h"

#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>

/**
 * A password file, read again when it has changed. A version that cannot be read is logged once,
 * and the one before it stays in force. Any thread.
 */
class Htpasswd_File {
public:
    /// @return 0; -1 with errno and one error line. Throws std::bad_alloc.
    int open(const std::string& path);

    /// The users as of now: one stat(2), and a new read when the file is another. Never null after
    /// a successful open().
    std::shared_ptr<const Htpasswd_Table> table();

private:
    /// What tells one version of the file from another.
    struct Version {
        bool exists_ = false;
        dev_t device_ = 0;
        ino_t inode_ = 0;
        off_t size_ = 0;
        timespec modified_{};
        timespec changed_{};

        Version() = default;
        explicit Version(const struct stat& status);
        bool operator==(const Version& other) const;
    };

    std::shared_ptr<const Htpasswd_Table> read(Version& version) const;
    void reload();

    std::string path_;
    std::mutex reload_lock_; ///< held while the file is read
    std::mutex lock_;        ///< of what follows
    Version version_;        ///< that was last looked at, also in vain
    std::shared_ptr<const Htpasswd_Table> table_;
};
