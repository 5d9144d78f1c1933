#pragma once

#include "plugins/files/file_options.h"
#include "plugins/files/root_directory.h"
#include "plugins/files/unique_fd.h"

#include <sys/stat.h>

#include <cstddef>

class HTTP_Request;

/**
 * The file that a request names, opened once: whatever happens to its name afterwards, what was
 * checked is what is sent.
 */
class Located_File {
public:
    /**
     * Opens the file, the index file of a directory, or the compressed form of either when it lies
     * beside it (name and ".gz") and the client accepts it.
     * @param offset  where the request's path goes on below the plug-in's URI
     * @return 200: open; 301: a directory whose trailing slash is missing, or another spelling than
     *         the canonical one (whether the file is there or not, since that is not for everybody
     *         to know); 404: no such file, or
     *         none that is served; 500 or 503: the system failed (logged). Nothing is open unless
     *         200.
     */
    int locate(const Root_Directory& root, const File_Options& options, const HTTP_Request& request,
               size_t offset);

    void close() { fd_.reset(); }

    int fd() const { return fd_.get(); }
    const struct stat& status() const { return status_; }
    std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }

    /// Of the plain form, also when the compressed one is open.
    const char* content_type() const { return content_type_; }

    /// The compressed form is open.
    bool compressed() const { return compressed_; }

    /// There is a compressed form: which one is sent depends on the client.
    bool has_compressed() const { return has_compressed_; }

private:
    Unique_Fd fd_;
    struct stat status_ {};
    const char* content_type_ = nullptr;
    bool compressed_ = false;
    bool has_compressed_ = false;
};
