#include "httpd/dll_object_manager_t.h"

#include "httpd/http_authenticator_creator_map.h"
#include "httpd/http_handler_creator_map.h"
#include "httpd/websocket_handler_creator_map.h"

#include <ace/Null_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <dlfcn.h>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

/// Stands for a factory: writes down its end.
class Factory {
public:
    explicit Factory(std::vector<std::string>* log = nullptr) : log_(log) {}

    virtual ~Factory()
    {
        if (log_ != nullptr) {
            log_->push_back("delete");
        }
    }

    Factory(const Factory&) = delete;
    Factory& operator=(const Factory&) = delete;

    std::vector<std::string>* log_;
};

using Gobbler = void (*)(void*);
using Entry = DLL_Object_Entry_T<Factory, Gobbler>;
using Entry_Ptr = DLL_Object_Entry_Ptr<Factory, Gobbler>;
using Log = std::vector<std::string>;

void gobble(void* object)
{
    auto* const factory = static_cast<Factory*>(object);
    if (factory->log_ != nullptr) {
        factory->log_->push_back("gobble");
    }
    delete factory;
}

/// Counts how it is taken and can be told to fail.
class Watched_Mutex {
public:
    int acquire() { return take(writes_); }
    int tryacquire() { return acquire(); }
    int acquire_write() { return take(writes_); }
    int tryacquire_write() { return acquire_write(); }
    int acquire_read() { return take(reads_); }
    int tryacquire_read() { return acquire_read(); }
    int release()
    {
        --held_;
        return 0;
    }
    int remove() { return 0; }

    int reads_ = 0;
    int writes_ = 0;
    int held_ = 0;
    bool fails_ = false;

private:
    int take(int& count)
    {
        if (fails_) {
            return -1;
        }
        ++count;
        ++held_;
        return 0;
    }
};

template <typename Mutex>
class Registry_T : public DLL_Object_Manager_T<Factory, Gobbler, Mutex> {
public:
    Mutex& lock() { return this->lock_; }
    size_t size() const { return this->map_.size(); }

    /// A factory of this URI, disposed of without a trace.
    Factory* add(const std::string& uri)
    {
        auto* const factory = new Factory;
        EXPECT_EQ(this->insert(uri, "", factory, nullptr), 0);
        return factory;
    }
};

using Registry = Registry_T<ACE_Null_Mutex>;

struct Found {
    Factory* factory;
    size_t off;

    bool operator==(const Found&) const = default;
};

constexpr size_t ALL_ONES = ~size_t{0};

Found find(const Registry& registry, std::string_view uri, char sep = '/')
{
    Found found{nullptr, 77};
    found.factory = registry.find(uri, sep, found.off);
    return found;
}

/// The search as it is defined: one key at a time, backwards.
Found find_naively(const std::map<std::string, Factory*>& keys, const std::string& uri, char sep)
{
    auto position = keys.lower_bound(uri);
    if (position != keys.end() && position->first == uri) {
        return {position->second, uri.size()};
    }
    while (position != keys.begin()) {
        --position;
        const std::string& key = position->first;
        if (key.size() < uri.size() && uri.compare(0, key.size(), key) == 0 &&
            (uri[key.size()] == sep || (!key.empty() && key.back() == sep))) {
            return {position->second, key.size()};
        }
    }
    return {nullptr, ALL_ONES};
}

bool is_loaded(const std::string& library)
{
    void* const handle = ::dlopen(library.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        return false;
    }
    ::dlclose(handle);
    return true;
}

/// A library that no other test of the process keeps open, unmapped at its last close.
class DLL_Test : public testing::Test {
protected:
    void SetUp() override
    {
        ACE_DLL_Manager* const manager = ACE_DLL_Manager::instance(DLL_MANAGER_SIZE);
        policy_ = manager->unload_policy();
        manager->unload_policy(ACE_DLL_UNLOAD_POLICY_PER_PROCESS);
    }

    void TearDown() override
    {
        EXPECT_FALSE(is_loaded(plugin_));
        ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->unload_policy(policy_);
    }

    const std::string plugin_ = HTTPD_TEST_LIBRARY_DIR "/libtest_conf_plugin.so";

private:
    u_long policy_ = 0;
};

using DLL_Object_Entry_T_Test = DLL_Test;
using DLL_Object_Entry_Ptr_Test = DLL_Test;
using DLL_Object_Manager_T_Test = DLL_Test;

