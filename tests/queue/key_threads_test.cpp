// Threads that share a connection while they use the key store: each gets what its own nodes have answered,
// whoever reads it, and nobody's wait is disturbed by what comes late.
#include "queue/key_fixture.h"

#include <algorithm>
#include <poll.h>
#include <random>

namespace {

struct KeyThreads : KeyTest {
    wthr_var *shared = nullptr;

    bool open_shared(int nodes, int block_time = 0)
    {
        bool opened = open(nodes, block_time, true);
        shared = block();
        return opened;
    }
    bool is_read(void) const
    {
        return faults::eventually([&] {
            _thread_mutex_lock(&shared->msg_mutex);
            bool is = shared->reader_busy != 0;
            _thread_mutex_unlock(&shared->msg_mutex);
            return is;
        });
    }
    bool are_waiting(int count) const
    {
        return faults::eventually([&] {
            _thread_mutex_lock(&shared->msg_mutex);
            bool are = shared->waiting >= count;
            _thread_mutex_unlock(&shared->msg_mutex);
            return are;
        });
    }
    static bool plain_call(void)
    {
        char *reply = new_buffer("STRING");
        long length = 0;
        bool good = tpcall(svc("PROOF"), nullptr, 0, &reply, &length, 0) == 1;
        good = good && std::string(reply, (size_t)length) == "fine";
        tpfree(reply);
        return good;
    }
    // Takes `total` requests, up to `window` of those that are there at a time, and answers them in random
    // order with a single write.
    void serve_all(int total, size_t window, const std::function<wire::frame(const wire::frame &)> &answer)
    {
        peer.play([=, this] {
            std::minstd_rand random(7);
            for (int taken = 0; taken < total;) {
                std::vector<std::string> held;
                pollfd more = {peer.fd, POLLIN, 0};
                do {
                    wire::frame request;
                    if (!peer.receive(&request))
                        return;
                    held.push_back(wire::encode(answer(request)));
                    taken++;
                } while (held.size() < window && taken < total && poll(&more, 1, 0) > 0);
                std::shuffle(held.begin(), held.end(), random);
                std::string bytes;
                for (const std::string &one : held)
                    bytes += one;
                peer.send_raw(bytes);
            }
        });
    }
};

// What the node of this request answers to a call, a get, a count, or a request for its keys.
wire::frame answer_of_node(const wire::frame &request)
{
    if (request.msgtype != wire::KEY_REQUEST)
        return wire::answer(request, "fine");
    int node = request.cd >> 21;
    switch (request.rcode) {
    case wire::GET:
        // The last digit names the node that has it.
        if (request.data.back() - '0' != node)
            return wire::answer(request, "", {.flags = TPENOENT});
        return wire::answer(request, wire::value("value of " + request.data));
    case wire::LIST:
        return wire::answer(request, wire::key_list({{request.data + std::to_string(node)}}), {.target = 1});
    case wire::KEYGEN:
        return wire::answer(request, "$SQID12345678001");
    }
    return wire::answer(request, "", {.target = 10 + node});
}

}  // namespace

// One thread reads for all; what it takes off the stream for the one that asks the nodes comes faster than
// that one can say that it awaits more.
TEST_F(KeyThreads, RepliesThatComeTogetherReachTheirThreadThoughAnotherReads)
{
    constexpr int NODES = 6;
    ASSERT_TRUE(open_shared(NODES, 60));
    peer.play([&] {
        wire::frame call = peer.expect(wire::TPACALL).frame;
        std::string bytes;
        for (int node = 0; node < NODES; node++) {
            wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
            bytes += wire::encode(answer_of_node(request));
        }
        EXPECT_TRUE(are_waiting(1));
        peer.send_raw(bytes);
        EXPECT_TRUE(faults::eventually([&] { return finished > 0; }));
        peer.reply_to(call, "fine");
    });
    std::atomic<int> sum{0};
    in_threads(2, [&](int t) {
        if (t == 0) {
            EXPECT_TRUE(plain_call()) << gettperrno();
            return;
        }
        ASSERT_TRUE(is_read());
        sum = note(vorn_gq_count());
    });
    EXPECT_EQ(sum, 10 * NODES + 15);
    peer.done();
    expect_idle();
}

TEST_F(KeyThreads, EachGetsWhatBelongsToItsKey)
{
    constexpr int THREADS = 5, ROUNDS = 60, NODES = 4;
    ASSERT_TRUE(open_shared(NODES, 60));
    // No key is of the own node, which is asked first: a get takes as many requests as there are nodes.
    serve_all(THREADS * ROUNDS * NODES, 8, answer_of_node);
    std::atomic<int> wrong{0};
    in_threads(THREADS, [&](int t) {
        char *buffer = new_buffer("CARRAY", "", 10);
        long length = 0;
        for (int i = 0; i < ROUNDS; i++) {
            int node = (t + i) % 3;
            std::string key =
                std::to_string(t) + "/" + std::to_string(i) + "/" + std::to_string(node + (node >= OWN_NODE));
            int result = vorn_gq_get(key.data(), (int)key.size(), &buffer, &length, 0);
            wrong += result != 1 || std::string(buffer, (size_t)length) != "value of " + key;
        }
        tpfree(buffer);
    });
    EXPECT_EQ(wrong, 0);
    peer.done();
    expect_idle();
}

