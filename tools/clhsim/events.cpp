#include "server.h"

#include <algorithm>
#include <fnmatch.h>

namespace clhsim {

constexpr size_t MOST_SUBSCRIPTIONS = 1024;  // of a client
constexpr size_t MOST_NOTICES = 1024;        // of a sender
constexpr int32_t NODE_UNIT = 0x200000;      // of an identity
constexpr int32_t CLH_UNIT = 0x4000;

int32_t identity_of(const Server &server, const Client &client)
{
    const Options &options = server.options;
    // A node number has 14 bits; the highest fall out of the word.
    auto node = static_cast<uint32_t>(options.node_number) * NODE_UNIT;
    return static_cast<int32_t>(node + static_cast<uint32_t>(options.clh_number * CLH_UNIT + client.number));
}

static bool matches(const std::string &pattern, const std::string &name)
{
    return fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
}

static bool is_receiver(const Client &client)
{
    return client.logged_in && client.life == Life::OPEN;
}

// Hands a message on. A receiver that doesn't read gets no more of them: they would pile up without end.
static bool deliver(Server &server, Client &receiver, const Header &header, std::string_view data)
{
    if (congested(receiver)) {
        server.stats.undelivered++;
        return false;
    }
    send_message(server, receiver, header, data);
    server.stats.delivered++;
    return true;
}

// As it goes to the receivers: the data's type and the name, nothing of the sender's own numbers.
static Header delivered_header(const Header &request)
{
    Header header;
    header.msgtype = request.msgtype;
    header.buftype = request.buftype;
    header.subtype = request.subtype;
    set_service_name(header, service_name(request));
    return header;
}

// --- Events.

void handle_subscribe(Server &server, Client &client, const Header &request, std::string_view)
{
    std::string_view expression = service_name(request);
    if (expression.empty() || client.subscriptions.size() >= MOST_SUBSCRIPTIONS) {
        server.stats.ignored++;
        return;
    }
    bool has_second = request.msgtype == MSG_SUBSCRIBE2;
    client.subscriptions.push_back(
        {std::string(expression), std::string(has_second ? subtype_name(request) : std::string_view())});
}

// Who subscribed twice to the same is still subscribed once.
void handle_unsubscribe(Server &server, Client &client, const Header &request, std::string_view)
{
    auto &all = client.subscriptions;
    auto row = std::find_if(all.begin(), all.end(),
                            [&](const auto &one) { return one.expression == service_name(request); });
    if (row == all.end()) {
        server.stats.ignored++;
        return;
    }
    all.erase(row);
}

static bool is_subscribed(const Client &client, const std::string &event)
{
    return std::any_of(client.subscriptions.begin(), client.subscriptions.end(),
                       [&](const Subscription &one) { return matches(one.expression, event); });
}

// The poster waits, and takes every answer whose user code isn't negative for a success.
static void refuse_post(Server &server, Client &client, const Header &request, int32_t error)
{
    Header header = reply_header(request, error, -1);
    header.buftype = BUF_HEADER_ONLY;
    send_reply(server, client, {.header = header}, service_name(request));
}

void handle_post(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (gives_back(server, client, request, data))
        return;
    std::string event(service_name(request));
    if (auto error = strike(server.faults, event, FaultKind::REFUSE)) {
        refuse_post(server, client, request, static_cast<int32_t>(*error));
        return;
    }
    if (event.empty()) {
        refuse_post(server, client, request, ERR_INVAL);
        return;
    }
    server.stats.posts++;
    data = without_trailer(request, data);
    int32_t count = 0;
    for (auto [number, receiver] : server.numbers) {
        if (is_receiver(*receiver) && is_subscribed(*receiver, event))
            count += deliver(server, *receiver, delivered_header(request), data);
    }
    Header header = reply_header(request, 0, count);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    send_reply(server, client, {.header = header}, event);
}

// --- Broadcasts.

// Nodes are counted by their rows in the start reply. All clients here are on one of them.
static int32_t own_node(const Options &options)
{
    return static_cast<size_t>(options.node_number) < options.nodes.size() ? options.node_number : 0;
}

void handle_broadcast(Server &server, Client &, const Header &request, std::string_view data)
{
    server.stats.broadcasts++;
    int32_t open = request.flags;
    if (!(open & FLAG_ANY_NODE) && request.rcode != own_node(server.options))
        return;
    std::string user(service_name(request));
    std::string name = broadcast_name(request);
    Header header = delivered_header(request);
    if (!(open & FLAG_ANY_CLIENT))
        header.subtype.fill(0);  // the name lay over it
    for (auto [number, receiver] : server.numbers) {
        bool chosen = is_receiver(*receiver) && ((open & FLAG_ANY_USER) || matches(user, receiver->user)) &&
                      ((open & FLAG_ANY_CLIENT) || matches(name, receiver->name));
        if (chosen)
            deliver(server, *receiver, header, without_trailer(request, data));
    }
}

// --- Notifications.

int32_t next_notification(Server &server)
{
    server.last_notification = server.last_notification == INT32_MAX ? 1 : server.last_notification + 1;
    return server.last_notification;
}

static Client *find_receiver(const Server &server, int32_t identity)
{
    for (auto [number, client] : server.numbers) {
        if (is_receiver(*client) && identity_of(server, *client) == identity)
            return client;
    }
    return nullptr;
}

static int32_t notify_error(Server &server, const Client &client, const Client *receiver,
                            const Header &request)
{
    if (auto error = strike(server.faults, service_name(request), FaultKind::REFUSE))
        return static_cast<int32_t>(*error);
    if (!receiver || congested(*receiver))
        return ERR_NOENT;
    auto waiting = std::count_if(server.notices.begin(), server.notices.end(),
                                 [&](const auto &row) { return row.second.sender == client.id; });
    return static_cast<size_t>(waiting) >= MOST_NOTICES ? ERR_LIMIT : 0;
}

static void answer_notice(Server &server, Client &sender, const Header &request, int32_t error)
{
    Header header = reply_header(request, error, 0);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    send_reply(server, sender, {.header = header}, service_name(request));
}

void handle_notify(Server &server, Client &client, const Header &request, std::string_view data)
{
    bool wants_answer = (request.flags & FLAG_NOTIFY_ACK) != 0;
    if (wants_answer && gives_back(server, client, request, data))
        return;
    Client *receiver = find_receiver(server, request.cd);
    server.stats.notifications++;
    if (int32_t error = notify_error(server, client, receiver, request)) {
        server.stats.undelivered++;
        if (wants_answer)
            answer_notice(server, client, request, error);
        return;
    }
    Header header = delivered_header(request);
    if (wants_answer) {
        header.flags = FLAG_NOTIFY_ACK;
        header.srcid = next_notification(server);
        server.notices[header.srcid] = {client.id, receiver->id, request};
    }
    deliver(server, *receiver, header, without_trailer(request, data));
}

void handle_acknowledgement(Server &server, Client &client, const Header &header, std::string_view)
{
    server.stats.acknowledged++;
    client.acknowledged++;
    say("client %d acknowledged notification %d", client.number, header.cd);
    auto row = server.notices.find(header.cd);
    if (row == server.notices.end() || row->second.receiver != client.id)
        return;
    auto sender = server.clients.find(row->second.sender);
    Header request = row->second.request;
    server.notices.erase(row);
    if (sender != server.clients.end())
        answer_notice(server, *sender->second, request, 0);
}

void abandon_notices(Server &server, Client &client)
{
    for (auto next = server.notices.begin(); next != server.notices.end();) {
        auto row = next++;
        const Notice notice = row->second;
        if (notice.sender != client.id && notice.receiver != client.id)
            continue;
        server.notices.erase(row);
        auto sender = server.clients.find(notice.sender);
        if (notice.sender != client.id && sender != server.clients.end())
            answer_notice(server, *sender->second, notice.request, ERR_NOENT);
    }
}

// --- Commands.

std::string list_subscriptions(const Server &server)
{
    std::string text;
    for (const auto &[number, client] : server.numbers) {
        for (const Subscription &one : client->subscriptions) {
            text += "  " + std::to_string(number) + " \"" + printable(one.expression) + "\"";
            if (!one.second.empty())
                text += " \"" + printable(one.second) + "\"";
            text += "\n";
        }
    }
    return text;
}

}  // namespace clhsim
