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

/* AddressSanitizer reads its options here: an impossible size makes malloc return null instead of ending the run. */
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

    int set(const char *name, const char *value) { return conf_store_set(name, value, store_.get()); }
    const char *find(const std::string &name) const { return conf_store_find(name.c_str(), store_.get()); }
    void sort() { conf_store_sort(store_.get()); }

    /* Stores `count` pairs, "N007" with "value 7", the highest name first. */
    void fill(int count)
    {
        for (int i = count - 1; i >= 0; --i)
            ASSERT_EQ(set(name(i).c_str(), ("value " + std::to_string(i)).c_str()), 0);
    }
    void expect_filled(int count) const
    {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(find(name(i)), "value " + std::to_string(i));
    }
    static std::string name(int i)
    {
        const std::string digits = std::to_string(i);
        return "N" + std::string(3 - digits.size(), '0') + digits;
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

TEST_F(ConfStoreTest, GrowthDoublesAFullStoreOnlyAndKeepsThePairs)
{
    for (const int count : {19, 20, 21}) {
        fill(count);
        EXPECT_EQ(conf_store_grow(store_.get()), 0);
        EXPECT_EQ(store_->capacity, count == 19 ? 20U : 40U);
        EXPECT_EQ(store_->count, static_cast<uint64_t>(count));
        expect_filled(count);
    }
}

/* The capacity: cannot be doubled, is too large for any block, is refused by realloc. */
class OverfullConfStoreTest : public ConfStoreTest, public testing::WithParamInterface<uint64_t> {};

TEST_P(OverfullConfStoreTest, FailureToGrowIsLoggedAndLeavesTheStore)
{
    ASSERT_EQ(conf_store_grow(store_.get()), 0);
    ConfPair *const entries = store_->entries;
    store_->capacity = store_->count = GetParam();
    for (const bool with_pair : {false, true}) {
        syslog_capture.records.clear();
        errno = 0;
        EXPECT_EQ(with_pair ? set("NAME", "value") : conf_store_grow(store_.get()), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration: Cannot allocate memory"}}));
        EXPECT_EQ(store_->entries, entries);
        EXPECT_EQ(store_->capacity, GetParam());
        EXPECT_EQ(store_->count, GetParam());
    }
    store_->count = 0;
}

INSTANTIATE_TEST_SUITE_P(Capacities, OverfullConfStoreTest,
                         testing::Values((UINT64_C(1) << 63) + 10, UINT64_C(1) << 62, UINT64_C(1) << 57));

TEST_F(ConfStoreTest, StoresCopies)
{
    std::string name = "NAME";
    std::string value = "value";
    EXPECT_EQ(set(name.c_str(), value.c_str()), 0);
    name = "XXXX";
    value = "xxxxx";
    EXPECT_STREQ(find("NAME"), "value");
}

TEST_F(ConfStoreTest, PairThatCannotBeCopiedIsNotStored)
{
    EXPECT_EQ(set("NAME", "former"), 0);
    for (const int copies : {0, 1}) { /* of the name, and of the value */
        syslog_capture.records.clear();
        copies_left = copies;
        EXPECT_EQ(set("NAME", "value"), -1);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to form configuration: Cannot allocate memory"}}));
    }
    copies_left = AS_MANY_AS_ASKED_FOR;
    EXPECT_STREQ(find("NAME"), "former");
}

TEST_F(ConfStoreTest, NewPairIsAppendedAndAKnownNameGetsTheNewValue)
{
    set("B", "2");
    set("A", "1");
    EXPECT_EQ(store_->count, 2U);
    EXPECT_EQ(store_->sorted, 0);
    EXPECT_STREQ(store_->entries[0].name, "B");
    EXPECT_STREQ(store_->entries[1].name, "A");
    sort();
    EXPECT_EQ(set("A", "one"), 0);
    EXPECT_EQ(store_->count, 2U);
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_STREQ(find("A"), "one");
    EXPECT_STREQ(find("B"), "2");
}

TEST_F(ConfStoreTest, NamesDifferByCase)
{
    set("NAME", "upper");
    set("name", "lower");
    EXPECT_STREQ(find("NAME"), "upper");
    EXPECT_STREQ(find("name"), "lower");
}

TEST_F(ConfStoreTest, EveryPairIsFoundUnsortedAndSorted)
{
    fill(50);
    for (const int32_t sorted : {0, 1}) {
        if (sorted != 0)
            sort();
        ASSERT_EQ(store_->sorted, sorted);
        expect_filled(50);
        EXPECT_EQ(find("N0"), nullptr);
        EXPECT_EQ(find("N0000"), nullptr);
    }
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(store_->entries[i].name, name(i));
}

TEST_F(ConfStoreTest, StoreMarkedAsSortedIsNotSortedAgainAndSearchedByHalving)
{
    for (const char *name : {"C", "B", "A"})
        set(name, "value");
    store_->sorted = 1;
    sort();
    EXPECT_STREQ(store_->entries[0].name, "C");
    EXPECT_EQ(find("A"), nullptr); /* only a search that relies on the order misses it */
}

TEST_F(ConfStoreTest, EmptyStoreCanBeSearchedSortedAndFreed)
{
    EXPECT_EQ(find("NAME"), nullptr);
    sort();
    EXPECT_EQ(store_->sorted, 1);
    EXPECT_EQ(find("NAME"), nullptr);
    conf_store_free(nullptr);
}

} // namespace
