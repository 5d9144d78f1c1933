#include "support/fixed_block_file_reader_t.h"

#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <linux/magic.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

namespace {

using Reader = Fixed_Block_File_Reader_T<char, File_Buffer_T<char>>;

/// A buffer that never gets its memory.
struct No_Buffer {
    static bool reserve(size_t)
    {
        errno = ENOMEM;
        return false;
    }
    static char* data() { return nullptr; }
};

constexpr int READ_FLAGS = O_RDONLY | O_CLOEXEC;
constexpr unsigned int MODE = 0640;
constexpr size_t PAGE = 4096;
constexpr size_t FOLIO = 512 * PAGE; // the kernel may drop no less than this at once

std::string pattern(size_t length)
{
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i) {
        text[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    }
    return text;
}

bool open_plain(Reader& reader, const std::string& path, size_t block_size = 0,
                bool read_ahead = false, long discard_cache = 0)
{
    return reader.open(path.c_str(), block_size, READ_FLAGS, read_ahead, discard_cache, MODE, false,
                       {});
}

/// The blocks up to the end of the file; ends with "error" where reading failed.
std::vector<std::string> read_blocks(Reader& reader)
{
    std::vector<std::string> blocks;
    for (;;) {
        void* data = nullptr;
        long length = -1;
        if (!reader.read(data, length)) {
            blocks.emplace_back("error");
            return blocks;
        }
        if (data == nullptr) {
            EXPECT_EQ(length, 0);
            return blocks;
        }
        blocks.emplace_back(static_cast<const char*>(data), static_cast<size_t>(length));
    }
}

std::string joined(const std::vector<std::string>& blocks)
{
    std::string text;
    for (const std::string& block : blocks) {
        text += block;
    }
    return text;
}

class Fixed_Block_File_Reader_T_Test : public testing::Test {
protected:
    /// Written to the disk, so that its pages can be dropped, and in the page cache.
    std::string write_synced(const std::string& name, const std::string& content)
    {
        const std::string path = directory_.write(name, content);
        const int file = ::open(path.c_str(), O_RDWR);
        EXPECT_EQ(fsync(file), 0);
        ::close(file);
        return path;
    }

    /// For each page of the file whether it is in the page cache.
    static std::vector<bool> cached_pages(const std::string& path)
    {
        const int file = ::open(path.c_str(), O_RDONLY);
        struct stat status {};
        fstat(file, &status);
        const size_t length = static_cast<size_t>(status.st_size);
        void* const map = mmap(nullptr, length, PROT_READ, MAP_SHARED, file, 0);
        std::vector<unsigned char> pages((length + PAGE - 1) / PAGE);
        EXPECT_EQ(mincore(map, length, pages.data()), 0);
        munmap(map, length);
        ::close(file);
        std::vector<bool> cached;
        for (const unsigned char page : pages) {
            cached.push_back((page & 1U) != 0);
        }
        return cached;
    }

    static long cached_count(const std::string& path)
    {
        const std::vector<bool> cached = cached_pages(path);
        return std::count(cached.begin(), cached.end(), true);
    }

    /// On a RAM file system there is no cache to drop.
    bool has_droppable_cache() const
    {
        struct statfs status {};
        return statfs(directory_.path("").c_str(), &status) == 0 && status.f_type != TMPFS_MAGIC;
    }

