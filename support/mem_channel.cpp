#include "support/mem_channel.h"

#include "support/descriptor_wait.h"
#include "support/descriptor_write.h"
#include "support/mem_pool_file.h"
#include "support/socket_helpers.h"

#include <ace/Guard_T.h>
#include <ace/Malloc_T.h>
#include <ace/Mem_Map.h>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

/// Whoever is not the owner has no business in the pool.
constexpr mode_t POOL_MODE = 0600;

/// Chunks of PIECE_SIZE that must be free, the one wanted among them: the peer allocates from the
/// same pool, and it must not find it full, since then it grows.
constexpr size_t FREE_CHUNKS = 9;

/// How long to leave a full pool alone: nothing tells when the peer has freed a message.
constexpr int FULL_POOL_WAIT_MS = 2;

} // namespace

Mem_Channel::~Mem_Channel()
{
    close();
}

int Mem_Channel::open(int handle, const char* path)
{
    // Not at a fixed address; not every page written, so that the file stays sparse; no handler
    // for SIGSEGV, which belongs to the process.
    MALLOC_OPTIONS options(nullptr, MALLOC_OPTIONS::NEVER_FIXED, false, POOL_SIZE, 0, false, 0,
                           POOL_MODE, false, false);
    path_ = path;
    if (init(handle, path, &options) == -1) {
        return -1;
    }
    Mem_Pool_File::lock(shm_malloc_->memory_pool().mmap().handle());
    return 0;
}

