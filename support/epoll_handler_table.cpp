#include "support/epoll_handler_table.h"

#include <ace/Guard_T.h>
#include <ace/Reactor.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

namespace {

using Guard = ACE_Guard<Epoll_Handler_Table::Lock>;

// What ACE lets a caller ask for under several names is one readiness of the descriptor.
constexpr ACE_Reactor_Mask INPUT_EVENTS =
    ACE_Event_Handler::READ_MASK | ACE_Event_Handler::ACCEPT_MASK | ACE_Event_Handler::CONNECT_MASK;
constexpr ACE_Reactor_Mask OUTPUT_EVENTS =
    ACE_Event_Handler::WRITE_MASK | ACE_Event_Handler::CONNECT_MASK;
constexpr ACE_Reactor_Mask EXCEPT_EVENTS = ACE_Event_Handler::EXCEPT_MASK;
constexpr ACE_Reactor_Mask DESCRIPTOR_EVENTS = INPUT_EVENTS | OUTPUT_EVENTS | EXCEPT_EVENTS;

ACE_Reactor_Mask asked_for(ACE_Reactor_Mask event)
{
    switch (event) {
    case ACE_Event_Handler::READ_MASK:
        return INPUT_EVENTS;
    case ACE_Event_Handler::WRITE_MASK:
        return OUTPUT_EVENTS;
    default:
        return EXCEPT_EVENTS;
    }
}

uint32_t to_epoll(ACE_Reactor_Mask mask)
{
    uint32_t events = 0;
    if ((mask & INPUT_EVENTS) != 0) {
        events |= EPOLLIN;
    }
    if ((mask & OUTPUT_EVENTS) != 0) {
        events |= EPOLLOUT;
    }
    if ((mask & EXCEPT_EVENTS) != 0) {
        events |= EPOLLPRI;
    }
    return events;
}

// The upcalls due. A hang-up or an error alone goes to the side that would find out by reading, or
// else by writing: it is reported again and again until somebody acts on it.
ACE_Reactor_Mask from_epoll(uint32_t events, ACE_Reactor_Mask mask)
{
    if (events == EPOLLIN && (mask & INPUT_EVENTS) != 0) { // nearly always
        return ACE_Event_Handler::READ_MASK;
    }
    ACE_Reactor_Mask ready = ACE_Event_Handler::NULL_MASK;
    if ((events & EPOLLIN) != 0 && (mask & INPUT_EVENTS) != 0) {
        ready |= ACE_Event_Handler::READ_MASK;
    }
    if ((events & EPOLLOUT) != 0 && (mask & OUTPUT_EVENTS) != 0) {
        ready |= ACE_Event_Handler::WRITE_MASK;
    }
    if ((events & EPOLLPRI) != 0 && (mask & EXCEPT_EVENTS) != 0) {
        ready |= ACE_Event_Handler::EXCEPT_MASK;
    }
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) {
        if ((mask & INPUT_EVENTS) != 0) {
            ready |= ACE_Event_Handler::READ_MASK;
        } else if ((mask & OUTPUT_EVENTS) != 0) {
            ready |= ACE_Event_Handler::WRITE_MASK;
        } else if ((mask & EXCEPT_EVENTS) != 0) {
            ready |= ACE_Event_Handler::EXCEPT_MASK;
        }
    }
    return ready;
}

// As poll(2) tells of a regular file: it can always be read and written, and is never exceptional.
ACE_Reactor_Mask always_ready_events(ACE_Reactor_Mask mask)
{
    return from_epoll(EPOLLIN | EPOLLOUT, mask);
}

uint64_t to_tag(ACE_HANDLE handle, uint32_t generation)
{
    return static_cast<uint64_t>(generation) << 32 | static_cast<uint32_t>(handle);
}

} // namespace

Epoll_Handler_Table::Epoll_Handler_Table()
    : lock_adapter_(mutex_), epoll_(ACE_INVALID_HANDLE), refusing_(true),
      first_queued_(ACE_INVALID_HANDLE), last_queued_(ACE_INVALID_HANDLE), queued_(0)
{
}

Epoll_Handler_Table::~Epoll_Handler_Table()
{
    this->close();
}

int Epoll_Handler_Table::open()
{
    Guard guard(mutex_);
    epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
    refusing_ = epoll_ == ACE_INVALID_HANDLE;
    return refusing_ ? -1 : 0;
}

void Epoll_Handler_Table::refuse()
{
    Guard guard(mutex_);
    refusing_ = true;
}

