#pragma once

#include "httpd/object_creator_t.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <vector>

#include <pthread.h>

#if defined(__SANITIZE_ADDRESS__)
#define HTTPD_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HTTPD_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(HTTPD_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#endif

/**
 * Memory for objects of one type that is handed out again: a fixed number of slots, each holding
 * one free piece. A thread uses its own few slots, all in one cache line, so event loops do not
 * share them; a piece that finds no empty slot goes back to the heap. At most 128 pieces are kept.
 *
 * Any thread, without a lock. A slot is emptied or filled as a whole, so no thread ever looks into
 * a piece that another one has taken.
 */
template <typename T>
class Recycled_Memory_T {
public:
    Recycled_Memory_T() = default;

    ~Recycled_Memory_T()
    {
        for (Group& group : groups_) {
            for (std::atomic<void*>& slot : group.slots_) {
                free(slot.load(std::memory_order_acquire));
            }
        }
    }

    Recycled_Memory_T(const Recycled_Memory_T&) = delete;
    Recycled_Memory_T& operator=(const Recycled_Memory_T&) = delete;

    /// @return memory for one T; null with ENOMEM when there is none.
    void* take()
    {
        for (std::atomic<void*>& slot : group().slots_) {
            if (slot.load(std::memory_order_relaxed) != nullptr) {
                void* const memory = slot.exchange(nullptr, std::memory_order_acquire);
                if (memory != nullptr) {
                    poison(memory, false);
                    return memory;
                }
            }
        }
        return allocate();
    }

    /// Takes back what take() returned, its T destroyed.
    void give(void* memory)
    {
        poison(memory, true);
        for (std::atomic<void*>& slot : group().slots_) {
            void* empty = slot.load(std::memory_order_relaxed);
            if (empty == nullptr &&
                slot.compare_exchange_strong(empty, memory, std::memory_order_release,
                                             std::memory_order_relaxed)) {
                return;
            }
        }
        free(memory);
    }

private:
    static constexpr size_t CACHE_LINE = 64;
    static constexpr unsigned GROUP_BITS = 4;
    static constexpr bool OVERALIGNED = alignof(T) > __STDCPP_DEFAULT_NEW_ALIGNMENT__;

    struct alignas(CACHE_LINE) Group {
        std::array<std::atomic<void*>, CACHE_LINE / sizeof(void*)> slots_{};
    };

    static void* allocate()
    {
        void* memory = nullptr;
        if constexpr (OVERALIGNED) {
            memory = ::operator new(sizeof(T), std::align_val_t(alignof(T)), std::nothrow);
        } else {
            memory = ::operator new(sizeof(T), std::nothrow);
        }
        if (memory == nullptr) {
            errno = ENOMEM;
        }
        return memory;
    }

    static void free(void* memory)
    {
        if (memory == nullptr) {
            return;
        }
        poison(memory, false);
        if constexpr (OVERALIGNED) {
            ::operator delete(memory, std::align_val_t(alignof(T)));
        } else {
            ::operator delete(memory);
        }
    }

    /// Lets the address sanitizer see a use of an object that was given back.
    static void poison([[maybe_unused]] void* memory, [[maybe_unused]] bool on)
    {
#if defined(HTTPD_ADDRESS_SANITIZER)
        if (on) {
            __asan_poison_memory_region(memory, sizeof(T));
        } else {
            __asan_unpoison_memory_region(memory, sizeof(T));
        }
#endif
    }

    /// The calling thread's slots. Two threads that are given the same ones only compete for them.
    Group& group()
    {
        // Thread descriptors lie at a fixed distance from each other, a multiple of a power of two:
        // multiplied, the bits that differ come out on top.
        constexpr std::uint64_t GOLDEN_RATIO = 0x9E37'79B9'7F4A'7C15U;
        const auto thread = static_cast<std::uint64_t>(::pthread_self());
        return groups_[(thread * GOLDEN_RATIO) >> (64 - GROUP_BITS)];
    }

    std::array<Group, 1U << GROUP_BITS> groups_;
};

