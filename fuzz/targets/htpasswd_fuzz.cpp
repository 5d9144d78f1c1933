// A password file: refused exactly when a line has not the form user:hash, and otherwise as many
// users are known as a plain reading of the lines finds.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "plugins/basic_auth/htpasswd_table.h"

#include <crypt.h>

#include <set>
#include <string>

namespace {

bool is_usable(const std::string& hash)
{
    const int check = ::crypt_checksalt(hash.c_str());
    return hash.starts_with('$') && check != CRYPT_SALT_INVALID &&
           check != CRYPT_SALT_METHOD_DISABLED;
}

/// False when a line is malformed.
bool model(std::string_view text, std::set<std::string>& users)
{
    for (std::string_view line : plain::split(text, '\n')) {
        while (!line.empty() &&
               (line.back() == ' ' || line.back() == '\t' || line.back() == '\r')) {
            line.remove_suffix(1);
        }
        if (line.empty() || line.front() == '#') {
            continue;
        }
        const size_t colon = line.find(':');
        if (colon == 0 || colon == std::string_view::npos || colon + 1 == line.size() ||
            line.find('\0') != std::string_view::npos) {
            return false;
        }
        if (is_usable(std::string(line.substr(colon + 1)))) {
            users.emplace(line.substr(0, colon));
        }
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    const std::string_view text = Fuzz_Input(data, size).rest();
    std::set<std::string> users;
    const bool good = model(text, users);
    Htpasswd_Table table;
    FUZZ_CHECK((table.parse(text, "users") == 0) == good, "another verdict on the file");
    FUZZ_CHECK(!good || table.size() == users.size(), "another number of users");
    return 0;
}