    Temp_Dir directory_;
};

TEST_F(Fixed_Block_File_Reader_T_Test, reads_blocks_of_the_given_size_and_a_shorter_last_one)
{
    for (const size_t length : {0U, 1U, 9U, 10U, 11U, 20U, 25U, 4096U, 4097U}) {
        const std::string content = pattern(length);
        Reader reader;
        ASSERT_TRUE(open_plain(reader, directory_.write("f", content), 10));
        const std::vector<std::string> blocks = read_blocks(reader);
        EXPECT_EQ(joined(blocks), content);
        ASSERT_EQ(blocks.size(), (length + 9) / 10);
        for (size_t i = 0; i + 1 < blocks.size(); ++i) {
            EXPECT_EQ(blocks[i].size(), 10U);
        }
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, takes_256_kib_for_a_block_size_of_0)
{
    Reader reader;
    ASSERT_TRUE(open_plain(reader, directory_.write("f", pattern(600 * 1024)), 0));
    const std::vector<std::string> blocks = read_blocks(reader);
    ASSERT_EQ(blocks.size(), 3U);
    EXPECT_EQ(blocks[0].size(), 256U * 1024);
    EXPECT_EQ(blocks[1].size(), 256U * 1024);
    EXPECT_EQ(blocks[2].size(), 88U * 1024);
}

TEST_F(Fixed_Block_File_Reader_T_Test, hands_out_blocks_that_begin_on_a_page)
{
    for (const size_t block_size : {10U, 4096U, 100000U, 262144U}) {
        Reader reader;
        ASSERT_TRUE(open_plain(reader, directory_.write("f", pattern(300000)), block_size));
        void* data = nullptr;
        long length = 0;
        ASSERT_TRUE(reader.read(data, length));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % PAGE, 0U) << block_size;
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, says_the_end_again_when_asked_again)
{
    Reader reader;
    ASSERT_TRUE(open_plain(reader, directory_.write("f", "abc")));
    EXPECT_EQ(read_blocks(reader), std::vector<std::string>{"abc"});
    EXPECT_TRUE(read_blocks(reader).empty());
}

TEST_F(Fixed_Block_File_Reader_T_Test, tells_size_mode_and_links)
{
    const std::string path = directory_.write("f", pattern(12345));
    ASSERT_EQ(chmod(path.c_str(), 0604), 0);
    ASSERT_EQ(link(path.c_str(), directory_.path("g").c_str()), 0);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path));
    ACE_FILE_Info info{};
    ASSERT_TRUE(reader.get_info(info));
    EXPECT_EQ(info.size_, 12345);
    EXPECT_EQ(info.mode_, static_cast<mode_t>(S_IFREG | 0604));
    EXPECT_EQ(info.nlink_, 2U);
}

TEST_F(Fixed_Block_File_Reader_T_Test, never_hands_out_more_than_the_size_it_told)
{
    for (const long discard_cache : {0L, -1L, -2L}) {
        for (const size_t block_size : {7U, 4096U, 1U << 20}) {
            const std::string content = pattern(5000);
            const std::string path = directory_.write("f", content);
            Reader reader;
            ASSERT_TRUE(open_plain(reader, path, block_size, false, discard_cache));
            std::ofstream(path, std::ios::app) << pattern(100000);
            ACE_FILE_Info info{};
            ASSERT_TRUE(reader.get_info(info));
            EXPECT_EQ(info.size_, 5000);
            EXPECT_EQ(joined(read_blocks(reader)), content);
        }
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, stops_growing_with_a_file_that_grows_between_blocks)
{
    const std::string content = pattern(10000);
    const std::string path = directory_.write("f", content);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 4096));
    void* data = nullptr;
    long length = 0;
    ASSERT_TRUE(reader.read(data, length));
    std::ofstream(path, std::ios::app) << pattern(100000);
    EXPECT_EQ(joined(read_blocks(reader)), content.substr(4096));
}

TEST_F(Fixed_Block_File_Reader_T_Test, ends_early_when_the_file_shrinks)
{
    for (const long discard_cache : {0L, -2L}) {
        const std::string content = pattern(20000);
        const std::string path = directory_.write("f", content);
        Reader reader;
        ASSERT_TRUE(open_plain(reader, path, 4096, false, discard_cache));
        void* data = nullptr;
        long length = 0;
        ASSERT_TRUE(reader.read(data, length));
        ASSERT_EQ(truncate(path.c_str(), 5000), 0);
        EXPECT_EQ(joined(read_blocks(reader)), content.substr(4096, 5000 - 4096));
        EXPECT_TRUE(read_blocks(reader).empty());
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, goes_on_from_a_place_where_no_direct_read_may_begin)
{
    const std::string content = pattern(20000);
    const std::string path = directory_.write("f", content);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 4096, false, -2));
    ASSERT_EQ(truncate(path.c_str(), 5000), 0);
    const std::vector<std::string> before = read_blocks(reader);
    EXPECT_EQ(joined(before), content.substr(0, 5000));
    std::ofstream(path, std::ios::app) << content.substr(5000);
    EXPECT_EQ(joined(read_blocks(reader)), content.substr(5000));
}

