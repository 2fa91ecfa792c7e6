// The start exchange: who is let in, and what the start reply tells the client.
#include "keystore.h"
#include "server.h"

#include <algorithm>
#include <cstring>

namespace clhsim {

// User, client name and two credentials, at the front of the data of a start.
constexpr size_t LOGIN_FIELD_SIZE = 18;
constexpr size_t NODE_NAME_SIZE = 16;
constexpr size_t SERVER_NAME_LIMIT = 31;
constexpr uint32_t TAG_SERVER_NAME = 0;

static std::string login_field(std::string_view data, size_t index)
{
    size_t offset = index * LOGIN_FIELD_SIZE;
    if (offset >= data.size())
        return {};
    std::string_view field = data.substr(offset, LOGIN_FIELD_SIZE);
    return std::string(field.substr(0, field.find('\0')));
}

static bool lets_in(const Login &login, std::string_view data)
{
    return login.user == login_field(data, 0) &&
           (login.cred1.empty() || login.cred1 == login_field(data, 2)) &&
           (login.cred2.empty() || login.cred2 == login_field(data, 3));
}

static int32_t login_error(Server &server, const Client &client, std::string_view data)
{
    const Options &options = server.options;
    if (client.logged_in)
        return ERR_PROTO;
    if (auto error = strike(server.faults, "_tpstart", FaultKind::REFUSE))
        return static_cast<int32_t>(*error);
    if (options.login_refusal)
        return options.login_refusal;
    bool known =
        options.logins.empty() || std::any_of(options.logins.begin(), options.logins.end(),
                                              [&](const Login &login) { return lets_in(login, data); });
    return known ? 0 : ERR_SECURITY;
}

static void append_name(std::string &out, std::string_view name)
{
    out.append(name);
    out.append(NODE_NAME_SIZE - name.size(), '\0');
}

// Counts, node rows, queue rows, the threshold, tagged values. The third table stays empty: no client reads
// it.
static std::string start_payload(const Options &options)
{
    std::string out;
    append_word(out, static_cast<uint32_t>(options.nodes.size()));
    append_word(out, static_cast<uint32_t>(options.queues.size()));
    append_word(out, 0);
    for (const NodeName &node : options.nodes) {
        append_name(out, node.name);
        append_name(out, node.second);
        append_word(out, 0);
        append_word(out, 0);
    }
    for (const std::string &queue : options.queues)
        append_name(out, queue);
    append_word(out, static_cast<uint32_t>(options.threshold));
    if (options.server_name.empty())
        return out;
    std::string_view name = std::string_view(options.server_name).substr(0, SERVER_NAME_LIMIT);
    append_word(out, TAG_SERVER_NAME);
    append_word(out, static_cast<uint32_t>(name.size()));
    out.append(name);
    return out;
}

static Header start_reply(const Server &server, const Header &request, int32_t number)
{
    const Options &options = server.options;
    Header header = reply_header(request, 0, options.acall_size);
    header.buftype = BUF_HEADER_ONLY;
    header.cd = options.conv_size;
    header.prio = options.engine_version;
    header.value = number;
    header.xid = {options.node_number << 8 | options.clh_number, options.tx_timeout, options.block_time};
    header.sessid = node_count(server);
    return header;
}

void handle_start(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (int32_t error = login_error(server, client, data)) {
        server.stats.refused_logins++;
        Header refusal = reply_header(request, error, 0);
        refusal.buftype = BUF_HEADER_ONLY;
        refusal.target = error;
        send_reply(server, client, {.header = refusal}, "_tpstart");
        return;
    }
    client.logged_in = true;
    client.user = login_field(data, 0);
    client.name = login_field(data, 1);
    server.stats.logins++;
    Reply reply = {.header = start_reply(server, request, client.number)};
    if (server.options.payload)
        reply.data = start_payload(server.options);
    send_reply(server, client, std::move(reply), "_tpstart");
}

}  // namespace clhsim
