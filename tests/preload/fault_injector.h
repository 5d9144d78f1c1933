#pragma once

#include "tests/preload/fault_plan.h"

#include <cstddef>

/**
 * Decides whether a call is struck, by the plan that the test shares with this process. Never
 * allocates. errno stays as it is, unless the call is to fail.
 *
 * @param descriptor  -1 where the call has none
 * @param path        null where the call has none
 * @return the rule that strikes, or null: the call goes through as it is.
 */
const Fault_Rule* fault_strikes(Fault_Call call, int descriptor, const char* path);

/// What becomes of a call that moves bytes.
struct Fault_Transfer {
    bool fails;         ///< errno is set: return -1
    std::size_t length; ///< what it may move
};

Fault_Transfer fault_transfer(Fault_Call call, int descriptor, std::size_t length);

/// @return true, with errno set, when the call is to fail. A rule that cuts short does nothing.
bool fault_fails(Fault_Call call, int descriptor = -1, const char* path = nullptr);

/// The function of this name in the library behind this one.
void* fault_next(const char* name);

/// The definition of an interposed function begins like this: its type, name and arguments, then
/// `next`, the function that it stands in front of.
#define FAULT_NEXT(name)                                                                           \
    static const auto next = reinterpret_cast<decltype(&::name)>(fault_next(#name))
