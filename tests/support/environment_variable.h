#pragma once

#include <cstdlib>
#include <string>

/// Sets a variable of this process, and so of the processes that it starts, for as long as it
/// lives.
class Environment_Variable {
public:
    Environment_Variable(const char* name, const std::string& value) : name_(name)
    {
        const char* const before = std::getenv(name);
        was_set_ = before != nullptr;
        before_ = was_set_ ? before : "";
        ::setenv(name, value.c_str(), 1);
    }

    ~Environment_Variable()
    {
        if (was_set_) {
            ::setenv(name_, before_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

    Environment_Variable(const Environment_Variable&) = delete;
    Environment_Variable& operator=(const Environment_Variable&) = delete;

private:
    const char* name_;
    std::string before_;
    bool was_set_ = false;
};
