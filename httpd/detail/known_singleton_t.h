#pragma once

#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

/**
 * The one object of a class T, which ACE owns, found without a call once it is there: every request
 * asks for several of them.
 *
 * The first instance() and close() must not race with another call. T befriends
 * ACE_Singleton<T, ACE_Null_Mutex> where its constructor is not public.
 */
template <typename T>
class Known_Singleton_T {
public:
    /// Null when there is no memory (ENOMEM).
    static T* instance() { return known_ != nullptr ? known_ : ask_owner(); }

    static void close()
    {
        Owner::close(); // whose destructors may still ask for the object
        known_ = nullptr;
    }

private:
    using Owner = ACE_Unmanaged_Singleton<T, ACE_Null_Mutex>;

    /// Not inline, so that the usual way needs no frame.
    [[gnu::noinline]] static T* ask_owner()
    {
        known_ = Owner::instance();
        return known_;
    }

    static inline T* known_ = nullptr;
};
