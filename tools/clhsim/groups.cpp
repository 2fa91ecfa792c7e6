#include "groups.h"

#include "services.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace clhsim {

constexpr int NODE_SHIFT = 16;
constexpr int32_t NODE_MASK = 0x7ff;

static int32_t node_of(int32_t group)
{
    return group >> NODE_SHIFT & NODE_MASK;
}

std::vector<int32_t> groups_of(const Options &options, std::string_view service)
{
    for (const GroupList &list : options.groups) {
        if (list.service == service)
            return list.numbers;
    }
    if (!find_service(service))
        return {};
    return {(options.node_number & NODE_MASK) << NODE_SHIFT | 1};
}

static std::string process_of(const Header &request)
{
    std::string name = "server";
    name += std::to_string(request.target);
    if (static_cast<uint32_t>(request.xflags) & XFLAG_PROCESS)
        name.append(".").append(std::to_string(request.callid[0]));
    return name;
}

std::string direction_of(const Header &request)
{
    if (request.flags & FLAG_SVGCALL)
        return std::to_string(request.target);
    if (static_cast<uint32_t>(request.xflags) & (XFLAG_SERVER | XFLAG_PROCESS))
        return process_of(request);
    return {};
}

int32_t direction_error(const Options &options, const Header &request)
{
    if (!(request.flags & FLAG_SVGCALL))
        return 0;
    std::vector<int32_t> groups = groups_of(options, service_name(request));
    return std::find(groups.begin(), groups.end(), request.target) == groups.end() ? ERR_NOENT : 0;
}

std::string_view fault_name(const Header &request, std::string &room)
{
    room = direction_of(request);
    if (room.empty())
        return service_name(request);
    std::string name(service_name(request));
    name.append("@").append(room);
    room = std::move(name);
    return room;
}

Answer which_service(const Options &, const Header &request, std::string_view)
{
    std::string direction = direction_of(request);
    return text_answer(request, direction.empty() ? "none" : direction);
}

// --- Questions.

// Whether a question has been dealt with: given back or refused, by the control socket or for `error`.
static bool is_refused(Server &server, Client &client, const Header &request, std::string_view data,
                       const char *name, int32_t error)
{
    if (gives_back(server, client, request, data, name))
        return true;
    if (auto set = strike(server.faults, name, FaultKind::REFUSE))
        error = static_cast<int32_t>(*set);
    if (error == 0)
        return false;
    Header header = reply_header(request, error, error);
    header.buftype = BUF_HEADER_ONLY;
    send_reply(server, client, {.header = header}, name);
    return true;
}

void handle_group_list(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_getsvg";
    std::vector<int32_t> groups = groups_of(server.options, service_name(request));
    if (is_refused(server, client, request, data, NAME, groups.empty() ? ERR_NOENT : 0))
        return;
    Reply reply = {.header = reply_header(request, 0, static_cast<int32_t>(groups.size()))};
    reply.header.buftype = BUF_CARRAY;
    for (int32_t group : groups)
        append_word(reply.data, static_cast<uint32_t>(group));
    send_reply(server, client, std::move(reply), NAME);
}

// A group has one server, whose number is the group's place in the list, and that has one process.
void handle_process_list(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_getspr";
    std::vector<int32_t> groups = groups_of(server.options, service_name(request));
    auto group = std::find(groups.begin(), groups.end(), request.target);
    if (is_refused(server, client, request, data, NAME, group == groups.end() ? ERR_NOENT : 0))
        return;
    Reply reply = {.header = reply_header(request, 0, 0)};
    reply.header.buftype = BUF_HEADER_ONLY;
    reply.header.srcid = static_cast<int32_t>(group - groups.begin());
    reply.header.target = 1;
    send_reply(server, client, std::move(reply), NAME);
}

static const Client *find_client(const Server &server, int32_t number)
{
    for (const auto &[own, client] : server.numbers) {
        if (client->logged_in && (own == number || identity_of(server, *client) == number))
            return client;
    }
    return nullptr;
}

// Who came over the local socket has neither address nor port.
void handle_address(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_getaddr";
    const Client *asked = find_client(server, request.rcode);
    if (is_refused(server, client, request, data, NAME, asked ? 0 : ERR_NOENT))
        return;
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    bool known = getpeername(asked->fd, reinterpret_cast<sockaddr *>(&address), &size) == 0 &&
                 address.sin_family == AF_INET;
    Reply reply = {.header = reply_header(request, 0, 0)};
    reply.header.buftype = BUF_HEADER_ONLY;
    reply.header.rcode = known ? static_cast<int32_t>(ntohl(address.sin_addr.s_addr)) : 0;
    reply.header.cd = known ? ntohs(address.sin_port) : 0;
    send_reply(server, client, std::move(reply), NAME);
}

// The number of a node by its name, -1 for all; false: there is none of that name.
static bool find_node(const Options &options, std::string_view name, int32_t &node)
{
    node = -1;
    if (name.empty())
        return true;
    for (size_t i = 0; i < options.nodes.size(); i++) {
        if (options.nodes[i].name == name) {
            node = static_cast<int32_t>(i);
            return true;
        }
    }
    return false;
}

// A line for each service in each of its groups on the node.
void handle_active_servers(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_getactivesvr";
    int32_t node = -1;
    bool known = find_node(server.options, service_name(request), node);
    if (is_refused(server, client, request, data, NAME, known ? 0 : ERR_NOENT))
        return;
    Reply reply;
    int32_t count = 0;
    for (const std::string &name : service_names()) {
        for (int32_t group : groups_of(server.options, name)) {
            if (node != -1 && node_of(group) != node)
                continue;
            reply.data.append(name).append(" ").append(std::to_string(group)).append("\n");
            count++;
        }
    }
    reply.data.push_back('\0');
    reply.header = reply_header(request, 0, count);
    reply.header.buftype = BUF_STRING;
    send_reply(server, client, std::move(reply), NAME);
}

}  // namespace clhsim
