#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Parameters of a record of the plug-in, shared by its connections.
struct WS_Echo_Options {
    /**
     * @param argv  argv[0] is the first parameter; null when there are none
     * @return 0; -1 with EINVAL and one error line that names the parameter at fault. Throws
     *         std::bad_alloc.
     */
    int parse(int argc, char** argv);

    /**
     * The choice among the sub-protocols that a client offers (RFC 6455, section 4.2.2).
     * @return the first offer that the record names, blanks around it aside; it lives as long as
     *         this object. Null when there is none.
     */
    const char* choose(const std::vector<std::string>& offers) const;

    bool thread_ = false;                ///< a thread for each connection
    std::vector<std::string> protocols_; ///< sub-protocols that may be chosen; empty: any

private:
    int parse_protocols(std::string_view list);
};
