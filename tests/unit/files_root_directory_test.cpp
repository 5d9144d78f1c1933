#include "plugins/files/root_directory.h"
#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <thread>

namespace {

using Lookup = Root_Directory::Lookup;
namespace fs = std::filesystem;

std::string content_of(int fd)
{
    char buffer[64];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

class Root_Directory_Lookup : public testing::TestWithParam<Lookup> {
protected:
    void write(const std::string& name, std::string_view content)
    {
        fs::create_directories(fs::path(scratch_.path(name)).parent_path());
        scratch_.write(name, content);
    }

    void SetUp() override
    {
        write("secret", "secret");
        write("root/page", "page");
        write("root/a/b/deep", "deep");
        fs::create_symlink("page", scratch_.path("root/inside"));
        fs::create_symlink("../page", scratch_.path("root/a/up-inside"));
        fs::create_symlink("../secret", scratch_.path("root/outside"));
        fs::create_symlink("a/../../secret", scratch_.path("root/roundabout"));
        fs::create_symlink(scratch_.path("secret"), scratch_.path("root/absolute"));
        fs::create_symlink(scratch_.path("root/page"), scratch_.path("root/absolute-inside"));
        fs::create_symlink("..", scratch_.path("root/parent"));
        fs::create_symlink("/", scratch_.path("root/slash"));
        fs::create_symlink("/proc/self/root", scratch_.path("root/magic"));
        fs::create_symlink("circle", scratch_.path("root/circle"));
        fs::create_symlink("a", scratch_.path("root/link-to-directory"));
        ASSERT_EQ(root_.open(scratch_.path("root").c_str()), 0);
        if (GetParam() == Lookup::BENEATH && root_.lookup() != Lookup::BENEATH) {
            GTEST_SKIP() << "the system has no openat2";
        }
        root_.lookup(GetParam());
    }

    std::string read(const char* name)
    {
        const Unique_Fd file(root_.open_file(name));
        return file ? content_of(file.get()) : std::string();
    }

    Temp_Dir scratch_;
    Root_Directory root_;
};

TEST_P(Root_Directory_Lookup, opens_files_below_the_root)
{
    EXPECT_EQ(read("page"), "page");
    EXPECT_EQ(read("a/b/deep"), "deep");
    struct stat status {};
    for (const char* const name : {"", "a", "a/b"}) {
        const Unique_Fd directory(root_.open_file(name));
        ASSERT_TRUE(directory) << name;
        ASSERT_EQ(::fstat(directory.get(), &status), 0);
        EXPECT_TRUE(S_ISDIR(status.st_mode));
    }
}

TEST_P(Root_Directory_Lookup, gives_descriptors_that_do_not_block_and_close_on_exec)
{
    const Unique_Fd file(root_.open_file("page"));
    ASSERT_TRUE(file);
    EXPECT_NE(::fcntl(file.get(), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_NE(::fcntl(file.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_P(Root_Directory_Lookup, never_leaves_the_root)
{
    for (const char* const name :
         {"outside", "roundabout", "absolute", "absolute-inside", "parent", "parent/secret",
          "slash", "slash/etc/passwd", "magic", "magic/etc/passwd", "circle", "/etc/passwd",
          "page/", "page/x", "missing", "a/missing/x"}) {
        errno = 0;
        const Unique_Fd file(root_.open_file(name));
        EXPECT_FALSE(file) << name;
        EXPECT_NE(errno, 0) << name;
    }
}

TEST_P(Root_Directory_Lookup, follows_links_that_stay_below_where_the_system_vouches_for_them)
{
    const bool follows = GetParam() == Lookup::BENEATH;
    EXPECT_EQ(read("inside"), follows ? "page" : "");
    EXPECT_EQ(read("a/up-inside"), follows ? "page" : "");
    EXPECT_EQ(read("link-to-directory/b/deep"), follows ? "deep" : "");
}

TEST_P(Root_Directory_Lookup, opens_a_fifo_without_waiting_and_no_socket)
{
    ASSERT_EQ(::mkfifo(scratch_.path("root/fifo").c_str(), 0600), 0);
    const Unique_Fd fifo(root_.open_file("fifo"));
    ASSERT_TRUE(fifo);
    struct stat status {};
    ASSERT_EQ(::fstat(fifo.get(), &status), 0);
    EXPECT_TRUE(S_ISFIFO(status.st_mode));

    const Unique_Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = scratch_.path("root/socket");
    ASSERT_LT(path.size(), sizeof(address.sun_path));
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    EXPECT_EQ(root_.open_file("socket"), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST_P(Root_Directory_Lookup, refuses_names_that_are_too_long)
{
    const std::string name(300, 'x');
    EXPECT_EQ(root_.open_file(name.c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(root_.open_file((name + "/y").c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_P(Root_Directory_Lookup, stays_with_its_directory_when_that_is_moved)
{
    fs::rename(scratch_.path("root"), scratch_.path("moved"));
    write("root/page", "another");
    EXPECT_EQ(read("page"), "page");
}

TEST_P(Root_Directory_Lookup, is_not_led_out_by_a_directory_that_becomes_a_link)
{
    write("outside/file", "secret");
    write("root/swap/file", "page");
    fs::create_symlink("../outside", scratch_.path("root/link"));
    std::atomic<bool> stop{false};
    std::thread swapper([this, &stop] {
        const std::string directory = scratch_.path("root/swap");
        const std::string link = scratch_.path("root/link");
        while (!stop) {
            ::renameat2(AT_FDCWD, directory.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
        }
    });
    int opened = 0;
    for (int i = 0; i < 20'000 || (opened == 0 && i < 1'000'000); ++i) {
        const std::string text = read("swap/file");
        opened += text.empty() ? 0 : 1;
        if (text == "secret") {
            ADD_FAILURE() << "left the root";
            break;
        }
    }
    stop = true;
    swapper.join();
    EXPECT_GT(opened, 0);
}

INSTANTIATE_TEST_SUITE_P(Lookups, Root_Directory_Lookup,
                         testing::Values(Lookup::BENEATH, Lookup::COMPONENTS),
                         [](const testing::TestParamInfo<Lookup>& lookup) {
                             return lookup.param == Lookup::BENEATH ? "beneath" : "components";
                         });

TEST(Root_Directory, is_a_directory_that_exists)
{
    const Temp_Dir scratch;
    scratch.write("file", "");
    Root_Directory root;
    EXPECT_EQ(root.open(scratch.path("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(root.open(scratch.path("missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(root.open(scratch.path("").c_str()), 0);
}

} // namespace
