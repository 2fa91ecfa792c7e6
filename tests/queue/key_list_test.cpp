// Key lists: the merge of two against a plain model, the calls that read them, and lists that lie about their
// lengths in any word.
#include "queue/key_fixture.h"

#include <algorithm>
#include <limits.h>
#include <random>

namespace {

typedef std::vector<wire::key_row> rows;

// What the order of a list is: by signed bytes, a shorter key ahead of what it begins.
bool comes_before(const wire::key_row &a, const wire::key_row &b)
{
    return std::lexicographical_compare(a.key.begin(), a.key.end(), b.key.begin(), b.key.end(),
                                        [](char x, char y) { return (signed char)x < (signed char)y; });
}

// A list as it comes from the wire, in a block of its own.
msg_header *list_message(const std::string &payload, int32_t target)
{
    msg_header *message = new_message(1181, payload, (int32_t)payload.size());
    message->target = target;
    return message;
}
msg_header *list_message(const rows &list)
{
    return list_message(wire::key_list(list), (int32_t)list.size());
}

rows rows_of(const msg_header *list)
{
    std::string bytes((const char *)list + HEADER_SIZE, (size_t)list->datalen);
    rows result;
    size_t key = (size_t)list->target * 12;
    for (size_t i = 0; i < (size_t)list->target; i++) {
        uint32_t keylen = wire::word_at(bytes, i * 12);
        result.push_back({bytes.substr(key, keylen), wire::word_at(bytes, i * 12 + 4) - keylen,
                          wire::word_at(bytes, i * 12 + 8)});
        key += keylen;
    }
    EXPECT_EQ(key, bytes.size());
    return result;
}

bool are_equal(const rows &a, const rows &b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto &x, const auto &y) {
        return x.key == y.key && x.vallen == y.vallen && x.attr == y.attr;
    });
}

rows merged(const rows &a, const rows &b)
{
    msg_header *first = list_message(a), *second = list_message(b);
    std::string before((const char *)second, (size_t)(HEADER_SIZE + second->datalen));
    msg_header *result = _sq_keylist_merge(first, second);
    EXPECT_EQ(std::string((const char *)second, before.size()), before);
    free(second);
    EXPECT_NE(result, nullptr);
    rows list = result != nullptr ? rows_of(result) : rows{};
    free(result);
    return list;
}

struct KeyLists : KeyTest {
    char *fetch(const std::string &payload, int32_t target)
    {
        serve(wire::LIST, payload, {.buftype = wire::CARRAY, .target = target});
        char *list = vorn_sq_getkeylist(nullptr, 0);
        peer.done();
        return list;
    }
    char *fetch(const rows &list) { return fetch(wire::key_list(list), (int32_t)list.size()); }
    void expect_no_list(char *list, int error)
    {
        EXPECT_EQ(list, nullptr);
        EXPECT_EQ(gettperrno(), error);
        if (list != nullptr)
            vorn_keylist_free(list);
    }
};

const int32_t LIES[] = {-1,       0, 1, 2, 4, 12, 255, 256, 0x15555555, 0x15555556, INT32_MAX, INT32_MAX - 1,
                        INT32_MIN};

}  // namespace

// --- The order of keys.

TEST_F(KeyLists, KeysAreOrderedBySignedBytes)
{
    const std::string order[] = {
        "",   "\x80", "\x80\x80", std::string("\x80\0", 2), "\xff", std::string(1, '\0'), "\x01", "A", "AA",
        "AB", "B",    "\x7f"};
    for (const std::string &a : order)
        for (const std::string &b : order) {
            int result = _sq_key_compare(a.data(), (int)a.size(), b.data(), (int)b.size());
            EXPECT_EQ(result, &a < &b ? -1 : &a > &b ? 1 : 0) << &a - order << " and " << &b - order;
        }
    EXPECT_EQ(_sq_key_compare("abcX", 3, "abcY", 3), 0);
}

// --- Merges.

TEST_F(KeyLists, MergeKeepsBothOfEqualKeysTheFirstAhead)
{
    rows result = merged({{"a", 1}, {"b", 2}, {"b", 3}, {"c", 4}}, {{"a", 5}, {"b", 6}, {"c", 7}});
    EXPECT_TRUE(are_equal(result, {{"a", 1}, {"a", 5}, {"b", 2}, {"b", 3}, {"b", 6}, {"c", 4}, {"c", 7}}));
}

