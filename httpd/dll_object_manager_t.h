#pragma once

#include "httpd/export.h"

#include <ace/DLL.h>
#include <ace/DLL_Manager.h>
#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <limits>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <utility>

/// How many libraries ACE keeps track of; the first caller in the process decides.
constexpr int DLL_MANAGER_SIZE = 1024;

/**
 * A factory with the library that it came from: what a registry keeps for each URI. Owns both, and
 * disposes of the factory before it lets go of the library, because the code of the one is in the
 * other. Not thread-safe.
 *
 * @tparam Object   the factory; has a virtual destructor
 * @tparam Gobbler  function that disposes of a factory: void (*)(void*)
 */
template <typename Object, typename Gobbler>
class DLL_Object_Entry_T {
public:
    DLL_Object_Entry_T() = default;
    DLL_Object_Entry_T(std::string&& dll, Object* obj, Gobbler gobbler) noexcept
        : dll_(std::move(dll)), obj_(obj), gobbler_(gobbler)
    {
    }
    ~DLL_Object_Entry_T() { destroy(); }
    DLL_Object_Entry_T(const DLL_Object_Entry_T&) = delete;
    DLL_Object_Entry_T& operator=(const DLL_Object_Entry_T&) = delete;

    /// Disposes of what this entry holds, then takes over what the other holds.
    DLL_Object_Entry_T& operator=(DLL_Object_Entry_T&& other) noexcept
    {
        if (this != &other) {
            destroy();
            dll_.swap(other.dll_);
            obj_ = std::exchange(other.obj_, nullptr);
            gobbler_ = std::exchange(other.gobbler_, nullptr);
        }
        return *this;
    }

    /// Leaves the entry empty. Without a disposer the factory is deleted.
    void destroy()
    {
        if (obj_ != nullptr) {
            if (gobbler_ != nullptr) {
                gobbler_(obj_);
            } else {
                delete obj_;
            }
            obj_ = nullptr;
            gobbler_ = nullptr;
        }
        if (!dll_.empty()) {
            ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->close_dll(dll_.c_str());
            dll_.clear();
        }
    }

    std::string dll_; ///< as configured: the name by which ACE closes it
    Object* obj_ = nullptr;
    Gobbler gobbler_ = nullptr;
};

/**
 * Owner of a library, and of the factory that it made, until a registry takes both over
 * (`detach_`). One object opens one library: after a failure ACE_DLL clings to the first name.
 */
template <typename Object, typename Gobbler>
class DLL_Object_Entry_Ptr {
public:
    DLL_Object_Entry_Ptr() = default;

    /// A factory that came without a disposer is left alone: nobody knows how it was made.
    ~DLL_Object_Entry_Ptr()
    {
        if (detach_) {
            return;
        }
        if (obj_ != nullptr && gobbler_ != nullptr) {
            gobbler_(obj_);
        }
        // The ACE_DLL does not close what it opened, so the library is uncounted by name.
        if (opened_) {
            ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->close_dll(name_.c_str());
        }
    }

    DLL_Object_Entry_Ptr(const DLL_Object_Entry_Ptr&) = delete;
    DLL_Object_Entry_Ptr& operator=(const DLL_Object_Entry_Ptr&) = delete;

    /**
     * Opens a library.
     * @param name  handed to the dynamic loader as it is
     * @param mode  of dlopen(3)
     * @return 0, or -1: dll_.error() says why, or errno is ENOMEM.
     */
    int open(const char* name, int mode)
    {
        ACE_DLL_Manager::instance(DLL_MANAGER_SIZE);
        try {
            name_ = name;
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return -1;
        }
        const int result = dll_.open(name, mode, false);
        opened_ = result == 0;
        return result;
    }

    bool detach_ = false; ///< true: a registry owns library and factory now
    ACE_DLL dll_{false};
    Object* obj_ = nullptr;
    Gobbler gobbler_ = nullptr;

private:
    std::string name_;
    bool opened_ = false;
};

/// The order of std::less for the URIs of a registry. That of the library also brings a difference
/// of lengths into the range of an int, for each comparison.
struct URI_Order {
    using is_transparent = void;

    bool operator()(std::string_view left, std::string_view right) const
    {
        const int order = std::char_traits<char>::compare(left.data(), right.data(),
                                                          std::min(left.size(), right.size()));
        return order != 0 ? order < 0 : left.size() < right.size();
    }
};

/// Tells apart registries that would else be of one type.
struct DLL_Object_Manager_Default_Tag {};

/**
 * Registry of the factories of one kind of plug-in, by URI.
 *
 * Filled while the service is configured, searched for each request. A factory that find()
 * returned is used after the lock was let go, so nothing is inserted, nor the registry destroyed,
 * while requests are served. Its destruction disposes of every factory and closes the libraries.
 *
 * @tparam Mutex  an ACE lock; ACE_Null_Mutex where the above makes a lock needless
 */
