// The cache of looked-up positions: its slots, what enters, what is thrown out, and that no search is led
// astray.
#include "fields/fixture.h"

#include "fields/fbapim.h"
#include "support/fixtures.h"
#include "support/meeting.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"

#if defined(__SANITIZE_ADDRESS__)
#define KEEPS_FREED_BLOCKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KEEPS_FREED_BLOCKS 1
#endif
#endif

using namespace fld;

namespace {

constexpr int SLOTS = 1019;

int slot_of(const FBUF *fbuf, int32_t key)
{
    uint32_t address = (uint32_t)(uintptr_t)fbuf;
    return (int)((((address & 0xfff00) >> 10) + (uint32_t)key) % SLOTS);
}

struct hit {
    int slot, nth, offset;
    bool operator==(const hit &) const = default;
};
const hit MISS = {-1, -7, -7};

std::ostream &operator<<(std::ostream &stream, const hit &one)
{
    return stream << "slot " << one.slot << " nth " << one.nth << " offset " << one.offset;
}

hit search(FBUF *fbuf, int32_t key, int nth = INT_MAX)
{
    hit found = {0, -7, -7};
    found.slot = _srch_fcache(fbuf, key, nth, &found.nth, &found.offset);
    return found;
}

const int32_t A = key(INT, 1), B = key(INT, 2), TEXT = key(STRING, 3);
const int32_t COLLIDES = key(INT, 1 + SLOTS);  // with A, in any buffer

// Six ints under A and B in turn; the entry at index i begins at 8 * i.
list turns(int count = 6)
{
    list fields;
    for (int i = 0; i < count; i++)
        fields.push_back({i % 2 == 0 ? A : B, raw(i)});
    return fields;
}

typedef FieldTest FieldCache;

struct FieldCacheOverTheWire : SessionTest {};

}  // namespace

// ---- the table itself

TEST_F(FieldCache, IsMadeAtTheFirstUpdate)
{
    Buffer fbuf(turns());
    EXPECT_EQ(current_block()->fcache.load(), nullptr);
    EXPECT_EQ(_clear_fcache(fbuf), -1);
    EXPECT_EQ(search(fbuf, A), MISS);
    EXPECT_EQ(current_block()->fcache.load(), nullptr);
    EXPECT_EQ(_upd_fcache(fbuf, A, 2, 32), slot_of(fbuf, A));
    EXPECT_NE(current_block()->fcache.load(), nullptr);
    EXPECT_EQ(_clear_fcache(fbuf), 1);
    EXPECT_EQ(_clear_fcache(fbuf), 1);
}

TEST_F(FieldCache, SlotHoldsItsFieldsInOrder)
{
    Buffer fbuf;
    int slot = _upd_fcache(fbuf, A, 3, 48);
    const char *row = (const char *)current_block()->fcache.load() + 24 * slot;
    int32_t words[3];
    FBUF *owner;
    memcpy(words, row, sizeof words);
    memcpy(&owner, row + 16, sizeof owner);
    EXPECT_EQ(words[0], A);
    EXPECT_EQ(words[1], 3);
    EXPECT_EQ(words[2], 48);
    EXPECT_EQ(owner, fbuf.it);
}

TEST_F(FieldCache, SlotComesFromAddressAndKey)
{
    Buffer fbuf;
    for (int32_t k : {A, B, TEXT, key(CARRAY, 0xffffff), 0, 1, 1018, 1019, 1020, INT_MAX, -1, INT_MIN}) {
        EXPECT_EQ(_upd_fcache(fbuf, k, 0, 0), slot_of(fbuf, k)) << k;
        EXPECT_EQ(search(fbuf, k), (hit{slot_of(fbuf, k), 0, 0})) << k;
        _clear_fcache(fbuf);
    }
}