TEST_F(KeyLists, MergeGoesOnWithTheListThatIsLeft)
{
    EXPECT_TRUE(are_equal(merged({{"a"}, {"b"}}, {{"x"}, {"y"}}), {{"a"}, {"b"}, {"x"}, {"y"}}));
    EXPECT_TRUE(are_equal(merged({{"x"}, {"y"}}, {{"a"}, {"b"}}), {{"a"}, {"b"}, {"x"}, {"y"}}));
    EXPECT_TRUE(are_equal(merged({}, {{"a", 1, 2}}), {{"a", 1, 2}}));
    EXPECT_TRUE(are_equal(merged({{"a", 1, 2}}, {}), {{"a", 1, 2}}));
    EXPECT_TRUE(are_equal(merged({}, {}), {}));
    EXPECT_TRUE(are_equal(merged({{""}, {"a"}}, {{""}, {""}}), {{""}, {""}, {""}, {"a"}}));
}

TEST_F(KeyLists, MergeIsThatOfTheModel)
{
    std::minstd_rand random(3);
    for (int round = 0; round < 500; round++) {
        rows lists[2];
        for (rows &list : lists) {
            for (size_t left = random() % 12; left > 0; left--) {
                std::string key;
                for (size_t length = random() % 4; length > 0; length--)
                    key += "\x01\x7f\x80\xff"[random() % 4];
                list.push_back({key, (uint32_t)(random() % 1000), (uint32_t)random()});
            }
            std::stable_sort(list.begin(), list.end(), comes_before);
        }
        rows wanted;
        std::merge(lists[0].begin(), lists[0].end(), lists[1].begin(), lists[1].end(),
                   std::back_inserter(wanted), comes_before);
        EXPECT_TRUE(are_equal(merged(lists[0], lists[1]), wanted));
    }
}

// Rows are copied as they stand, also where the order isn't the lists'.
TEST_F(KeyLists, MergeOfListsOutOfOrderLosesNothing)
{
    EXPECT_TRUE(are_equal(merged({{"z", 1}, {"a", 2}}, {{"m", 3}, {"b", 4}}),
                          {{"m", 3}, {"b", 4}, {"z", 1}, {"a", 2}}));
}

TEST_F(KeyLists, MergeBearsTheHeaderOfTheFirst)
{
    msg_header *a = list_message(rows{{"a"}}), *b = list_message(rows{{"b"}, {"c"}});
    a->seqno = 5, a->cd = 6, a->rcode = 7, a->value = 8;
    b->seqno = 15, b->cd = 16, b->rcode = 17, b->value = 18;
    msg_header wanted = *a;
    wanted.target = 3;
    wanted.datalen = wanted.bufsize = a->datalen + b->datalen;
    msg_header *result = _sq_keylist_merge(a, b);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(memcmp(result, &wanted, sizeof wanted), 0);
    free(result);
    free(b);
}

