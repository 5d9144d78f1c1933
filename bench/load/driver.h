#pragma once

#include <cstdint>

/// What one mode does with its connections.
class Load_Driver {
public:
    Load_Driver() = default;
    Load_Driver(const Load_Driver&) = delete;
    Load_Driver& operator=(const Load_Driver&) = delete;
    virtual ~Load_Driver() = default;

    /// Learns what there is to learn and opens the connections; ends the program where it cannot.
    virtual void prepare() = 0;

    /// A phase begins: sends on every connection what the engine grants.
    virtual void begin() = 0;

    /// There are events for the connection that was added under the key.
    virtual void ready(std::uint32_t key, std::uint32_t events) = 0;
};
