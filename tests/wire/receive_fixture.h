// A thread that waits for the reply of a call on a bare connection.
#ifndef VORN_TESTS_WIRE_RECEIVE_FIXTURE_H
#define VORN_TESTS_WIRE_RECEIVE_FIXTURE_H

#include <errno.h>
#include <stdlib.h>

#include "session/cliapi.h"
#include "support/fixtures.h"
#include "wire/clhread.h"

constexpr int32_t SEQNO = 4711;

struct Receive : WireTest {
    msg_header *want = nullptr;

    std::thread sender;

    ~Receive() override
    {
        if (sender.joinable())
            sender.join();
        free(want);
    }

    // More bytes than a socket is sure to take without a reader.
    void send_beside(const std::string &bytes)
    {
        if (sender.joinable())
            sender.join();
        sender = std::thread([this, bytes] { peer.send_raw(bytes); });
    }

    // What a TPCALL waits with: a buffer with room for `room` bytes.
    msg_header *waiting(int32_t room = 1024, uint32_t flags = 0)
    {
        free(want);
        want = new_message(MSG_TPCALL, "old contents", room);
        want->seqno = SEQNO;
        want->flags = flags;
        block->waiter_count++;  // as the send path counts it
        return want;
    }

    // Reads with `want`, which the result then replaces, as it does for every caller.
    msg_header *read()
    {
        msg_header *given = want;
        msg_header *result = _read_csmsg_from_clh(-1, given, block);
        if (result != nullptr)
            want = result;
        return result;
    }

    msg_header *read_within(int seconds, int noblock = 0)
    {
        msg_header *result = _read_csmsg_from_clh_timeout2(want, seconds, noblock, block);
        if (result != nullptr)
            want = result;
        return result;
    }

    static wire::frame call_reply(const std::string &data, const wire::with &more = {})
    {
        wire::with fields = more;
        if (fields.seqno == INT32_MIN)
            fields.seqno = SEQNO;
        return wire::message(1003, data, fields);
    }

    // A fresh connection in place of the present one.
    void reconnect()
    {
        if (block->clhfd >= 0)
            _clhc_close(block->clhfd, block);
        int ends[2];
        tcp_pair(ends);
        block->clhfd = ends[0];
        peer.hang_up();
        peer.fd = ends[1];
        block->started = 1;
        block->reader_busy = 0;
        block->waiter_count = 0;
        errno = 0;
    }
};

inline std::string long_text(size_t length)
{
    std::string text;
    for (size_t i = 0; i < length; i++)
        text += (char)('a' + i * 7 % 26);
    return text;
}

inline std::string envelope(int32_t buftype, int32_t msgtype, const std::string &payload)
{
    return wire::word(77777777) + wire::word((uint32_t)payload.size()) + wire::word((uint32_t)buftype) +
           wire::word((uint32_t)msgtype) + payload;
}

#endif
