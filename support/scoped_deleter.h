#pragma once

#include <type_traits>
#include <utility>

/**
 * Runs an action when its scope is left, unless it was dismissed: what undoes a step stands next to
 * the step, and no return can forget it. The action must not throw.
 */
template <class Action>
class Scoped_Deleter {
public:
    explicit Scoped_Deleter(Action action) noexcept(std::is_nothrow_move_constructible_v<Action>)
        : action_(std::move(action))
    {
    }

    ~Scoped_Deleter()
    {
        if (armed_) {
            action_();
        }
    }

    Scoped_Deleter(const Scoped_Deleter&) = delete;
    Scoped_Deleter& operator=(const Scoped_Deleter&) = delete;

    /// The step succeeded: the action will not run.
    void dismiss() noexcept { armed_ = false; }

private:
    Action action_;
    bool armed_ = true;
};

/// A Scoped_Deleter around a callable, commonly a lambda. Keep the result in a variable.
template <class Action>
[[nodiscard]] Scoped_Deleter<std::decay_t<Action>> make_deleter(Action&& action)
{
    return Scoped_Deleter<std::decay_t<Action>>(std::forward<Action>(action));
}
