#include "httpd/simple_creator_t.h"

#include "httpd/http_authenticator.h"
#include "httpd/http_handler.h"
#include "httpd/websocket_handler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

/// What the objects of a test do, in order.
std::vector<std::string>& calls()
{
    static std::vector<std::string> instance;
    return instance;
}

using Calls = std::vector<std::string>;

class Simple_Creator_T_Test : public testing::Test {
protected:
    void SetUp() override { calls().clear(); }
    void TearDown() override { calls().clear(); }
};

/// The parts of a handler that a factory does not touch.
class Handler : public HTTP_Handler {
public:
    CONCURRENCY concurrency(const HTTP_Request&, HANDLE_METHOD) const override { return INHERITED; }
    int handle_request(HTTP_IO&) override { return 0; }
    int handle_body(HTTP_IO&, const void*, size_t) override { return 0; }
};

class Traced_Handler : public Handler {
public:
    Traced_Handler() { calls().push_back("construct"); }
    ~Traced_Handler() override { calls().push_back("destruct"); }

    int init(int argc, char** argv) override
    {
        std::string call = "init";
        for (int i = 0; i < argc; ++i) {
            call += std::string(" ") + argv[i];
        }
        calls().push_back(call);
        if (argc > 0) {
            EXPECT_EQ(argv[argc], nullptr);
            std::reverse(argv, argv + argc); // as an option parser may
        }
        return argc > 0 && std::string(argv[0]) == "refuse" ? -1 : 0;
    }

    int fini() override
    {
        calls().push_back("fini");
        return 0;
    }
};

using Traced_Creator = Simple_Creator_T<HTTP_Handler, Traced_Handler>;

/// Gives the factory its arguments as a record would.
template <typename Creator>
void init(Creator& creator, std::vector<std::string> arguments)
{
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    ASSERT_EQ(creator.init(static_cast<int>(argv.size()), argv.data()), 0);
}

TEST_F(Simple_Creator_T_Test, makes_and_deletes_objects_of_the_plug_in)
{
    Traced_Creator creator;
    HTTP_Handler* const object = creator.create();
    ASSERT_NE(dynamic_cast<Traced_Handler*>(object), nullptr);
    EXPECT_EQ(calls(), (Calls{"construct", "init"}));
    creator.destroy(object);
    EXPECT_EQ(calls(), (Calls{"construct", "init", "fini", "destruct"}));
}

TEST_F(Simple_Creator_T_Test, passes_its_arguments_to_each_object)
{
    Traced_Creator creator;
    init(creator, {"one", "two"});
    creator.destroy(creator.create());
    creator.destroy(creator.create());
    EXPECT_EQ(calls()[1], "init one two");
    EXPECT_EQ(calls()[5], "init one two") << "what one object does to its array concerns no other";
    EXPECT_STREQ(creator.argv_[0], "one");
}

TEST_F(Simple_Creator_T_Test, passes_any_number_of_arguments)
{
    for (const size_t count : {1U, 14U, 15U, 16U, 17U, 100U}) {
        SCOPED_TRACE(count);
        calls().clear();
        Traced_Creator creator;
        init(creator, std::vector<std::string>(count, "x"));
        creator.destroy(creator.create());
        std::string expected = "init";
        for (size_t i = 0; i < count; ++i) {
            expected += " x";
        }
        EXPECT_EQ(calls()[1], expected);
    }
}

TEST_F(Simple_Creator_T_Test, a_count_without_an_array_is_no_argument)
{
    Traced_Creator creator;
    creator.init(2, nullptr);
    creator.destroy(creator.create());
    EXPECT_EQ(calls()[1], "init");
}

TEST_F(Simple_Creator_T_Test, an_object_that_refuses_its_arguments_is_not_handed_out)
{
    Traced_Creator creator;
    init(creator, {"x", "refuse"});
    EXPECT_EQ(creator.create(), nullptr);
    EXPECT_EQ(calls(), (Calls{"construct", "init x refuse", "destruct"}));
}

TEST_F(Simple_Creator_T_Test, destroy_takes_null)
{
    Traced_Creator creator;
    creator.destroy(nullptr);
    EXPECT_EQ(calls(), Calls{});
}

TEST_F(Simple_Creator_T_Test, serves_a_holder)
{
    Traced_Creator creator;
    {
        Object_var<Object_Creator_T<HTTP_Handler>, HTTP_Handler> handler(&creator);
        EXPECT_TRUE(handler);
        handler.reset(&creator);
    }
    EXPECT_EQ(calls(), (Calls{"construct", "init", "fini", "destruct", "construct", "init", "fini",
                              "destruct"}));
}

