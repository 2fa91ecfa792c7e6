// What the tests of the message service share: a session with its objects, and the server's side of them.
#ifndef VORN_TESTS_KMQ_FIXTURE_H
#define VORN_TESTS_KMQ_FIXTURE_H

#include "tx/fixture.h"

#include "kmq/kmqapi.h"
#include "kmq/kmqobj.h"
#include "vorn/fields.h"

#include <functional>

namespace wire {

enum kmq_message : int32_t {
    KMQ_SESSION_OPEN = 500,
    KMQ_SESSION_CLOSE = 501,
    KMQ_OBJECT_OPEN = 502,
    KMQ_OBJECT_CLOSE = 503,
    KMQ_SEND = 504,
    KMQ_GETNEXT = 505,
    KMQ_ACK = 506,
    KMQ_DELIVER = 507
};

// A message with a body alone, as its fields travel.
inline std::string body(const std::string &text)
{
    auto filled = [](std::string entry) {
        entry.resize((entry.size() + 7) / 8 * 8);
        return entry;
    };
    std::string name = filled(word(0x1C000000) + std::string("$Data", 6));
    std::string value = filled(word(0x20000000) + word((uint32_t)text.size()) + text);
    return word(8888) + word((uint32_t)(8 + name.size() + value.size())) + name + value;
}

}  // namespace wire

constexpr int32_t SESSION_ID = 0x51, PRODUCER_ID = 0x62, CONSUMER_ID = 0x73;

struct KmqTest : TxTest {
    kmq_session *session = nullptr;
    kmq_producer *producer = nullptr;
    kmq_consumer *consumer = nullptr;
    char *msg = nullptr;

    ~KmqTest() override { tpfree(msg); }

    // Replies with an identity, as the server gives it.
    static void identify(Conn &conn, const wire::frame &request, int32_t sessid, int32_t prio)
    {
        wire::frame reply = wire::answer(request, "", {.sessid = sessid});
        reply.prio = prio;
        conn.send(reply);
    }

    bool open_session(const std::function<kmq_session *()> &create, const wire::start_reply &reply = {},
                      bool multiple = false)
    {
        if (block() == nullptr || block()->started == 0)
            if (!start(reply, multiple))
                return false;
        peer.play([&] { identify(peer, peer.expect(wire::KMQ_SESSION_OPEN).frame, SESSION_ID, 0); });
        session = create();
        peer.done();
        EXPECT_NE(session, nullptr) << gettperrno();
        return session != nullptr;
    }
    bool open_session(int transacted = 0, int ackmode = 0)
    {
        return open_session([=] { return kmq_create_session("S", transacted, ackmode, 0); });
    }
    bool open_xa_session(void)
    {
        return open_session([] { return kmq_create_xa_session("S", 0); });
    }

    // Makes an object; `requests` takes its request.
    template <typename Object>
    Object *make(int32_t id, const std::function<Object *()> &create, wire::frame *request = nullptr)
    {
        peer.play([&] {
            wire::frame came = peer.expect(wire::KMQ_OBJECT_OPEN).frame;
            if (request != nullptr)
                *request = came;
            identify(peer, came, 0, id);
        });
        Object *object = create();
        peer.done();
        EXPECT_NE(object, nullptr) << gettperrno();
        return object;
    }
    kmq_producer *make_producer(int kind = 0, wire::frame *request = nullptr)
    {
        return make<kmq_producer>(
            PRODUCER_ID, [&] { return kmq_create_producer(session, "Q", kind, nullptr, 0); }, request);
    }
    kmq_consumer *make_consumer(int32_t id = CONSUMER_ID, const char *consname = nullptr)
    {
        return make<kmq_consumer>(
            id, [&] { return kmq_create_consumer(session, "Q", 0, nullptr, nullptr, consname, 0); });
    }
    kmq_consumer *make_browser(int flags = 0, const char *selector = nullptr)
    {
        return make<kmq_consumer>(CONSUMER_ID,
                                  [&] { return kmq_create_browser(session, "Q", selector, flags); });
    }

    // The server closes the session: the notice comes ahead of a call's reply.
    void close_by_server(void)
    {
        arrive([&] {
            peer.send(wire::message(wire::KMQ_SESSION_CLOSE, "", {.flags = 0x1000, .sessid = SESSION_ID}));
        });
        EXPECT_EQ(session->open, 0);
    }

    // Lets messages arrive while no receive waits: they come ahead of a call's reply.
    void arrive(const std::function<void()> &messages)
    {
        peer.play([&] {
            wire::frame request = peer.expect(wire::TPCALL).frame;
            messages();
            peer.reply_to(request, "");
        });
        EXPECT_EQ(call(TPNOTRAN), 1) << gettperrno();
        peer.done();
    }

    static wire::frame delivery(const std::string &text, int32_t id = CONSUMER_ID, int32_t cd = 9,
                                uint32_t word = 0xABCD0004)
    {
        wire::frame m = wire::message(wire::KMQ_DELIVER, wire::body(text),
                                      {.buftype = wire::FIELD, .cd = cd, .sessid = SESSION_ID});
        m.prio = id;
        m.svcname = "_S";
        m.callid[2] = word;
        return m;
    }

    std::string body_of(char *message)
    {
        char bytes[8192];
        long length = sizeof bytes;
        int code = gettperrno();
        EXPECT_EQ(kmq_get_body(message, bytes, &length), 1) << gettperrno();
        set_tperrno(code);
        return std::string(bytes, (size_t)length);
    }
    void new_msg(int size = 2000)
    {
        tpfree(msg);
        msg = kmq_alloc(this, size);
        ASSERT_NE(msg, nullptr);
    }

    void expect_refused(long result, int error, where place = where::current())
    {
        EXPECT_EQ(result, -1) << place.line;
        EXPECT_EQ(gettperrno(), error) << place.line;
        peer.expect_nothing(place);
        set_tperrno(0);
    }
};

#endif
