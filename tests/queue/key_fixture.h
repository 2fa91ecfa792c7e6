// What the tests of the key store share: a session on a domain of several nodes, the server's side of its
// requests, and the values that it keeps.
#ifndef VORN_TESTS_QUEUE_KEY_FIXTURE_H
#define VORN_TESTS_QUEUE_KEY_FIXTURE_H

#include "queue/fixture.h"

#include "queue/keylist.h"
#include "queue/keystore.h"
#include "vorn/keystore.h"

namespace wire {

constexpr int32_t KEY_REQUEST = 181;
enum key_operation : int32_t { GET = 2, PUT = 3, PURGE = 4, COUNT = 5, KEYGEN = 6, LIST = 8 };

// A request of the key store as it should arrive.
inline frame key_request(int32_t operation, int32_t cd, const std::string &payload = "", int32_t target = 0,
                         uint32_t flags = 0)
{
    frame request = message(KEY_REQUEST, payload, {.rcode = operation, .flags = flags, .cd = cd});
    request.buftype = HEADER_ONLY;
    request.target = target;
    return request;
}

// A stored value: the header that its putter sent, and the data in wire form.
inline std::string value(const std::string &data, int32_t buftype = CARRAY, const std::string &subtype = "")
{
    return encode(message(0, data, {.buftype = buftype, .subtype = subtype}));
}

struct key_row {
    std::string key;
    uint32_t vallen = 0, attr = 0;
};

// The payload of a reply that lists these.
inline std::string key_list(const std::vector<key_row> &rows)
{
    std::string words, keys;
    for (const key_row &row : rows) {
        uint32_t keylen = (uint32_t)row.key.size();
        words += word(keylen) + word(keylen + row.vallen) + word(row.attr);
        keys += row.key;
    }
    return words + keys;
}

}  // namespace wire

constexpr int32_t store_of(int node)
{
    return (int32_t)((uint32_t)node << 21 | 0x1fffff);
}

constexpr int OWN_NODE = 1;
constexpr int32_t OWN_STORE = store_of(OWN_NODE);
constexpr int32_t CLIENT_ID = OWN_NODE << 21 | 2 << 14 | 17;

struct KeyTest : TxTest {
    char *data = new_buffer("CARRAY", "before", 40);
    long got = -7;

    // Frees the buffers of failed calls too.
    ~KeyTest() override { tpfree(data); }

    static wire::start_reply reply_of(int nodes, int block_time = 0)
    {
        wire::start_reply reply;
        reply.token = nodes;
        reply.location = OWN_NODE << 8 | 2;
        reply.client = 17;
        reply.block_time = block_time;
        return reply;
    }
    bool open(int nodes = 1, int block_time = 0, bool multiple = false)
    {
        return start(reply_of(nodes, block_time), multiple);
    }

    // The next request must be this one, in each of its fields but the number.
    wire::frame expect_request(const wire::frame &expected)
    {
        wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
        EXPECT_EQ(wire::fields_of(request), wire::fields_of(expected));
        return request;
    }
    // All nodes but one are asked, in ascending order, each with the same message.
    std::vector<wire::frame> expect_nodes(int nodes, int leave_out, wire::frame expected)
    {
        std::vector<wire::frame> requests;
        for (int node = 0; node < nodes; node++) {
            if (node == leave_out)
                continue;
            expected.cd = store_of(node);
            requests.push_back(expect_request(expected));
            EXPECT_EQ(requests.back().seqno, requests.front().seqno);
            EXPECT_NE(requests.back().seqno, 0);
        }
        return requests;
    }
    // The server takes one request of the kind and gives this reply.
    void serve(int32_t operation, const std::string &reply = "", const wire::with &fields = {})
    {
        peer.play([=, this] {
            wire::frame request = peer.expect(wire::KEY_REQUEST).frame;
            EXPECT_EQ(request.rcode, operation);
            peer.reply(reply, fields);
        });
    }
    void serve_value(const std::string &stored, int32_t area = 0)
    {
        serve(wire::GET, stored, {.target = area});
    }

    int put(const std::string &key = "key", long flags = 0)
    {
        return note(vorn_sq_put(svc(key.c_str()), (int)key.size(), in, 0, flags));
    }
    int get(long flags = 0, const std::string &key = "key")
    {
        return note(vorn_sq_get(svc(key.c_str()), (int)key.size(), &data, &got, flags));
    }
    int gq_get(const std::string &key = "key", long flags = 0)
    {
        return note(vorn_gq_get(svc(key.c_str()), (int)key.size(), &data, &got, flags));
    }
    int gq_purge(const std::string &key) { return vorn_gq_purge(svc(key.c_str()), (int)key.size()); }
    std::string value(void) const { return std::string(data, (size_t)got); }

    void expect_error(int result, int error) const
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(gettperrno(), error);
    }
    void expect_good(int result, int expected = 1) const
    {
        EXPECT_EQ(result, expected);
        EXPECT_EQ(gettperrno(), 0);
    }
    // Nothing has gone out, and nobody is counted as waiting.
    void expect_unsent(int result, int error)
    {
        expect_error(result, error);
        peer.expect_nothing();
        EXPECT_EQ(block()->waiter_count, 0);
    }
    // What a failed get leaves: the buffer of the test's beginning.
    void expect_untouched(void) const
    {
        EXPECT_EQ(std::string(data, 6), "before");
        EXPECT_EQ(tpgettype(data), wire::CARRAY);
        EXPECT_EQ(got, -7);
    }

    // For the peer's script: the client waits, and the clock runs on by hours meanwhile. A notification that
    // wants to be acknowledged tells that the wait has begun.
    void let_hours_pass(void)
    {
        peer.send(wire::message(wire::TPNOTIFY, "", {.flags = TO_SERVICE}));
        peer.expect(1000 + wire::TPNOTIFY);
        faults::shift_clock(9999);
        peer.send(wire::message(1012));
    }

    // Lets a function run in so many threads of the context, each with its number.
    void in_threads(int count, const std::function<void(int)> &work) const
    {
        int number = context();
        std::vector<std::thread> threads;
        for (int t = 0; t < count; t++)
            threads.emplace_back([number, t, &work] {
                ASSERT_EQ(tpsetctxt(number, 0), 1);
                work(t);
                EXPECT_EQ(tpsetctxt(TPNULLCONTEXT, 0), 1);
            });
        for (std::thread &thread : threads)
            thread.join();
    }
};

#endif
