// What the tests of directed calls and of queries share: the messages that the client sends, in every byte of
// their headers, and a server that answers each question.
#ifndef VORN_TESTS_CALLS_GROUPS_H
#define VORN_TESTS_CALLS_GROUPS_H

#include "calls/fixture.h"
#include "vorn/groups.h"
#include "vorn/query.h"

namespace wire {

enum query : int32_t {
    TPENQ = 17,
    TPQSTAT = 27,
    GETSVG = 46,
    GETADDR = 156,
    GET_ACTIVESVR = 166,
    GETSPR = 225
};

constexpr uint32_t TRAILER_ROOM = 0x02000000;  // xflags of all that the library makes
constexpr uint32_t TO_PROCESS = 0x00100000, TO_GROUP = 0x00400000;

}

// A message without data, as the client makes it.
static inline wire::frame bare(int32_t msgtype, const std::string &name = "")
{
    wire::frame message;
    message.msgtype = msgtype;
    message.svcname = name;
    message.xflags = wire::TRAILER_ROOM;
    return message;
}

// The header must be this one in all its words. Of the data the test looks at what it cares for.
static inline void expect_header(const Expected &came, const wire::frame &want)
{
    std::string got = wire::encode_header(came.frame), awaited = wire::encode_header(want);
    for (size_t at = 0; at < wire::HEADER; at += 4)
        if (wire::word_at(got, at) != wire::word_at(awaited, at))
            ADD_FAILURE_AT(came.place.file, came.place.line)
                << "the word at " << at << " of message " << came.frame.msgtype << " is " << std::hex
                << wire::word_at(got, at) << ", awaited " << wire::word_at(awaited, at);
}

// The data of a list of groups.
static inline std::string words(const std::vector<uint32_t> &values)
{
    std::string bytes;
    for (uint32_t value : values)
        bytes += wire::word(value);
    return bytes;
}

// What the server tells of the groups, and what is to be made of it.
struct told {
    std::vector<uint32_t> data;
    int32_t rcode;
    size_t bytes;  // of the data that are sent
    size_t count;  // of the groups in the end
};
static const told LIES[] = {
    {{5, 6}, 3, 8, 2},         {{5, 6}, 0x40000001, 8, 2},
    {{5, 6}, INT32_MAX, 8, 2}, {{5, 6}, 2, 7, 1},
    {{5, 6}, 2, 3, 0},         {{5, 6}, -1, 8, 0},
    {{5, 6}, INT32_MIN, 8, 0}, {{}, 4, 0, 0},
    {{5, 6, 7}, 2, 12, 2},     {{5}, 0, 4, 0},
};

struct GroupTest : CallTest {
    // Takes the question for the groups of a service and tells these.
    void tell_groups(const std::vector<uint32_t> &groups)
    {
        peer.expect(wire::GETSVG);
        peer.reply(words(groups), {.rcode = (int32_t)groups.size(), .buftype = wire::CARRAY});
    }

    void tell_lie(const told &lie)
    {
        peer.expect(wire::GETSVG);
        peer.reply(words(lie.data).substr(0, lie.bytes), {.rcode = lie.rcode, .buftype = wire::CARRAY});
    }

    // Of the buffer `in`. A script can't ask its header, which is in wire order while a request goes out.
    const int32_t in_size = message_of(in)->bufsize;

    // The request that goes out from the buffer `in`, with its text "hello".
    wire::frame request(int32_t msgtype, const std::string &name, uint32_t flags, int32_t target,
                        int32_t seqno, int32_t cd)
    {
        wire::frame message = bare(msgtype, name);
        message.buftype = wire::STRING;
        message.bufsize = in_size;
        message.datalen = 6;
        message.prio = 50;
        message.flags = flags;
        message.target = target;
        message.seqno = seqno;
        message.cd = cd;
        return message;
    }

    // The same with the identity of a call that has a reply, the n-th of the session.
    static wire::frame identified(wire::frame message, uint32_t nth)
    {
        message.callid[0] = 1;
        message.callid[1] = 7u << 19 | nth << 8 | 1u;
        return message;
    }

    int callsvg(int group, long flags = 0) { return tpcallsvg(group, svc("SVC"), in, 0, &out, &len, flags); }
    int acallsvg(int group, long flags = 0) { return tpacallsvg(group, svc("SVC"), in, 0, flags); }

