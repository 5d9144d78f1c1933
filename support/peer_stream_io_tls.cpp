#include "support/descriptor_wait.h"
#include "support/descriptor_write.h"
#include "support/peer_stream_io.h"
#include "support/socket_helpers.h"
#include "support/tls_io.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

/// The most that one record carries (RFC 8446, section 5.1).
constexpr size_t RECORD_SIZE = SSL3_RT_MAX_PLAIN_LENGTH;

/**
 * Waits until the socket has room for more of a record, within the send limit. Progress is what the
 * socket has taken: SSL_write reports whole records only.
 */
class Send_Wait {
public:
    Send_Wait(SSL* ssl, int handle) : ssl_(ssl), handle_(handle) {}

    int operator()(int events)
    {
        const uint64_t written = BIO_number_written(SSL_get_wbio(ssl_));
        if (!started_ || written != written_) {
            deadline_ = Deadline::after_ms(send_limit_ms(handle_));
            written_ = written;
            started_ = true;
        }
        const int ready = wait_for_handle(handle_, static_cast<short>(events), deadline_);
        if (ready == 0) {
            errno = ETIME;
        }
        return ready > 0 ? 0 : -1;
    }

private:
    SSL* ssl_;
    int handle_;
    uint64_t written_ = 0;
    bool started_ = false;
    Deadline deadline_;
};

int write_all_records(SSL* ssl, int handle, const char* data, size_t length)
{
    Send_Wait wait(ssl, handle);
    for (size_t done = 0; done < length;) {
        size_t written = 0;
        tls_clear_errors();
        errno = 0;
        const int result = SSL_write_ex(ssl, data + done, length - done, &written);
        if (result == 1) {
            done += written;
            continue;
        }
        const int outcome = tls_outcome(ssl, result);
        if (outcome == 0) {
            errno = EPIPE;
        }
        if (outcome <= 0 || wait(outcome) == -1) {
            return -1;
        }
    }
    return 0;
}

/// Fills records from many entries, so that a header block and a small body leave together.
class Record_Gatherer {
public:
    Record_Gatherer(SSL* ssl, int handle) : ssl_(ssl), handle_(handle) {}

    int add(const char* data, size_t length)
    {
        while (length > 0) {
            if (used_ == 0 && length >= RECORD_SIZE) {
                const size_t whole = length - length % RECORD_SIZE;
                if (write_all_records(ssl_, handle_, data, whole) == -1) {
                    return -1;
                }
                data += whole;
                length -= whole;
                continue;
            }
            const size_t part = std::min(length, RECORD_SIZE - used_);
            std::memcpy(record_ + used_, data, part);
            used_ += part;
            data += part;
            length -= part;
            if (used_ == RECORD_SIZE && flush() == -1) {
                return -1;
            }
        }
        return 0;
    }

    int flush()
    {
        const size_t length = used_;
        used_ = 0;
        return write_all_records(ssl_, handle_, record_, length);
    }

private:
    SSL* ssl_;
    int handle_;
    size_t used_ = 0;
    char record_[RECORD_SIZE];
};

/// Copies up to one record of the vector, from byte `from` on. @return the bytes copied.
size_t gather(const iovec* iov, int count, size_t from, char* record)
{
    size_t used = 0;
    for (int i = 0; i < count && used < RECORD_SIZE; ++i) {
        if (from >= iov[i].iov_len) {
            from -= iov[i].iov_len;
            continue;
        }
        const size_t part = std::min(iov[i].iov_len - from, RECORD_SIZE - used);
        std::memcpy(record + used, static_cast<const char*>(iov[i].iov_base) + from, part);
        used += part;
        from = 0;
    }
    return used;
}

Deadline wait_deadline(int handle, const ACE_Time_Value* limit)
{
    return limit == nullptr ? receive_deadline(handle) : Deadline::after(limit);
}

/// One SSL_read: bytes, 0 at the end, -1 with errno; with EAGAIN `events` says what to wait for.
ssize_t read_once(SSL* ssl, void* buffer, size_t length, int& events)
{
    size_t received = 0;
    tls_clear_errors();
    errno = 0;
    const int result = SSL_read_ex(ssl, buffer, length, &received);
    if (result == 1) {
        return static_cast<ssize_t>(received);
    }
    events = tls_outcome(ssl, result);
    if (events > 0) {
        errno = EAGAIN;
        return -1;
    }
    return events;
}

} // namespace

int Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::prepare(ACE_SSL_SOCK_Stream& stream)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr) {
        return -1;
    }
    // A record's header and body in one read. Not before the handshake is over: what the client
    // sends with the last message of it would be taken from the socket, and no event tells of it.
    SSL_set_read_ahead(ssl, 1);
    return set_fd_nonblock(stream.get_handle(), true);
}

ssize_t Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::receive(ACE_SSL_SOCK_Stream& stream, void* buffer,
                                                       size_t length, Receive_Mode mode,
                                                       const ACE_Time_Value* limit)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr) {
        return -1;
    }
    int events = 0;
    ssize_t received = read_once(ssl, buffer, length, events);
    if (received != -1 || errno != EAGAIN || mode == Receive_Mode::NEVER_WAIT) {
        return received;
    }
    const int handle = stream.get_handle();
    const Deadline deadline = wait_deadline(handle, limit);
    while (received == -1 && errno == EAGAIN) {
        const int ready = wait_for_handle(handle, static_cast<short>(events), deadline);
        if (ready == 0) {
            errno = ETIME;
        }
        if (ready <= 0) {
            return -1;
        }
        received = read_once(ssl, buffer, length, events);
    }
    return received;
}

bool Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::pending(ACE_SSL_SOCK_Stream& stream)
{
    const SSL* const ssl = stream.ssl();
    if (ssl == nullptr || stream.get_handle() == ACE_INVALID_HANDLE) {
        return false;
    }
    // What is read ahead may be whole records, or a part of one, of which the last read has said
    // that more must come.
    return SSL_pending(ssl) > 0 || (SSL_has_pending(ssl) == 1 && SSL_want_read(ssl) == 0);
}

ssize_t Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::send(ACE_SSL_SOCK_Stream& stream, const void* data,
                                                    size_t length)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr ||
        write_all_records(ssl, stream.get_handle(), static_cast<const char*>(data), length) == -1) {
        return -1;
    }
    return static_cast<ssize_t>(length);
}

ssize_t Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::sendv(ACE_SSL_SOCK_Stream& stream, const iovec* iov,
                                                     int count)
{
    if (count == 1) {
        return send(stream, iov->iov_base, iov->iov_len);
    }
    size_t total = 0;
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr || iovec_total(iov, count, total) == -1) {
        return -1;
    }
    Record_Gatherer records(ssl, stream.get_handle());
    for (int i = 0; i < count; ++i) {
        if (records.add(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len) == -1) {
            return -1;
        }
    }
    return records.flush() == -1 ? -1 : static_cast<ssize_t>(total);
}

/**
 * A record that found no room lies encrypted in the SSL object and counts as not taken; the call
 * that offers its bytes again sends the rest of it (SSL_write_ex, non-blocking).
 */
ssize_t Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::sendv_now(ACE_SSL_SOCK_Stream& stream,
                                                         const iovec* iov, int count)
{
    SSL* const ssl = tls_ready(stream);
    if (ssl == nullptr) {
        return -1;
    }
    char record[RECORD_SIZE];
    size_t done = 0;
    for (;;) {
        const size_t length = gather(iov, count, done, record);
        if (length == 0) {
            return static_cast<ssize_t>(done);
        }
        size_t written = 0;
        tls_clear_errors();
        errno = 0;
        const int result = SSL_write_ex(ssl, record, length, &written);
        if (result == 1) {
            done += written;
            continue;
        }
        const int outcome = tls_outcome(ssl, result);
        if (outcome > 0) {
            return static_cast<ssize_t>(done);
        }
        if (outcome == 0) {
            errno = EPIPE;
        }
        return -1;
    }
}

void Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::close(ACE_SSL_SOCK_Stream& stream)
{
    // Not the stream's own close(): it keeps the descriptor open when close_notify finds no room,
    // and keeps its number after other failures.
    tls_say_goodbye(stream);
    const int handle = tls_detach(stream);
    if (handle != ACE_INVALID_HANDLE) {
        ::close(handle);
    }
}

void Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::interrupt(ACE_SSL_SOCK_Stream& stream)
{
    ::shutdown(stream.get_handle(), SHUT_RDWR);
}

int Peer_Stream_IO_T<ACE_SSL_SOCK_Stream>::half_close_and_detach(ACE_SSL_SOCK_Stream& stream)
{
    tls_say_goodbye(stream);
    const int handle = tls_detach(stream);
    if (handle != ACE_INVALID_HANDLE) {
        shutdown(handle, SHUT_WR);
    }
    return handle;
}