TEST(DLL_Object_Entry_T, is_empty_at_first)
{
    const Entry entry;
    EXPECT_EQ(entry.dll_, "");
    EXPECT_EQ(entry.obj_, nullptr);
    EXPECT_EQ(entry.gobbler_, nullptr);
}

TEST(DLL_Object_Entry_T, disposes_of_its_factory_through_the_disposer)
{
    Log log;
    {
        const Entry entry("", new Factory(&log), &gobble);
    }
    EXPECT_EQ(log, (Log{"gobble", "delete"}));
}

TEST(DLL_Object_Entry_T, deletes_its_factory_when_there_is_no_disposer)
{
    Log log;
    {
        const Entry entry("", new Factory(&log), nullptr);
    }
    EXPECT_EQ(log, (Log{"delete"}));
}

TEST(DLL_Object_Entry_T, destroy_leaves_it_empty_and_may_be_repeated)
{
    Log log;
    Entry entry("", new Factory(&log), &gobble);
    entry.destroy();
    entry.destroy();
    EXPECT_EQ(entry.obj_, nullptr);
    EXPECT_EQ(entry.gobbler_, nullptr);
    EXPECT_EQ(log, (Log{"gobble", "delete"}));
}

TEST(DLL_Object_Entry_T, assignment_disposes_of_its_own_and_takes_over_the_others)
{
    Log first;
    Log second;
    auto* const factory = new Factory(&second);
    Entry entry("", new Factory(&first), &gobble);
    Entry other("", factory, nullptr);
    entry = std::move(other);
    EXPECT_EQ(first, (Log{"gobble", "delete"}));
    EXPECT_EQ(second, Log{});
    EXPECT_EQ(entry.obj_, factory);
    EXPECT_EQ(entry.gobbler_, nullptr);
    EXPECT_EQ(other.obj_, nullptr); // NOLINT(bugprone-use-after-move): a moved entry is empty
    EXPECT_EQ(other.gobbler_, nullptr);
}

TEST(DLL_Object_Entry_T, assignment_to_itself_changes_nothing)
{
    Log log;
    Entry entry("", new Factory(&log), &gobble);
    Entry& same = entry;
    entry = std::move(same);
    EXPECT_EQ(log, Log{});
    EXPECT_NE(entry.obj_, nullptr);
}

TEST_F(DLL_Object_Entry_T_Test, closes_its_library_by_name)
{
    ACE_DLL dll(false);
    ASSERT_EQ(dll.open(plugin_.c_str(), RTLD_NOW, false), 0);
    EXPECT_TRUE(is_loaded(plugin_));
    Entry entry(std::string(plugin_), nullptr, nullptr);
    entry.destroy();
    EXPECT_EQ(entry.dll_, "");
    EXPECT_FALSE(is_loaded(plugin_));
}

TEST_F(DLL_Object_Entry_T_Test, assignment_moves_the_library)
{
    ACE_DLL dll(false);
    ASSERT_EQ(dll.open(plugin_.c_str(), RTLD_NOW, false), 0);
    Entry entry;
    {
        Entry other(std::string(plugin_), nullptr, nullptr);
        entry = std::move(other);
        EXPECT_EQ(other.dll_, ""); // NOLINT(bugprone-use-after-move)
    }
    EXPECT_EQ(entry.dll_, plugin_);
    EXPECT_TRUE(is_loaded(plugin_));
}

TEST_F(DLL_Object_Entry_Ptr_Test, closes_the_library_that_it_opened)
{
    {
        Entry_Ptr entry;
        EXPECT_FALSE(entry.detach_);
        ASSERT_EQ(entry.open(plugin_.c_str(), RTLD_NOW), 0);
        EXPECT_TRUE(is_loaded(plugin_));
        EXPECT_NE(entry.dll_.symbol("_make_Conf_Test"), nullptr);
    }
    EXPECT_FALSE(is_loaded(plugin_));
}

TEST_F(DLL_Object_Entry_Ptr_Test, leaves_the_library_open_once_detached)
{
    {
        Entry_Ptr entry;
        ASSERT_EQ(entry.open(plugin_.c_str(), RTLD_NOW), 0);
        entry.detach_ = true;
    }
    EXPECT_TRUE(is_loaded(plugin_));
    EXPECT_EQ(ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->close_dll(plugin_.c_str()), 0);
}

TEST_F(DLL_Object_Entry_Ptr_Test, does_not_close_a_library_of_others)
{
    ACE_DLL others(false);
    ASSERT_EQ(others.open(plugin_.c_str(), RTLD_NOW, false), 0);
    {
        Entry_Ptr entry;
        ASSERT_EQ(entry.open(plugin_.c_str(), RTLD_NOW), 0);
    }
    EXPECT_TRUE(is_loaded(plugin_));
    ACE_DLL_Manager::instance(DLL_MANAGER_SIZE)->close_dll(plugin_.c_str());
}

