#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Takes the options of a program one after another: "--name VALUE" or "--name".
class Arguments {
public:
    Arguments(int argc, char** argv, int first) : argc_(argc), argv_(argv), next_(first) {}

    bool more() const { return next_ < argc_; }

    /// The next argument, as a name.
    std::string_view name() { return name_ = argv_[next_++]; }

    /// The value of the name taken last; ends the program where there is none.
    const char* text();

    /// The same as a number within the bounds; ends the program where it is not one.
    std::uint64_t number(std::uint64_t least = 0, std::uint64_t most = UINT64_MAX);
    double seconds();

    /// Ends the program: the name taken last is unknown.
    [[noreturn]] void unknown() const;

private:
    int argc_;
    char** argv_;
    int next_;
    std::string_view name_;
};
