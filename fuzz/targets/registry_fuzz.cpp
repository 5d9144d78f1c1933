// The look-up of a path among the URIs of the plug-ins: what a walk over all of them finds to be
// the longest that serves it.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "httpd/dll_object_manager_t.h"

#include <ace/Null_Mutex.h>

#include <array>
#include <string>
#include <vector>

namespace {

struct Factory {
    virtual ~Factory() = default;
    static void leave_alone(void*) {}
};

using Registry = DLL_Object_Manager_T<Factory, void (*)(void*), ACE_Null_Mutex>;

constexpr size_t MOST_URIS = 64;
constexpr char SEPARATOR = '/';

/// Whether a plug-in under `uri` serves `path`, as its configuration promises.
bool serves(std::string_view uri, std::string_view path)
{
    if (!path.starts_with(uri)) {
        return false;
    }
    if (path == uri || uri.ends_with(SEPARATOR)) {
        return true;
    }
    return path[uri.size()] == SEPARATOR;
}

void check_find(const Registry& registry, const std::vector<std::string>& uris,
                std::array<Factory, MOST_URIS>& factories, std::string_view path)
{
    constexpr size_t NONE = MOST_URIS;
    size_t best = NONE;
    for (size_t i = 0; i < uris.size(); ++i) {
        if (serves(uris[i], path) && (best == NONE || uris[i].size() > uris[best].size())) {
            best = i;
        }
    }
    size_t offset = 0;
    const Factory* const found = registry.find(path, SEPARATOR, offset);
    FUZZ_CHECK(found == (best == NONE ? nullptr : &factories[best]), "another plug-in");
    FUZZ_CHECK(offset == (best == NONE ? Registry::NOT_FOUND : uris[best].size()),
               "another place where the path goes on");
    FUZZ_CHECK(registry.find(path, SEPARATOR) == found, "find() without offset differs");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::array<Factory, MOST_URIS> factories;
    Fuzz_Input input(data, size);
    const size_t count = input.byte() % MOST_URIS;
    Registry registry;
    std::vector<std::string> uris;
    while (uris.size() < count && !input.empty()) {
        const std::string uri(input.until('\n'));
        const bool is_new = std::find(uris.begin(), uris.end(), uri) == uris.end();
        const int result = registry.insert(uri, "", &factories[uris.size()], &Factory::leave_alone);
        FUZZ_CHECK((result == 0) == is_new, "a URI is registered twice, or not at all");
        if (is_new) {
            uris.push_back(uri);
        } else {
            FUZZ_CHECK(errno == EEXIST, "another error for a URI that is there");
        }
    }
    for (const std::string& uri : uris) {
        check_find(registry, uris, factories, uri);
        check_find(registry, uris, factories, uri + "/x");
    }
    while (!input.empty()) {
        check_find(registry, uris, factories, input.until('\n'));
    }
    return 0;
}
