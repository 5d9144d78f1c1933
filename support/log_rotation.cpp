#include "support/log_rotation.h"

#include "support/log.h"
#include "support/log_compressor.h"
#include "support/scoped_deleter.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <dirent.h>
#include <functional>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

/// A rotated copy in the log's directory.
struct Copy {
    unsigned int number_;
    std::string path_;
};

/// Reads "<base>.<number><rest>". A number has one spelling only, without leading zeros.
bool split_name(std::string_view name, std::string_view base, unsigned int& number,
                std::string_view& rest)
{
    if (!name.starts_with(base) || name.size() < base.size() + 2 || name[base.size()] != '.') {
        return false;
    }
    const std::string_view text = name.substr(base.size() + 1);
    const char* const end = text.data() + text.size();
    const std::from_chars_result result = std::from_chars(text.data(), end, number);
    rest = std::string_view(result.ptr, static_cast<size_t>(end - result.ptr));
    return result.ec == std::errc() && (text[0] != '0' || text.size() - rest.size() == 1);
}

/// Everything in the directory of `log` that is named as a copy of it with one of `suffixes`.
/// @return 0, or -1 with errno when the directory cannot be read. Throws std::bad_alloc.
int find_copies(const std::string& log, const std::vector<std::string_view>& suffixes,
                std::vector<Copy>& copies)
{
    const size_t slash = log.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : log.substr(0, slash + 1);
    const std::string base = log.substr(directory.size());
    DIR* const entries = opendir(directory.empty() ? "." : directory.c_str());
    if (entries == nullptr) {
        return -1;
    }
    const auto close_entries = make_deleter([entries] { closedir(entries); });
    while (const dirent* const entry = readdir(entries)) {
        unsigned int number = 0;
        std::string_view rest;
        if (split_name(entry->d_name, base, number, rest) &&
            std::find(suffixes.begin(), suffixes.end(), rest) != suffixes.end()) {
            copies.push_back({number, directory + entry->d_name});
        }
    }
    return 0;
}

/// The lowest number to keep; copies of one number, plain and compressed, count once.
unsigned long lowest_kept(const std::vector<Copy>& copies, unsigned int max_file_number)
{
    if (max_file_number == 0) {
        return static_cast<unsigned long>(-1);
    }
    std::vector<unsigned int> numbers;
    for (const Copy& copy : copies) {
        numbers.push_back(copy.number_);
    }
    std::sort(numbers.begin(), numbers.end(), std::greater<>());
    numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
    return numbers.size() <= max_file_number ? 0 : numbers[max_file_number - 1];
}

bool is_directory(const std::string& path)
{
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Removes the copies with the lowest numbers, also what an interrupted compression of them left.
void prune_copies(const std::string& log, unsigned int max_file_number)
{
    std::vector<Copy> copies;
    if (find_copies(log, {"", ".gz", ".gz.tmp"}, copies) == -1) {
        HTTPD_ERROR("Failed to look for old copies of log %s, errno=%d, %m", log.c_str(), errno);
        return;
    }
    std::erase_if(copies, [](const Copy& copy) { return is_directory(copy.path_); });
    const unsigned long lowest = lowest_kept(copies, max_file_number);
    for (const Copy& copy : copies) {
        if (copy.number_ < lowest && unlink(copy.path_.c_str()) == -1 && errno != ENOENT) {
            HTTPD_ERROR("Failed to remove old log %s, errno=%d, %m", copy.path_.c_str(), errno);
        }
    }
}

/// Logs what went wrong before the log was renamed; keeps errno.
int fail_rotation(const char* path)
{
    HTTPD_ERROR("Failed to rotate log %s, errno=%d, %m", path, errno);
    return -1;
}

/// Prunes under the lock that a finished compression takes as well. Throws std::bad_alloc.
void prune(const std::string& log, unsigned int max_file_number)
{
    const std::lock_guard<std::mutex> guard(Log_Compressor::instance().names_mutex());
    prune_copies(log, max_file_number);
}

/// Gives the renamed copy its final form, now or in the background.
void complete_copy(std::string copy, int level, bool compression, std::function<void()> callback)
{
    Log_Compressor::Job job{std::move(copy), level, std::move(callback)};
    if (compression) {
        if (Log_Compressor::instance().add(std::move(job)) == 0) {
            return;
        }
        HTTPD_ERROR("Failed to start the compression of rotated log %s, errno=%d, %m",
                    job.path_.c_str(), errno);
    }
    Log_Compressor::call(job.callback_);
}

} // namespace

unsigned int find_current_log_count(const char* path, unsigned int max_file_number,
                                    const char* suffix)
{
    if (path == nullptr || *path == '\0' || max_file_number == 0) {
        return 0;
    }
    unsigned int highest = 0;
    try {
        std::vector<Copy> copies;
        if (find_copies(path, {"", ".gz", suffix == nullptr ? "" : suffix}, copies) == -1) {
            HTTPD_ERROR("Failed to look for copies of log %s, errno=%d, %m", path, errno);
        }
        for (const Copy& copy : copies) {
            highest = std::max(highest, copy.number_);
        }
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        HTTPD_ERROR("Failed to look for copies of log %s, errno=%d, %m", path, errno);
    }
    return highest;
}

int rotate_log(const char* path, unsigned int count, unsigned int max_file_number, int level,
               bool compression, std::function<void()> callback)
{
    if (path == nullptr || *path == '\0' || (compression && (level < 1 || level > 9))) {
        errno = EINVAL;
        return fail_rotation(path == nullptr ? "(null)" : path);
    }
    std::string copy;
    try {
        copy = std::string(path) + "." + std::to_string(count);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return fail_rotation(path);
    }
    if (rename(path, copy.c_str()) == -1) {
        return fail_rotation(path);
    }
    try {
        prune(path, max_file_number);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        HTTPD_ERROR("Failed to look for old copies of log %s, errno=%d, %m", path, errno);
    }
    complete_copy(std::move(copy), level, compression && max_file_number != 0, std::move(callback));
    return 0;
}

void finish_log_compression()
{
    Log_Compressor::instance().finish();
}