TEST_F(Fixed_Block_File_Reader_T_Test, reads_the_same_with_every_cache_policy)
{
    for (const size_t length : {1U, 4095U, 4096U, 4097U, 300001U}) {
        const std::string content = pattern(length);
        const std::string path = directory_.write("f", content);
        for (const long discard_cache : {0L, -1L, -2L, -3L, 4096L, 100000L}) {
            for (const bool read_ahead : {false, true}) {
                for (const size_t block_size : {0U, 1000U, 4096U, 65536U}) {
                    Reader reader;
                    ASSERT_TRUE(open_plain(reader, path, block_size, read_ahead, discard_cache));
                    EXPECT_EQ(joined(read_blocks(reader)), content)
                        << length << " " << discard_cache << " " << block_size;
                }
            }
        }
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, rounds_the_block_of_a_direct_reader_up)
{
    Reader reader;
    const std::string content = pattern(10000);
    ASSERT_TRUE(open_plain(reader, directory_.write("f", content), 5000, false, -2));
    const bool direct = (fcntl(reader.handle(), F_GETFL) & O_DIRECT) != 0;
    const std::vector<std::string> blocks = read_blocks(reader);
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_EQ(blocks[0].size(), direct ? 8192U : 5000U);
    EXPECT_EQ(joined(blocks), content);
}

TEST_F(Fixed_Block_File_Reader_T_Test, asks_for_direct_reading_with_minus_2_only)
{
    const std::string path = directory_.write("f", "abc");
    for (const long discard_cache : {0L, -1L, 1L}) {
        Reader reader;
        ASSERT_TRUE(open_plain(reader, path, 0, false, discard_cache));
        EXPECT_EQ(fcntl(reader.handle(), F_GETFL) & O_DIRECT, 0) << discard_cache;
    }
    const int probe = ::open(path.c_str(), O_RDONLY | O_DIRECT);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 0, false, -2));
    EXPECT_EQ((fcntl(reader.handle(), F_GETFL) & O_DIRECT) != 0, probe != -1);
    if (probe != -1) {
        ::close(probe);
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, reads_buffered_where_the_file_system_knows_no_direct_reading)
{
    // A regular file of sysfs, which refuses O_DIRECT, and whose size is larger than its text.
    const char* const path = "/sys/kernel/mm/transparent_hugepage/enabled";
    const int probe = ::open(path, O_RDONLY | O_DIRECT);
    if (access(path, R_OK) == -1 || probe != -1) {
        if (probe != -1) {
            ::close(probe);
        }
        GTEST_SKIP() << "no file that refuses O_DIRECT";
    }
    std::ifstream file(path);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 0, false, -2));
    EXPECT_EQ(joined(read_blocks(reader)), content);
}

TEST_F(Fixed_Block_File_Reader_T_Test, leaves_the_cache_alone_by_default)
{
    const std::string path = write_synced("f", pattern(64 * PAGE));
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 8 * PAGE));
    read_blocks(reader);
    reader.close();
    EXPECT_EQ(cached_count(path), 64);
}

