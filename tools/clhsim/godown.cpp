#include "godown.h"

#include "server.h"

namespace clhsim {

constexpr unsigned char DOWN_WARNING = 217;

bool handled_on_leave(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (!client.leaving)
        return false;
    client.last_request = Clock::now();
    if (request.msgtype == MSG_END)
        return false;
    // Half of a transaction can't be done elsewhere: what belongs to one is refused, and its end is answered
    // here, with a rollback.
    bool ends = request.msgtype == MSG_COMMIT || request.msgtype == MSG_ROLLBACK;
    if (ends && client.transaction.open) {
        client.transaction.doomed = true;
        return false;
    }
    if (client.transaction.open && !(request.flags & (FLAG_NOTRAN | FLAG_TXSTART))) {
        client.transaction.doomed = true;
        send_message(server, client, reply_header(request, ERR_TRAN, 0), {});
        return true;
    }
    server.stats.given_back++;
    send_message(server, client, given_back(request), data);
    return true;
}

void take_leave_of(Server &server, Client &client, bool warned)
{
    if (client.life != Life::OPEN || client.leaving)
        return;
    client.leaving = true;
    client.last_request = Clock::now();
    if (warned && client.logged_in)
        send_urgent(server, client, DOWN_WARNING);
    leave_if_done(server, client);
}

static void leave(Server &server, Client &client)
{
    converse(server, client, -1, "disconnect", {});
    hang_up(server, client, true);
}

// Answers that are late are timers of the client, and so is a look at it that is to come. A request may be on
// its way that was sent before the warning was seen, so nothing may have come for a while.
void leave_if_done(Server &server, Client &client)
{
    if (!client.leaving || client.life != Life::OPEN || client.paused)
        return;
    if (client.timers > 0)
        return;
    auto quiet = Clock::now() - client.last_request;
    auto grace = std::chrono::milliseconds(server.options.leave_time);
    if (!client.logged_in || quiet >= grace) {
        leave(server, client);
        return;
    }
    after(server, client, grace - quiet, 0,
          [&server](Client &quiet_one) { leave_if_done(server, quiet_one); });
}

void go_down(Server &server, bool warned)
{
    server.going_down = true;
    close_listeners(server);
    for (auto &[number, client] : server.numbers)
        take_leave_of(server, *client, warned);
    end_if_alone(server);
}

void end_if_alone(Server &server)
{
    if (server.going_down && server.clients.empty())
        server.stopping = true;
}

}  // namespace clhsim
