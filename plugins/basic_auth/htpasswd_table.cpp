#include "plugins/basic_auth/htpasswd_table.h"

#include "support/log.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

/// A key of this process: digests that are kept or compared tell nothing without it.
class Process_Key {
public:
    Process_Key() : good_(::RAND_bytes(key_.data(), static_cast<int>(key_.size())) == 1) {}

    /// @return false when there is no random key, or no memory.
    bool digest(const unsigned char* data, size_t length,
                std::array<unsigned char, 32>& result) const
    {
        return good_ && ::HMAC(::EVP_sha256(), key_.data(), static_cast<int>(key_.size()), data,
                               length, result.data(), nullptr) != nullptr;
    }

private:
    std::array<unsigned char, 32> key_{};
    bool good_;
};

const Process_Key& process_key()
{
    static const Process_Key key;
    return key;
}

/// The bytes that a digest is made of, each text behind its length; wiped when they go.
class Digest_Input {
public:
    ~Digest_Input() { ::OPENSSL_cleanse(bytes_, length_); }
    Digest_Input() = default;
    Digest_Input(const Digest_Input&) = delete;
    Digest_Input& operator=(const Digest_Input&) = delete;

    bool add(std::string_view text)
    {
        const std::uint32_t size = static_cast<std::uint32_t>(text.size());
        if (text.size() > sizeof(bytes_) || sizeof(size) + text.size() > sizeof(bytes_) - length_) {
            return false;
        }
        std::memcpy(bytes_ + length_, &size, sizeof(size));
        length_ += sizeof(size);
        std::memcpy(bytes_ + length_, text.data(), text.size());
        length_ += text.size();
        return true;
    }

    bool digest(std::array<unsigned char, 32>& result) const
    {
        return process_key().digest(bytes_, length_, result);
    }

private:
    unsigned char bytes_[2048];
    size_t length_ = 0;
};

/// Compares in a time that depends on the lengths alone, which are those of public hash formats.
bool equal_hashes(std::string_view computed, std::string_view stored)
{
    return computed.size() == stored.size() &&
           ::CRYPTO_memcmp(computed.data(), stored.data(), stored.size()) == 0;
}

bool matches_hash(std::string_view password, const std::string& hash)
{
    crypt_data data{};
    const char* const computed = ::crypt_r(password.data(), hash.c_str(), &data);
    const bool equal = computed != nullptr && equal_hashes(computed, hash);
    ::OPENSSL_cleanse(&data, sizeof(data));
    return equal;
}

/// A salted hash of a scheme that names itself; that leaves out plain text, {SHA} and DES.
bool is_usable_hash(const std::string& hash)
{
    if (hash[0] != '$') {
        return false;
    }
    const int check = ::crypt_checksalt(hash.c_str());
    return check != CRYPT_SALT_INVALID && check != CRYPT_SALT_METHOD_DISABLED;
}

std::string_view trim_right(std::string_view line)
{
    return line.substr(0, line.find_last_not_of(" \t\r") + 1);
}

} // namespace

int Htpasswd_Table::parse(std::string_view text, const char* path)
{
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        if (parse_line(trim_right(text.substr(0, end)), number, path) == -1) {
            return -1;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    order_entries(path);
    return 0;
}

int Htpasswd_Table::parse_line(std::string_view line, int number, const char* path)
{
    if (line.empty() || line[0] == '#') {
        return 0;
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0 || colon + 1 == line.size() ||
        line.find('\0') != std::string_view::npos) {
        errno = EINVAL;
        HTTPD_ERROR("basic_auth: line %d of %C is not of the form user:hash", number, path);
        return -1;
    }
    Entry entry{std::string(line.substr(0, colon)), std::string(line.substr(colon + 1)), number};
    if (is_usable_hash(entry.hash_)) {
        entries_.push_back(std::move(entry));
    } else {
        HTTPD_WARNING("basic_auth: line %d of %C is ignored: its hash is of no accepted kind",
                      number, path);
    }
    return 0;
}

/// Orders by user; of several lines for one user the first stays.
void Htpasswd_Table::order_entries(const char* path)
{
    std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& left, const Entry& right) {
        return left.user_ < right.user_;
    });
    const auto same_user = [path](const Entry& first, const Entry& other) {
        if (first.user_ != other.user_) {
            return false;
        }
        HTTPD_WARNING("basic_auth: line %d of %C is ignored: line %d names its user too",
                      other.line_, path, first.line_);
        return true;
    };
    entries_.erase(std::unique(entries_.begin(), entries_.end(), same_user), entries_.end());
}

bool Htpasswd_Table::verify(const Credentials& credentials) const
{
    if (entries_.empty()) {
        return false;
    }
    const Entry* const entry = find(credentials.user());
    if (entry == nullptr) {
        // Computed and thrown away: an answer that came sooner would tell who has no account.
        matches_hash(credentials.password(), stand_in(credentials.user()).hash_);
        return false;
    }
    Digest digest{};
    Digest_Input input;
    const bool cacheable = input.add(entry->user_) && input.add(credentials.password()) &&
                           input.add(entry->hash_) && input.digest(digest);
    if (cacheable && is_cached(digest)) {
        return true;
    }
    if (!matches_hash(credentials.password(), entry->hash_)) {
        return false;
    }
    if (cacheable) {
        cache(digest);
    }
    return true;
}

const Htpasswd_Table::Entry* Htpasswd_Table::find(std::string_view user) const
{
    const auto place = std::lower_bound(
        entries_.begin(), entries_.end(), user,
        [](const Entry& left, std::string_view name) { return left.user_ < name; });
    return place != entries_.end() && place->user_ == user ? &*place : nullptr;
}

/**
 * The entry whose hash stands in for that of an unknown user: always the same one for a name, and
 * for nobody to predict, so that a file of different kinds of hashes tells nothing by its timing.
 */
const Htpasswd_Table::Entry& Htpasswd_Table::stand_in(std::string_view user) const
{
    Digest digest{};
    Digest_Input input;
    std::uint64_t number = 0;
    if (input.add(user) && input.digest(digest)) {
        std::memcpy(&number, digest.data(), sizeof(number));
    }
    return entries_[number % entries_.size()];
}

bool Htpasswd_Table::is_cached(const Digest& digest) const
{
    const std::lock_guard<std::mutex> guard(cache_lock_);
    const Digest& place = cache_[digest[0] % CACHE_SIZE];
    return ::CRYPTO_memcmp(place.data(), digest.data(), digest.size()) == 0;
}

void Htpasswd_Table::cache(const Digest& digest) const
{
    const std::lock_guard<std::mutex> guard(cache_lock_);
    cache_[digest[0] % CACHE_SIZE] = digest;
}