TEST_F(Fixed_Block_File_Reader_T_Test, drops_the_cache_behind_each_block)
{
    if (!has_droppable_cache()) {
        GTEST_SKIP() << "the files are in memory";
    }
    const std::string path = write_synced("f", pattern(4 * FOLIO));
    ASSERT_EQ(cached_count(path), 4 * 512);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, FOLIO, false, -1));
    for (const long left : {3 * 512, 2 * 512, 512, 0}) {
        void* data = nullptr;
        long length = 0;
        ASSERT_TRUE(reader.read(data, length));
        EXPECT_EQ(cached_count(path), left);
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, drops_what_two_blocks_share_and_the_end_of_the_file)
{
    if (!has_droppable_cache()) {
        GTEST_SKIP() << "the files are in memory";
    }
    for (const size_t length : {20 * PAGE + 100, FOLIO + 7 * PAGE + 1}) {
        const std::string path = write_synced("f", pattern(length));
        Reader reader;
        ASSERT_TRUE(open_plain(reader, path, 3000, false, -1));
        read_blocks(reader);
        EXPECT_EQ(cached_count(path), 0) << length;
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, drops_the_cache_every_n_bytes)
{
    if (!has_droppable_cache()) {
        GTEST_SKIP() << "the files are in memory";
    }
    const std::string path = write_synced("f", pattern(4 * FOLIO));
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, FOLIO, false, 2 * FOLIO));
    for (const long left : {4 * 512, 2 * 512, 2 * 512, 0}) {
        void* data = nullptr;
        long length = 0;
        ASSERT_TRUE(reader.read(data, length));
        EXPECT_EQ(cached_count(path), left);
    }
}

TEST_F(Fixed_Block_File_Reader_T_Test, drops_what_it_has_read_when_it_is_closed_early)
{
    if (!has_droppable_cache()) {
        GTEST_SKIP() << "the files are in memory";
    }
    const std::string path = write_synced("f", pattern(4 * FOLIO));
    {
        Reader reader;
        ASSERT_TRUE(open_plain(reader, path, FOLIO, false, 1L << 30));
        void* data = nullptr;
        long length = 0;
        ASSERT_TRUE(reader.read(data, length));
        EXPECT_EQ(cached_count(path), 4 * 512);
    }
    EXPECT_EQ(cached_count(path), 3 * 512);
}

TEST_F(Fixed_Block_File_Reader_T_Test, reads_past_the_cache_when_direct)
{
    if (!has_droppable_cache()) {
        GTEST_SKIP() << "the files are in memory";
    }
    const std::string content = pattern(64 * PAGE);
    const std::string path = write_synced("f", content);
    {
        Reader dropper;
        ASSERT_TRUE(open_plain(dropper, path, 0, false, -1));
        read_blocks(dropper);
    }
    ASSERT_EQ(cached_count(path), 0);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, path, 0, false, -2));
    if ((fcntl(reader.handle(), F_GETFL) & O_DIRECT) == 0) {
        GTEST_SKIP() << "the file system refuses O_DIRECT";
    }
    EXPECT_EQ(joined(read_blocks(reader)), content);
    EXPECT_EQ(cached_count(path), 0);
}

TEST_F(Fixed_Block_File_Reader_T_Test, refuses_what_is_no_regular_file)
{
    const std::string fifo = directory_.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0); // no writer: a plain open would block
    const std::string socket_path = directory_.path("socket");
    const int server = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    ASSERT_LT(socket_path.size(), sizeof address.sun_path);
    socket_path.copy(address.sun_path, socket_path.size());
    ASSERT_EQ(bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    for (const std::string& path :
         {fifo, socket_path, directory_.path(""), std::string("/dev/null")}) {
        for (const long discard_cache : {0L, -2L}) {
            Reader reader;
            errno = 0;
            EXPECT_FALSE(open_plain(reader, path, 0, false, discard_cache)) << path;
            EXPECT_EQ(errno, EINVAL) << path;
            EXPECT_EQ(reader.handle(), -1);
        }
    }
    ::close(server);
}

TEST_F(Fixed_Block_File_Reader_T_Test, follows_a_link_to_a_regular_file)
{
    const std::string path = directory_.write("f", "abc");
    ASSERT_EQ(symlink(path.c_str(), directory_.path("l").c_str()), 0);
    Reader reader;
    ASSERT_TRUE(open_plain(reader, directory_.path("l")));
    EXPECT_EQ(joined(read_blocks(reader)), "abc");
}

