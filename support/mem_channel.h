#pragma once

#include <ace/MEM_IO.h>

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

/**
 * The shared-memory side of one MEM connection: a pool that both processes have mapped. A message
 * is a node of the pool, and its offset travels over a loopback socket; an empty message is the end
 * of the stream. This is the format that ACE_MEM_Stream speaks.
 *
 * ACE's own class behind ACE_MEM_Stream cannot tell whether a part of a message is left, blocks in
 * the middle of an offset, trusts every offset, and lets a full pool grow, which maps it over
 * whatever lies behind. So this class does its own receiving and sending and takes from ACE the
 * pool alone.
 */
class Mem_Channel : private ACE_Reactive_MEM_IO {
public:
    enum : size_t {
        POOL_SIZE = 16 * 1024 * 1024, ///< sparse: only pages that were used take memory
        PIECE_SIZE = 64 * 1024,       ///< the longest message that is sent
    };

    Mem_Channel() = default;
    ~Mem_Channel() override; ///< close()
    Mem_Channel(const Mem_Channel&) = delete;
    Mem_Channel& operator=(const Mem_Channel&) = delete;

    /// Creates the pool in the file `path`. @return 0, or -1 with errno.
    int open(int handle, const char* path);

    /**
     * Bytes of the current message, else of the next one if its offset has arrived; never waits.
     * @return bytes; 0 at the end of the stream; -1 with errno: EAGAIN, EPROTO for an offset that
     *         is not one of the pool.
     */
    ssize_t receive(void* buffer, size_t length);

    /// A part of the current message has not been received.
    bool pending() const { return taken_ < size_; }

    /**
     * Sends the vector as messages of up to PIECE_SIZE bytes. While the pool is full it waits for
     * the peer to read, within the socket's send limit.
     * @return the sum, or -1 with errno: ETIME, or what the socket says.
     */
    ssize_t sendv(const iovec* iov, int count);

    /// sendv() that stops where it would wait. @return bytes sent, perhaps 0, or -1 with errno.
    ssize_t sendv_now(const iovec* iov, int count);

    /// Sends the empty message that ends the stream, when that needs no waiting.
    void send_end();

    /// Gives the pool back; the last of the two processes removes it.
    void close();

private:
    /// A position in the caller's vector.
    struct Cursor {
        const iovec* iov;
        size_t offset;
    };

    int receive_offset(ACE_OFF_T& offset);
    int take_node(ACE_OFF_T offset);
    void release_node();
    ACE_MEM_SAP_Node* acquire_node(size_t size);
    bool has_room();
    int send_piece(Cursor& cursor, size_t size);
    int send_node(ACE_MEM_SAP_Node& node);

    std::string path_;
    ACE_MEM_SAP_Node* node_ = nullptr; ///< the message being received
    size_t size_ = 0;                  ///< its length, read once: the peer can write to the node
    size_t taken_ = 0;
    char partial_[sizeof(ACE_OFF_T)] = {}; ///< an offset of which only a part has arrived
    size_t partial_size_ = 0;
};
