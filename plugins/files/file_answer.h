#pragma once

#include "plugins/files/entity_tag.h"

#include <cstdint>
#include <ctime>

class HTTP_Request;

/// The facts of the file that decide about an answer.
struct File_Version {
    Entity_Tag tag_;
    std::time_t modified_; ///< whole seconds, as Last-Modified tells them
    std::uint64_t size_;   ///< bytes
};

/// What of a file is sent.
struct File_Answer {
    int status_;           ///< 200, 206, 304, 412 or 416
    std::uint64_t offset_; ///< first byte of the body
    std::uint64_t length_; ///< of the body of a GET, bytes; 0 unless 200 or 206
};

/**
 * Decides by the request's conditions (in the order of RFC 9110, section 13.2.2) and, for a GET, by
 * its range. Conditions that cannot be read are as if they were absent.
 */
File_Answer file_answer(const HTTP_Request& request, const File_Version& version);