TEST_F(FieldCache, HitNeedsBufferKeyAndAnEarlierOccurrence)
{
    Buffer fbuf, other;
    int slot = _upd_fcache(fbuf, A, 2, 32);
    EXPECT_EQ(search(fbuf, A, 2), (hit{slot, 2, 32}));
    EXPECT_EQ(search(fbuf, A, 3), (hit{slot, 2, 32}));
    EXPECT_EQ(search(fbuf, A, INT_MAX), (hit{slot, 2, 32}));
    EXPECT_EQ(search(fbuf, A, 1), MISS);
    EXPECT_EQ(search(fbuf, A, 0), MISS);
    EXPECT_EQ(search(fbuf, A, -1), MISS);
    EXPECT_EQ(search(fbuf, COLLIDES), MISS);
    EXPECT_EQ(search(fbuf, A | READ), MISS);
    EXPECT_EQ(search(other, A), MISS);
}

TEST_F(FieldCache, UpdateOverwritesEvictsOrLeaves)
{
    Buffer fbuf;
    alignas(1024) static char area[4096];
    // Two "buffers" whose addresses fall on one slot for one key.
    FBUF *first = (FBUF *)area, *second = (FBUF *)(area + 8);
    int slot = slot_of(first, A);
    ASSERT_EQ(slot, slot_of(second, A));
    EXPECT_EQ(_upd_fcache(first, A, 0, 0), slot);
    EXPECT_EQ(_upd_fcache(first, A, 5, 80), slot);
    EXPECT_EQ(search(first, A), (hit{slot, 5, 80}));
    EXPECT_EQ(_upd_fcache(first, A, 1, 16), slot);
    EXPECT_EQ(search(first, A), (hit{slot, 1, 16}));
    EXPECT_EQ(_upd_fcache(first, COLLIDES, 0, 8), -1);
    EXPECT_EQ(search(first, A), (hit{slot, 1, 16}));
    EXPECT_EQ(search(first, COLLIDES), MISS);
    EXPECT_EQ(_upd_fcache(second, COLLIDES, 4, 24), slot);
    EXPECT_EQ(search(first, A), MISS);
    EXPECT_EQ(search(second, COLLIDES), (hit{slot, 4, 24}));
    EXPECT_EQ(_upd_fcache(second, A, 4, 24), -1);
    EXPECT_EQ(_upd_fcache(first, A, 0, 0), slot);
    EXPECT_EQ(search(second, COLLIDES), MISS);
    _clear_fcache(first);
    EXPECT_EQ(_upd_fcache(second, COLLIDES, 0, 0), slot);
    _clear_fcache(second);
}

TEST_F(FieldCache, ClearingFreesAllSlotsOfOneBuffer)
{
    // Two addresses that share the first slot of a key, so that no two keys meet.
    alignas(1024) static char area[1024];
    FBUF *fbuf = (FBUF *)area, *other = (FBUF *)(area + 8);
    for (int n = 0; n < SLOTS; n++)
        EXPECT_GE(_upd_fcache(n % 2 == 0 ? fbuf : other, key(SHORT, n), n, 8 * n), 0);
    EXPECT_EQ(_clear_fcache(fbuf), 1);
    for (int n = 0; n < SLOTS; n++) {
        EXPECT_EQ(search(fbuf, key(SHORT, n)), MISS) << n;
        EXPECT_EQ(search(other, key(SHORT, n)) == MISS, n % 2 == 0) << n;
    }
    EXPECT_EQ(_clear_fcache(other), 1);
    for (int n = 0; n < SLOTS; n++)
        EXPECT_EQ(search(other, key(SHORT, n)), MISS) << n;
}

TEST_F(FieldCache, SearchesWorkWithoutMemoryForIt)
{
    Buffer fbuf(turns(40));
    faults::fail_allocation(1, true);
    EXPECT_EQ(_upd_fcache(fbuf, A, 0, 0), -1);
    for (int n = 0; n < 20; n++) {
        int32_t *value = (int32_t *)fbgetval(fbuf, A, n, nullptr);
        ASSERT_NE(value, nullptr);
        EXPECT_EQ(*value, 2 * n);
    }
    EXPECT_CALL(fbkeyoccur(fbuf, B), 20, 0);
    EXPECT_CALL(fbdelete(fbuf, A, 0), 1, 0);
    EXPECT_EQ(current_block()->fcache.load(), nullptr);
    faults::reset();
    EXPECT_EQ(fbispres(fbuf, A, 3), 1);
    EXPECT_NE(current_block()->fcache.load(), nullptr);
}

// ---- searches

