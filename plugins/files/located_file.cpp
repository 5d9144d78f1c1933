#include "plugins/files/located_file.h"

#include "plugins/files/accept_encoding.h"
#include "plugins/files/request_path.h"
#include "support/http_message.h"
#include "support/log.h"
#include "support/mime_type.h"

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

} // namespace

int Located_File::locate(const Root_Directory& root, const File_Options& options,
                         const HTTP_Request& request, size_t offset)
{
    close();
    compressed_ = false;
    has_compressed_ = false;
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
    Unique_Fd file(root.open_file(path.c_str()));
    if (!file) {
        return status_of_error(request, errno);
    }
    if (::fstat(file.get(), &status_) == -1) {
        return status_of_error(request, errno);
    }
    if (S_ISDIR(status_.st_mode)) {
        return path.ends_with_slash() ? 404 : 301;
    }
    if (!S_ISREG(status_.st_mode)) {
        return 404;
    }
    fd_ = std::move(file);
    content_type_ = mime_type(path.extension());

    // Its being there is worth knowing also for a client that does not take it: Vary depends on it.
    if (!path.append(".gz")) {
        return 200;
    }
    Unique_Fd sibling(root.open_file(path.c_str()));
    struct stat status {};
    if (!sibling || ::fstat(sibling.get(), &status) == -1 || !S_ISREG(status.st_mode)) {
        return 200;
    }
    has_compressed_ = true;
    if (wants_gzip(request)) {
        compressed_ = true;
        fd_ = std::move(sibling);
        status_ = status;
    }
    return 200;
}