TEST_F(Fixed_Block_File_Reader_T_Test, says_why_a_file_cannot_be_opened)
{
    Reader reader;
    EXPECT_FALSE(open_plain(reader, directory_.path("missing")));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(open_plain(reader, directory_.write("f", "") + "/below"));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(reader.open(nullptr, 0, READ_FLAGS, false, 0, MODE, false, {}));
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Fixed_Block_File_Reader_T_Test, asks_the_filter_with_the_path)
{
    const std::string path = directory_.write("f", "abc");
    std::string asked;
    Reader reader;
    ASSERT_TRUE(
        reader.open(path.c_str(), 0, READ_FLAGS, false, 0, MODE, false, [&asked](const char* name) {
            asked = name;
            return true;
        }));
    EXPECT_EQ(asked, path);
    EXPECT_EQ(joined(read_blocks(reader)), "abc");
}

TEST_F(Fixed_Block_File_Reader_T_Test, opens_nothing_that_the_filter_refuses)
{
    const std::string path = directory_.write("f", "abc");
    Reader reader;
    errno = 0;
    EXPECT_FALSE(reader.open(path.c_str(), 0, READ_FLAGS, false, 0, MODE, false,
                             [](const char*) { return false; }));
    EXPECT_EQ(errno, EACCES);
    errno = 0;
    EXPECT_FALSE(reader.open(path.c_str(), 0, READ_FLAGS | O_TRUNC, false, 0, MODE, false,
                             [](const char*) -> bool { throw 1; }));
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(reader.handle(), -1);
    EXPECT_EQ(directory_.read("f"), "abc");
}

TEST_F(Fixed_Block_File_Reader_T_Test, passes_flags_and_mode_on)
{
    const mode_t previous = umask(0);
    const std::string path = directory_.path("new");
    Reader reader;
    EXPECT_TRUE(reader.open(path.c_str(), 0, O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, false, 0,
                            0640, false, {}));
    umask(previous);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0640U);
    EXPECT_EQ(fcntl(reader.handle(), F_GETFD), FD_CLOEXEC);
}

TEST_F(Fixed_Block_File_Reader_T_Test, fails_with_ebadf_when_it_is_not_open)
{
    Reader reader;
    void* data = &reader;
    long length = 5;
    errno = 0;
    EXPECT_FALSE(reader.read(data, length));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
    ACE_FILE_Info info{};
    errno = 0;
    EXPECT_FALSE(reader.get_info(info));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(reader.handle(), -1);
    reader.close();
}

TEST_F(Fixed_Block_File_Reader_T_Test, reports_a_failed_read)
{
    // Write-only: opening succeeds, reading does not.
    const std::string path = directory_.write("f", "abc");
    Reader reader;
    ASSERT_TRUE(reader.open(path.c_str(), 0, O_WRONLY | O_CLOEXEC, false, 0, MODE, false, {}));
    void* data = &reader;
    long length = 5;
    EXPECT_FALSE(reader.read(data, length));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Fixed_Block_File_Reader_T_Test, fails_for_a_block_that_finds_no_memory)
{
    Fixed_Block_File_Reader_T<char, No_Buffer> reader;
    ASSERT_TRUE(reader.open(directory_.write("f", "abc").c_str(), 0, READ_FLAGS, false, 0, MODE,
                            false, {}));
    void* data = &reader;
    long length = 5;
    errno = 0;
    EXPECT_FALSE(reader.read(data, length));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0);
}

TEST_F(Fixed_Block_File_Reader_T_Test, closes_its_file_in_the_destructor)
{
    int handle = -1;
    {
        Reader reader;
        ASSERT_TRUE(open_plain(reader, directory_.write("f", "abc")));
        handle = reader.handle();
        EXPECT_NE(fcntl(handle, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(handle, F_GETFD), -1);
}

TEST_F(Fixed_Block_File_Reader_T_Test, starts_over_when_it_is_opened_again)
{
    Reader reader;
    ASSERT_TRUE(open_plain(reader, directory_.write("f", "abc")));
    read_blocks(reader);
    ASSERT_TRUE(open_plain(reader, directory_.write("g", "defg"), 3));
    EXPECT_EQ(read_blocks(reader), (std::vector<std::string>{"def", "g"}));
    EXPECT_FALSE(open_plain(reader, directory_.path("missing")));
    EXPECT_EQ(reader.handle(), -1);
}

} // namespace