void Epoll_Handler_Table::close()
{
    Guard guard(mutex_);
    refusing_ = true;
    if (epoll_ != ACE_INVALID_HANDLE) {
        ::close(epoll_);
        epoll_ = ACE_INVALID_HANDLE;
    }
    while (first_queued_ != ACE_INVALID_HANDLE) {
        Slot& first = *this->slot(first_queued_);
        first.linked = false;
        first_queued_ = std::exchange(first.next_queued, ACE_INVALID_HANDLE);
    }
    last_queued_ = ACE_INVALID_HANDLE;
    queued_ = 0;
}

int Epoll_Handler_Table::watch(ACE_HANDLE handle, uint64_t tag)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    return ::epoll_ctl(epoll_, EPOLL_CTL_ADD, handle, &event);
}

int Epoll_Handler_Table::bind(ACE_HANDLE handle, ACE_Event_Handler* handler, ACE_Reactor_Mask mask)
{
    mask &= DESCRIPTOR_EVENTS;
    if (handle < 0 || handler == nullptr || mask == ACE_Event_Handler::NULL_MASK) {
        errno = EINVAL;
        return -1;
    }

    uint32_t generation = 0;
    {
        Guard guard(mutex_);
        if (refusing_) {
            errno = ESHUTDOWN;
            return -1;
        }
        Slot* const slot = this->make_slot(handle);
        if (slot == nullptr) {
            return -1;
        }
        if (slot->handler != nullptr && !slot->closing) {
            if (slot->handler != handler) {
                errno = EEXIST;
                return -1;
            }
            const uint16_t old = slot->mask;
            slot->mask = static_cast<uint16_t>(old | mask);
            if (this->synchronise(handle, *slot) == -1) {
                slot->mask = old;
                return -1;
            }
            return 0;
        }
        // A slot that is closing is free: the descriptor may have been closed and given out again
        // while the old handler's handle_close still runs. Its thread keeps the old reference.
        handler->add_reference();
        slot->handler = handler;
        generation = ++slot->generation;
        slot->mask = static_cast<uint16_t>(mask);
        slot->queued = 0;
        slot->suspended = false;
        slot->armed = false;
        slot->arming = true;
        slot->always_ready = false;
        slot->closing = false;
    }

    if (this->arm(handle, generation, to_epoll(mask)) == 0) {
        return 0;
    }
    const int error = errno;
    bool ours = false;
    {
        Guard guard(mutex_);
        Slot* const slot = this->bound_slot(handle, generation);
        ours = slot != nullptr && !slot->closing;
        if (ours) {
            slot->handler = nullptr;
        }
    }
    if (ours) {
        handler->remove_reference();
    }
    errno = error;
    return -1;
}

int Epoll_Handler_Table::remove(ACE_HANDLE handle, const ACE_Event_Handler* expected,
                                ACE_Reactor_Mask mask)
{
    mutex_.acquire();
    return this->remove_i(handle, this->bound_slot(handle, expected), mask, mask);
}

void Epoll_Handler_Table::remove_after(const Upcall& upcall, ACE_Reactor_Mask event)
{
    mutex_.acquire();
    this->remove_i(upcall.handle, this->bound_slot(upcall.handle, upcall.generation),
                   asked_for(event), event);
}

bool Epoll_Handler_Table::remove_next(ACE_HANDLE& from)
{
    mutex_.acquire();
    const auto end = static_cast<ACE_HANDLE>(chunks_.size() * CHUNK_SLOTS);
    for (; from < end; ++from) {
        Slot* const slot = this->slot(from);
        if (slot != nullptr && slot->handler != nullptr && !slot->closing) {
            this->remove_i(from, slot, ACE_Event_Handler::ALL_EVENTS_MASK,
                           ACE_Event_Handler::ALL_EVENTS_MASK);
            return true;
        }
    }
    mutex_.release();
    return false;
}

/// Enters with the lock held and leaves without it.
int Epoll_Handler_Table::remove_i(ACE_HANDLE handle, Slot* slot, ACE_Reactor_Mask mask,
                                  ACE_Reactor_Mask close_mask)
{
    const bool call = (mask & ACE_Event_Handler::DONT_CALL) == 0;
    // A handler is closed once: within handle_close, it can only be put out silently.
    if (slot == nullptr || (slot->closing && call)) {
        mutex_.release();
        errno = ENOENT;
        return -1;
    }
    if (slot->closing) {
        slot->handler = nullptr; // the reference is the closing thread's
        mutex_.release();
        return 0;
    }

    ACE_Event_Handler* const handler = slot->handler;
    const uint32_t generation = slot->generation;
    slot->mask = static_cast<uint16_t>(slot->mask & ~mask);
    this->synchronise(handle, *slot);
    const bool last = slot->mask == 0;
    if (!last && call) {
        handler->add_reference(); // handle_close may remove the rest
    } else if (last && call) {
        slot->closing = true;
    } else if (last) {
        slot->handler = nullptr;
    }
    mutex_.release();

    if (call) {
        handler->handle_close(handle, close_mask);
    }
    if (last && call) {
        Guard guard(mutex_);
        Slot* const again = this->bound_slot(handle, generation);
        if (again != nullptr) {
            again->handler = nullptr;
        }
    }
    if (last || call) {
        handler->remove_reference();
    }
    return 0;
}