TEST_F(Simple_Creator_T_Test, hands_the_same_memory_out_again)
{
    Traced_Creator creator;
    HTTP_Handler* const first = creator.create();
    creator.destroy(first);
    HTTP_Handler* const second = creator.create();
    EXPECT_EQ(first, second);
    creator.destroy(second);
}

TEST_F(Simple_Creator_T_Test, objects_that_live_at_once_have_their_own_memory)
{
    constexpr size_t MORE_THAN_ARE_KEPT = 300;
    Traced_Creator creator;
    for (int round = 0; round < 2; ++round) {
        std::set<HTTP_Handler*> objects;
        for (size_t i = 0; i < MORE_THAN_ARE_KEPT; ++i) {
            objects.insert(creator.create());
        }
        EXPECT_EQ(objects.size(), MORE_THAN_ARE_KEPT);
        for (HTTP_Handler* const object : objects) {
            creator.destroy(object);
        }
    }
}

TEST_F(Simple_Creator_T_Test, aligns_objects_as_they_need_it)
{
    class alignas(256) Aligned_Handler : public Handler {};
    Simple_Creator_T<HTTP_Handler, Aligned_Handler> creator;
    HTTP_Handler* const first = creator.create();
    HTTP_Handler* const second = creator.create();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 256, 0U);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(second) % 256, 0U);
    creator.destroy(first);
    creator.destroy(second);
}

TEST_F(Simple_Creator_T_Test, gives_base_classes_that_are_not_the_first_their_object_back)
{
    struct Other {
        virtual ~Other() = default;
        std::array<char, 40> text{};
    };
    class Second_Base : public Other, public Handler {};
    Simple_Creator_T<HTTP_Handler, Second_Base> creator;
    HTTP_Handler* const first = creator.create();
    EXPECT_NE(static_cast<void*>(first), dynamic_cast<void*>(first));
    creator.destroy(first);
    HTTP_Handler* const second = creator.create();
    EXPECT_EQ(first, second);
    creator.destroy(second);
}

