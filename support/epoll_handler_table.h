#pragma once

#include "support/quick_mutex.h"
#include "support/std_lock_t.h"

#include <ace/Event_Handler.h>
#include <ace/Lock_Adapter_T.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

/**
 * The descriptors of one Epoll_Reactor: which handler holds each of them, for which events, and
 * what the kernel was told to report.
 *
 * Any thread may call anything. The lock is held for a few instructions only: a handler is never
 * called, nor a reference dropped, under it (the last reference may run a destructor that comes
 * back here), and the system call that may wake the loop is made without it.
 *
 * A slot's life: vacant -> bound -> closing (no events left, its handle_close is running) ->
 * vacant. Each binding has a generation of its own, which travels through the kernel with the
 * descriptor's events: an event of an earlier binding of the same descriptor is recognised.
 */
class Epoll_Handler_Table {
public:
    using Lock = Std_Lock_T<Quick_Mutex>;

    /// A handler that was taken for an upcall; `handler` carries a reference for the caller.
    struct Upcall {
        ACE_Event_Handler* handler;
        ACE_HANDLE handle;
        uint32_t generation;
        ACE_Reactor_Mask ready; ///< READ_MASK, WRITE_MASK, EXCEPT_MASK, or several of them
    };

    Epoll_Handler_Table();
    ~Epoll_Handler_Table();
    Epoll_Handler_Table(const Epoll_Handler_Table&) = delete;
    Epoll_Handler_Table& operator=(const Epoll_Handler_Table&) = delete;

    /// Creates the epoll instance; -1 with errno.
    int open();

    /// From here on nothing can be bound (ESHUTDOWN), while what is bound can still be removed.
    void refuse();

    /// Closes the epoll instance and forgets what was queued; every slot must be vacant.
    void close();

    bool is_open() const { return epoll_ != ACE_INVALID_HANDLE; }
    ACE_HANDLE epoll_handle() const { return epoll_; }

    /// Watches a descriptor of the reactor itself; its events carry `tag`, which must be at least
    /// FIRST_OWN_TAG: no descriptor of a handler has such a tag.
    int watch(ACE_HANDLE handle, uint64_t tag);
    static constexpr uint64_t FIRST_OWN_TAG = UINT64_MAX - 1;

    /// Adds `mask` to what the handler gets for the handle. EINVAL, EEXIST (the slot is another
    /// handler's), ESHUTDOWN, EBADF, ENOMEM, or what epoll says; but a descriptor that epoll
    /// refuses because it never waits (EPERM) is bound all the same, and queued anew whenever it is
    /// taken.
    int bind(ACE_HANDLE handle, ACE_Event_Handler* handler, ACE_Reactor_Mask mask);

    /// Takes `mask` from the handle; with DONT_CALL in it, handle_close is not called. A null
    /// `expected` stands for any handler. ENOENT when the slot holds no such handler.
    int remove(ACE_HANDLE handle, const ACE_Event_Handler* expected, ACE_Reactor_Mask mask);

    /// What follows an upcall that returned -1 for the one event `event`: removes it, if the slot
    /// still belongs to the binding that was called.
    void remove_after(const Upcall& upcall, ACE_Reactor_Mask event);

    /// Removes the first handler at or behind `from` with all events; false when there is none.
    bool remove_next(ACE_HANDLE& from);

    int suspend(ACE_HANDLE handle, const ACE_Event_Handler* expected);
    int resume(ACE_HANDLE handle, const ACE_Event_Handler* expected);
    void suspend_all();
    void resume_all();

    /// ACE_Reactor's GET/SET/ADD/CLR_MASK: the mask before the operation, or -1 (ENOENT, EINVAL).
    /// Inside handle_close of a handler with no events left GET answers 0.
    int mask_ops(ACE_HANDLE handle, const ACE_Event_Handler* expected, ACE_Reactor_Mask mask,
                 int operation);

    /// The handle's handler with a reference for the caller; null when there is none, or when it is
    /// not registered for all of `mask`.
    ACE_Event_Handler* find(ACE_HANDLE handle, ACE_Reactor_Mask mask);

    /// Whom an event of the kernel is for; false when nobody wants it any more.
    bool take(uint64_t tag, uint32_t events, Upcall& upcall);

    /// Whether the handler still wants the other event it was taken for, after an upcall.
    bool still_wants(const Upcall& upcall, ACE_Reactor_Mask event);

    /// Notes that the handler wants another upcall without waiting for its descriptor.
    void queue(const Upcall& upcall, ACE_Reactor_Mask event);

    /// The same for a handler that is registered under that handle, by any thread. ENOENT, or
    /// EINVAL when it is not registered for all of `events` (READ_MASK, WRITE_MASK, EXCEPT_MASK).
    int queue(ACE_HANDLE handle, const ACE_Event_Handler* expected, ACE_Reactor_Mask events);

    /// How many wait for such an upcall.
    size_t queued() const { return queued_.load(); }

    /// Takes the one that waits longest; false when it has been removed or suspended meanwhile.
    bool take_queued(Upcall& upcall);

    /// Fills `upcall` (without a reference) when the handler is registered under that handle for
    /// the event.
    bool identify(const ACE_Event_Handler* handler, ACE_HANDLE handle, ACE_Reactor_Mask event,
                  Upcall& upcall);

    /// The number of slots.
    size_t size() const;

    ACE_Lock& lock() { return lock_adapter_; }

private:
    struct Slot {
        ACE_Event_Handler* handler = nullptr; ///< null: vacant; holds a reference otherwise
        uint32_t generation = 0;
        ACE_HANDLE next_queued = ACE_INVALID_HANDLE;
        uint16_t mask = 0;   ///< what was asked for, in ACE's bits
        uint8_t queued = 0;  ///< upcalls due without an event of the kernel
        bool linked = false; ///< in the list of those; outlives the binding
        bool suspended = false;
        bool armed = false;        ///< known to be in the epoll set
        bool arming = false;       ///< a thread is putting it there, see arm()
        bool always_ready = false; ///< refused by epoll: queued for as long as it is wanted
        bool closing = false;      ///< the reference belongs to the thread that runs handle_close
    };

    // Slots never move: the table grows by whole chunks, so that growing it copies nothing.
    static constexpr size_t CHUNK_SLOTS = 1024;
    static constexpr ACE_HANDLE HANDLE_LIMIT = 1 << 26;
    using Chunk = std::unique_ptr<Slot[]>;

    Slot* slot(ACE_HANDLE handle);
    Slot* make_slot(ACE_HANDLE handle);
    Slot* bound_slot(ACE_HANDLE handle, const ACE_Event_Handler* expected);
    Slot* bound_slot(ACE_HANDLE handle, uint32_t generation);
    int remove_i(ACE_HANDLE handle, Slot* slot, ACE_Reactor_Mask mask, ACE_Reactor_Mask close_mask);
    int control(int operation, ACE_HANDLE handle, uint32_t generation, uint32_t events) const;
    int arm(ACE_HANDLE handle, uint32_t generation, uint32_t events);
    int synchronise(ACE_HANDLE handle, Slot& slot);
    void set_armed(Slot& slot);
    void queue_i(ACE_HANDLE handle, Slot& slot, ACE_Reactor_Mask events);

    mutable Lock mutex_;
    ACE_Lock_Adapter<Lock> lock_adapter_;
    ACE_HANDLE epoll_;
    bool refusing_;
    std::vector<Chunk> chunks_;

    // First in, first out, through the slots' next_queued: queueing needs no memory.
    ACE_HANDLE first_queued_;
    ACE_HANDLE last_queued_;
    std::atomic<size_t> queued_;
};