TEST_F(FieldCache, SearchLeavesTheOccurrenceThatItFound)
{
    Buffer fbuf(turns());
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 1), fbuf.bytes() + 8 + 16);
    EXPECT_EQ(search(fbuf, A), (hit{slot_of(fbuf, A), 1, 16}));
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 2), fbuf.bytes() + 8 + 32);
    EXPECT_EQ(search(fbuf, A), (hit{slot_of(fbuf, A), 2, 32}));
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 0), fbuf.bytes() + 8);
    EXPECT_EQ(search(fbuf, A), (hit{slot_of(fbuf, A), 0, 0}));
    EXPECT_EQ(_find_matching_fldkey(fbuf, B, 2), fbuf.bytes() + 8 + 40);
    EXPECT_EQ(search(fbuf, B), (hit{slot_of(fbuf, B), 2, 40}));
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 3), nullptr);
    EXPECT_EQ(search(fbuf, A), (hit{slot_of(fbuf, A), 0, 0}));
    EXPECT_EQ(_find_matching_fldkey(fbuf, TEXT, 0), nullptr);
    EXPECT_EQ(search(fbuf, TEXT), MISS);
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, -1), nullptr);
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, INT_MIN), nullptr);
}

TEST_F(FieldCache, SearchBeginsAtTheCachedEntry)
{
    Buffer fbuf(turns());
    // An entry that a true search would never give this number shows where the walk began.
    ASSERT_GE(_upd_fcache(fbuf, A, 0, 32), 0);
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 0), fbuf.bytes() + 8 + 32);
    EXPECT_EQ(_find_matching_fldkey(fbuf, A, 1), nullptr);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 1);
}

TEST_F(FieldCache, EveryReaderUsesAndFillsIt)
{
    Buffer fbuf(turns());
    int len = 0, slot = slot_of(fbuf, A);
    int32_t value = 0;
    EXPECT_NE(fbgetval(fbuf, A, 1, &len), nullptr);
    EXPECT_EQ(search(fbuf, A), (hit{slot, 1, 16}));
    EXPECT_EQ(fbgetlen(fbuf, A, 2), 4);
    EXPECT_EQ(search(fbuf, A), (hit{slot, 2, 32}));
    EXPECT_EQ(fbispres(fbuf, A, 0), 1);
    EXPECT_EQ(search(fbuf, A), (hit{slot, 0, 0}));
    EXPECT_EQ(fbispres(fbuf, A, 1), 1);
    EXPECT_EQ(update(fbuf, 2, an_int(1, 9)), 1);
    EXPECT_EQ(search(fbuf, A), (hit{slot, 2, 32}));
    EXPECT_EQ(fbget(fbuf, B, chars(&value), nullptr), 1);
    EXPECT_EQ(value, 1);
}

TEST_F(FieldCache, LoopOverOccurrencesIsRightAtEveryStep)
{
    list fields;
    for (int i = 0; i < 300; i++) {
        fields.push_back({A, raw(i)});
        fields.push_back(a_string(3, std::string((size_t)(i % 13), 't')));
    }
    Buffer fbuf(fields, 20000);
    for (int i = 0; i < 300; i++)
        ASSERT_EQ(*(int32_t *)fbgetval(fbuf, A, i, nullptr), i);
    for (int i = 299; i >= 0; i--)
        ASSERT_EQ(*(int32_t *)fbgetval(fbuf, A, i, nullptr), i);
    for (int i = 0; i < 300; i++)
        ASSERT_EQ(*(int32_t *)fbgetval(fbuf, A, i * 7 % 300, nullptr), i * 7 % 300);
}

TEST_F(FieldCache, CollisionInsideABufferStillFinds)
{
    list fields;
    for (int i = 0; i < 20; i++) {
        fields.push_back({A, raw(i)});
        fields.push_back({COLLIDES, raw(100 + i)});
    }
    Buffer fbuf(fields);
    ASSERT_EQ(slot_of(fbuf, A), slot_of(fbuf, COLLIDES));
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, i, nullptr), i);
        EXPECT_EQ(*(int32_t *)fbgetval(fbuf, COLLIDES, i, nullptr), 100 + i);
        EXPECT_EQ(search(fbuf, COLLIDES), MISS);
    }
    EXPECT_EQ(fbkeyoccur(fbuf, COLLIDES), 20);
}

