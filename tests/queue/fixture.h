// What the tests of reliable queues share: a session with three queues, the calls on the middle one, and the
// server's side of their messages.
#ifndef VORN_TESTS_QUEUE_FIXTURE_H
#define VORN_TESTS_QUEUE_FIXTURE_H

#include "tx/fixture.h"

#include "vorn/queue.h"

#include <sstream>

namespace wire {

enum queue_message : int32_t { TPENQ = 17, TPDEQ = 18, TPEVENT_REQUEST = 26, TPREISSUE = 30 };

// Every field of the header and the data, as text. The number is left out, for it isn't known beforehand.
inline std::string fields_of(const frame &m)
{
    std::ostringstream text;
    text << "magic " << m.magic << " buftype " << m.buftype << " bufsize " << m.bufsize << " msgtype "
         << m.msgtype << " rcode " << m.rcode << " srcid " << m.srcid << " target " << m.target << " prio "
         << m.prio << " value " << m.value << " xid " << m.xid[0] << ' ' << m.xid[1] << ' ' << m.xid[2]
         << " subtype '" << m.subtype << "' svcname '" << m.svcname << "' datalen " << m.datalen << " flags "
         << m.flags << " cd " << m.cd << " sessid " << m.sessid << " xflags " << m.xflags << " reserved "
         << m.reserved << " callid " << m.callid[0] << ' ' << m.callid[1] << ' ' << m.callid[2] << " data '"
         << m.data << "'";
    return text.str();
}

}  // namespace wire

constexpr int FIRST = 0, SECOND = 1, THIRD = 2;  // the queues, by number
constexpr long TO_SERVICE = 0x8000;              // carried to the queue service; in a notification: tell me
constexpr uint32_t ROOM_FOR_TRAILER = 0x02000000;

struct QueueTest : TxTest {
    bool start_queues(wire::start_reply reply = {}, bool multiple = false)
    {
        reply.queues = {"FIRST", "SECOND", "THIRD"};
        return start(reply, multiple);
    }
    // For the peer's script: the start of a session that a call opens.
    void accept_queues(void)
    {
        wire::start_reply reply;
        reply.queues = {"FIRST", "SECOND", "THIRD"};
        peer.accept_start(reply);
    }
    bool start_limited(int block_time)
    {
        wire::start_reply reply;
        reply.block_time = block_time;
        return start_queues(reply);
    }

    int enq(long flags = 0) { return note(tpenq(svc("SECOND"), svc("WORK"), in, 0, flags)); }
    int deq(long flags = 0, const char *queue = "SECOND")
    {
        return note(tpdeq(svc(queue), nullptr, &out, &len, flags));
    }
    int enq_ctl(long flags = 0, RQCTL_T *ctl = nullptr)
    {
        return note(tpenq_ctl(svc("SECOND"), svc("WORK"), ctl, in, 0, flags));
    }
    int deq_ctl(long flags = 0)
    {
        return note(tpdeq_ctl(svc("SECOND"), nullptr, nullptr, &out, &len, flags));
    }

    int pending(void) const { return block()->rq_pending; }

    // Enqueues so many requests, each of which makes an answer due.
    void make_due(int count)
    {
        peer.play([&, count] {
            for (int i = 0; i < count; i++) {
                peer.expect(wire::TPENQ);
                peer.reply();
            }
        });
        for (int i = 0; i < count; i++)
            EXPECT_EQ(enq(), 0) << gettperrno();
        peer.done();
    }

    // An answer of the service behind a queue.
    static wire::frame answer_of(int queue, const std::string &data, wire::with fields = {})
    {
        fields.cd = queue;
        return wire::message(fields.flags != 0 ? 2025 : 1025, data, fields);
    }
    // The server's refusal of a dequeue.
    void refuse_dequeue(int error) { peer.reply("", {.msgtype = 2018, .rcode = error}); }
    void expect_dequeue_of_empty_queue(void)
    {
        peer.expect(wire::TPDEQ);
        refuse_dequeue(TPEMATCH);
    }
    void notice(int32_t target) { peer.send(wire::message(1026, "", {.cd = SECOND, .target = target})); }

    // Lets messages arrive while nobody waits for them: they come ahead of a call's reply.
    void arrive(const std::function<void()> &messages)
    {
        peer.play([&] {
            peer.expect(wire::TPCALL);
            wire::frame request = peer.last;
            messages();
            peer.reply_to(request, "");
        });
        char *ignored = new_buffer("STRING");
        long length;
        EXPECT_EQ(tpcall(svc("PUMP"), nullptr, 0, &ignored, &length, TPNOTRAN), 1) << gettperrno();
        tpfree(ignored);
        peer.done();
    }
    void store(int queue, const std::string &data, const wire::with &fields = {})
    {
        arrive([&] { peer.send(answer_of(queue, data, fields)); });
    }
    int stored_for(int queue) const { return block()->qcall[queue].count; }

    // For the peer's script: ends the pause between two tries by the clock. A notification that wants to be
    // acknowledged tells that the pause has begun.
    static void let_pause_run_out(Conn &conn, int seconds)
    {
        conn.send(wire::message(wire::TPNOTIFY, "", {.flags = TO_SERVICE}));
        conn.expect(1000 + wire::TPNOTIFY);
        faults::shift_clock(seconds);
        conn.send(wire::message(1012));
    }

    void expect_refused(int result, int error)
    {
        EXPECT_EQ(result, -1);
        EXPECT_EQ(gettperrno(), error);
        peer.expect_nothing();
    }
};

#endif
