#pragma once

#include "plugins/files/cache_share.h"
#include "plugins/files/file_answer.h"
#include "plugins/files/unique_fd.h"

#include <sys/stat.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string_view>

/// One form of a file, plain or compressed, as it was when it was opened.
class File_Form {
public:
    /// @param status      of `file`, a regular one
    /// @param compressed  it has a tag of its own
    File_Form(Unique_Fd file, const struct stat& status, bool compressed);

    /// -1 when the content is held.
    int fd() const { return file_.get(); }
    const File_Version& version() const { return version_; }

    /// The whole file, or null when it is to be read from fd().
    const char* content() const { return content_.get(); }

    /// Last-Modified; "" when that was still to come, since nobody is told of the future.
    std::string_view last_modified() const { return last_modified_; }

    /**
     * Reads the content and closes the file.
     * @return false, and it stays open to be read, when there is no memory or the file has been
     *         written meanwhile, so that content and tag might not belong together.
     */
    bool hold_content();

    /// Content that is held, or a file that has not been written since it was opened.
    bool is_unchanged() const;

private:
    Unique_Fd file_;
    struct stat status_;
    File_Version version_;
    std::unique_ptr<char[]> content_;
    std::string_view last_modified_;
    char date_[32];
};

/// What a name below the root stands for: a regular file, and its compressed form if one lies
/// beside it. Shared by the cache and the requests that are being answered; unchanging once shared.
struct Found_File {
    std::optional<File_Form> plain_;
    std::optional<File_Form> compressed_;
    const char* content_type_ = nullptr; ///< of the plain form
    Cache_Share share_;                  ///< what it takes while the cache may hold it
};