TEST_F(FieldCache, BuffersThatShareASlotEvictEachOther)
{
    char *block = chars(aligned_alloc(1024, 8192));
    FBUF *buffers[2];
    for (int i = 0; i < 2; i++) {
        buffers[i] = (FBUF *)(block + 1024 + 256 * i);  // one step of 1024
        list fields = {{A, raw(10 * i)}, {A, raw(10 * i + 1)}, {A, raw(10 * i + 2)}};
        std::string content = image(fields);
        memset(chars(buffers[i]) - 136, 0, 136);
        memcpy(buffers[i], content.data(), content.size());
        set_capacity(buffers[i], 64);
    }
    ASSERT_EQ(slot_of(buffers[0], A), slot_of(buffers[1], A));
    for (int nth = 0; nth < 3; nth++)
        for (int i = 0; i < 2; i++) {
            EXPECT_EQ(*(int32_t *)fbgetval(buffers[i], A, nth, nullptr), 10 * i + nth);
            EXPECT_EQ(search(buffers[i], A).nth, nth);
            EXPECT_EQ(search(buffers[1 - i], A), MISS);
        }
    _clear_fcache(buffers[1]);
    free(block);
}

TEST_F(FieldCache, ReadMarkBehindACachedEntryCountsAtOnce)
{
    Buffer fbuf(turns());
    int32_t value = 0;
    EXPECT_EQ(fbispres(fbuf, A, 0), 1);
    for (int wanted : {0, 2, 4}) {
        EXPECT_EQ(fbget(fbuf, A, chars(&value), nullptr), 1);
        EXPECT_EQ(value, wanted);
        EXPECT_EQ(fbkeyoccur(fbuf, A), 2 - wanted / 2);
        EXPECT_EQ(fbispres(fbuf, A, 0), wanted < 4);
    }
    EXPECT_CALL(fbget(fbuf, A, chars(&value), nullptr), -1, FBENOENT);
}

TEST_F(FieldCache, MarkInFrontOfALaterPositionIsSeen)
{
    // Occurrence 2 is cached; then occurrence 0 is consumed, so that the cached entry is occurrence 1 now.
    Buffer fbuf(turns(12));
    int32_t value = 0;
    int from = 0;
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 2, nullptr), 4);
    EXPECT_EQ(fbget(fbuf, A, chars(&value), nullptr), 1);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 1, nullptr), 4);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 2, nullptr), 6);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 5);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 4, nullptr), 10);
    EXPECT_EQ(fbgetf(fbuf, A, chars(&value), nullptr, &from), 1);
    EXPECT_EQ(value, 2);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 4);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 3, nullptr), 10);
    EXPECT_EQ(fbispres(fbuf, A, 4), 0);
    from = 0;
    EXPECT_EQ(fbgetc(fbuf, A, chars(&value), nullptr, &from, INT), 1);
    EXPECT_EQ(value, 4);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 3);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 0, nullptr), 6);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 2, nullptr), 10);
}

TEST_F(FieldCache, MarkedKeyGainsTheOccurrence)
{
    // The marked key is cached at a later entry when an earlier one joins it.
    list fields = turns(12);
    fields[4].key |= READ;
    Buffer fbuf(fields);
    int32_t value = 0;
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A | READ, 0, nullptr), 4);
    EXPECT_EQ(fbget(fbuf, A, chars(&value), nullptr), 1);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A | READ, 0, nullptr), 0);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A | READ, 1, nullptr), 4);
    EXPECT_EQ(fbkeyoccur(fbuf, A | READ), 2);
}

TEST_F(FieldCache, CountLeavesABookmarkAndStartsThere)
{
    Buffer fbuf(turns(100));  // 50 of each
    ASSERT_EQ(fbispres(fbuf, A, 0), 1);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 50);
    hit mark = search(fbuf, A);
    EXPECT_GT(mark.nth, 10);
    EXPECT_LT(mark.nth, 50);
    EXPECT_EQ(mark.offset, 16 * mark.nth);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 50);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, mark.nth, nullptr), 2 * mark.nth);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 49, nullptr), 98);
    // Any cached occurrence serves as the start.
    ASSERT_GE(_upd_fcache(fbuf, B, 7, 8 * 99), 0);
    EXPECT_EQ(fbkeyoccur(fbuf, B), 8);
}

