#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// One thing that happens in a run.
struct Step {
    enum Kind {
        SEND,          ///< the client sends bytes_
        ROUND,         ///< the server's loop runs until it rests
        HALF_CLOSE,    ///< the client sends nothing more
        RESET,         ///< the client is gone, unread answers with it
        STOP_READING,  ///< answers stay where they are from now on
        READ_SOME,     ///< of them the client takes amount_ bytes
        READ_ON,       ///< the client reads again
        CLOCK,         ///< amount_ milliseconds pass
        ANSWER_HELD,   ///< the longest held request gets its answer
        LET_GO_OF_HELD ///< it is let go of without one
    };

    Kind kind_;
    unsigned connection_ = 0;
    size_t amount_ = 0;
    std::string bytes_ = {};
};

/**
 * What the clients of a run do, read from the bytes of an input.
 *
 * The first byte sets the server up (see the constants). The bytes behind it are what the client
 * sends, but for the byte MARK, which begins a command of two bytes:
 *
 *     MARK 0 .. 3   go on with this connection, which the first use opens
 *     MARK ,        send what was gathered, and let the server work
 *     MARK +        send what was gathered
 *     MARK w BYTE   what follows, up to the next command, is the payload of a WebSocket frame whose
 *                   first byte is BYTE; length and mask are put in front
 *     MARK k        what follows, up to the next command, is a chunk
 *     MARK .        ends a frame or a chunk, and does nothing else
 *     MARK h        half-close          MARK r        reset
 *     MARK s        stop reading        MARK g        read on
 *     MARK n BYTE   read 32 * BYTE bytes
 *     MARK t BYTE   500 ms * BYTE pass
 *     MARK u        answer the longest held request    MARK l   let go of it
 *     MARK MARK     the byte itself
 *
 * Every input is a script: an unknown command is skipped.
 */
class Script {
public:
    static constexpr unsigned CONNECTIONS = 4;
    static constexpr unsigned char MARK = 0xFE;

    // The bits of the first byte.
    static constexpr unsigned char BUFFER = 0x03;       ///< which receive buffer: see buffer_size()
    static constexpr unsigned char SMALL_OUTPUT = 0x04; ///< the system takes few bytes of an answer
    static constexpr unsigned char LOGGED = 0x08;       ///< log lines are put together
    static constexpr unsigned char PIECES = 0x70; ///< everything is sent in pieces: see piece()

    Script(const std::uint8_t* data, size_t size);

    const std::vector<Step>& steps() const { return steps_; }

    /// Bytes of the server's receive buffers.
    size_t buffer_size() const;

    bool small_output() const { return (setup_ & SMALL_OUTPUT) != 0; }
    bool logged() const { return (setup_ & LOGGED) != 0; }

    /// The clients do nothing but send and half-close, and read all the time.
    bool only_sends() const { return only_sends_; }

    /// All that a connection sends.
    std::string sent_by(unsigned connection) const;

    /// The same set-up with one connection, which sends all of `bytes` in pieces of this size.
    Script alone(const std::string& bytes, size_t piece) const;

private:
    enum Wrapping { NOTHING, FRAME, CHUNK };

    explicit Script(unsigned char setup) : setup_(setup) {}

    size_t piece() const;
    void command(unsigned char letter, const std::uint8_t*& data, const std::uint8_t* end);
    void end_wrapping();
    void flush(bool round);
    void add(Step::Kind kind, size_t amount = 0);

    unsigned char setup_ = 0;
    bool only_sends_ = true;
    std::vector<Step> steps_;
    unsigned connection_ = 0;
    std::string gathered_;
    size_t wrapped_from_ = 0; ///< where in gathered_ the frame or the chunk begins
    Wrapping wrapping_ = NOTHING;
    unsigned char frame_byte_ = 0;
};
