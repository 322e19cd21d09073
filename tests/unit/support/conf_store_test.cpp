#include "support/conf_store.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "tests/unit/support/little_memory.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

/* What AddressSanitizer, where there is one, asks at the start: an impossible size is to be answered as malloc answers.
 */
const char *sanitizer_options() __asm__("__asan_default_options");
const char *sanitizer_options()
{
    return "allocator_may_return_null=1";
}

namespace {

using Records = std::vector<SyslogRecord>;

class ConfStoreTest : public testing::Test {
protected:
    void SetUp() override { capture_syslog(); }

    /* Stores `count` pairs: "N007" with "value 7", the highest name first. */
    void fill(int count)
    {
        for (int i = count - 1; i >= 0; --i)
            ASSERT_EQ(conf_store_set(name(i).c_str(), ("value " + std::to_string(i)).c_str(), store_.get()), 0);
    }
    static std::string name(int i)
    {
        char text[16] = "";
        std::snprintf(text, sizeof text, "N%03d", i);
        return text;
    }

    ConfStorePtr store_ = ConfStorePtr(static_cast<ConfStore *>(calloc(1, sizeof(ConfStore))));
};

TEST_F(ConfStoreTest, FirstGrowthMakesRoomForTwentyZeroedPairs)
{
    EXPECT_EQ(conf_store_grow(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 20U);
    EXPECT_EQ(store_->count, 0U);
    EXPECT_EQ(store_->sorted, 1);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(store_->entries[i].name, nullptr);
        EXPECT_EQ(store_->entries[i].value, nullptr);
    }
}

TEST_F(ConfStoreTest, GrowthDoublesAFullStoreOnly)
{
    fill(19);
    EXPECT_EQ(conf_store_grow(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 20U);
    fill(20);
    EXPECT_EQ(conf_store_grow(store_.get()), 0);
    EXPECT_EQ(store_->capacity, 40U);
    EXPECT_EQ(store_->count, 20U);
}

TEST_F(ConfStoreTest, GrowthKeepsThePairs)
{
    fill(81);
    EXPECT_EQ(store_->capacity, 160U);
    for (int i = 0; i < 81; ++i)
        EXPECT_EQ(conf_store_find(name(i).c_str(), store_.get()), "value " + std::to_string(i));
}

/* A store that says it is full with more pairs than there can be. */
class OverfullConfStoreTest : public ConfStoreTest {
protected:
    void expect_growth_to_fail(uint64_t capacity)
    {
        ASSERT_EQ(conf_store_grow(store_.get()), 0);
        ConfPair *const entries = store_->entries;
        store_->capacity = capacity;
        store_->count = capacity;
        errno = 0;
        EXPECT_EQ(conf_store_grow(store_.get()), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration: Cannot allocate memory"}}));
        EXPECT_EQ(store_->entries, entries);
        EXPECT_EQ(store_->capacity, capacity);
        store_->count = 0;
    }
};

TEST_F(OverfullConfStoreTest, CapacityThatCanNotBeDoubledIsOutOfMemory)
{
    expect_growth_to_fail((UINT64_C(1) << 63) + 10);
}

TEST_F(OverfullConfStoreTest, CapacityThatNoBlockCanHaveIsOutOfMemory)
{
    expect_growth_to_fail(UINT64_C(1) << 62);
}

TEST_F(OverfullConfStoreTest, BlockThatReallocRefusesIsOutOfMemory)
{
    expect_growth_to_fail(UINT64_C(1) << 57);
}

TEST_F(OverfullConfStoreTest, NothingIsStoredWhenGrowthFails)
{
    ASSERT_EQ(conf_store_grow(store_.get()), 0);
    store_->capacity = store_->count = UINT64_C(1) << 62;
    EXPECT_EQ(conf_store_set("NAME", "value", store_.get()), -1);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(store_->count, UINT64_C(1) << 62);
    store_->count = 0;
}

TEST_F(ConfStoreTest, PairsAreCopied)
{
    std::string name = "NAME";
    std::string value = "value";
    EXPECT_EQ(conf_store_set(name.c_str(), value.c_str(), store_.get()), 0);
    name = "XXXX";
    value = "xxxxx";
    EXPECT_STREQ(conf_store_find("NAME", store_.get()), "value");
}

TEST_F(ConfStoreTest, PairThatCanNotBeCopiedIsNotStored)
{
    conf_store_set("NAME", "former", store_.get());
    for (const int copies : {0, 1}) { /* not even the name, and not the value */
        syslog_capture.records.clear();
        copies_left = copies;
        EXPECT_EQ(conf_store_set("NAME", "value", store_.get()), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to form configuration: Cannot allocate memory"}}));
    }
    copies_left = AS_MANY_AS_ASKED_FOR;
    EXPECT_STREQ(conf_store_find("NAME", store_.get()), "former");
}

TEST_F(ConfStoreTest, NewPairIsAppendedAndTheStoreIsNotSortedAnyMore)
{
    conf_store_set("B", "2", store_.get());
    conf_store_set("A", "1", store_.get());
    EXPECT_EQ(store_->count, 2U);
    EXPECT_EQ(store_->sorted, 0);
    EXPECT_STREQ(store_->entries[0].name, "B");
    EXPECT_STREQ(store_->entries[1].name, "A");
}

TEST_F(ConfStoreTest, KnownNameGetsTheNewValueAndTheStoreStaysSorted)
{
    conf_store_set("B", "2", store_.get());
    conf_store_set("A", "1", store_.get());
    conf_store_sort(store_.get());
    EXPECT_EQ(conf_store_set("A", "one", store_.get()), 0);
    EXPECT_EQ(store_->count, 2U);
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_STREQ(conf_store_find("A", store_.get()), "one");
    EXPECT_STREQ(conf_store_find("B", store_.get()), "2");
}

TEST_F(ConfStoreTest, NamesDifferByCase)
{
    conf_store_set("NAME", "upper", store_.get());
    conf_store_set("name", "lower", store_.get());
    EXPECT_STREQ(conf_store_find("NAME", store_.get()), "upper");
    EXPECT_STREQ(conf_store_find("name", store_.get()), "lower");
}

TEST_F(ConfStoreTest, SortingOrdersTheNames)
{
    fill(50);
    conf_store_sort(store_.get());
    EXPECT_EQ(store_->sorted, 1);
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(store_->entries[i].name, name(i));
}

TEST_F(ConfStoreTest, SortedStoreIsNotSortedAgain)
{
    conf_store_set("B", "2", store_.get());
    conf_store_set("A", "1", store_.get());
    store_->sorted = 1;
    conf_store_sort(store_.get());
    EXPECT_STREQ(store_->entries[0].name, "B");
    store_->sorted = 0;
}

TEST_F(ConfStoreTest, EveryPairIsFoundSortedAndUnsorted)
{
    fill(50);
    for (const int32_t sorted : {0, 1}) {
        if (sorted != 0)
            conf_store_sort(store_.get());
        ASSERT_EQ(store_->sorted, sorted);
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(conf_store_find(name(i).c_str(), store_.get()), "value " + std::to_string(i));
        EXPECT_EQ(conf_store_find("N0", store_.get()), nullptr);
        EXPECT_EQ(conf_store_find("N0000", store_.get()), nullptr);
    }
}

TEST_F(ConfStoreTest, SortedStoreIsSearchedByHalving)
{
    conf_store_set("C", "3", store_.get());
    conf_store_set("B", "2", store_.get());
    conf_store_set("A", "1", store_.get());
    store_->sorted = 1; /* a lie, which only a search that relies on the order falls for */
    EXPECT_EQ(conf_store_find("A", store_.get()), nullptr);
}

TEST_F(ConfStoreTest, EmptyStoreHasNothingAndCanBeSorted)
{
    EXPECT_EQ(conf_store_find("NAME", store_.get()), nullptr);
    conf_store_sort(store_.get());
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_EQ(conf_store_find("NAME", store_.get()), nullptr);
}

TEST_F(ConfStoreTest, FreeingNothingIsHarmless)
{
    conf_store_free(nullptr);
}

} // namespace