TEST_F(FieldCache, CountThatStaysNearTheMarkLeavesIt)
{
    Buffer fbuf(turns(20));  // 10 of each
    ASSERT_EQ(fbispres(fbuf, A, 2), 1);
    EXPECT_EQ(fbkeyoccur(fbuf, A), 10);
    EXPECT_EQ(search(fbuf, A), (hit{slot_of(fbuf, A), 2, 32}));
}

TEST_F(FieldCache, CountsStayRightWhileABufferGrows)
{
    Buffer fbuf({}, 9000);
    for (int i = 0; i < 500; i++) {
        ASSERT_EQ(put(fbuf, {A, raw(i)}), 1);
        if (i % 3 == 0) {
            ASSERT_EQ(put(fbuf, {B, raw(i)}), 1);
        }
        ASSERT_EQ(fbkeyoccur(fbuf, A), i + 1);
        ASSERT_EQ(fbkeyoccur(fbuf, B), i / 3 + 1);
        ASSERT_EQ(*(int32_t *)fbgetval(fbuf, A, i / 2, nullptr), i / 2);
    }
}

// ---- what clears it

namespace {

// A search cached, then `event`: whether it still is. What the cache holds of another buffer always stays;
// the other address is made up, so that its slot is none of those that the events use.
bool survives(const std::function<void(FBUF *)> &event, const list &fields)
{
    Buffer fbuf(fields);
    FBUF *other = (FBUF *)((uintptr_t)fbuf.it + 10 * 1024);
    EXPECT_EQ(fbispres(fbuf, A, 1), 1);
    EXPECT_GE(_upd_fcache(other, A, 0, 0), 0);
    EXPECT_NE(search(fbuf, A), MISS);
    event(fbuf);
    EXPECT_NE(search(other, A), MISS);
    _clear_fcache(other);
    return !(search(fbuf, A) == MISS);
}

}  // namespace

TEST_F(FieldCache, WhatMovesEntriesClearsIt)
{
    list texts = turns();
    texts.insert(texts.begin(), a_string(3, "abc"));
    texts.push_back(a_carray(4, "12345678"));
    int32_t v = 5;
    Buffer source({an_int(9, 9)});
    const struct {
        const char *what;
        std::function<void(FBUF *)> event;
        bool stays;
    } rows[] = {
        {"fbinit", [](FBUF *f) { fbinit(f, 8); }, false},
        {"fbinit refused", [](FBUF *f) { fbinit(f, 5000); }, true},
        {"fbdelete", [](FBUF *f) { fbdelete(f, TEXT, 0); }, false},
        {"fbdelete of the last", [](FBUF *f) { fbdelete(f, key(CARRAY, 4), 0); }, false},
        {"fbdelete of none", [](FBUF *f) { fbdelete(f, TEXT, 1); }, true},
        {"fbdelall", [](FBUF *f) { fbdelall(f, B); }, false},
        {"fbinsert in front", [](FBUF *f) { insert(f, 0, a_string(3, "x")); }, false},
        {"fbinsert at the end", [](FBUF *f) { insert(f, 1, a_string(3, "x")); }, true},
        {"fbinsert with pads", [](FBUF *f) { insert(f, 3, a_string(3, "x")); }, true},
        {"fbupdate longer", [](FBUF *f) { update(f, 0, a_string(3, "abcd")); }, false},
        {"fbupdate shorter carray", [](FBUF *f) { update(f, 0, a_carray(4, "1")); }, true},
        {"fbupdate longer carray", [](FBUF *f) { update(f, 0, a_carray(4, "123456789")); }, false},
        {"fbupdate same size", [](FBUF *f) { update(f, 0, a_string(3, "x")); }, true},
        {"fbput", [&](FBUF *f) { fbput(f, A, chars(&v), 0); }, true},
        {"_fbput", [&](FBUF *f) { _fbput(f, A, chars(&v), 0); }, true},
        {"fbget of another key", [&](FBUF *f) { fbget(f, B, chars(&v), nullptr); }, true},
        {"fbfldcount", [](FBUF *f) { fbfldcount(f); }, true},
        {"fbbufop concat", [&](FBUF *f) { fbbufop(f, source, 4); }, false},
        {"fbbufop compare", [&](FBUF *f) { fbbufop(f, source, 3); }, false},
        {"fbbufop copy", [&](FBUF *f) { fbbufop(f, source, 2); }, false},
        {"fbbufop move", [&](FBUF *f) { fbbufop(f, source, 1); }, false},
        {"fbbufop join", [&](FBUF *f) { fbbufop(f, source, 5); }, false},
        {"fbbufop bad number", [&](FBUF *f) { fbbufop(f, source, 9); }, false},
        {"as the source", [&](FBUF *f) { fbbufop(source, f, 2); }, true},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(survives(row.event, texts), row.stays);
        source.fill({an_int(9, 9)});
    }
}

