#include "support/mem_pool_file.h"

#include "tests/support/temp_dir.h"

#include <ace/SV_Semaphore_Complex.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

/// A folder of pools of one listener.
class Mem_Pool_File_Test : public testing::Test {
protected:
    Mem_Pool_File_Test() : prefix_(folder_.path("MEM_Acceptor_5000_")) {}

    std::string make_pool() const
    {
        const std::string path = Mem_Pool_File::make_path(prefix_);
        return folder_.write(path.substr(path.rfind('/') + 1), "pool");
    }

    bool is_there(const std::string& path) const { return ::access(path.c_str(), F_OK) == 0; }

    Temp_Dir folder_;
    std::string prefix_;
};

std::string name_of(const std::string& path)
{
    return path.substr(path.rfind('/') + 1);
}

} // namespace

TEST_F(Mem_Pool_File_Test, names_are_new_each_time)
{
    const std::string path = Mem_Pool_File::make_path(prefix_);
    EXPECT_EQ(prefix_, path.substr(0, prefix_.size()));
    EXPECT_EQ(prefix_.size() + 16, path.size());
    EXPECT_NE(path, Mem_Pool_File::make_path(prefix_));
    EXPECT_EQ("", Mem_Pool_File::make_path(""));
}

TEST_F(Mem_Pool_File_Test, a_pool_that_nobody_locks_is_removed_with_its_semaphore)
{
    const std::string pool = make_pool();
    ACE_SV_Semaphore_Complex semaphore(name_of(pool).c_str());
    Mem_Pool_File::remove_stale(prefix_);
    EXPECT_FALSE(is_there(pool));
    ACE_SV_Semaphore_Complex again;
    EXPECT_EQ(-1, again.open(name_of(pool).c_str(), ACE_SV_Semaphore_Complex::ACE_OPEN));
}

TEST_F(Mem_Pool_File_Test, a_pool_in_use_stays_until_its_descriptor_is_closed)
{
    const std::string pool = make_pool();
    const int handle = ::open(pool.c_str(), O_RDWR | O_CLOEXEC);
    Mem_Pool_File::lock(handle);
    Mem_Pool_File::remove_stale(prefix_);
    EXPECT_TRUE(is_there(pool));
    ::close(handle);
    Mem_Pool_File::remove_stale(prefix_);
    EXPECT_FALSE(is_there(pool));
}

TEST_F(Mem_Pool_File_Test, nothing_else_is_removed)
{
    const std::string digits = "0123456789abcdef";
    const std::string target = folder_.write("target", "a file of someone");
    ASSERT_EQ(0, ::symlink(target.c_str(), (prefix_ + digits).c_str()));
    for (const std::string& name :
         {"MEM_Acceptor_50001_" + digits, "MEM_Acceptor_5000_" + digits + "0",
          "MEM_Acceptor_5000_" + digits.substr(1),
          std::string("MEM_Acceptor_5000_0123456789abcdeg"), "x_MEM_Acceptor_5000_" + digits}) {
        folder_.write(name, "");
    }
    const std::vector<std::string> before = folder_.names();
    Mem_Pool_File::remove_stale(prefix_);
    Mem_Pool_File::remove_stale("");
    Mem_Pool_File::remove_stale(folder_.path("missing/MEM_Acceptor_5000_"));
    EXPECT_EQ(before, folder_.names());
}