int Mem_Channel::receive_offset(ACE_OFF_T& offset)
{
    while (partial_size_ < sizeof partial_) {
        const ssize_t received =
            recv(handle_, partial_ + partial_size_, sizeof partial_ - partial_size_, MSG_DONTWAIT);
        if (received > 0) {
            partial_size_ += static_cast<size_t>(received);
        } else if (received == 0) {
            return 0;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    std::memcpy(&offset, partial_, sizeof offset);
    partial_size_ = 0;
    return 1;
}

/// Makes the node at `offset` the current message, if it lies inside the pool as a whole.
int Mem_Channel::take_node(ACE_OFF_T offset)
{
    const size_t mapped = shm_malloc_->memory_pool().mmap().size();
    const auto start = static_cast<size_t>(offset);
    if (offset <= 0 || start % alignof(ACE_MEM_SAP_Node) != 0 ||
        start > mapped - sizeof(ACE_MEM_SAP_Node)) {
        errno = EPROTO;
        return -1;
    }
    auto* node =
        reinterpret_cast<ACE_MEM_SAP_Node*>(static_cast<char*>(shm_malloc_->base_addr()) + start);
    const size_t size = node->size();
    if (size > mapped - sizeof(ACE_MEM_SAP_Node) - start) {
        errno = EPROTO;
        return -1;
    }
    node_ = node;
    size_ = size;
    taken_ = 0;
    return 0;
}

void Mem_Channel::release_node()
{
    if (node_ != nullptr) {
        release_buffer(node_);
        node_ = nullptr;
    }
    size_ = taken_ = 0;
}

ssize_t Mem_Channel::receive(void* buffer, size_t length)
{
    if (!pending()) {
        ACE_OFF_T offset = 0;
        const int result = receive_offset(offset);
        if (result <= 0) {
            return result;
        }
        if (take_node(offset) == -1) {
            return -1;
        }
        if (size_ == 0) {
            release_node();
            return 0;
        }
    }
    const size_t part = std::min(length, size_ - taken_);
    std::memcpy(buffer, static_cast<const char*>(node_->data()) + taken_, part);
    taken_ += part;
    if (!pending()) {
        release_node(); // at once, so that the peer's next message finds room
    }
    return static_cast<ssize_t>(part);
}

/// Walks the list of free blocks. ACE's own count, avail_chunks(), is no valid C++20.
bool Mem_Channel::has_room()
{
    using Header = ACE_PI_Control_Block::ACE_Malloc_Header;
    constexpr size_t UNITS = (PIECE_SIZE + sizeof(ACE_MEM_SAP_Node)) / sizeof(Header) + 2;
    constexpr size_t MOST_BLOCKS = POOL_SIZE / sizeof(Header); // a list that is longer is broken
    ACE_Guard<ACE_Process_Mutex> guard(shm_malloc_->mutex());
    auto* const control = static_cast<ACE_PI_Control_Block*>(shm_malloc_->base_addr());
    const Header* const first = control->freep_;
    const Header* block = first;
    size_t chunks = 0;
    for (size_t i = 0; i < MOST_BLOCKS && chunks < FREE_CHUNKS; ++i) {
        chunks += block->size_ / UNITS;
        block = block->next_block_;
        if (block == first) {
            break;
        }
    }
    return chunks >= FREE_CHUNKS;
}

/// A node for `size` bytes, waiting within the send limit while the pool is full.
ACE_MEM_SAP_Node* Mem_Channel::acquire_node(size_t size)
{
    const Deadline deadline = Deadline::after_ms(send_limit_ms(handle_));
    while (!has_room()) {
        pollfd entry{handle_, POLLRDHUP, 0};
        if (deadline.left_ms() == 0) {
            errno = ETIME;
            return nullptr;
        }
        // A peer that is gone reads nothing any more.
        if (poll(&entry, 1, FULL_POOL_WAIT_MS) > 0) {
            errno = EPIPE;
            return nullptr;
        }
    }
    ACE_MEM_SAP_Node* node = acquire_buffer(static_cast<ssize_t>(size));
    if (node == nullptr) {
        errno = ENOMEM;
    }
    return node;
}

int Mem_Channel::send_node(ACE_MEM_SAP_Node& node)
{
    const ACE_OFF_T offset =
        reinterpret_cast<char*>(&node) - static_cast<char*>(shm_malloc_->base_addr());
    if (ace_send(handle_, &offset, sizeof offset) == -1) {
        const int error = errno;
        release_buffer(&node);
        errno = error;
        return -1;
    }
    return 0;
}

int Mem_Channel::send_piece(Cursor& cursor, size_t size)
{
    ACE_MEM_SAP_Node* node = acquire_node(size);
    if (node == nullptr) {
        return -1;
    }
    char* const data = static_cast<char*>(node->data());
    for (size_t used = 0; used < size;) {
        const size_t part = std::min(size - used, cursor.iov->iov_len - cursor.offset);
        if (part > 0) {
            std::memcpy(data + used, static_cast<const char*>(cursor.iov->iov_base) + cursor.offset,
                        part);
        }
        used += part;
        cursor.offset += part;
        if (cursor.offset == cursor.iov->iov_len) {
            ++cursor.iov;
            cursor.offset = 0;
        }
    }
    node->size_ = size;
    return send_node(*node);
}

ssize_t Mem_Channel::sendv(const iovec* iov, int count)
{
    size_t total = 0;
    if (iovec_total(iov, count, total) == -1) {
        return -1;
    }
    Cursor cursor{iov, 0};
    for (size_t done = 0; done < total;) {
        const size_t piece = std::min<size_t>(total - done, PIECE_SIZE);
        if (send_piece(cursor, piece) == -1) {
            return -1;
        }
        done += piece;
    }
    return static_cast<ssize_t>(total);
}

ssize_t Mem_Channel::sendv_now(const iovec* iov, int count)
{
    size_t total = 0;
    if (iovec_total(iov, count, total) == -1) {
        return -1;
    }
    Cursor cursor{iov, 0};
    size_t done = 0;
    // A socket that polls writable takes an offset as a whole; one that has failed says so then.
    pollfd entry{handle_, POLLOUT, 0};
    while (done < total && has_room() && poll(&entry, 1, 0) == 1) {
        const size_t piece = std::min<size_t>(total - done, PIECE_SIZE);
        if (send_piece(cursor, piece) == -1) {
            return -1;
        }
        done += piece;
    }
    return static_cast<ssize_t>(done);
}

void Mem_Channel::send_end()
{
    pollfd entry{handle_, POLLOUT, 0};
    if (!has_room() || poll(&entry, 1, 0) != 1 || entry.revents != POLLOUT) {
        return;
    }
    ACE_MEM_SAP_Node* node = acquire_buffer(0);
    if (node != nullptr) {
        node->size_ = 0;
        send_node(*node);
    }
}

void Mem_Channel::close()
{
    if (shm_malloc_ == nullptr) {
        return;
    }
    release_node();
    fini();
    // A peer that died has not given the pool back, so the file would stay for ever. Who still has
    // it mapped keeps it.
    unlink(path_.c_str());
}