int Epoll_Handler_Table::suspend(ACE_HANDLE handle, const ACE_Event_Handler* expected)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, expected);
    if (slot == nullptr || slot->closing) {
        errno = ENOENT;
        return -1;
    }
    slot->suspended = true;
    return this->synchronise(handle, *slot);
}

int Epoll_Handler_Table::resume(ACE_HANDLE handle, const ACE_Event_Handler* expected)
{
    uint32_t generation = 0;
    uint32_t events = 0;
    {
        Guard guard(mutex_);
        Slot* const slot = this->bound_slot(handle, expected);
        if (slot == nullptr || slot->closing) {
            errno = ENOENT;
            return -1;
        }
        const bool was_suspended = std::exchange(slot->suspended, false);
        events = to_epoll(slot->mask);
        if (!was_suspended || events == 0) {
            return 0;
        }
        generation = slot->generation;
        slot->arming = true;
    }

    if (this->arm(handle, generation, events) == 0) {
        return 0;
    }
    const int error = errno;
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, generation);
    if (slot != nullptr) {
        slot->suspended = true;
    }
    errno = error;
    return -1;
}

void Epoll_Handler_Table::suspend_all()
{
    const auto end = static_cast<ACE_HANDLE>(this->size());
    for (ACE_HANDLE handle = 0; handle < end; ++handle) {
        this->suspend(handle, nullptr);
    }
}

void Epoll_Handler_Table::resume_all()
{
    const auto end = static_cast<ACE_HANDLE>(this->size());
    for (ACE_HANDLE handle = 0; handle < end; ++handle) {
        this->resume(handle, nullptr);
    }
}

int Epoll_Handler_Table::mask_ops(ACE_HANDLE handle, const ACE_Event_Handler* expected,
                                  ACE_Reactor_Mask mask, int operation)
{
    mask &= DESCRIPTOR_EVENTS;
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, expected);
    if (slot == nullptr) {
        errno = ENOENT;
        return -1;
    }
    const uint16_t old = slot->mask;
    ACE_Reactor_Mask wanted = old;
    switch (operation) {
    case ACE_Reactor::GET_MASK:
        return old;
    case ACE_Reactor::SET_MASK:
        wanted = mask;
        break;
    case ACE_Reactor::ADD_MASK:
        wanted |= mask;
        break;
    case ACE_Reactor::CLR_MASK:
        wanted &= ~mask;
        break;
    default:
        errno = EINVAL;
        return -1;
    }
    if (slot->closing && wanted != 0) {
        errno = ENOENT;
        return -1;
    }
    slot->mask = static_cast<uint16_t>(wanted);
    if (this->synchronise(handle, *slot) == -1) {
        slot->mask = old;
        return -1;
    }
    return old;
}

ACE_Event_Handler* Epoll_Handler_Table::find(ACE_HANDLE handle, ACE_Reactor_Mask mask)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, nullptr);
    if (slot == nullptr || slot->closing || (slot->mask & mask) != mask) {
        errno = ENOENT;
        return nullptr;
    }
    slot->handler->add_reference();
    return slot->handler;
}

bool Epoll_Handler_Table::take(uint64_t tag, uint32_t events, Upcall& upcall)
{
    const auto handle = static_cast<ACE_HANDLE>(static_cast<uint32_t>(tag));
    const auto generation = static_cast<uint32_t>(tag >> 32);
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, generation);
    if (slot == nullptr || slot->suspended) {
        return false;
    }
    // Who is queued already is called once in this round, with the others that are.
    const ACE_Reactor_Mask ready = from_epoll(events, slot->mask) & ~ACE_Reactor_Mask{slot->queued};
    if (ready == 0) {
        return false;
    }
    slot->handler->add_reference();
    upcall = {slot->handler, handle, generation, ready};
    return true;
}

