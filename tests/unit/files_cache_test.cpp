#include "plugins/files/file_cache.h"

#include "tests/support/process_descriptors.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t SMALL = File_Cache::MAX_CONTENT;
constexpr size_t MIDDLE = File_Cache::MAX_CONTENT + 1;
constexpr size_t LARGE = File_Cache::MAX_SIZE + 1;

std::int64_t now_ms = 0;

size_t descriptors()
{
    return process_descriptors(::getpid()).count;
}

class Files_Cache : public testing::Test {
protected:
    void SetUp() override
    {
        for (const size_t size : {SMALL, MIDDLE, LARGE}) {
            scratch_.write(std::to_string(size), std::string(size, 'x'));
        }
    }

    std::shared_ptr<Found_File> found(size_t size) const
    {
        Unique_Fd file(::open(scratch_.path(std::to_string(size)).c_str(), O_RDONLY | O_CLOEXEC));
        struct stat status {};
        EXPECT_EQ(::fstat(file.get(), &status), 0);
        auto result = std::make_shared<Found_File>();
        constexpr bool PLAIN = false;
        result->plain_.emplace(std::move(file), status, PLAIN);
        return result;
    }

    /// Puts in as many files of that size under different names; counts those that are kept.
    size_t kept_of(size_t files, size_t size)
    {
        for (size_t i = 0; i < files; ++i) {
            cache_.put("name" + std::to_string(i), found(size));
        }
        size_t kept = 0;
        for (size_t i = 0; i < files; ++i) {
            kept += cache_.find("name" + std::to_string(i)) != nullptr ? 1U : 0U;
        }
        return kept;
    }

    Temp_Dir scratch_;
    File_Cache cache_{[] { return now_ms; }};
};

/// The limit of descriptors for as long as it lives.
class Descriptor_Limit {
public:
    explicit Descriptor_Limit(rlim_t limit)
    {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit changed{limit, before_.rlim_max};
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &changed), 0);
    }
    ~Descriptor_Limit() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    Descriptor_Limit(const Descriptor_Limit&) = delete;
    Descriptor_Limit& operator=(const Descriptor_Limit&) = delete;

private:
    rlimit before_{};
};

} // namespace

TEST_F(Files_Cache, finds_what_was_put_in_less_than_a_second_ago)
{
    EXPECT_EQ(cache_.find("name"), nullptr);
    const auto file = found(MIDDLE);
    cache_.put("name", file);
    now_ms += File_Cache::FRESH_MS - 1;
    EXPECT_EQ(cache_.find("name"), file);
    EXPECT_EQ(cache_.find("nam"), nullptr);
    EXPECT_EQ(cache_.find("name2"), nullptr);
    now_ms += 1;
    EXPECT_EQ(cache_.find("name"), nullptr);
}

TEST_F(Files_Cache, replaces_what_was_put_in_under_the_same_name)
{
    const size_t before = descriptors();
    cache_.put("name", found(MIDDLE));
    const auto file = found(MIDDLE);
    cache_.put("name", file);
    EXPECT_EQ(cache_.find("name"), file);
    EXPECT_EQ(descriptors(), before + 1);
}

TEST_F(Files_Cache, holds_a_small_file_by_its_content_and_a_larger_one_open)
{
    const size_t before = descriptors();
    cache_.put("small", found(SMALL));
    EXPECT_EQ(descriptors(), before);
    const auto small = cache_.find("small");
    ASSERT_NE(small, nullptr);
    ASSERT_NE(small->plain_->content(), nullptr);
    EXPECT_EQ(std::string_view(small->plain_->content(), SMALL), std::string(SMALL, 'x'));
    EXPECT_EQ(small->plain_->fd(), -1);

    cache_.put("middle", found(MIDDLE));
    const auto middle = cache_.find("middle");
    ASSERT_NE(middle, nullptr);
    EXPECT_EQ(middle->plain_->content(), nullptr);
    EXPECT_NE(middle->plain_->fd(), -1);
}

TEST_F(Files_Cache, keeps_neither_large_files_nor_long_names)
{
    cache_.put("large", found(LARGE));
    EXPECT_EQ(cache_.find("large"), nullptr);
    const std::string longest(File_Cache::MAX_NAME, 'n');
    cache_.put(longest + "n", found(SMALL));
    EXPECT_EQ(cache_.find(longest + "n"), nullptr);
    cache_.put(longest, found(SMALL));
    EXPECT_NE(cache_.find(longest), nullptr);
}