TEST_F(KeyThreads, QuestionsToAllNodesBesideCallsLoseNothing)
{
    constexpr int ROUNDS = 60, NODES = 3;
    ASSERT_TRUE(open_shared(NODES, 60));
    serve_all(ROUNDS * (2 * NODES + 2 + 1 + NODES), 6, answer_of_node);
    std::atomic<int> wrong{0};
    in_threads(6, [&](int t) {
        char key[16];
        for (int i = 0; i < ROUNDS; i++)
            switch (t) {
            case 0:
            case 1:
                wrong += vorn_gq_count() != 10 * NODES + 3;
                break;
            case 2:
            case 3:
                wrong += !plain_call();
                break;
            case 4:
                wrong += vorn_sq_keygen(key, 16) != 1 || memcmp(key, "$SQID12345678001", 16) != 0;
                break;
            case 5:
                char *list = vorn_gq_getkeylist(svc("k"), 1);
                vorn_key last = {};
                bool good = list != nullptr && vorn_keylist_count(list) == NODES &&
                            vorn_keylist_getakey(list, NODES - 1, &last) == 1 && last.keylen == 2 &&
                            memcmp(last.key, "k2", 2) == 0;
                wrong += !good;
                vorn_keylist_free(list);
                break;
            }
    });
    EXPECT_EQ(wrong, 0);
    peer.done();
    expect_idle();
    expect_usable();
}

// A message that none of them wants comes ahead of each reply.
TEST_F(KeyThreads, ForeignMessagesHoldNobodyUp)
{
    constexpr int ROUNDS = 40, NODES = 3;
    ASSERT_TRUE(open_shared(NODES, 60));
    peer.play([&] {
        wire::frame request;
        for (int left = ROUNDS * (2 * NODES + 1); left > 0 && peer.receive(&request); left--)
            peer.send_raw(wire::encode(wire::message(1012)) + wire::encode(answer_of_node(request)));
    });
    std::atomic<int> wrong{0};
    in_threads(3, [&](int t) {
        for (int i = 0; i < ROUNDS; i++)
            wrong += t < 2 ? vorn_gq_count() != 10 * NODES + 3 : !plain_call();
    });
    EXPECT_EQ(wrong, 0);
    peer.done();
    expect_idle();
}

// The replies that a get doesn't wait for are read by a thread that wants something else.
TEST_F(KeyThreads, LateRepliesDoNotEndAnothersWait)
{
    constexpr int NODES = 5;
    ASSERT_TRUE(open_shared(NODES));
    peer.play([&] {
        wire::frame call = peer.expect(wire::TPACALL).frame;
        peer.expect(wire::KEY_REQUEST);
        peer.reply("", {.flags = TPENOENT});
        std::string bytes;
        for (int i = 1; i < NODES; i++) {
            wire::frame other = peer.expect(wire::KEY_REQUEST).frame;
            bytes += wire::encode(wire::answer(other, wire::value("V")));
        }
        peer.send_raw(bytes);
        EXPECT_TRUE(faults::eventually([&] { return finished > 0; }));
        peer.reply_to(call, "fine");
    });
    in_threads(2, [&](int t) {
        if (t == 0) {
            EXPECT_TRUE(plain_call()) << gettperrno();
            return;
        }
        ASSERT_TRUE(is_read());
        expect_good(gq_get());
        EXPECT_EQ(value(), "V");
    });
    peer.done();
    expect_idle();
    expect_usable();
}

TEST_F(KeyThreads, TimeOutOfOneLeavesTheOthersWaiting)
{
    ASSERT_TRUE(open_shared(2, 1));
    std::atomic<bool> ended{false};
    peer.play([&] {
        wire::frame first = peer.expect(wire::KEY_REQUEST).frame;
        for (int i = 0; i < 2; i++)
            peer.expect(wire::KEY_REQUEST).seqno(first.seqno + 1);
        EXPECT_TRUE(faults::eventually([&] { return ended.load(); }));
        peer.reply_to(first, wire::value("PATIENT"));
    });
    in_threads(2, [&](int t) {
        if (t == 0) {
            expect_good(get(TPNOTIME));
            EXPECT_EQ(value(), "PATIENT");
            return;
        }
        ASSERT_TRUE(is_read());
        expect_error(vorn_gq_count(), TPETIME);
        ended = true;
    });
    peer.done();
    expect_idle();
}

// The one whom nobody wakes has its limit.
TEST_F(KeyThreads, LostConnectionIsToldToEachOfThem)
{
    constexpr int NODES = 3;
    ASSERT_TRUE(open_shared(NODES, 6));
    peer.play([&] {
        for (int i = 0; i < 3 * NODES; i++)
            peer.expect(wire::KEY_REQUEST);
        EXPECT_TRUE(are_waiting(2));
        peer.hang_up();
    });
    in_threads(3, [&](int t) {
        if (t == 0) {
            EXPECT_EQ(vorn_gq_getkeylist(nullptr, 0), nullptr);
        } else {
            EXPECT_EQ(t == 1 ? vorn_gq_count() : vorn_gq_purge(nullptr, 0), -1);
        }
        EXPECT_NE(gettperrno(), 0);
    });
    peer.done();
    EXPECT_EQ(shared->clhfd, -1);
    EXPECT_TRUE(is_unlocked(&shared->msg_mutex));
    EXPECT_EQ(vorn_get_sessionid(), -1);
}