TEST_F(FieldCache, SearchesAfterAMoveFindTheTruth)
{
    list fields = turns(30);
    fields.insert(fields.begin(), a_string(3, "abc"));
    Buffer fbuf(fields, 2000);
    auto check = [&] {
        list now = in(fbuf);
        int nth[2] = {0, 0};
        for (const field &one : now) {
            if (one.key != A && one.key != B)
                continue;
            int n = nth[one.key == B]++;
            ASSERT_EQ(std::string(fbgetval(fbuf, one.key, n, nullptr), 4), one.value);
        }
        ASSERT_EQ(fbkeyoccur(fbuf, A), nth[0]);
        ASSERT_EQ(fbkeyoccur(fbuf, B), nth[1]);
    };
    check();
    update(fbuf, 0, a_string(3, "a longer text"));
    check();
    update(fbuf, 0, a_string(3, ""));
    check();
    insert(fbuf, 3, an_int(1, 1000));
    check();
    fbdelete(fbuf, A, 7);
    check();
    insert(fbuf, 0, a_string(3, "in front"));
    check();
    fbdelall(fbuf, TEXT);
    check();
    int keys[] = {B, 0};
    fbbufop_proj(fbuf, nullptr, keys);
    check();
}

TEST_F(FieldCache, FreedAddressIsForgotten)
{
    FBUF *fbuf = fballoc(0, 0);
    ASSERT_EQ(put(fbuf, an_int(1, 1)), 1);
    ASSERT_EQ(fbispres(fbuf, A, 0), 1);
    ASSERT_NE(search(fbuf, A), MISS);
    FBUF *address = fbuf;
    tpfree(chars(fbuf));
    EXPECT_EQ(search(address, A), MISS);
    fbuf = fballoc(0, 0);
    ASSERT_EQ(put(fbuf, an_int(1, 1)), 1);
    ASSERT_EQ(fbispres(fbuf, A, 0), 1);
    address = fbuf;
    EXPECT_EQ(fbfree(fbuf), 1);
    EXPECT_EQ(search(address, A), MISS);
}

TEST_F(FieldCache, NewBufferAtAKnownAddressStartsClean)
{
    // Blocks of one size come back from the heap; each time the new owner's address is in the cache.
    FBUF *last = nullptr;
    int reused = 0;
    for (int i = 0; i < 50; i++) {
        FBUF *fbuf = (FBUF *)tpalloc(chars("FIELD"), nullptr, 0);
        reused += fbuf == last;
        EXPECT_EQ(search(fbuf, A), MISS);
        last = fbuf;
        tpfree(chars(fbuf));
        _upd_fcache(fbuf, A, 0, 512);  // as a block that ended unnoticed would leave it
    }
    _clear_fcache(last);
#ifndef KEEPS_FREED_BLOCKS
    EXPECT_GT(reused, 0);
#endif
}

TEST_F(FieldCache, ReallocationForgetsOldAndNewAddress)
{
    FBUF *fbuf = fballoc(0, 0);
    ASSERT_EQ(put(fbuf, an_int(1, 1)), 1);
    for (long size : {2000L, 100000L, 0L}) {
        ASSERT_EQ(fbispres(fbuf, A, 0), 1);
        FBUF *old = fbuf;
        fbuf = (FBUF *)tprealloc(chars(fbuf), size);
        ASSERT_NE(fbuf, nullptr);
        EXPECT_EQ(search(old, A), MISS);
        EXPECT_EQ(search(fbuf, A), MISS);
    }
    EXPECT_EQ(fbfree(fbuf), 1);
}