TEST_F(Files_Cache, keeps_no_file_that_was_written_before_its_content_was_read)
{
    const auto file = found(SMALL);
    std::ofstream(scratch_.path(std::to_string(SMALL))) << "other";
    cache_.put("name", file);
    EXPECT_EQ(cache_.find("name"), nullptr);
    EXPECT_EQ(file->plain_->content(), nullptr);
    EXPECT_NE(file->plain_->fd(), -1);
}

TEST_F(Files_Cache, tells_of_an_open_file_that_was_written)
{
    const auto file = found(MIDDLE);
    EXPECT_TRUE(file->plain_->is_unchanged());
    std::filesystem::resize_file(scratch_.path(std::to_string(MIDDLE)), MIDDLE + 1);
    EXPECT_FALSE(file->plain_->is_unchanged());
}

TEST_F(Files_Cache, holds_no_more_names_than_it_has_places_for)
{
    scratch_.write("1", "x");
    EXPECT_LE(kept_of(3 * File_Cache::SETS * File_Cache::WAYS, 1),
              File_Cache::SETS * File_Cache::WAYS);
    EXPECT_NE(cache_.find("name" + std::to_string(3 * File_Cache::SETS * File_Cache::WAYS - 1)),
              nullptr); // the newest stay
}

TEST_F(Files_Cache, holds_no_more_descriptors_than_its_share)
{
    const size_t before = descriptors();
    const Descriptor_Limit limit(256);
    EXPECT_EQ(kept_of(100, MIDDLE), 256U / 8);
    EXPECT_EQ(descriptors(), before + 256 / 8);

    // Those that nobody asked for make room for others.
    now_ms += File_Cache::FRESH_MS;
    cache_.put("other", found(MIDDLE));
    EXPECT_NE(cache_.find("other"), nullptr);
    cache_.clear();
    EXPECT_EQ(descriptors(), before);
}

TEST_F(Files_Cache, shares_its_descriptors_with_the_caches_of_other_records)
{
    const Descriptor_Limit limit(256);
    File_Cache other([] { return now_ms; });
    other.put("name", found(MIDDLE));
    EXPECT_EQ(kept_of(100, MIDDLE), 256U / 8 - 1);
}

TEST_F(Files_Cache, holds_no_more_content_than_its_share)
{
    const size_t most = Cache_Share::MAX_BYTES / SMALL;
    const size_t kept = kept_of(most + 100, SMALL);
    EXPECT_LE(kept, most);
    EXPECT_GT(kept, most / 2);
}

TEST_F(Files_Cache, closes_what_nobody_asks_for_as_others_are_put_in)
{
    const size_t before = descriptors();
    for (int i = 0; i < 20; ++i) {
        cache_.put("name" + std::to_string(i), found(MIDDLE));
    }
    EXPECT_EQ(descriptors(), before + 20);
    now_ms += File_Cache::FRESH_MS;
    for (size_t i = 0; i < File_Cache::SETS; ++i) {
        cache_.put("large", found(LARGE));
    }
    EXPECT_EQ(descriptors(), before);
}

TEST_F(Files_Cache, leaves_a_file_to_those_who_have_found_it)
{
    cache_.put("name", found(MIDDLE));
    const auto file = cache_.find("name");
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE(cache_.clear());
    EXPECT_FALSE(cache_.clear());
    EXPECT_EQ(cache_.find("name"), nullptr);
    char byte = 0;
    EXPECT_EQ(::pread(file->plain_->fd(), &byte, 1, 0), 1);
    EXPECT_EQ(byte, 'x');
}

TEST_F(Files_Cache, may_be_used_by_many_threads)
{
    const size_t before = descriptors();
    const auto use = [this](size_t size) {
        for (int i = 0; i < 300; ++i) {
            const std::string name = "name" + std::to_string(i % 7);
            auto file = cache_.find(name);
            if (file == nullptr) {
                const auto opened = found(size);
                cache_.put(name, opened);
                file = opened;
            }
            EXPECT_TRUE(file->plain_->is_unchanged());
            if (i % 50 == 0) {
                cache_.clear();
            }
        }
    };
    std::vector<std::thread> threads;
    for (const size_t size : {SMALL, MIDDLE, SMALL, MIDDLE}) {
        threads.emplace_back(use, size);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    cache_.clear();
    EXPECT_EQ(descriptors(), before);
}