bool Epoll_Handler_Table::still_wants(const Upcall& upcall, ACE_Reactor_Mask event)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(upcall.handle, upcall.generation);
    return slot != nullptr && !slot->suspended && (slot->mask & asked_for(event)) != 0;
}

void Epoll_Handler_Table::queue(const Upcall& upcall, ACE_Reactor_Mask event)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(upcall.handle, upcall.generation);
    if (slot == nullptr || (slot->mask & asked_for(event)) == 0) {
        return;
    }
    this->queue_i(upcall.handle, *slot, event);
}

int Epoll_Handler_Table::queue(ACE_HANDLE handle, const ACE_Event_Handler* expected,
                               ACE_Reactor_Mask events)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, expected);
    if (slot == nullptr) {
        errno = ENOENT;
        return -1;
    }
    constexpr ACE_Reactor_Mask KNOWN = ACE_Event_Handler::READ_MASK |
                                       ACE_Event_Handler::WRITE_MASK |
                                       ACE_Event_Handler::EXCEPT_MASK;
    if (events == 0 || (events & ~(slot->mask & KNOWN)) != 0) {
        errno = EINVAL;
        return -1;
    }
    this->queue_i(handle, *slot, events);
    return 0;
}

/// The lock is held.
void Epoll_Handler_Table::queue_i(ACE_HANDLE handle, Slot& slot, ACE_Reactor_Mask events)
{
    slot.queued = static_cast<uint8_t>(slot.queued | events);
    if (slot.linked || slot.queued == 0) {
        return;
    }
    slot.linked = true;
    slot.next_queued = ACE_INVALID_HANDLE;
    if (first_queued_ == ACE_INVALID_HANDLE) {
        first_queued_ = handle;
    } else {
        this->slot(last_queued_)->next_queued = handle;
    }
    last_queued_ = handle;
    queued_.fetch_add(1);
}

bool Epoll_Handler_Table::take_queued(Upcall& upcall)
{
    Guard guard(mutex_);
    if (first_queued_ == ACE_INVALID_HANDLE) {
        return false;
    }
    const ACE_HANDLE handle = first_queued_;
    Slot& slot = *this->slot(handle);
    first_queued_ = std::exchange(slot.next_queued, ACE_INVALID_HANDLE);
    slot.linked = false;
    queued_.fetch_sub(1);

    ACE_Reactor_Mask ready = std::exchange(slot.queued, uint8_t{0});
    for (const ACE_Reactor_Mask event : {ACE_Reactor_Mask{ACE_Event_Handler::READ_MASK},
                                         ACE_Reactor_Mask{ACE_Event_Handler::WRITE_MASK},
                                         ACE_Reactor_Mask{ACE_Event_Handler::EXCEPT_MASK}}) {
        if ((slot.mask & asked_for(event)) == 0) {
            ready &= ~event;
        }
    }
    if (slot.handler == nullptr || slot.suspended || ready == 0) {
        return false;
    }
    slot.handler->add_reference();
    upcall = {slot.handler, handle, slot.generation, ready};
    if (slot.always_ready) {
        // Behind the others, hence for the next round; whoever removes or suspends it meanwhile
        // has it left out there.
        this->queue_i(handle, slot, always_ready_events(slot.mask));
    }
    return true;
}

bool Epoll_Handler_Table::identify(const ACE_Event_Handler* handler, ACE_HANDLE handle,
                                   ACE_Reactor_Mask event, Upcall& upcall)
{
    Guard guard(mutex_);
    Slot* const slot = this->bound_slot(handle, handler);
    if (slot == nullptr || (slot->mask & asked_for(event)) == 0) {
        return false;
    }
    upcall = {slot->handler, handle, slot->generation, event};
    return true;
}

size_t Epoll_Handler_Table::size() const
{
    Guard guard(mutex_);
    return chunks_.size() * CHUNK_SLOTS;
}

Epoll_Handler_Table::Slot* Epoll_Handler_Table::slot(ACE_HANDLE handle)
{
    if (handle < 0) {
        return nullptr;
    }
    const auto index = static_cast<size_t>(handle);
    if (index / CHUNK_SLOTS >= chunks_.size() || chunks_[index / CHUNK_SLOTS] == nullptr) {
        return nullptr;
    }
    return &chunks_[index / CHUNK_SLOTS][index % CHUNK_SLOTS];
}

