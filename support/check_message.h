#pragma once

#include <boost/lexical_cast.hpp>

#include <exception>
#include <string>

/**
 * The value of an operand in the message of a failed run-time check, in parentheses behind the
 * operand's name: "size_(0) <= 0(0)". Never throws; "" when there is no memory.
 */
template <typename T>
std::string check_message(const T& value) noexcept
{
    try {
        return "(" + boost::lexical_cast<std::string>(value) + ")";
    } catch (const std::exception&) {
        return {};
    }
}
