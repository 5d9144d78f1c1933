#include "support/thread_free_list_t.h"

#include <gtest/gtest.h>

#include <pthread.h>

#include <array>
#include <thread>
#include <vector>

namespace {

struct Item {
    Item* next = nullptr;
    size_t size = 1;
};

/// Each test has a list of its own, by its number.
template <int test>
struct Item_Traits {
    using Piece = Item;
    static constexpr size_t MOST = 3;
    static constexpr size_t MOST_BYTES = 100;
    static inline std::vector<Item*> freed;

    static Item* next(const Item& item) { return item.next; }
    static void set_next(Item& item, Item* next) { item.next = next; }
    static size_t size(const Item& item) { return item.size; }
    static void free(Item* item) { freed.push_back(item); }
};

template <int test>
using List = Thread_Free_List_T<Item_Traits<test>>;

} // namespace

TEST(Thread_Free_List_T, is_empty_at_first)
{
    EXPECT_EQ(List<1>::take(), nullptr);
}

TEST(Thread_Free_List_T, gives_the_piece_that_came_last)
{
    Item a;
    Item b;
    List<2>::give(&a);
    List<2>::give(&b);
    EXPECT_EQ(List<2>::take(), &b);
    EXPECT_EQ(b.next, nullptr);
    EXPECT_EQ(List<2>::take(), &a);
    EXPECT_EQ(List<2>::take(), nullptr);
    EXPECT_TRUE(Item_Traits<2>::freed.empty());
}

TEST(Thread_Free_List_T, frees_pieces_beyond_its_number)
{
    std::array<Item, 5> items;
    for (Item& item : items) {
        List<3>::give(&item);
    }
    EXPECT_EQ(Item_Traits<3>::freed, (std::vector<Item*>{&items[3], &items[4]}));
    while (List<3>::take() != nullptr) {
    }
}

TEST(Thread_Free_List_T, frees_pieces_beyond_its_bytes_but_keeps_one_in_any_case)
{
    Item large{nullptr, 1000};
    Item small;
    List<4>::give(&large);
    List<4>::give(&small);
    EXPECT_EQ(Item_Traits<4>::freed, (std::vector<Item*>{&small}));
    EXPECT_EQ(List<4>::take(), &large);
}

TEST(Thread_Free_List_T, frees_what_a_thread_has_left_when_it_ends)
{
    Item a;
    Item b;
    std::thread([&] {
        List<5>::give(&a);
        List<5>::give(&b);
    }).join();
    EXPECT_EQ(Item_Traits<5>::freed, (std::vector<Item*>{&b, &a}));
    EXPECT_EQ(List<5>::take(), nullptr);
}

TEST(Thread_Free_List_T, frees_at_once_what_comes_when_the_thread_is_ending)
{
    static Item late;
    Item early;
    std::thread([&early] {
        List<6>::give(&early);
        // Made after the list's, so that it is called after the list's.
        pthread_key_t key;
        ASSERT_EQ(0, ::pthread_key_create(&key, [](void*) { List<6>::give(&late); }));
        ASSERT_EQ(0, ::pthread_setspecific(key, &late));
    }).join();
    EXPECT_EQ(Item_Traits<6>::freed, (std::vector<Item*>{&early, &late}));
}