template <typename Object, typename Gobbler, typename Mutex,
          typename Tag = DLL_Object_Manager_Default_Tag>
class DLL_Object_Manager_T {
public:
    using entry_type = DLL_Object_Entry_T<Object, Gobbler>;

    /// What find() stores as the offset when nothing matches.
    static constexpr size_t NOT_FOUND = std::numeric_limits<size_t>::max();

    DLL_Object_Manager_T() = default;
    virtual ~DLL_Object_Manager_T() = default;
    DLL_Object_Manager_T(const DLL_Object_Manager_T&) = delete;
    DLL_Object_Manager_T& operator=(const DLL_Object_Manager_T&) = delete;

    /**
     * Adds a factory and takes it over, with one count of its library.
     * @param dll      the name by which ACE_DLL_Manager has the library open
     * @param gobbler  disposes of `obj`; null: it is deleted
     * @return 0; -1 with errno when the URI is there already (EEXIST: the first one stays), the
     *         lock failed or there is no memory. `obj` is then still the caller's.
     */
    int insert(const std::string& uri, const std::string& dll, Object* obj, Gobbler gobbler)
    {
        ACE_Write_Guard<Mutex> guard(lock_);
        if (!guard.locked()) {
            return -1;
        }
        try {
            std::string name(dll);
            const auto [slot, added] = map_.try_emplace(uri);
            if (!added) {
                errno = EEXIST;
                return -1;
            }
            slot->second = entry_type(std::move(name), obj, gobbler);
        } catch (const std::bad_alloc&) {
            errno = ENOMEM;
            return -1;
        }
        return 0;
    }

    /**
     * Finds the factory with the longest URI that is `uri` itself or a prefix of it that ends at
     * `sep`: "/a" serves "/a" and "/a/b", not "/ab"; "/a/" serves "/a/" and "/a/b", not "/a". No
     * memory is allocated.
     * @param off  receives the length of the URI found, or NOT_FOUND
     * @return the factory, owned by the registry; null when nothing matches or the lock failed.
     */
    Object* find(std::string_view uri, char sep, size_t& off) const
    {
        ACE_Read_Guard<Mutex> guard(lock_);
        if (!guard.locked()) {
            return nullptr;
        }
        off = NOT_FOUND;
        if (map_.empty()) {
            return nullptr;
        }
        return this->find_longest(uri, sep, off);
    }

    Object* find(std::string_view uri, char sep) const
    {
        size_t off = 0;
        return find(uri, sep, off);
    }

    /// "uri 'X' of dll 'Y'" of the entry that holds this factory, for log lines; "" when none does.
    std::string describe(const Object* obj) const
    {
        ACE_Read_Guard<Mutex> guard(lock_);
        if (!guard.locked()) {
            return {};
        }
        const auto found = std::find_if(
            map_.begin(), map_.end(), [obj](const auto& slot) { return slot.second.obj_ == obj; });
        if (found == map_.end()) {
            return {};
        }
        try {
            return "uri '" + found->first + "' of dll '" + found->second.dll_ + "'";
        } catch (const std::bad_alloc&) {
            return {};
        }
    }

protected:
    mutable Mutex lock_;
    std::map<std::string, entry_type, URI_Order> map_;

private:
    /// find() under the lock, for a registry that is not empty.
    Object* find_longest(std::string_view uri, char sep, size_t& off) const
    {
        auto position = map_.lower_bound(uri);
        if (position != map_.end() && is_same(position->first, uri)) {
            off = uri.size();
            return position->second.obj_;
        }
        // Every prefix of `uri` sorts before it, the longest last.
        while (position != map_.begin()) {
            const auto& [key, entry] = *--position;
            size_t limit = common_length(key, uri);
            if (limit == key.size()) {
                if (is_boundary(uri, limit, sep)) {
                    off = limit;
                    return entry.obj_;
                }
                if (limit == 0) {
                    break;
                }
                --limit;
            }
            // A longer prefix than the part in common would sort behind this key. So the search
            // goes on at the longest prefix that is left, however many keys lie in between that
            // only begin like `uri`.
            while (limit > 0 && !is_boundary(uri, limit, sep)) {
                --limit;
            }
            position = map_.upper_bound(uri.substr(0, limit));
        }
        return nullptr;
    }

    static bool is_same(std::string_view key, std::string_view uri)
    {
        return key.size() == uri.size() &&
               std::char_traits<char>::compare(key.data(), uri.data(), key.size()) == 0;
    }

    static size_t common_length(std::string_view key, std::string_view uri)
    {
        const auto ends = std::mismatch(key.begin(), key.end(), uri.begin(), uri.end());
        return static_cast<size_t>(ends.first - key.begin());
    }

    /// May a URI of `length` bytes, the beginning of the longer `uri`, serve it?
    static bool is_boundary(std::string_view uri, size_t length, char sep)
    {
        return length < uri.size() &&
               (uri[length] == sep || (length > 0 && uri[length - 1] == sep));
    }
};
