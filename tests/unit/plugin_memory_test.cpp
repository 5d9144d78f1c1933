// Parameters that there is no memory for: the record is refused, and nothing ends by it.

#include "httpd/host_interface.h"
#include "httpd/http_authenticator.h"
#include "httpd/http_handler.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"
#include "tests/support/host_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/memory_limit.h"
#include "tests/support/sanitized.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <cerrno>
#include <string>
#include <vector>

namespace {

using Lines = std::vector<std::string>;

constexpr size_t LARGE = size_t{64} << 20;
constexpr size_t ROOM = size_t{8} << 20;

class Plugin_Memory : public testing::Test {
protected:
    void SetUp() override
    {
#if defined(HTTPD_TEST_SANITIZED)
        GTEST_SKIP() << "memory cannot be limited under a sanitizer";
#endif
    }

    /// Gives a plug-in's factory one parameter that is larger than the memory there is.
    template <typename T>
    void expect_refused(const char* library, const char* factory, const char* parameter)
    {
        void* const handle = ::dlopen(library_path(library).c_str(), RTLD_NOW);
        ASSERT_NE(handle, nullptr) << ::dlerror();
        using Factory = Object_Creator_T<T>* (*)(void (**)(void*));
        const auto make = reinterpret_cast<Factory>(::dlsym(handle, factory));
        ASSERT_NE(make, nullptr) << ::dlerror();
        void (*dispose)(void*) = nullptr;
        Object_Creator_T<T>* const creator = make(&dispose);
        ASSERT_NE(creator, nullptr);
        std::string text = parameter + std::string(LARGE, 'a');
        char* argv[] = {text.data(), nullptr};
        int result = 0;
        int error = 0;
        {
            const Memory_Limit limit(ROOM);
            ASSERT_TRUE(limit.is_set());
            result = creator->init(1, argv);
            error = errno;
        }
        EXPECT_EQ(result, -1);
        EXPECT_EQ(error, ENOMEM);
        dispose(creator);
    }

    Log_Capture log_;
};

} // namespace

TEST_F(Plugin_Memory, files_says_that_there_is_none)
{
    expect_refused<HTTP_Handler>("httpd_files", "_make_Files", "--root=");
    EXPECT_EQ(log_.texts(LM_ERROR), Lines{"files: Cannot allocate memory\n"});
}

TEST_F(Plugin_Memory, basic_auth_says_that_there_is_none)
{
    expect_refused<HTTP_Authenticator>("httpd_basic_auth", "_make_Basic_Auth", "--realm=");
    EXPECT_EQ(log_.texts(LM_ERROR), Lines{"basic_auth: Cannot allocate memory\n"});
}

TEST_F(Plugin_Memory, ws_echo_says_that_there_is_none)
{
    expect_refused<WebSocket_Handler>("httpd_ws_echo", "_make_WS_Echo", "--protocol=");
    EXPECT_EQ(log_.texts(LM_ERROR), Lines{"ws_echo: Cannot allocate memory\n"});
}

/// The library logs why a record was refused.
TEST_F(Plugin_Memory, ws_chat_leaves_it_at_refusing_the_record)
{
    expect_refused<WebSocket_Handler>("httpd_ws_chat", "_make_WS_Chat", "--max-queue=");
    EXPECT_EQ(log_.texts(LM_ERROR), Lines());
}

TEST_F(Plugin_Memory, address_of_a_proxy_that_cannot_be_kept_is_refused)
{
    const std::string address(LARGE, '1');
    int result = 0;
    {
        const Memory_Limit limit(ROOM);
        ASSERT_TRUE(limit.is_set());
        result = httpd_set_proxy_from(address.c_str());
    }
    EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, ENOMEM);
}