TEST_F(DLL_Object_Entry_Ptr_Test, a_failed_open_closes_nothing)
{
    {
        Entry_Ptr entry;
        EXPECT_EQ(entry.open("/nonexistent/libnone.so", RTLD_NOW), -1);
        ASSERT_NE(entry.dll_.error(), nullptr);
    }
    EXPECT_FALSE(is_loaded("/nonexistent/libnone.so"));
}

TEST(DLL_Object_Entry_Ptr, disposes_of_the_factory_through_its_disposer)
{
    Log log;
    {
        Entry_Ptr entry;
        entry.obj_ = new Factory(&log);
        entry.gobbler_ = &gobble;
    }
    EXPECT_EQ(log, (Log{"gobble", "delete"}));
}

TEST(DLL_Object_Entry_Ptr, leaves_a_factory_without_disposer_alone)
{
    Log log;
    const auto factory = std::make_unique<Factory>(&log);
    {
        Entry_Ptr entry;
        entry.obj_ = factory.get();
    }
    EXPECT_EQ(log, Log{});
}

TEST(DLL_Object_Entry_Ptr, leaves_everything_alone_once_detached)
{
    Log log;
    const auto factory = std::make_unique<Factory>(&log);
    {
        Entry_Ptr entry;
        entry.obj_ = factory.get();
        entry.gobbler_ = &gobble;
        entry.detach_ = true;
    }
    EXPECT_EQ(log, Log{});
}

TEST(DLL_Object_Manager_T, an_empty_registry_finds_nothing)
{
    const Registry registry;
    EXPECT_EQ(find(registry, "/a"), (Found{nullptr, ALL_ONES}));
    EXPECT_EQ(find(registry, ""), (Found{nullptr, ALL_ONES}));
}

TEST(DLL_Object_Manager_T, finds_the_longest_uri_that_ends_at_a_separator)
{
    Registry registry;
    Factory* const root = registry.add("/");
    Factory* const api = registry.add("/api");
    Factory* const users = registry.add("/api/users");
    Factory* const files = registry.add("/files/");
    const struct {
        const char* uri;
        Factory* factory;
        size_t off;
    } rows[] = {
        {"/", root, 1},
        {"/api", api, 4},
        {"/api/", api, 4},
        {"/api/x", api, 4},
        {"/apix", root, 1},
        {"/ap", root, 1},
        {"/api-x", root, 1},
        {"/api/users", users, 10},
        {"/api/users/7", users, 10},
        {"/api/usersx", api, 4},
        {"/api/user", api, 4},
        {"/files", root, 1},
        {"/files/", files, 7},
        {"/files/a", files, 7},
        {"/files/a/b", files, 7},
        {"/zzz", root, 1},
        {"//", root, 1},
        {"", nullptr, ALL_ONES},
        {"*", nullptr, ALL_ONES},
        {"api", nullptr, ALL_ONES},
        {"zzz", nullptr, ALL_ONES},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uri);
        EXPECT_EQ(find(registry, row.uri), (Found{row.factory, row.off}));
    }
}

TEST(DLL_Object_Manager_T, a_key_without_final_separator_serves_itself_and_what_is_below)
{
    Registry registry;
    Factory* const a = registry.add("/a");
    EXPECT_EQ(find(registry, "/a"), (Found{a, 2}));
    EXPECT_EQ(find(registry, "/a/"), (Found{a, 2}));
    EXPECT_EQ(find(registry, "/a/b"), (Found{a, 2}));
    EXPECT_EQ(find(registry, "/ab").factory, nullptr);
    EXPECT_EQ(find(registry, "/").factory, nullptr);
}

TEST(DLL_Object_Manager_T, a_key_with_final_separator_serves_only_what_is_below)
{
    Registry registry;
    Factory* const a = registry.add("/a/");
    EXPECT_EQ(find(registry, "/a/"), (Found{a, 3}));
    EXPECT_EQ(find(registry, "/a/b"), (Found{a, 3}));
    EXPECT_EQ(find(registry, "/a").factory, nullptr);
}

TEST(DLL_Object_Manager_T, the_separator_is_the_callers)
{
    Registry registry;
    Factory* const a = registry.add("a");
    EXPECT_EQ(find(registry, "a.b", '.'), (Found{a, 1}));
    EXPECT_EQ(find(registry, "a.b", '/'), (Found{nullptr, ALL_ONES}));
}

