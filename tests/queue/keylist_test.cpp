// Key lists: what the key store tells of its keys, merged from several nodes, and the calls that read it.
#include "calls/fixture.h"
#include "queue/keylist.h"
#include "vorn/keystore.h"

namespace {

constexpr int32_t REQUEST = 181;

struct entry {
    std::string key;
    uint32_t vallen = 0, attr = 0;
};

// The data of a reply that lists these.
std::string rows_and_keys(const std::vector<entry> &entries)
{
    std::string rows, keys;
    for (const entry &one : entries) {
        uint32_t keylen = (uint32_t)one.key.size();
        rows += wire::word(keylen) + wire::word(keylen + one.vallen) + wire::word(one.attr);
        keys += one.key;
    }
    return rows + keys;
}

struct KeyList : CallTest {
    bool open(int nodes)
    {
        wire::start_reply reply;
        reply.token = nodes;
        return start(reply);
    }
    void serve(const std::vector<std::vector<entry>> &lists)
    {
        peer.play([=, this] {
            std::vector<wire::frame> requests;
            for (size_t i = 0; i < lists.size(); i++)
                requests.push_back(peer.expect(REQUEST).frame);
            for (size_t i = 0; i < lists.size(); i++)
                peer.reply_to(requests[i], rows_and_keys(lists[i]), {.target = (int32_t)lists[i].size()});
        });
    }
    void serve_raw(const std::string &bytes, int32_t rows)
    {
        peer.play([=, this] {
            peer.expect(REQUEST);
            peer.reply(bytes, {.target = rows});
        });
    }
    static std::vector<std::string> keys_of(char *list)
    {
        std::vector<std::string> keys;
        for (int i = 0; i < vorn_keylist_count(list); i++) {
            vorn_key one;
            EXPECT_EQ(vorn_keylist_getakey(list, i, &one), 1);
            keys.emplace_back(one.key, (size_t)one.keylen);
        }
        return keys;
    }
};

typedef std::vector<std::string> names;

}  // namespace

TEST_F(KeyList, TellsKeysAndTheirRows)
{
    ASSERT_TRUE(open(1));
    peer.play([&] {
        wire::frame request = peer.expect(REQUEST).data("sel").flags(0).frame;
        EXPECT_EQ(request.rcode, 8);
        EXPECT_EQ(request.target, 0);
        peer.reply(rows_and_keys({{"a", 10, 7}, {"", 3, 0x80000000}, {"long key", 0, 1}}), {.target = 3});
    });
    char *list = vorn_sq_getkeylist(svc("sel"), 3);
    ASSERT_NE(list, nullptr) << gettperrno();
    EXPECT_EQ(vorn_keylist_count(list), 3);
    vorn_key one;
    EXPECT_EQ(vorn_keylist_getakey(list, 0, &one), 1);
    EXPECT_EQ(one.keylen, 1);
    EXPECT_EQ(one.vallen, 10);
    EXPECT_EQ(one.attr, 7);
    EXPECT_EQ(one.key[0], 'a');
    EXPECT_EQ(vorn_keylist_getakey(list, 1, &one), 1);
    EXPECT_EQ(one.attr, INT32_MIN);
    EXPECT_EQ(keys_of(list), (names{"a", "", "long key"}));
    EXPECT_EQ(vorn_keylist_getakey(list, 3, &one), -1);
    EXPECT_EQ(gettperrno(), TPELIMIT);
    EXPECT_EQ(vorn_keylist_free(list), 1);
    expect_idle();
}

TEST_F(KeyList, OfAllNodesIsMergedInTheOrderOfTheKeys)
{
    ASSERT_TRUE(open(3));
    serve({{{"b"}, {"bb"}, {"x"}}, {}, {{"\x80z"}, {"a"}, {"b", 5}, {"c"}}});
    char *list = vorn_gq_getkeylist(nullptr, 0);
    ASSERT_NE(list, nullptr) << gettperrno();
    EXPECT_EQ(keys_of(list), (names{"\x80z", "a", "b", "b", "bb", "c", "x"}));
    vorn_key one;
    EXPECT_EQ(vorn_keylist_getakey(list, 2, &one), 1);
    EXPECT_EQ(one.vallen, 0);  // the lower node's comes first
    EXPECT_EQ(vorn_keylist_getakey(list, 3, &one), 1);
    EXPECT_EQ(one.vallen, 5);
    EXPECT_EQ(vorn_keylist_free(list), 1);
    peer.done();
    expect_idle();
}

