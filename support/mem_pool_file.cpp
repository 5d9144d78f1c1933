#include "support/mem_pool_file.h"

#include "support/scoped_deleter.h"

#include <ace/ACE.h>
#include <ace/Lib_Find.h>
#include <ace/MEM_Acceptor.h>
#include <ace/SV_Semaphore_Complex.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace {

constexpr size_t UNIQUE_LENGTH = 16; ///< hexadecimal digits behind the prefix

bool is_pool_name(std::string_view name, std::string_view prefix)
{
    return name.size() == prefix.size() + UNIQUE_LENGTH && name.starts_with(prefix) &&
           name.find_first_not_of("0123456789abcdef", prefix.size()) == std::string_view::npos;
}

/// ACE names it after the file. Who still uses it has lost its server and gets errors from now on.
void remove_semaphore(const char* name)
{
    ACE_SV_Semaphore_Complex semaphore;
    if (semaphore.open(name, ACE_SV_Semaphore_Complex::ACE_OPEN) == 0) {
        semaphore.remove();
    }
}

void remove_if_stale(const std::string& path, const char* name)
{
    const int handle = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (handle == -1) {
        return;
    }
    const auto close_handle = make_deleter([handle] { ::close(handle); });
    struct stat info {};
    if (::fstat(handle, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid() &&
        ::flock(handle, LOCK_EX | LOCK_NB) == 0) {
        remove_semaphore(name);
        ::unlink(path.c_str());
    }
}

} // namespace

std::string Mem_Pool_File::prefix(const ACE_MEM_Acceptor& acceptor, int port)
{
    const std::string number = "_" + std::to_string(port) + "_";
    if (acceptor.mmap_prefix() != nullptr) {
        return acceptor.mmap_prefix() + number;
    }
    char directory[PATH_MAX];
    if (ACE::get_temp_dir(directory, sizeof directory) == -1) {
        errno = ENAMETOOLONG;
        return "";
    }
    return std::string(directory) + "MEM_Acceptor" + number;
}

std::string Mem_Pool_File::make_path(const std::string& prefix)
{
    uint64_t unique = 0;
    if (prefix.empty() || getrandom(&unique, sizeof unique, 0) != sizeof unique) {
        return "";
    }
    char digits[UNIQUE_LENGTH + 1];
    std::snprintf(digits, sizeof digits, "%016" PRIx64, unique);
    std::string path = prefix + digits;
    if (path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return "";
    }
    return path;
}

void Mem_Pool_File::lock(int handle)
{
    ::flock(handle, LOCK_EX | LOCK_NB);
}

void Mem_Pool_File::remove_stale(const std::string& prefix)
{
    if (prefix.empty()) {
        return;
    }
    const size_t slash = prefix.rfind('/');
    const std::string directory = slash == std::string::npos ? "./" : prefix.substr(0, slash + 1);
    const std::string start = slash == std::string::npos ? prefix : prefix.substr(slash + 1);
    DIR* const entries = ::opendir(directory.c_str());
    if (entries == nullptr) {
        return;
    }
    const auto close_entries = make_deleter([entries] { ::closedir(entries); });
    while (const dirent* const entry = ::readdir(entries)) {
        if (is_pool_name(entry->d_name, start)) {
            remove_if_stale(directory + entry->d_name, entry->d_name);
        }
    }
}