TEST_F(FieldCacheOverTheWire, ReplyOverABufferClearsIt)
{
    ASSERT_TRUE(start());
    // The reply's entries on the wire, big-endian: one int under A behind a string.
    auto big = [](int32_t value) { return wire::word((uint32_t)value); };
    std::string data =
        big(8888) + big(8 + 16 + 8) + big(TEXT) + std::string("0123456789\0\0", 12) + big(A) + big(77);
    peer.play([&] {
        peer.expect(wire::TPCALL).buftype(wire::FIELD);
        peer.reply(data, {.buftype = wire::FIELD});
    });
    FBUF *fbuf = fballoc(0, 0), *before = fbuf;
    for (const field &one : turns())
        ASSERT_EQ(put(fbuf, one), 1);
    ASSERT_EQ(fbispres(fbuf, A, 2), 1);
    ASSERT_NE(search(fbuf, A), MISS);
    long len = 0;
    ASSERT_EQ(tpcall(chars("FIELDS"), chars(fbuf), 0, (char **)&fbuf, &len, 0), 1) << get_tperrno();
    peer.done();
    ASSERT_EQ(fbuf, before);
    EXPECT_EQ(search(fbuf, A), MISS);
    EXPECT_TRUE(equal(fbuf, {a_string(3, "0123456789"), {A, raw(77)}}));
    EXPECT_EQ(fbkeyoccur(fbuf, A), 1);
    EXPECT_EQ(*(int32_t *)fbgetval(fbuf, A, 0, nullptr), 77);
    fbfree(fbuf);
}

TEST_F(FieldCacheOverTheWire, ReplyInTheBuffersPlaceIsSearchedAfresh)
{
    ASSERT_TRUE(start());
    constexpr int ROUNDS = 20;
    auto big = [](int32_t value) { return wire::word((uint32_t)value); };
    // Ints under A behind a text that makes the reply too large for the buffer; one more in each round.
    peer.play([&] {
        for (int round = 1; round <= ROUNDS; round++) {
            std::string data = big(TEXT) + std::string(1100, 't') + std::string(4, '\0');
            data.resize((data.size() + 7) / 8 * 8);
            for (int i = 0; i < round; i++)
                data += big(A) + big(100 * round + i);
            peer.expect(wire::TPCALL);
            peer.reply(big(8888) + big((int32_t)data.size() + 8) + data, {.buftype = wire::FIELD});
        }
    });
    for (int round = 1; round <= ROUNDS; round++) {
        FBUF *fbuf = fballoc(0, 0);
        for (const field &one : turns(100))
            ASSERT_EQ(put(fbuf, one), 1);
        ASSERT_EQ(fbispres(fbuf, A, 40), 1);
        long len = 0;
        ASSERT_EQ(tpcall(chars("FIELDS"), chars(fbuf), 0, (char **)&fbuf, &len, 0), 1) << get_tperrno();
        EXPECT_EQ(search(fbuf, A), MISS);
        EXPECT_EQ(fbkeyoccur(fbuf, A), round);
        EXPECT_EQ(fbgetvali(fbuf, A, round - 1), 100 * round + round - 1);
        EXPECT_EQ(fbispres(fbuf, A, round), 0);
        EXPECT_EQ(fbfree(fbuf), 1);
    }
    peer.done();
}

TEST_F(FieldCacheOverTheWire, EndsWithTheSession)
{
    ASSERT_TRUE(start());
    Buffer fbuf(turns());
    ASSERT_EQ(fbispres(fbuf, A, 2), 1);
    ASSERT_NE(block()->fcache.load(), nullptr);
    free_field_memory(block());
    EXPECT_EQ(block()->fcache.load(), nullptr);
    EXPECT_EQ(fbispres(fbuf, A, 2), 1);
    EXPECT_NE(search(fbuf, A), MISS);
}

// ---- the cursor