TEST_F(KeyLists, MergeWithoutMemoryFreesTheFirstOnly)
{
    msg_header *a = list_message(rows{{"a"}}), *b = list_message(rows{{"b"}});
    faults::fail_allocation(1);
    EXPECT_EQ(_sq_keylist_merge(a, b), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(rows_of(b)[0].key, "b");
    free(b);
}

TEST_F(KeyLists, MergeOfMoreThanAMessageHoldsIsRefused)
{
    msg_header *a = list_message(rows{}), *b = list_message(rows{});
    a->datalen = b->datalen = 0x40000000;
    EXPECT_EQ(_sq_keylist_merge(a, b), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    free(b);
}

TEST_F(KeyLists, MergeOfWhatIsNoListIsRefusedOnEitherSide)
{
    std::string good = wire::key_list({{"abc"}, {"de"}});
    for (int side = 0; side < 2; side++)
        for (int32_t lie : {-1, 3, INT32_MAX, INT32_MIN}) {
            msg_header *lists[2] = {list_message(good, 2), list_message(good, 2)};
            lists[side]->target = lie;
            EXPECT_EQ(_sq_keylist_merge(lists[0], lists[1]), nullptr);
            EXPECT_EQ(get_tperrno(), TPESYSTEM);
            free(lists[1]);
        }
}

// --- Lists from the wire.

TEST_F(KeyLists, WordsOfARowComeOutAsTheyCame)
{
    ASSERT_TRUE(open());
    std::string payload = wire::word(3) + wire::word(0) + wire::word(0xffffffff) + wire::word(0) +
                          wire::word(0x80000000) + wire::word(0x7fffffff) + wire::word(2) +
                          wire::word(0x7fffffff) + wire::word(1) + std::string("a\0c\xff\x80", 5);
    char *list = fetch(payload, 3);
    ASSERT_NE(list, nullptr) << gettperrno();
    expect_good(vorn_keylist_count(list), 3);
    vorn_key key;
    expect_good(vorn_keylist_getakey(list, 0, &key));
    EXPECT_EQ(key.keylen, 3);
    EXPECT_EQ(key.vallen, -3);
    EXPECT_EQ(key.attr, -1);
    EXPECT_EQ(std::string(key.key, 3), std::string("a\0c", 3));
    EXPECT_EQ(key.key, list + 36);
    expect_good(vorn_keylist_getakey(list, 1, &key));
    EXPECT_EQ(key.keylen, 0);
    EXPECT_EQ(key.vallen, INT32_MIN);
    EXPECT_EQ(key.attr, INT32_MAX);
    expect_good(vorn_keylist_getakey(list, 2, &key));
    EXPECT_EQ(key.vallen, INT32_MAX - 2);
    EXPECT_EQ(key.key, list + 39);
    EXPECT_EQ(std::string(key.key, 2), "\xff\x80");
    expect_good(vorn_keylist_free(list));
}

TEST_F(KeyLists, EmptyOnesAreAnErrorUnlessTheServerTellsOne)
{
    ASSERT_TRUE(open());
    expect_no_list(fetch("", 0), TPESYSTEM);
    expect_no_list(fetch("", 1), TPESYSTEM);
    expect_no_list(fetch(wire::key_list({{"a"}}), 0), TPESYSTEM);
    serve(wire::LIST, wire::key_list({{"a"}}), {.flags = TPENOENT, .target = 1});
    expect_no_list(vorn_sq_getkeylist(nullptr, 0), TPENOENT);
    peer.done();
    expect_no_list(vorn_sq_getkeylist(svc("k"), 0), TPEINVAL);
    expect_no_list(vorn_sq_getkeylist(svc("k"), -1), TPEINVAL);
    peer.expect_nothing();
    expect_idle();
}

TEST_F(KeyLists, WhatStandsBehindTheKeysIsNoneOfThem)
{
    ASSERT_TRUE(open());
    char *list = fetch(wire::key_list({{"a"}, {"b"}}) + "more", 2);
    ASSERT_NE(list, nullptr);
    vorn_key key;
    expect_good(vorn_keylist_getakey(list, 1, &key));
    EXPECT_EQ(std::string(key.key, (size_t)key.keylen), "b");
    expect_error(vorn_keylist_getakey(list, 2, &key), TPELIMIT);
    expect_good(vorn_keylist_free(list));
}

TEST_F(KeyLists, LongOnesAreReadToTheirEnd)
{
    constexpr int COUNT = 5000;
    ASSERT_TRUE(open(2));
    rows lists[2];
    for (int i = 0; i < COUNT; i++) {
        std::string digits = std::to_string(100000 + i);
        lists[i % 3 == 0].push_back({digits, (uint32_t)i, (uint32_t)i});
    }
    peer.play([&] {
        wire::frame requests[] = {peer.expect(wire::KEY_REQUEST), peer.expect(wire::KEY_REQUEST)};
        for (int i = 0; i < 2; i++)
            peer.reply_to(requests[i], wire::key_list(lists[i]), {.target = (int32_t)lists[i].size()});
    });
    char *list = vorn_gq_getkeylist(nullptr, 0);
    ASSERT_NE(list, nullptr) << gettperrno();
    peer.done();
    expect_good(vorn_keylist_count(list), COUNT);
    for (int i = 0; i < COUNT; i += 7) {
        vorn_key key;
        ASSERT_EQ(vorn_keylist_getakey(list, i, &key), 1);
        ASSERT_EQ(std::string(key.key, (size_t)key.keylen), std::to_string(100000 + i));
        ASSERT_EQ(key.attr, i);
    }
    expect_good(vorn_keylist_free(list));
}

// Any word of the rows, or the count, may be a lie: either there is a list whose keys stand inside of it, or
// none.
TEST_F(KeyLists, NoWordOfARowDoesHarm)
{
    setenv("VORN_ERR_MSG", "N", 1);
    ASSERT_TRUE(open());
    std::string good = wire::key_list({{"abc", 1}, {"de", 2}, {"f", 3}});
    for (size_t word = 0; word <= 9; word++)
        for (int32_t lie : LIES) {
            SCOPED_TRACE(std::to_string(word) + " is " + std::to_string(lie));
            std::string bytes = good;
            if (word < 9)
                bytes.replace(word * 4, 4, wire::word((uint32_t)lie));
            int32_t count = word < 9 ? 3 : lie;
            bool key_length = word < 9 && word % 3 == 0;
            char *list = fetch(bytes, count);
            // Shorter keys, or fewer, leave room behind them; with less than a row's the words are others.
            bool fits = key_length ? lie >= 0 && lie <= 3 - (int32_t)word / 3
                        : word < 9 ? true
                                   : lie == 1 || lie == 2;
            if (list == nullptr) {
                EXPECT_FALSE(fits);
                EXPECT_EQ(gettperrno(), TPESYSTEM);
                continue;
            }
            EXPECT_TRUE(fits);
            for (int i = 0; i < count; i++) {
                vorn_key key;
                ASSERT_EQ(vorn_keylist_getakey(list, i, &key), 1);
                EXPECT_GE(key.key, list + 12 * count);
                EXPECT_LE(key.key + key.keylen, list + bytes.size());
            }
            expect_good(vorn_keylist_free(list));
        }
    expect_idle();
    expect_usable();
}

TEST_F(KeyLists, SumsThatOverflowAreNone)
{
    ASSERT_TRUE(open());
    for (uint32_t first : {0x7fffffffu, 0x40000000u, 0x80000000u, 0xfffffff0u}) {
        std::string bytes = wire::key_list({{"abc"}, {"def"}, {"ghi"}, {"jkl"}});
        for (size_t row = 0; row < 4; row++)
            bytes.replace(row * 12, 4, wire::word(first));
        expect_no_list(fetch(bytes, 4), TPESYSTEM);
        // The wrapped sum of two of them would fit.
        bytes.replace(12, 4, wire::word(0u - first));
        expect_no_list(fetch(bytes, 4), TPESYSTEM);
    }
}

TEST_F(KeyLists, CutOnesAreRefused)
{
    ASSERT_TRUE(open());
    std::string good = wire::key_list({{"abc", 1}, {"de", 2}});
    for (size_t length = 0; length < good.size(); length++) {
        SCOPED_TRACE(length);
        expect_no_list(fetch(good.substr(0, length), 2), TPESYSTEM);
    }
}

TEST_F(KeyLists, LieOfOneNodeLeavesNoList)
{
    std::string good = wire::key_list({{"abc", 1}, {"de", 2}});
    ASSERT_TRUE(open(3));
    for (size_t liar = 0; liar < 3; liar++)
        for (int32_t lie : {-1, INT32_MIN, INT32_MAX, 3, 0x15555556}) {
            peer.play([&] {
                wire::frame requests[3];
                for (wire::frame &request : requests)
                    request = peer.expect(wire::KEY_REQUEST);
                for (size_t i = 0; i < 3; i++)
                    peer.reply_to(requests[i], good, {.target = i == liar ? lie : 2});
            });
            expect_no_list(vorn_gq_getkeylist(nullptr, 0), TPESYSTEM);
            peer.done();
            expect_idle();
        }
    expect_usable();
}

TEST_F(KeyLists, EmptyListOfOneNodeAddsNothing)
{
    ASSERT_TRUE(open(3));
    for (size_t empty = 0; empty < 3; empty++) {
        peer.play([&] {
            wire::frame requests[3];
            for (wire::frame &request : requests)
                request = peer.expect(wire::KEY_REQUEST);
            for (size_t i = 0; i < 3; i++)
                peer.reply_to(requests[i], i == empty ? "" : wire::key_list({{"k"}}), {.target = i != empty});
        });
        char *list = vorn_gq_getkeylist(nullptr, 0);
        ASSERT_NE(list, nullptr) << gettperrno();
        expect_good(vorn_keylist_count(list), 2);
        expect_good(vorn_keylist_free(list));
        peer.done();
    }
}

// --- The calls on a list.

TEST_F(KeyLists, IndexesEndWithTheList)
{
    ASSERT_TRUE(open());
    char *list = fetch(rows{{"a"}, {"b"}});
    ASSERT_NE(list, nullptr);
    vorn_key key = {-9, -9, -9, nullptr};
    for (int index : {2, 3, INT_MAX})
        expect_error(vorn_keylist_getakey(list, index, &key), TPELIMIT);
    for (int index : {-1, INT_MIN})
        expect_error(vorn_keylist_getakey(list, index, &key), TPEINVAL);
    expect_error(vorn_keylist_getakey(list, 0, nullptr), TPEINVAL);
    expect_error(vorn_keylist_getakey(nullptr, 0, &key), TPEINVAL);
    EXPECT_EQ(key.keylen, -9);
    EXPECT_EQ(key.key, nullptr);
    expect_good(vorn_keylist_getakey(list, 1, &key));
    expect_good(vorn_keylist_free(list));
    expect_error(vorn_keylist_count(nullptr), TPEINVAL);
    expect_error(vorn_keylist_free(nullptr), TPEINVAL);
}

// The mark or a count above 0 makes a list; only the mark lets it go.
TEST_F(KeyLists, MarkOrCountMakesAList)
{
    ASSERT_TRUE(open());
    char *list = fetch(rows{{"a"}, {"b"}});
    ASSERT_NE(list, nullptr);
    msg_header *header = message_of(list);
    vorn_key key;
    header->magic = 0;
    expect_good(vorn_keylist_count(list), 2);
    expect_good(vorn_keylist_getakey(list, 1, &key));
    EXPECT_EQ(key.key[0], 'b');
    expect_error(vorn_keylist_getakey(list, 2, &key), TPELIMIT);
    expect_error(vorn_keylist_free(list), TPEBADDESC);
    for (int32_t count : {0, -1, INT32_MIN}) {
        header->target = count;
        expect_error(vorn_keylist_count(list), TPEBADDESC);
        expect_error(vorn_keylist_getakey(list, 0, &key), TPEBADDESC);
        expect_error(vorn_keylist_free(list), TPEBADDESC);
    }
    header->magic = MESSAGE_MAGIC;
    header->target = 0;
    expect_good(vorn_keylist_count(list), 0);
    expect_error(vorn_keylist_getakey(list, 0, &key), TPELIMIT);
    expect_good(vorn_keylist_free(list));
}

TEST_F(KeyLists, ListThatTheApplicationHasSpoiltIsNotRunThrough)
{
    ASSERT_TRUE(open());
    char *list = fetch(rows{{"a"}, {"b"}, {"c"}});
    ASSERT_NE(list, nullptr);
    auto *words = (int32_t *)list;
    for (int32_t lie : {-1, 100, INT32_MAX, INT32_MIN}) {
        vorn_key key;
        words[3] = lie;
        expect_good(vorn_keylist_getakey(list, 0, &key));
        expect_error(vorn_keylist_getakey(list, 1, &key), TPEBADDESC);
        expect_error(vorn_keylist_getakey(list, 2, &key), TPEBADDESC);
    }
    words[3] = 1;
    message_of(list)->target = INT32_MAX;
    vorn_key key;
    expect_error(vorn_keylist_getakey(list, 3, &key), TPEBADDESC);
    expect_error(vorn_keylist_getakey(list, INT32_MAX - 1, &key), TPEBADDESC);
    expect_good(vorn_keylist_free(list));
}

TEST_F(KeyLists, ListOutlivesItsSession)
{
    ASSERT_TRUE(open());
    char *list = fetch(rows{{"a"}, {"b"}});
    ASSERT_NE(list, nullptr);
    peer.play([&] { peer.serve_end(); });
    tpend();
    peer.done();
    vorn_key key;
    expect_good(vorn_keylist_count(list), 2);
    expect_good(vorn_keylist_getakey(list, 1, &key));
    expect_good(vorn_keylist_free(list));
}