TEST(DLL_Object_Manager_T, an_empty_key_serves_what_begins_with_the_separator)
{
    Registry registry;
    Factory* const empty = registry.add("");
    EXPECT_EQ(find(registry, ""), (Found{empty, 0}));
    EXPECT_EQ(find(registry, "/a"), (Found{empty, 0}));
    EXPECT_EQ(find(registry, "a").factory, nullptr);
}

TEST(DLL_Object_Manager_T, uris_are_compared_byte_by_byte)
{
    Registry registry;
    Factory* const lower = registry.add("/a");
    Factory* const high = registry.add("/\xff");
    EXPECT_EQ(find(registry, "/A").factory, nullptr);
    EXPECT_EQ(find(registry, "/a/\xff"), (Found{lower, 2}));
    EXPECT_EQ(find(registry, "/\xff/a"), (Found{high, 2}));
}

TEST(DLL_Object_Manager_T, takes_strings_of_every_kind)
{
    Registry registry;
    Factory* const a = registry.add("/a");
    const std::string text = "/a/b";
    EXPECT_EQ(registry.find(text, '/'), a);
    EXPECT_EQ(registry.find(text.c_str(), '/'), a);
    EXPECT_EQ(registry.find(std::string_view(text).substr(0, 2), '/'), a);
}

TEST(DLL_Object_Manager_T, finds_what_a_walk_through_all_keys_finds)
{
    std::mt19937 random(20240611);
    const auto text = [&random](size_t longest) {
        // Bytes on both sides of the separator, few enough that keys often share a beginning.
        static constexpr char BYTES[] = {'/', '/', 'a', 'b', '-', '\xff', '\x01'};
        std::string result(random() % (longest + 1), '\0');
        for (char& byte : result) {
            byte = BYTES[random() % sizeof(BYTES)];
        }
        return result;
    };
    for (int round = 0; round < 300; ++round) {
        Registry registry;
        std::map<std::string, Factory*> keys;
        const size_t count = random() % 60;
        for (size_t i = 0; i < count; ++i) {
            const std::string key = text(7);
            if (keys.find(key) == keys.end()) {
                keys[key] = registry.add(key);
            }
        }
        for (int lookup = 0; lookup < 300; ++lookup) {
            const std::string uri = text(11);
            ASSERT_EQ(find(registry, uri), find_naively(keys, uri, '/')) << "uri " << uri;
        }
    }
}

TEST(DLL_Object_Manager_T, many_keys_with_one_beginning_do_not_slow_a_search_down)
{
    Registry registry;
    Factory* const root = registry.add("/");
    constexpr int KEYS = 20000;
    for (int i = 0; i < KEYS; ++i) {
        registry.add("/api/item" + std::to_string(i));
    }
    // With one key at a time these are two billion steps.
    for (int lookup = 0; lookup < 100000; ++lookup) {
        ASSERT_EQ(registry.find("/api/itemz/x", '/'), root);
    }
}

TEST(DLL_Object_Manager_T, the_first_of_two_equal_uris_stays)
{
    Log log;
    Registry registry;
    Factory* const first = registry.add("/a");
    const auto second = std::make_unique<Factory>(&log);
    errno = 0;
    EXPECT_EQ(registry.insert("/a", "", second.get(), &gobble), -1);
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(find(registry, "/a").factory, first);
    EXPECT_EQ(registry.size(), 1U);
    EXPECT_EQ(log, Log{}) << "the refused factory is still the caller's";
}

TEST(DLL_Object_Manager_T, its_end_disposes_of_every_factory)
{
    Log log;
    {
        Registry registry;
        registry.insert("/a", "", new Factory(&log), &gobble);
        registry.insert("/b", "", new Factory(&log), nullptr);
    }
    EXPECT_EQ(std::count(log.begin(), log.end(), "gobble"), 1);
    EXPECT_EQ(std::count(log.begin(), log.end(), "delete"), 2);
}

TEST_F(DLL_Object_Manager_T_Test, its_end_closes_the_libraries)
{
    {
        Registry registry;
        Entry_Ptr entry;
        ASSERT_EQ(entry.open(plugin_.c_str(), RTLD_NOW), 0);
        ASSERT_EQ(registry.insert("/a", plugin_, new Factory, nullptr), 0);
        entry.detach_ = true;
    }
    EXPECT_FALSE(is_loaded(plugin_));
}

