#pragma once

#include "httpd/export.h"

#include <cstdlib>
#include <cstring>

/**
 * Factory of a plug-in: makes the objects that serve requests. T is HTTP_Handler,
 * HTTP_Authenticator or WebSocket_Handler.
 *
 * A plug-in library exports one C function for each record of a configuration file; it returns a
 * factory and stores the function that disposes of it. The library calls init() once with the
 * record's parameters, then create() and destroy() from any thread, without a lock.
 */
template <typename T>
class HTTPD_EXPORT Object_Creator_T {
public:
    using object_type = T;

    Object_Creator_T() = default;
    virtual ~Object_Creator_T() { clear(); }
    Object_Creator_T(const Object_Creator_T&) = delete;
    Object_Creator_T& operator=(const Object_Creator_T&) = delete;

    /**
     * Keeps copies of the parameters in argc_ and argv_.
     * @param argv  no program name: argv[0] is the first parameter; null when there are none
     * @return 0, or -1 with errno; -1 refuses the record.
     */
    virtual int init(int argc, char** argv)
    {
        clear();
        argc_ = argc;
        if (argv == nullptr) {
            return 0;
        }
        argv_ = static_cast<char**>(
            std::calloc(static_cast<size_t>(argc > 0 ? argc : 1), sizeof(char*)));
        if (argv_ == nullptr) {
            return -1;
        }
        for (int i = 0; i < argc; ++i) {
            argv_[i] = ::strdup(argv[i]);
            if (argv_[i] == nullptr) {
                return -1;
            }
        }
        return 0;
    }

    virtual int fini() { return 0; }

    /// @return a new object, or null (the request is then refused). Any thread.
    virtual T* create() = 0;

    /// Takes back what create() returned, null included. Any thread.
    virtual void destroy(T* object) = 0;

    void clear()
    {
        if (argv_ != nullptr) {
            for (int i = 0; i < argc_; ++i) {
                std::free(argv_[i]);
            }
            std::free(argv_);
            argv_ = nullptr;
        }
        argc_ = 0;
    }

    int argc_ = 0;
    char** argv_ = nullptr;
};

/**
 * Holds the object that a factory made and gives it back to the factory. The factory is not owned
 * and must outlive the holder.
 */
template <typename Creator, typename T>
class Object_var {
public:
    explicit Object_var(Creator* creator = nullptr) { reset(creator); }
    ~Object_var() { reset(nullptr); }
    Object_var(const Object_var&) = delete;
    Object_var& operator=(const Object_var&) = delete;

    /// Gives the held object back and takes a fresh one from `creator`, which may be null.
    void reset(Creator* creator)
    {
        if (creator_ != nullptr) {
            creator_->destroy(obj_);
            obj_ = nullptr;
        }
        creator_ = creator;
        obj_ = creator != nullptr ? creator->create() : nullptr;
    }

    Creator* creator() const { return creator_; }
    T* get() const { return obj_; }
    T* operator->() const { return obj_; }
    explicit operator bool() const { return obj_ != nullptr; }

private:
    Creator* creator_ = nullptr;
    T* obj_ = nullptr;
};