TEST_F(Simple_Creator_T_Test, no_exception_of_an_object_leaves_it)
{
    class Out_Of_Memory : public Handler {
    public:
        Out_Of_Memory() { throw std::bad_alloc(); }
    };
    class Throws : public Handler {
    public:
        Throws() { throw std::runtime_error("no"); }
    };
    class Throws_In_Init : public Handler {
    public:
        ~Throws_In_Init() override { calls().push_back("destruct"); }
        int init(int, char**) override { throw std::runtime_error("no"); }
    };
    Simple_Creator_T<HTTP_Handler, Out_Of_Memory> out_of_memory;
    errno = 0;
    EXPECT_EQ(out_of_memory.create(), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    Simple_Creator_T<HTTP_Handler, Throws> throws;
    EXPECT_EQ(throws.create(), nullptr);
    EXPECT_EQ(errno, EINVAL);
    Simple_Creator_T<HTTP_Handler, Throws_In_Init> throws_in_init;
    EXPECT_EQ(throws_in_init.create(), nullptr);
    EXPECT_EQ(calls(), (Calls{"destruct"}));
}

TEST_F(Simple_Creator_T_Test, a_derived_factory_may_give_its_objects_what_they_share)
{
    class Greeter : public Handler {
    public:
        explicit Greeter(const std::string& greeting) : greeting_(greeting) {}
        const std::string& greeting_;
    };
    class Greeter_Creator : public Simple_Creator_T<HTTP_Handler, Greeter> {
    public:
        std::string greeting_ = "hello";

    protected:
        Greeter* construct(void* memory) override
        {
            if (greeting_.empty()) {
                errno = EPERM;
                return nullptr;
            }
            return new (memory) Greeter(greeting_);
        }
    };
    Greeter_Creator creator;
    HTTP_Handler* const object = creator.create();
    ASSERT_NE(object, nullptr);
    EXPECT_EQ(&dynamic_cast<Greeter&>(*object).greeting_, &creator.greeting_);
    creator.destroy(object);
    creator.greeting_ = "";
    errno = 0;
    EXPECT_EQ(creator.create(), nullptr);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(Simple_Creator_T_Test, makes_websocket_handlers)
{
    class Socket : public WebSocket_Handler {
    public:
        int init(int argc, char**) override
        {
            calls().push_back("init " + std::to_string(argc));
            return 0;
        }
        int handle_data_framing(const void*, size_t, bool, bool) override { return 0; }
    };
    Simple_Creator_T<WebSocket_Handler, Socket> creator;
    init(creator, {"a", "b"});
    creator.destroy(creator.create());
    EXPECT_EQ(calls(), (Calls{"init 2"}));
}

/// The base class of authenticators has neither init nor fini.
class Silent_Authenticator : public HTTP_Authenticator {
public:
    int authenticate(const HTTP_IO&, HTTP_Request&, HTTP_Response&) const override { return 200; }
};

TEST_F(Simple_Creator_T_Test, makes_authenticators_without_init)
{
    Simple_Creator_T<HTTP_Authenticator, Silent_Authenticator> creator;
    init(creator, {"a"});
    HTTP_Authenticator* const object = creator.create();
    EXPECT_NE(object, nullptr);
    creator.destroy(object);
}

TEST_F(Simple_Creator_T_Test, calls_init_and_fini_of_an_authenticator_that_has_them)
{
    class Authenticator : public Silent_Authenticator {
    public:
        int init(int argc, char**)
        {
            calls().push_back("init " + std::to_string(argc));
            return 0;
        }
        int fini()
        {
            calls().push_back("fini");
            return 0;
        }
    };
    Simple_Creator_T<HTTP_Authenticator, Authenticator> creator;
    init(creator, {"a"});
    creator.destroy(creator.create());
    EXPECT_EQ(calls(), (Calls{"init 1", "fini"}));
}

/// Notices when another object is made in its memory while it lives.
class Exclusive_Handler : public Handler {
public:
    Exclusive_Handler() : self_(this) {}
    ~Exclusive_Handler() override
    {
        if (self_ != this) {
            broken_ = true;
        }
        self_ = nullptr;
    }

    static std::atomic<bool> broken_;

private:
    Exclusive_Handler* self_;
};

std::atomic<bool> Exclusive_Handler::broken_{false};

TEST_F(Simple_Creator_T_Test, may_be_used_by_many_threads_at_once)
{
    constexpr size_t THREADS = 8;
    constexpr size_t OBJECTS = 12; // more than a thread's slots
    Exclusive_Handler::broken_ = false;
    Simple_Creator_T<HTTP_Handler, Exclusive_Handler> creator;
    std::atomic<size_t> missing{0};
    // What a thread leaves in its place is destroyed by whichever thread comes next.
    std::array<std::atomic<HTTP_Handler*>, OBJECTS> shared{};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < THREADS; ++i) {
        threads.emplace_back([&] {
            for (size_t round = 0; round < 2000; ++round) {
                HTTP_Handler* const object = creator.create();
                missing += object == nullptr ? 1U : 0U;
                creator.destroy(shared[round % OBJECTS].exchange(object));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::atomic<HTTP_Handler*>& object : shared) {
        creator.destroy(object.load());
    }
    EXPECT_EQ(missing, 0U);
    EXPECT_FALSE(Exclusive_Handler::broken_);
}

/// Traces its end; may fail to be made.
class Factory_Of_Macro : public Traced_Creator {
public:
    Factory_Of_Macro()
    {
        if (fails_) {
            throw std::bad_alloc();
        }
    }
    ~Factory_Of_Macro() override { calls().push_back("dispose"); }

    static bool fails_;
};

bool Factory_Of_Macro::fails_ = false;

} // namespace

HTTPD_PLUGIN_FACTORY(_make_Simple_Creator_Test, Simple_Creator_T<HTTP_Handler, Traced_Handler>)
HTTPD_PLUGIN_FACTORY(_make_Factory_Of_Macro, Factory_Of_Macro)

namespace {

TEST_F(Simple_Creator_T_Test, the_macro_defines_a_function_that_makes_the_factory)
{
    void (*gobbler)(void*) = nullptr;
    Object_Creator_T<HTTP_Handler>* const creator = _make_Simple_Creator_Test(&gobbler);
    ASSERT_NE(creator, nullptr);
    ASSERT_NE(gobbler, nullptr);
    creator->destroy(creator->create());
    EXPECT_EQ(calls().size(), 4U);
    gobbler(creator);
}

TEST_F(Simple_Creator_T_Test, the_disposer_of_the_macro_deletes_the_factory)
{
    void (*gobbler)(void*) = nullptr;
    Object_Creator_T<HTTP_Handler>* const creator = _make_Factory_Of_Macro(&gobbler);
    gobbler(creator);
    gobbler(nullptr);
    EXPECT_EQ(calls(), (Calls{"dispose"}));
}

TEST_F(Simple_Creator_T_Test, the_function_of_the_macro_takes_no_slot_for_the_disposer)
{
    delete _make_Factory_Of_Macro(nullptr);
    EXPECT_EQ(calls(), (Calls{"dispose"}));
}

TEST_F(Simple_Creator_T_Test, the_function_of_the_macro_returns_null_when_the_factory_fails)
{
    Factory_Of_Macro::fails_ = true;
    void (*gobbler)(void*) = nullptr;
    errno = 0;
    EXPECT_EQ(_make_Factory_Of_Macro(&gobbler), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(gobbler, nullptr);
    Factory_Of_Macro::fails_ = false;
}

} // namespace