    // A thread of the peer's side: waits until the client's thread has the reader role and awaits something.
    bool client_waits(void)
    {
        wthr_var *b = client;
        return faults::eventually([b] {
            pthread_mutex_lock(&b->msg_mutex);
            bool reading = b->reader_busy != 0;
            pthread_mutex_unlock(&b->msg_mutex);
            return reading;
        });
    }
    wthr_var *client = nullptr;  // the test's block, for threads that have another

    // The same: lets the time run out for the wait that the client is in, and for no later one. The next
    // request shows that it has given up.
    void let_this_wait_run_out(int seconds)
    {
        EXPECT_TRUE(client_waits());
        faults::shift_clock(seconds);
        EXPECT_TRUE(faults::eventually([&] {
            peer.send(wire::message(1012));
            return peer.something_came();
        }));
    }

    // From now on no session can be opened. The tperrno of that.
    int stop_the_server(void)
    {
        setenv("VORN_CONNECT_TIMEOUT", "0.5", 1);  // one try
        peer.stop_listening();
        EXPECT_EQ(tpstart(nullptr), -1);
        int error = gettperrno();
        EXPECT_NE(error, 0);
        EXPECT_NE(error, TPEINVAL);
        set_tperrno(0);
        return error;
    }

    bool open(const wire::start_reply &reply = {}, bool multiple = false)
    {
        bool opened = start(reply, multiple);
        client = block();
        return opened;
    }

    // Puts `count` threads on the context of the test's thread and runs the work in each, with its number.
    void in_threads(int count, const std::function<void(int)> &work)
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

// A question to the server: what is asked, and whether the answer is the one of `answer_question`.
struct question {
    const char *name;
    int32_t msgtype;
    bool limited;  // the block time ends its wait
    bool (*ask)(void);
    int other_error;  // what an error reply with TPESVCERR in `flags` becomes
};

static inline bool asks_address(void)
{
    int address = 0, port = 0;
    return tpgetcliaddr(9, &address, &port, 0) == 0 && address == 0x7f000001 && port == 4711;
}

static inline bool asks_active(void)
{
    char *buffer = nullptr;
    if (tpgetactivesvr(nullptr, &buffer) != 2)
        return false;
    bool good = memcmp(buffer, "servers", 7) == 0;
    tpfree(buffer);
    return good;
}

static inline bool asks_groups(void)
{
    svg_list *list = tpgetsvglist(svc("SVC"), 0);
    return list != nullptr && list->count == 3;
}

static inline bool asks_pair(void)
{
    int first = 0, second = 0;
    return tpgetsprlist(svc("SVC"), 3, &first, &second) == 1 && first == 31 && second == 32;
}

static inline bool asks_queue(void)
{
    return tpqstat(svc("QUEUE"), 0) == 12;
}

static inline bool asks_service_queue(void)
{
    return tpqsvcstat(svc("QUEUE"), nullptr, 2) == 23;
}

static constexpr question QUESTIONS[] = {
    {"tpgetcliaddr", wire::GETADDR, false, asks_address, TPESYSTEM},
    {"tpgetactivesvr", wire::GET_ACTIVESVR, false, asks_active, 0},
    {"tpgetsvglist", wire::GETSVG, false, asks_groups, 0},
    {"tpgetsprlist", wire::GETSPR, false, asks_pair, TPESVCERR},
    {"tpqstat", wire::TPQSTAT, true, asks_queue, TPESVCERR},
    {"tpqsvcstat", wire::TPQSTAT, true, asks_service_queue, TPESVCERR},
};

// Answers whatever comes; requests without a reply get none.
static inline void answer_question(Conn &conn, const wire::frame &asked)
{
    switch (asked.msgtype) {
    case wire::GETADDR:
        return conn.reply_to(asked, "", {.rcode = 0x7f000001, .cd = 4711});
    case wire::GET_ACTIVESVR:
        return conn.reply_to(asked, "servers", {.rcode = 2, .buftype = wire::CARRAY});
    case wire::GETSVG:
        return conn.reply_to(asked, words({5, 0x10006, 7}), {.rcode = 3, .buftype = wire::CARRAY});
    case wire::GETSPR:
        return conn.reply_to(asked, "", {.srcid = 31, .target = 32});
    case wire::TPQSTAT:
        return conn.reply_to(asked, words({21, 22, 23, 24}), {.rcode = 12, .buftype = wire::CARRAY});
    case wire::TPENQ:
    case wire::TPEND:
        return conn.reply_to(asked);
    default:
        if ((asked.flags & TPNOREPLY) == 0)
            conn.reply_to(asked, asked.data, {.rcode = asked.target});
    }
}

#endif
