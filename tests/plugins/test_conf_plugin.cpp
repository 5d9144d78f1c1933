// A plug-in library whose factories do everything that a configuration record can meet. What
// happens to them is appended to an environment variable, which outlives the library. No
// std::to_string here: its table is a unique symbol, which would keep the library mapped.

#include "httpd/http_authenticator.h"
#include "httpd/http_handler.h"
#include "httpd/object_creator_t.h"
#include "httpd/websocket_handler.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#define TEST_FACTORY extern "C" __attribute__((visibility("default")))

namespace {

void trace(const std::string& event)
{
    const char* const name = "HTTPD_TEST_CONF_TRACE";
    const char* const before = std::getenv(name);
    ::setenv(name, ((before != nullptr ? before : "") + event + ";").c_str(), 1);
}

/// Traces its life and, when told so, refuses its parameters.
template <typename T>
class Traced_Creator : public Object_Creator_T<T> {
public:
    explicit Traced_Creator(bool fails = false) : fails_(fails) {}
    ~Traced_Creator() override { trace("delete"); }

    int init(int argc, char** argv) override
    {
        char count[16];
        std::snprintf(count, sizeof count, "init %d", argc);
        std::string event = count;
        for (int i = 0; i < argc; ++i) {
            event += std::string(" <") + argv[i] + ">";
        }
        trace(event);
        if (fails_) {
            errno = EDOM;
            return -1;
        }
        return Object_Creator_T<T>::init(argc, argv);
    }

    T* create() override { return nullptr; }
    void destroy(T*) override {}

private:
    bool fails_;
};

template <typename T>
void gobble(void* creator)
{
    trace("gobble");
    delete static_cast<Object_Creator_T<T>*>(creator);
}

using HTTP_Creator = Traced_Creator<HTTP_Handler>;

/// Memory of a factory that nobody disposes of.
alignas(HTTP_Creator) unsigned char undisposed[sizeof(HTTP_Creator)];

} // namespace

TEST_FACTORY Object_Creator_T<HTTP_Handler>* _make_Conf_Test(void (**gobbler)(void*))
{
    trace("make");
    *gobbler = &gobble<HTTP_Handler>;
    return new HTTP_Creator;
}

TEST_FACTORY Object_Creator_T<HTTP_Authenticator>*
_make_Conf_Test_Authenticator(void (**gobbler)(void*))
{
    trace("make authenticator");
    *gobbler = &gobble<HTTP_Authenticator>;
    return new Traced_Creator<HTTP_Authenticator>;
}

TEST_FACTORY Object_Creator_T<WebSocket_Handler>* _make_Conf_Test_WebSocket(void (**gobbler)(void*))
{
    trace("make websocket");
    *gobbler = &gobble<WebSocket_Handler>;
    return new Traced_Creator<WebSocket_Handler>;
}

/// Stores a disposer although there is nothing to dispose of.
TEST_FACTORY Object_Creator_T<HTTP_Handler>* _make_Conf_Test_Null(void (**gobbler)(void*))
{
    trace("make null");
    *gobbler = &gobble<HTTP_Handler>;
    errno = EXDEV;
    return nullptr;
}

TEST_FACTORY Object_Creator_T<HTTP_Authenticator>*
_make_Conf_Test_Null_Authenticator(void (**)(void*))
{
    return nullptr;
}

TEST_FACTORY Object_Creator_T<WebSocket_Handler>* _make_Conf_Test_Null_WebSocket(void (**)(void*))
{
    return nullptr;
}

TEST_FACTORY Object_Creator_T<HTTP_Handler>* _make_Conf_Test_Fail_Init(void (**gobbler)(void*))
{
    trace("make");
    *gobbler = &gobble<HTTP_Handler>;
    return new HTTP_Creator(true);
}

TEST_FACTORY Object_Creator_T<HTTP_Handler>* _make_Conf_Test_No_Gobbler(void (**)(void*))
{
    trace("make");
    return new HTTP_Creator;
}

TEST_FACTORY Object_Creator_T<HTTP_Handler>* _make_Conf_Test_No_Gobbler_Fail_Init(void (**)(void*))
{
    trace("make");
    return new (undisposed) HTTP_Creator(true);
}