TEST_F(FieldCache, CursorSearchMovesTheCursorToTheFirstMatch)
{
    list fields = turns();
    Buffer fbuf(fields);
    int from = 0;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, B, 0, &from), fbuf.bytes() + 8 + 8);
    EXPECT_EQ(from, 8);
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, B, 1, &from), fbuf.bytes() + 8 + 24);
    EXPECT_EQ(from, 8);  // the first match, whatever number was wanted
    from = 0;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, B, 2, &from), fbuf.bytes() + 8 + 40);
    EXPECT_EQ(from, 8);
    from = 0;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, B, 3, &from), nullptr);
    EXPECT_EQ(from, 8);
    EXPECT_EQ(search(fbuf, B), MISS);
    EXPECT_EQ(current_block()->fcache.load(), nullptr);
}

TEST_F(FieldCache, CursorAtAnEntryOfTheKeyCountsFromThere)
{
    Buffer fbuf(turns());
    int from = 16;
    char *found = _find_matching_fldkey_from(fbuf, A, 0, &from);
    EXPECT_EQ(found, fbuf.bytes() + 8 + 16);
    EXPECT_EQ(from, 16);
    from = 32;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, A, 1, &from), nullptr);
}

TEST_F(FieldCache, CursorAtAReadEntryOfTheKeyGoesOn)
{
    list fields = turns();
    fields[2].key |= READ;
    Buffer fbuf(fields);
    int from = 16;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, A, 0, &from), fbuf.bytes() + 8 + 32);
    EXPECT_EQ(from, 32);
}

TEST_F(FieldCache, CursorThatWentStaleStartsOver)
{
    Buffer fbuf(turns());
    int from = 24;  // stands at a B
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, A, 0, &from), fbuf.bytes() + 8);
    EXPECT_EQ(from, 0);
    from = 24;
    EXPECT_EQ(_find_matching_fldkey_from(fbuf, TEXT, 0, &from), nullptr);
    EXPECT_EQ(from, 0);
}

TEST_F(FieldCache, CursorBeyondTheContentGivesNothing)
{
    Buffer fbuf(turns());
    for (int beyond : {56, 57, 64, 1000, INT_MAX}) {
        int from = beyond;
        EXPECT_EQ(_find_matching_fldkey_from(fbuf, A, 0, &from), nullptr);
        EXPECT_EQ(from, beyond);
    }
}

TEST_F(FieldCache, HostileCursorsStayInsideTheBuffer)
{
    list fields = turns();
    Guarded fbuf(image(fields), 56);
    for (int hostile : {-1, -8, -1000000, INT_MIN, 1, 3, 7, 44, 47, 48, 49, 50, 52, 54, 55}) {
        int from = hostile;
        char *found = _find_matching_fldkey_from(fbuf, A, 0, &from);
        if (found != nullptr) {
            EXPECT_GE(found, fbuf.bytes() + 8) << hostile;
            EXPECT_LE(found, fbuf.bytes() + 48) << hostile;
        }
        from = hostile;
        EXPECT_EQ(_find_matching_fldkey_from(fbuf, TEXT, 0, &from), nullptr) << hostile;
    }
}

// ---- threads

TEST_F(FieldCache, ThreadsOfOneContextKeepToTheirSlots)
{
    // No thread has a row of its own, so all share the table of the main context. Their slots differ.
    constexpr int THREADS = 4;
    std::atomic<int> wrong{0};
    Meeting all(THREADS);
    std::vector<std::thread> threads;
    for (int t = 0; t < THREADS; t++)
        threads.emplace_back([&, t] {
            Buffer fbuf({}, 1032);
            int32_t k = key(INT, 1);
            while (slot_of(fbuf, k) != 10 * t)
                k++;
            all.meet();
            for (int round = 0; round < 200; round++) {
                for (int i = 0; i < 50; i++)
                    wrong += put(fbuf, {k, raw(i)}) != 1;
                for (int i = 0; i < 50; i++)
                    wrong += *(int32_t *)fbgetval(fbuf, k, i, nullptr) != i;
                wrong += fbkeyoccur(fbuf, k) != 50;
                wrong += fbdelete(fbuf, k, 20) != 1 || fbkeyoccur(fbuf, k) != 49;
                wrong += fbinit(fbuf, 8) != 1 || fbkeyoccur(fbuf, k) != 0;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
}
