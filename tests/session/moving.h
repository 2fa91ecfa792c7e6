// Two servers: the session stands on the first, which goes down, and moves to the second.
#ifndef VORN_TESTS_SESSION_MOVING_H
#define VORN_TESTS_SESSION_MOVING_H

#include <poll.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "vorn/session.h"
#include "wire/clhread.h"
#include "wire/clients.h"

constexpr int DOWN_WARNING = 217;
constexpr uint32_t GIVEN_BACK = 0x20000000;

struct Moving : SessionTest {
    Peer backup;

    Moving() { setenv("VORN_BACKUP_ADDR", backup.address().c_str(), 1); }

    ~Moving() override { scripts_have_ended(); }

    // A script of one server may speak for the other, too.
    void scripts_have_ended()
    {
        peer.done();
        backup.done();
    }

    // One reply for both servers.
    static wire::start_reply with_block_time(int seconds)
    {
        wire::start_reply reply;
        reply.block_time = seconds;
        return reply;
    }

    // A session whose server can't be reached by the main list, only by the backup one; afterwards both can.
    bool start_on_backup()
    {
        setenv("VORN_HOST_ADDR", "127.0.0.1:1", 1);
        backup.play([&] { backup.accept_start(); });
        int result = tpstart(nullptr);
        backup.done();
        setenv("VORN_HOST_ADDR", peer.address().c_str(), 1);
        EXPECT_EQ(result, 1);
        return result == 1;
    }

    void warn(Conn &server) const
    {
        server.send_urgent(DOWN_WARNING);
        // A thread that reads may heed it at once.
        ASSERT_TRUE(faults::eventually([this] {
            pollfd urgent = {block()->clhfd, POLLPRI, 0};
            return block()->rolling != 0 || block()->rolled != 0 || poll(&urgent, 1, 0) == 1;
        }));
    }

    static outcome call(const std::string &text, long flags = 0)
    {
        outcome out;
        char *buffer = tpalloc((char *)"STRING", nullptr, (long)text.size() + 1);
        strcpy(buffer, text.c_str());
        char *answer = tpalloc((char *)"STRING", nullptr, 64);
        long length = 0;
        out.result = tpcall((char *)"SERVICE", buffer, 0, &answer, &length, flags);
        out.error = get_tperrno();
        if (out.result == 1)
            out.data = answer;
        tpfree(buffer);
        tpfree(answer);
        return out;
    }

    static int acall(const std::string &text, long flags = 0)
    {
        char *buffer = tpalloc((char *)"STRING", nullptr, (long)text.size() + 1);
        strcpy(buffer, text.c_str());
        int descriptor = tpacall((char *)"SERVICE", buffer, 0, flags);
        tpfree(buffer);
        return descriptor;
    }

    static outcome fetch(int descriptor, long flags = 0)
    {
        outcome out;
        char *buffer = tpalloc((char *)"STRING", nullptr, 64);
        long length = 0;
        out.result = tpgetrply(&descriptor, &buffer, &length, flags);
        out.error = get_tperrno();
        if (out.result == 1)
            out.data = buffer;
        tpfree(buffer);
        return out;
    }

    // The server doesn't process the request: it goes back with everything that it came with.
    static void give_back(Conn &server, wire::frame request)
    {
        request.msgtype += wire::EREPLY;
        request.xflags |= GIVEN_BACK;
        server.send(request);
    }

    static void answer_call(Conn &server, const std::string &text, const std::string &reply,
                            int32_t msgtype = wire::TPCALL)
    {
        server.expect(msgtype).text(text);
        server.reply(reply + '\0');
    }

    // A warning, and a call that moves the session to the second server.
    void move_to_backup(const wire::start_reply &reply = {})
    {
        warn(peer);
        backup.play([&] {
            backup.accept_start(reply);
            backup.receive(&backup.last);
            backup.reply(std::string("moved") + '\0');
        });
        EXPECT_EQ(call("move").data, "moved");
        backup.done();
    }

    void expect_call_over(Conn &server, Peer &player)
    {
        player.play([&] { answer_call(server, "after", "AFTER"); });
        EXPECT_EQ(call("after").data, "AFTER");
        player.done();
    }

    // The client has taken leave of the server, which then closes its side, too.
    static void left(Conn &server, where place = where::current())
    {
        server.expect_end(place);
        server.hang_up();
    }

    // The client sees the end of the previous server's side, in this wait or in its next.
    void settle() const
    {
        EXPECT_TRUE(faults::eventually([&] {
            end_old_socket_if_done(false, block());
            return block()->old_clhfd == -1;
        }));
    }

    static int port_of(int fd, int (*ask)(int, sockaddr *, socklen_t *))
    {
        sockaddr_in address = {};
        socklen_t length = sizeof address;
        return ask(fd, (sockaddr *)&address, &length) == 0 ? address.sin_port : -1;
    }

    // Once the scripts are through, a session stands on one connection alone: it has left all others.
    void expect_normal(bool on_backup)
    {
        scripts_have_ended();
        for (Peer *server : {&peer, &backup})
            if (server->fd >= 0 && port_of(server->fd, getpeername) != port_of(block()->clhfd, getsockname))
                left(*server);
        settle();
        EXPECT_EQ(block()->started, 1);
        EXPECT_GE(block()->clhfd, 0);
        EXPECT_EQ(block()->new_clhfd, -1);
        EXPECT_EQ(block()->old_clhfd, -1);
        EXPECT_EQ(block()->rolling, 0);
        EXPECT_EQ(block()->rolling_failed, 0);
        EXPECT_EQ(block()->on_backup, on_backup);
        EXPECT_EQ(block()->reader_busy, 0);
        EXPECT_EQ(block()->waiter_count, 0);
        EXPECT_EQ(tpgethostaddr(nullptr, nullptr, 0), on_backup ? 2 : 1);
    }
};

#endif
