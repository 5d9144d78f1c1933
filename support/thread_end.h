#pragma once

#include <pthread.h>

/**
 * Has FUNCTION called once when the calling thread ends, after the destructors of its thread_local
 * objects. Not called for the thread that the process ends with.
 *
 * A thread_local object with a destructor would do the same, but the C library ends the process
 * when there is no memory to note the destructor down.
 *
 * @return false when that cannot be noted down: FUNCTION will not be called.
 */
template <void (*FUNCTION)()>
bool call_at_thread_end()
{
    struct Key {
        Key() : made(::pthread_key_create(&key, [](void*) { FUNCTION(); }) == 0) {}

        pthread_key_t key{};
        bool made;
    };
    static const Key key;
    return key.made && ::pthread_setspecific(key.key, &key) == 0;
}
