#pragma once

#include "httpd/export.h"

#include <cstddef>
#include <cstdint>

class ACE_Message_Block;

/// Where in a chunked body the parser stands. The numbers are fixed.
enum HTTP_Chunk_State {
    HTTP_CHUNK_STATE_SIZE = 0,             ///< reads the digits of a chunk's size
    HTTP_CHUNK_STATE_SIZE_CR = 1,          ///< CR ended the size line, LF expected
    HTTP_CHUNK_STATE_EXT = 2,              ///< skips a chunk extension up to CR
    HTTP_CHUNK_STATE_DATA = 3,             ///< inside a chunk's data
    HTTP_CHUNK_STATE_DATA_CR_EXPECTED = 4, ///< behind the data
    HTTP_CHUNK_STATE_DATA_LF_EXPECTED = 5, ///< CR seen behind the data
    HTTP_CHUNK_STATE_ERROR = 6,            ///< malformed; final
    HTTP_CHUNK_STATE_END = 7               ///< the last chunk has ended; final
};

/**
 * Decodes a request body in the chunked transfer coding (RFC 9112, section 7.1) in place, however
 * the bytes are split among reads.
 *
 * A strict subset of the grammar: extensions are skipped, blanks in a size line and trailer fields
 * are errors, and so is a size that does not fit in 64 bits. A size line without digits is a size
 * of 0. Neither allocates nor copies. Used by one thread at a time.
 */
class HTTPD_EXPORT HTTP_Chunk_Parser {
public:
    HTTP_Chunk_Parser() { reset(); }

    /// Begins a new body.
    void reset()
    {
        state_ = HTTP_CHUNK_STATE_SIZE;
        chunk_size_ = 0;
        chunk_transferred_ = 0;
    }

    HTTP_Chunk_State state() const { return state_; }

    /// Bytes of the current chunk as its size line told.
    std::uint64_t chunk_size() const { return chunk_size_; }

    /**
     * Consumes framing from `mb` up to the next data, the end of a chunk or the end of the buffer.
     * To be called again while bytes remain, until END or ERROR.
     * @param mb      may be null: nothing happens
     * @param length  receives how many bytes at the read pointer are data. The caller consumes
     *                exactly these before the next call.
     * @return the state now; data comes with DATA and DATA_CR_EXPECTED only, and both may come
     *         without any.
     */
    HTTP_Chunk_State parse(ACE_Message_Block* mb, size_t& length);

private:
    void parse_size(char byte);
    void parse_data_end(char byte);
    size_t start_data(size_t available);

    HTTP_Chunk_State state_;
    std::uint64_t chunk_size_;
    std::uint64_t chunk_transferred_; ///< data of the current chunk that was reported
};
