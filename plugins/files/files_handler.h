#pragma once

#include "httpd/http_handler.h"
#include "plugins/files/file_answer.h"
#include "plugins/files/located_file.h"

#include <atomic>

class HTTP_Response;

/// What the handlers of one record share: its settings, and what they learn of their URI.
struct Files_Context {
    static constexpr size_t UNKNOWN_OFFSET = static_cast<size_t>(-1);

    explicit Files_Context(File_Cache::Clock clock) : cache_(clock) {}

    File_Options options_;
    Root_Directory root_;
    File_Cache cache_;

    /// Where paths go on below the record's URI: told with the first request that is handled.
    std::atomic<size_t> uri_offset_{UNKNOWN_OFFSET};
};

/// Serves one request for a file below the root: GET and HEAD.
class Files_Handler : public HTTP_Handler {
public:
    explicit Files_Handler(Files_Context& context) : context_(context) {}

    /// A large body asks for a thread, so that a slow reader never holds an event loop.
    CONCURRENCY concurrency(const HTTP_Request& request, HANDLE_METHOD method) const override;
    int handle_request(HTTP_IO& io) override;
    int handle_body(HTTP_IO& io, const void* data, size_t length) override;

private:
    void prepare(const HTTP_Request& request, size_t offset) const;
    bool any_large_file(const HTTP_Request& request) const;
    void put_validators(HTTP_Response& response) const;
    int answer_file(HTTP_IO& io);
    int redirect(HTTP_IO& io) const;
    int not_modified(HTTP_IO& io) const;
    int send_content(HTTP_IO& io) const;

    Files_Context& context_;

    // Found when concurrency() is asked and kept for handle_request(), so that a file is looked up
    // once.
    mutable Located_File file_;
    mutable size_t offset_ = Files_Context::UNKNOWN_OFFSET; ///< that file_ was located with
    mutable int status_ = 0;                                ///< of locating it
    mutable File_Answer answer_{};                          ///< when status_ is 200
};