TEST_F(KeyList, WithoutRowsIsAnError)
{
    ASSERT_TRUE(open(1));
    serve_raw("", 0);
    EXPECT_EQ(vorn_sq_getkeylist(nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    EXPECT_EQ(vorn_sq_getkeylist(svc("k"), 0), nullptr);
    EXPECT_EQ(gettperrno(), TPEINVAL);
}

TEST_F(KeyList, WhoseLengthsContradictOneAnotherIsRefused)
{
    ASSERT_TRUE(open(1));
    std::string good = rows_and_keys({{"abc"}, {"de"}}), negative = good, huge = good, wrapping = good;
    negative.replace(0, 4, wire::word(0xffffffff));
    huge.replace(12, 4, wire::word(3));
    wrapping.replace(0, 4, wire::word(0x7fffffff));
    wrapping.replace(12, 4, wire::word(0x7fffffff));
    struct {
        std::string bytes;
        int32_t rows;
    } cases[] = {{good, 3}, {good, -1},    {good, INT32_MAX},       {good, 0x15555556}, {negative, 2},
                 {huge, 2}, {wrapping, 2}, {good.substr(0, 28), 2}, {good, 0}};
    for (auto &one : cases) {
        serve_raw(one.bytes, one.rows);
        EXPECT_EQ(vorn_sq_getkeylist(nullptr, 0), nullptr);
        EXPECT_EQ(gettperrno(), TPESYSTEM);
        peer.done();
    }
    expect_idle();
}

TEST_F(KeyList, OfANodeThatCannotBeOneSpoilsTheMergedOne)
{
    ASSERT_TRUE(open(3));
    peer.play([&] {
        wire::frame requests[3];
        for (wire::frame &request : requests)
            request = peer.expect(REQUEST).frame;
        peer.reply_to(requests[0], rows_and_keys({{"a"}}), {.target = 1});
        peer.reply_to(requests[1], rows_and_keys({{"b"}}), {.target = 2});
    });
    EXPECT_EQ(vorn_gq_getkeylist(nullptr, 0), nullptr);
    EXPECT_EQ(gettperrno(), TPESYSTEM);
    peer.done();
    expect_idle();
}

TEST_F(KeyList, CallsRefuseWhatIsNoList)
{
    vorn_key one;
    alignas(8) char plain[400] = {};
    EXPECT_EQ(vorn_keylist_count(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(vorn_keylist_count(plain + 200), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(vorn_keylist_getakey(plain + 200, 0, &one), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    EXPECT_EQ(vorn_keylist_getakey(plain + 200, -1, &one), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(vorn_keylist_getakey(in, 0, nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(vorn_keylist_free(nullptr), -1);
    EXPECT_EQ(gettperrno(), TPEINVAL);
    EXPECT_EQ(vorn_keylist_free(plain + 200), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
}

TEST_F(KeyList, ThatCountsRowsPassesWithoutItsMark)
{
    ASSERT_TRUE(open(1));
    serve_raw(rows_and_keys({{"a"}, {"b"}}), 2);
    char *list = vorn_sq_getkeylist(nullptr, 0);
    ASSERT_NE(list, nullptr);
    message_of(list)->magic = 1;
    EXPECT_EQ(vorn_keylist_count(list), 2);
    EXPECT_EQ(keys_of(list), (names{"a", "b"}));
    EXPECT_EQ(vorn_keylist_free(list), -1);
    EXPECT_EQ(gettperrno(), TPEBADDESC);
    message_of(list)->magic = MESSAGE_MAGIC;
    EXPECT_EQ(vorn_keylist_free(list), 1);
}

TEST_F(KeyList, KeysCompareBySignedBytesAndThenByLength)
{
    EXPECT_EQ(_sq_key_compare("a", 1, "b", 1), -1);
    EXPECT_EQ(_sq_key_compare("b", 1, "a", 1), 1);
    EXPECT_EQ(_sq_key_compare("\x80", 1, "\1", 1), -1);
    EXPECT_EQ(_sq_key_compare("ab", 2, "a", 1), 1);
    EXPECT_EQ(_sq_key_compare("", 0, "a", 1), -1);
    EXPECT_EQ(_sq_key_compare("a", 1, "a", 1), 0);
}
