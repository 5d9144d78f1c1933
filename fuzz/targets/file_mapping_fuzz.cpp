// From the target of a request to a file: whatever its encoding, nothing outside of the root and
// nothing hidden is reached, and what is reached is the file that the decoded letters name, whether
// the system follows links for us or we do not follow any.

#include "fuzz/common/check.h"
#include "fuzz/common/input.h"
#include "fuzz/common/plain_text.h"
#include "fuzz/common/served_tree.h"
#include "plugins/files/located_file.h"
#include "plugins/files/request_path.h"
#include "support/http_message.h"

#include <unistd.h>

#include <array>
#include <string>

namespace {

std::int64_t now = 0;

/// What the plug-in works with, for one way of looking names up.
struct Site {
    explicit Site(const Served_Tree& tree, Root_Directory::Lookup lookup)
    {
        FUZZ_CHECK(root_.open(tree.root().c_str()) == 0, "the root cannot be opened");
        by_links_ = root_.lookup() == Root_Directory::Lookup::BENEATH &&
                    lookup == Root_Directory::Lookup::BENEATH;
        root_.lookup(by_links_ ? lookup : Root_Directory::Lookup::COMPONENTS);
    }

    Root_Directory root_;
    bool by_links_ = false;
    File_Options options_;
    File_Cache cache_{[] { return now; }};
};

std::string content_of(const File_Form& form)
{
    const size_t size = form.version().size_;
    if (form.content() != nullptr) {
        return {form.content(), size};
    }
    std::string content(size, '\0');
    FUZZ_CHECK(::pread(form.fd(), content.data(), size, 0) == static_cast<ssize_t>(size),
               "the file cannot be read");
    return content;
}

/// Every encoding decoded, once; what is none stays.
std::string decoded(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && plain::hex(text[i + 1]) >= 0 &&
            plain::hex(text[i + 2]) >= 0) {
            result += static_cast<char>(plain::hex(text[i + 1]) * 16 + plain::hex(text[i + 2]));
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

/// The file's name below the root as the request's path says it.
std::string name_in(std::string_view path, size_t offset)
{
    std::string name = decoded(path.substr(offset));
    const bool mount_has_slash = offset > 0 && path[offset - 1] == '/';
    if (!mount_has_slash && name.starts_with('/')) {
        name.erase(0, 1);
    }
    return path.ends_with('/') ? name + "index.html" : name;
}

/// One spelling for each file: else an authenticator bound to one would not see the other.
bool is_canonical(std::string_view names)
{
    constexpr std::string_view HEX = "0123456789ABCDEF";
    static constexpr std::string_view PLAIN = "-._~!$&'()*+,;=:@/";
    const auto stands_for_itself = [](char c) {
        return plain::is_letter(c) || plain::is_digit(c) || PLAIN.find(c) != std::string_view::npos;
    };
    for (size_t i = 0; i < names.size(); ++i) {
        if (names[i] != '%') {
            if (!stands_for_itself(names[i])) {
                return false;
            }
            continue;
        }
        if (i + 2 >= names.size() || HEX.find(names[i + 1]) == std::string_view::npos ||
            HEX.find(names[i + 2]) == std::string_view::npos ||
            stands_for_itself(decoded(names.substr(i, 3))[0])) {
            return false;
        }
        i += 2;
    }
    return true;
}

void check_found(const Located_File& file, const Served_Tree& tree, const Site& site,
                 std::string_view path, size_t offset)
{
    const std::string content = content_of(file.form());
    FUZZ_CHECK(content != Served_Tree::SECRET, "a secret is served");
    std::string expected = tree.reached(name_in(path, offset), site.by_links_);
    FUZZ_CHECK(!expected.empty(), "a name that reaches nothing reaches a file");
    expected += file.compressed() ? ".gz" : "";
    FUZZ_CHECK(content == expected, "another file than the one that was named");
    FUZZ_CHECK(is_canonical(path.substr(offset)), "a file is served under a second spelling");
}

void check_request(Site& site, const Served_Tree& tree, const HTTP_Request& request, size_t offset)
{
    const std::string_view path = request.uri(true);
    Located_File file;
    const int status = file.locate(site.root_, site.options_, site.cache_, request, offset);
    FUZZ_CHECK(status == 200 || status == 301 || status == 404, "the system failed");
    if (status == 200) {
        check_found(file, tree, site, path, offset);
    } else if (status == 404 && path.starts_with('/') && is_canonical(path.substr(offset))) {
        const bool at_border =
            path.size() == offset || path[offset] == '/' || (offset > 0 && path[offset - 1] == '/');
        const std::string name = name_in(path, offset);
        FUZZ_CHECK(!at_border || name.starts_with('/') ||
                       tree.reached(name, site.by_links_).empty(),
                   "a file that is there is not found");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz_quiet_log();
    static const Served_Tree tree;
    static std::array<Site, 2> sites{Site(tree, Root_Directory::Lookup::BENEATH),
                                     Site(tree, Root_Directory::Lookup::COMPONENTS)};
    Fuzz_Input input(data, size);
    const std::uint8_t choice = input.byte();
    constexpr std::array<std::string_view, 3> MOUNTS{"", "/files", "/files/"};
    const std::string_view mount = MOUNTS[choice % MOUNTS.size()];
    const std::string target = std::string(mount) + std::string(input.rest());
    HTTP_Request request;
    if (request.request_line("GET", target) == -1) {
        return 0;
    }
    // Where the path goes on, as the registry would tell.
    const std::string_view path = request.uri(true);
    const size_t offset = path.starts_with(mount) ? mount.size() : 0;
    if ((choice & 0x40U) != 0) {
        request.headers().put(HTTP_HEAD_ACCEPT_ENCODING, "gzip");
    }
    now += (choice & 0x80U) != 0 ? File_Cache::FRESH_MS : 0; // from the cache, or anew
    for (Site& site : sites) {
        check_request(site, tree, request, offset);
    }
    return 0;
}