TEST(DLL_Object_Manager_T, insert_writes_and_find_reads_under_the_lock)
{
    Registry_T<Watched_Mutex> registry;
    registry.add("/a");
    EXPECT_EQ(registry.lock().writes_, 1);
    EXPECT_EQ(registry.lock().reads_, 0);
    EXPECT_NE(registry.find("/a", '/'), nullptr);
    EXPECT_EQ(registry.find("/b", '/'), nullptr);
    EXPECT_EQ(registry.lock().writes_, 1);
    EXPECT_EQ(registry.lock().reads_, 2);
    EXPECT_EQ(registry.lock().held_, 0);
}

TEST(DLL_Object_Manager_T, without_the_lock_nothing_is_inserted_or_found)
{
    Registry_T<Watched_Mutex> registry;
    Factory* const a = registry.add("/a");
    registry.lock().fails_ = true;
    const auto other = std::make_unique<Factory>();
    EXPECT_EQ(registry.insert("/b", "", other.get(), nullptr), -1);
    EXPECT_EQ(registry.find("/a", '/'), nullptr);
    EXPECT_EQ(registry.describe(a), "");
    registry.lock().fails_ = false;
    EXPECT_EQ(registry.size(), 1U);
    EXPECT_EQ(registry.lock().held_, 0);
}

TEST(DLL_Object_Manager_T, describes_the_entry_of_a_factory)
{
    Registry registry;
    const std::string dll = "no_library_of_this_name";
    auto* const factory = new Factory;
    ASSERT_EQ(registry.insert("/a", dll, factory, nullptr), 0);
    Factory* const other = registry.add("/b");
    EXPECT_EQ(registry.describe(factory), "uri '/a' of dll 'no_library_of_this_name'");
    EXPECT_EQ(registry.describe(other), "uri '/b' of dll ''");
}

TEST(DLL_Object_Manager_T, describes_nothing_where_a_factory_is_not_its_own)
{
    Registry registry;
    registry.add("/a");
    const Factory stranger;
    EXPECT_EQ(registry.describe(&stranger), "");
    EXPECT_EQ(registry.describe(nullptr), "");
}

template <typename Map>
class Creator_Map_Test : public testing::Test {
protected:
    void SetUp() override { Map::close_instance(); }
    void TearDown() override { Map::close_instance(); }
};

using Creator_Maps = testing::Types<HTTP_Handler_Creator_Map, HTTP_Authenticator_Creator_Map,
                                    WebSocket_Handler_Creator_Map>;
TYPED_TEST_SUITE(Creator_Map_Test, Creator_Maps);

/// A factory of each kind that tells when it is deleted.
template <typename T>
class Short_Lived_Creator : public Object_Creator_T<T> {
public:
    explicit Short_Lived_Creator(bool& deleted) : deleted_(deleted) {}
    ~Short_Lived_Creator() override { deleted_ = true; }
    T* create() override { return nullptr; }
    void destroy(T*) override {}

private:
    bool& deleted_;
};

template <typename Map>
struct Kind_Of;
template <>
struct Kind_Of<HTTP_Handler_Creator_Map> {
    using type = HTTP_Handler;
};
template <>
struct Kind_Of<HTTP_Authenticator_Creator_Map> {
    using type = HTTP_Authenticator;
};
template <>
struct Kind_Of<WebSocket_Handler_Creator_Map> {
    using type = WebSocket_Handler;
};

TYPED_TEST(Creator_Map_Test, is_one_object_until_it_is_closed)
{
    EXPECT_NE(TypeParam::instance(), nullptr);
    EXPECT_EQ(TypeParam::instance(), TypeParam::instance());
}

TYPED_TEST(Creator_Map_Test, closing_disposes_of_the_factories_and_a_later_one_is_empty)
{
    bool deleted = false;
    auto* const creator = new Short_Lived_Creator<typename Kind_Of<TypeParam>::type>(deleted);
    ASSERT_EQ(TypeParam::instance()->insert("/a", "", creator, nullptr), 0);
    EXPECT_EQ(TypeParam::instance()->find("/a/b", '/'), creator);
    TypeParam::close_instance();
    EXPECT_TRUE(deleted);
    EXPECT_EQ(TypeParam::instance()->find("/a/b", '/'), nullptr);
}

TYPED_TEST(Creator_Map_Test, closing_twice_is_harmless)
{
    TypeParam::instance();
    TypeParam::close_instance();
    TypeParam::close_instance();
    EXPECT_NE(TypeParam::instance(), nullptr);
}

} // namespace
