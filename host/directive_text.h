#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Where a directive takes a service from: "* library:symbol".
struct Service_Location {
    std::string dll_;
    std::string symbol_;
};

/// The locations that directives name, in order; comments are left out.
std::vector<Service_Location> service_locations(std::string_view directives);