/**
 * Factory for plug-ins whose objects need no more than to be made: hands out objects of class
 * Derived in recycled memory, since one is made for each request.
 *
 * When Derived has `int init(int, char**)` (HTTP_Handler and WebSocket_Handler give it one), it is
 * called for each object with the record's parameters, and `fini` before the object goes. The
 * array is the object's for the time of the call, so it may be permuted; the strings live as long
 * as the factory. An `init` that returns -1 makes create() return null; `fini` is not called then.
 *
 * What all objects share, such as parameters that are costly to read, belongs into a class derived
 * from this one: it overrides Object_Creator_T::init, and construct().
 *
 * @tparam Base     HTTP_Handler, HTTP_Authenticator or WebSocket_Handler
 * @tparam Derived  the plug-in's class; with a default constructor unless construct() is overridden
 */
template <typename Base, typename Derived>
class Simple_Creator_T : public Object_Creator_T<Base> {
    static_assert(std::is_base_of_v<Base, Derived>);

public:
    /// A fresh object, or null with errno. No exception of Derived leaves it.
    Base* create() override
    {
        void* const memory = memory_.take();
        if (memory == nullptr) {
            return nullptr;
        }
        Derived* object = nullptr;
        try {
            object = construct(memory);
            if (object != nullptr && init_object(*object) == 0) {
                return object;
            }
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
        } catch (...) {
            errno = EINVAL;
        }
        const int error = errno;
        if (object != nullptr) {
            object->~Derived();
        }
        memory_.give(memory);
        errno = error;
        return nullptr;
    }

    void destroy(Base* base) override
    {
        if (base == nullptr) {
            return;
        }
        auto* const object = static_cast<Derived*>(base);
        fini_object(*object);
        object->~Derived();
        memory_.give(object);
    }

protected:
    /**
     * Makes an object, which must be a Derived itself and not of a class below it.
     * @param memory  for one Derived
     * @return the object at `memory`; null with errno when there is to be none.
     */
    virtual Derived* construct(void* memory)
    {
        if constexpr (std::is_default_constructible_v<Derived>) {
            return new (memory) Derived;
        } else {
            errno = ENOTSUP;
            return nullptr;
        }
    }

private:
    /// Who declares init and fini: the base class has them, or an authenticator may.
    using Life = std::conditional_t < requires(Base& base, int argc, char** argv)
    {
        base.init(argc, argv);
    }
    , Base, Derived > ;

    int init_object(Derived& object)
    {
        Life& life = object;
        if constexpr (requires { life.init(this->argc_, this->argv_); }) {
            if (this->argc_ <= 0 || this->argv_ == nullptr) {
                return life.init(0, nullptr);
            }
            // Objects are made by several threads at once, and option parsers reorder the array.
            const auto count = static_cast<size_t>(this->argc_);
            std::array<char*, FEW_ARGUMENTS> few{};
            std::vector<char*> many;
            char** arguments = few.data();
            if (count >= few.size()) {
                many.resize(count + 1);
                arguments = many.data();
            }
            std::copy_n(this->argv_, count, arguments);
            return life.init(this->argc_, arguments);
        } else {
            return 0;
        }
    }

    static void fini_object(Derived& object)
    {
        Life& life = object;
        if constexpr (requires { life.fini(); }) {
            life.fini();
        }
    }

    static constexpr size_t FEW_ARGUMENTS = 16;

    Recycled_Memory_T<Derived> memory_;
};

/// Disposes of a factory that make_creator made.
template <typename Creator>
void gobble_creator(void* creator) noexcept
{
    delete static_cast<Object_Creator_T<typename Creator::object_type>*>(creator);
}

/// A new factory, and in `gobbler` the function that disposes of it; null with errno on failure.
template <typename Creator>
Object_Creator_T<typename Creator::object_type>* make_creator(void (**gobbler)(void*)) noexcept
{
    try {
        auto* const creator = new Creator;
        if (gobbler != nullptr) {
            *gobbler = &gobble_creator<Creator>;
        }
        return creator;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
    } catch (...) {
        errno = EINVAL;
    }
    return nullptr;
}

/**
 * Defines, at global scope, the function that a configuration record names as "init".
 *
 *     HTTPD_PLUGIN_FACTORY(_make_Hello, Simple_Creator_T<HTTP_Handler, Hello>)
 *
 * The second argument is the factory's class, which has a default constructor.
 */
#define HTTPD_PLUGIN_FACTORY(NAME, ...)                                                            \
    extern "C" __attribute__((visibility("default"))) Object_Creator_T<__VA_ARGS__::object_type>*  \
    NAME(void (**gobbler)(void*))                                                                  \
    {                                                                                              \
        return make_creator<__VA_ARGS__>(gobbler);                                                 \
    }
