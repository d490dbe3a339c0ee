// Lookups over the SDR cache and the library's list.
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "tvx_toipmi.h"

namespace {

struct Rec {
    uint8_t type, sensorNumber, entity, instance, sensorType;
};

// A cache of hand-made slots: just the positions the lookups read, the rest a fill pattern.
class Cache {
public:
    Cache(uint32_t slotSize, std::vector<Rec> recs)
    {
        info_.recordSize = slotSize;
        info_.count = static_cast<uint32_t>(recs.size());
        info_.records = static_cast<uint8_t *>(std::malloc(slotSize * recs.size()));
        std::memset(info_.records, 0xA5, slotSize * recs.size());
        for (size_t i = 0; i < recs.size(); ++i) {
            uint8_t *s = info_.records + i * slotSize;
            s[0] = static_cast<uint8_t>(i + 1);
            s[1] = 0;
            if (slotSize > 3) s[3] = recs[i].type;
            if (slotSize > 7) s[7] = recs[i].sensorNumber;
            if (slotSize > 8) s[8] = recs[i].entity;
            if (slotSize > 9) s[9] = recs[i].instance;
            if (slotSize > 12) s[12] = recs[i].sensorType;
        }
    }
    ~Cache() { freeSDRInfo(&info_); }
    SDRInfo *get() { return &info_; }
    uint8_t *slot(size_t i) { return info_.records + i * info_.recordSize; }

private:
    SDRInfo info_{};
};

size_t length(const ListNode *l)
{
    size_t n = 0;
    for (; l; l = l->next) ++n;
    return n;
}

TEST(SdrCache, CompactLookupSkipsFullAndOtherRecordsAndTakesTheFirstMatch)
{
    // A full record for the same entity and type comes first; an MC locator (0x12) with
    // the same bytes; then two compact matches.
    Cache c(64, {{0x01, 10, 0x1D, 1, 0x04}, {0x12, 10, 0x1D, 1, 0x04}, {0x02, 11, 0x1D, 1, 0x04},
                 {0x02, 12, 0x1D, 1, 0x04}, {0x02, 13, 0x1D, 2, 0x04}});
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x04, c.get()), c.slot(2));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 2, 0x04, c.get()), c.slot(4));
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 3, 0x04, c.get()), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0x1D, 1, 0x01, c.get()), nullptr);
}

TEST(SdrCache, IndexLookupAndEmptyCaches)
{
    Cache c(32, {{0x01, 1, 3, 1, 1}, {0x02, 2, 3, 1, 1}});
    EXPECT_EQ(getSdrByIndex(0, c.get()), c.slot(0));
    EXPECT_EQ(getSdrByIndex(1, c.get()), c.slot(1));
    EXPECT_EQ(getSdrByIndex(2, c.get()), nullptr) << "never a pointer past the cache";

    SDRInfo empty{};
    for (uint32_t i : {0u, 1u, 100u}) EXPECT_EQ(getSdrByIndex(i, &empty), nullptr);
    EXPECT_EQ(findCompactSdrByEntity(0, 0, 0, &empty), nullptr);
    ListNode *list = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&list, 1, 1, &empty), 0u);
    EXPECT_EQ(list, nullptr);

    SDRInfo zeroSlot{0, c.get()->records, 2};
    EXPECT_EQ(getSdrByIndex(0, &zeroSlot), nullptr);
}

TEST(SdrCache, FreeIsIdempotent)
{
    Cache c(16, {{0x01, 1, 3, 1, 1}});
    freeSDRInfo(c.get());
    EXPECT_EQ(c.get()->records, nullptr);
    EXPECT_EQ(c.get()->count, 0u);
    EXPECT_EQ(c.get()->recordSize, 0u);
    freeSDRInfo(c.get());
    freeSDRInfo(nullptr);
}

TEST(SdrCache, FindByTypeCopiesFullAndCompactRecordsInOrder)
{
    Cache c(64, {{0x01, 1, 3, 1, 0x01}, {0x02, 2, 3, 1, 0x01}, {0x01, 3, 3, 2, 0x01}, {0x01, 4, 3, 2, 0x02},
                 {0x03, 5, 3, 1, 0x01}});
    ListNode *full = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x01, 0x01, c.get()), 2u);
    ASSERT_EQ(length(full), 2u);
    EXPECT_EQ(0, std::memcmp(full->data, c.slot(0), 64));
    EXPECT_EQ(0, std::memcmp(full->next->data, c.slot(2), 64));
    EXPECT_EQ(full->data[64], 0) << "each copy is followed by a zero byte";

    // The list is appended to, not replaced.
    EXPECT_EQ(ipmiFindSensorByType(&full, 0x02, 0x01, c.get()), 1u);
    ASSERT_EQ(length(full), 3u);
    EXPECT_EQ(0, std::memcmp(full->next->next->data, c.slot(1), 48));
    EXPECT_EQ(full->next->next->data[48], 0) << "compact copies are 48 bytes";

    for (uint8_t other : {0x00, 0x03, 0x11, 0x12}) {
        ListNode *none = nullptr;
        EXPECT_EQ(ipmiFindSensorByType(&none, other, 0x01, c.get()), 0u) << int(other);
        EXPECT_EQ(none, nullptr);
    }
    freeList(&full);
    EXPECT_EQ(full, nullptr);
}

TEST(SdrCache, FindByTypeNeverCopiesPastTheEndOfASmallCache)
{
    // 20-byte slots: a full record copy (64 bytes) of the last slot may take only what the
    // cache still holds; the sanitizer run catches any read beyond it.
    Cache c(20, {{0x01, 1, 3, 1, 0x01}, {0x01, 2, 3, 1, 0x01}});
    ListNode *list = nullptr;
    EXPECT_EQ(ipmiFindSensorByType(&list, 0x01, 0x01, c.get()), 2u);
    ASSERT_EQ(length(list), 2u);
    EXPECT_EQ(0, std::memcmp(list->next->data, c.slot(1), 20));
    EXPECT_EQ(list->next->data[20], 0);
    freeList(&list);
}

TEST(List, AppendsCopiesAtTheTailAndFreesEverything)
{
    ListNode *list = nullptr;
    EXPECT_EQ(addToList(&list, "x", 0), 0);
    EXPECT_EQ(addToList(&list, nullptr, 4), 0);
    EXPECT_EQ(list, nullptr);

    char text[] = "alpha";
    ASSERT_EQ(addToList(&list, text, 5), 1);
    text[0] = 'X'; // the list holds a copy
    ASSERT_EQ(addToList(&list, "beta", 4), 1);
    uint32_t word = 0x01020304;
    ASSERT_EQ(addToList(&list, &word, sizeof word), 1);
    ASSERT_EQ(length(list), 3u);
    EXPECT_STREQ(reinterpret_cast<char *>(list->data), "alpha");
    EXPECT_STREQ(reinterpret_cast<char *>(list->next->data), "beta");
    EXPECT_EQ(0, std::memcmp(list->next->next->data, &word, 4));
    EXPECT_EQ(list->next->next->next, nullptr);
    freeList(&list);
    EXPECT_EQ(list, nullptr);
    freeList(&list);
}

} // namespace