Epoll_Handler_Table::Slot* Epoll_Handler_Table::make_slot(ACE_HANDLE handle)
{
    if (handle >= HANDLE_LIMIT) {
        errno = EBADF;
        return nullptr;
    }
    const size_t chunk = static_cast<size_t>(handle) / CHUNK_SLOTS;
    try {
        if (chunk >= chunks_.size()) {
            chunks_.resize(chunk + 1);
        }
        if (chunks_[chunk] == nullptr) {
            chunks_[chunk] = std::make_unique<Slot[]>(CHUNK_SLOTS);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return nullptr;
    }
    return this->slot(handle);
}

Epoll_Handler_Table::Slot* Epoll_Handler_Table::bound_slot(ACE_HANDLE handle,
                                                           const ACE_Event_Handler* expected)
{
    Slot* const slot = this->slot(handle);
    if (slot == nullptr || slot->handler == nullptr ||
        (expected != nullptr && slot->handler != expected)) {
        return nullptr;
    }
    return slot;
}

Epoll_Handler_Table::Slot* Epoll_Handler_Table::bound_slot(ACE_HANDLE handle, uint32_t generation)
{
    Slot* const slot = this->slot(handle);
    return slot != nullptr && slot->handler != nullptr && slot->generation == generation ? slot
                                                                                         : nullptr;
}

int Epoll_Handler_Table::control(int operation, ACE_HANDLE handle, uint32_t generation,
                                 uint32_t events) const
{
    epoll_event event{};
    event.events = events;
    event.data.u64 = to_tag(handle, generation);
    return ::epoll_ctl(epoll_, operation, handle, &event);
}

/**
 * Puts a descriptor into the epoll set, without the lock: a descriptor that is ready already wakes
 * the loop within the call, and a loop that ran into a held lock would cost two switches of threads
 * for each accepted connection. What other threads did to the binding meanwhile is made up for
 * afterwards; but who removes or suspends it, perhaps to close the descriptor next, has taken it
 * out of the set already when it was there.
 */
int Epoll_Handler_Table::arm(ACE_HANDLE handle, uint32_t generation, uint32_t events)
{
    const int result = this->control(EPOLL_CTL_ADD, handle, generation, events);
    const int error = errno;
    Guard guard(mutex_);
    Slot& slot = *this->slot(handle);
    if (slot.generation != generation) {
        // A newer binding will find it in the set.
        if (result == 0 && slot.handler == nullptr) {
            this->control(EPOLL_CTL_DEL, handle, generation, 0);
        }
        return 0;
    }
    const bool in_set = std::exchange(slot.arming, false) && result == 0;
    if (slot.handler == nullptr) { // removed before it was in the set
        if (in_set) {
            this->control(EPOLL_CTL_DEL, handle, generation, 0);
        }
        return 0;
    }
    const bool refused = result == -1 && error == EPERM; // it never waits: no event tells of it
    if (result == -1 && error != EEXIST && !refused) {
        errno = error;
        return -1;
    }
    if (in_set || (result == -1 && !refused)) {
        this->set_armed(slot);
    }
    if (in_set && !slot.suspended && to_epoll(slot.mask) == events) {
        return 0;
    }
    return this->synchronise(handle, slot);
}

void Epoll_Handler_Table::set_armed(Slot& slot)
{
    slot.armed = true;
    if (std::exchange(slot.always_ready, false)) {
        slot.queued = 0; // the number belongs to another kind of descriptor now
    }
}

/// Makes the epoll set agree with the slot; the lock is held. A suspended descriptor and one
/// without events leave the set: a hang-up would be reported for them still, round after round.
int Epoll_Handler_Table::synchronise(ACE_HANDLE handle, Slot& slot)
{
    const uint32_t events = slot.suspended ? 0 : to_epoll(slot.mask);
    if (events == 0) {
        if (std::exchange(slot.armed, false) || slot.arming) {
            const int error = errno;
            // Fails on a closed handle, and on one that is about to be put in.
            if (this->control(EPOLL_CTL_DEL, handle, slot.generation, 0) == 0) {
                slot.arming = false;
            }
            errno = error;
        }
        return 0;
    }
    if (!slot.armed) {
        if (this->control(EPOLL_CTL_ADD, handle, slot.generation, events) == 0) {
            this->set_armed(slot);
            return 0;
        }
        if (errno == EPERM) {
            slot.always_ready = true;
            this->queue_i(handle, slot, always_ready_events(slot.mask));
            return 0;
        }
        if (errno != EEXIST) {
            return -1;
        }
        this->set_armed(slot);
    }
    if (this->control(EPOLL_CTL_MOD, handle, slot.generation, events) == 0) {
        return 0;
    }
    // Closed and opened again under the same number, by one and the same handler.
    return errno == ENOENT ? this->control(EPOLL_CTL_ADD, handle, slot.generation, events) : -1;
}
