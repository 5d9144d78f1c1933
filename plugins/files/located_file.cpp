#include "plugins/files/located_file.h"

#include "plugins/files/accept_encoding.h"
#include "plugins/files/request_path.h"
#include "support/http_message.h"
#include "support/log.h"
#include "support/mime_type.h"

#include <cerrno>
#include <new>
#include <utility>

namespace {

/// What a client is told when a file cannot be opened; failures of this system are logged.
int status_of_error(const HTTP_Request& request, int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case EPERM:
    case ELOOP: // a link where none is followed, or a circle of links
    case EXDEV: // leads out of the root
    case ENAMETOOLONG:
    case ENXIO: // a socket
    case ENODEV:
    case EISDIR:
        return 404;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
        HTTPD_ERROR("Failed to open the file of '%C', errno=%d, %m", request.uri(true), error);
        return 503;
    default:
        HTTPD_ERROR("Failed to open the file of '%C', errno=%d, %m", request.uri(true), error);
        return 500;
    }
}

bool wants_gzip(const HTTP_Request& request)
{
    const char* const accepted = request.headers().get(HTTP_HEAD_ACCEPT_ENCODING);
    return accepted != nullptr && accepts_gzip(accepted);
}

/// Opens a name below the root. Descriptors that the cache holds are given up for it.
Unique_Fd open_below(const Root_Directory& root, const char* name, File_Cache& cache)
{
    Unique_Fd file(root.open_file(name));
    if (!file && (errno == EMFILE || errno == ENFILE)) {
        const int error = errno;
        if (cache.clear()) {
            file.reset(root.open_file(name));
        } else {
            errno = error;
        }
    }
    return file;
}

} // namespace

int Located_File::locate(const Root_Directory& root, const File_Options& options, File_Cache& cache,
                         const HTTP_Request& request, size_t offset)
{
    close();
    const std::string_view path(request.uri(true));
    std::string_view name;
    // The URI itself names a directory with its slash and is redirected without.
    const bool cacheable =
        Request_Path::below(path, offset, name) && (!name.empty() || path.back() == '/');
    if (cacheable && take(cache.find(name), request) && form_->is_unchanged()) {
        return 200;
    }
    close();
    std::shared_ptr<Found_File> file;
    const int status = open(root, options, cache, request, offset, file);
    if (status == 200) {
        if (cacheable) {
            cache.put(name, file);
        }
        take(std::move(file), request);
    }
    return status;
}

void Located_File::close()
{
    form_ = nullptr;
    file_.reset();
}

/// Holds the file, if there is one, and chooses its form.
bool Located_File::take(std::shared_ptr<const Found_File> file, const HTTP_Request& request)
{
    file_ = std::move(file);
    if (file_ == nullptr) {
        return false;
    }
    form_ = file_->compressed_ && wants_gzip(request) ? &*file_->compressed_ : &*file_->plain_;
    return true;
}

/// Looks the name up. @return see locate().
int Located_File::open(const Root_Directory& root, const File_Options& options, File_Cache& cache,
                       const HTTP_Request& request, size_t offset,
                       std::shared_ptr<Found_File>& file)
{
    Request_Path path;
    if (!path.decode(request.uri(true), offset)) {
        return 404;
    }
    if (!path.is_canonical()) {
        return 301;
    }
    if (path.ends_with_slash() && !path.enter(options.index_)) {
        return 404;
    }
    struct stat status {};
    Unique_Fd plain(open_below(root, path.c_str(), cache));
    if (!plain || ::fstat(plain.get(), &status) == -1) {
        return status_of_error(request, errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return path.ends_with_slash() ? 404 : 301;
    }
    if (!S_ISREG(status.st_mode)) {
        return 404;
    }
    try {
        file = std::make_shared<Found_File>();
    } catch (const std::bad_alloc&) {
        return status_of_error(request, ENOMEM);
    }
    constexpr bool COMPRESSED = true;
    file->content_type_ = mime_type(path.extension());
    file->plain_.emplace(std::move(plain), status, !COMPRESSED);

    // Its being there is worth knowing also for a client that does not take it: Vary depends on it.
    if (path.append(".gz")) {
        Unique_Fd sibling(root.open_file(path.c_str()));
        if (sibling && ::fstat(sibling.get(), &status) == 0 && S_ISREG(status.st_mode)) {
            file->compressed_.emplace(std::move(sibling), status, COMPRESSED);
        }
    }
    return 200;
}
