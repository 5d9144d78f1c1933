#pragma once

#include "plugins/files/file_cache.h"
#include "plugins/files/file_options.h"
#include "plugins/files/found_file.h"
#include "plugins/files/root_directory.h"

#include <cstddef>
#include <memory>
#include <string_view>

class HTTP_Request;

/**
 * The file that a request names, found once: whatever happens to its name afterwards, what was
 * checked is what is sent.
 */
class Located_File {
public:
    /**
     * Finds the file, the index file of a directory, or the compressed form of either when it lies
     * beside it (name and ".gz") and the client accepts it; in the cache or by opening it.
     * @param offset  where the request's path goes on below the plug-in's URI
     * @return 200: found; 301: a directory whose trailing slash is missing, or another spelling
     *         than the canonical one (whether the file is there or not, since that is not for
     *         everybody to know); 404: no such file, or none that is served; 500 or 503: the system
     *         failed (logged). Nothing is held unless 200.
     */
    int locate(const Root_Directory& root, const File_Options& options, File_Cache& cache,
               const HTTP_Request& request, size_t offset);

    /// Lets the file go.
    void close();

    /// Of the form that is to be sent.
    const File_Form& form() const { return *form_; }
    const File_Version& version() const { return form_->version(); }

    /// Of the plain form, also when the compressed one is sent.
    const char* content_type() const { return file_->content_type_; }

    /// The compressed form is sent.
    bool compressed() const { return file_->compressed_ && form_ == &*file_->compressed_; }

    /// There is a compressed form: which one is sent depends on the client.
    bool has_compressed() const { return file_->compressed_.has_value(); }

private:
    bool take(std::shared_ptr<const Found_File> file, const HTTP_Request& request);
    int open(const Root_Directory& root, const File_Options& options, File_Cache& cache,
             const HTTP_Request& request, size_t offset, std::shared_ptr<Found_File>& file);

    std::shared_ptr<const Found_File> file_;
    const File_Form* form_ = nullptr; ///< one of file_
};
