// What each message type of a client is answered with: a table of handlers.
#include "godown.h"
#include "groups.h"
#include "keystore.h"
#include "services.h"

#include <algorithm>
#include <unistd.h>

namespace clhsim {

constexpr size_t REPLY_COST = sizeof(Reply);

Header reply_header(const Header &request, int32_t error, int32_t rcode)
{
    Header header = request;
    header.msgtype = request.msgtype + (error ? ERROR_REPLY : REPLY);
    header.flags = error;
    header.rcode = rcode;
    header.xflags &= static_cast<int32_t>(~(XFLAG_TRAILER | XFLAG_TRAILER_LENGTH | XFLAG_GIVEN_BACK));
    return header;
}

static void deliver(Server &server, Client &client, const Reply &reply, int64_t cut_at)
{
    size_t before = client.output.size();
    send_message(server, client, reply.header, reply.data);
    if (cut_at >= 0 && client.output.size() - before > static_cast<size_t>(cut_at)) {
        client.output.resize(before + static_cast<size_t>(cut_at));
        server.stats.truncated++;
    }
    if (reply.last || cut_at >= 0)
        hang_up(server, client, true);
}

void send_reply(Server &server, Client &client, Reply reply, std::string_view name)
{
    if (strike(server.faults, name, FaultKind::DROP)) {
        server.stats.dropped++;
        return;
    }
    if (auto milliseconds = strike(server.faults, name, FaultKind::DELAY))
        reply.delay += std::chrono::milliseconds(*milliseconds);
    int64_t cut_at = strike(server.faults, name, FaultKind::TRUNCATE).value_or(-1);
    if (reply.delay == Clock::duration::zero()) {
        deliver(server, client, reply, cut_at);
        return;
    }
    Clock::duration delay = reply.delay;
    size_t held = REPLY_COST + reply.data.size();
    after(server, client, delay, held, [&server, cut_at, reply = std::move(reply)](Client &waiting) {
        deliver(server, waiting, reply, cut_at);
    });
}

void send_refusal(Server &server, Client &client, const Header &request, int32_t error)
{
    send_reply(server, client, {.header = reply_header(request, error, 0)}, service_name(request));
}

std::string_view without_trailer(const Header &header, std::string_view data)
{
    auto xflags = static_cast<uint32_t>(header.xflags);
    if (!(xflags & XFLAG_TRAILER))
        return data;
    return data.substr(0, data.size() - std::min<size_t>(data.size(), xflags & XFLAG_TRAILER_LENGTH));
}

Header given_back(const Header &request)
{
    Header back = request;
    back.msgtype += ERROR_REPLY;
    back.xflags |= static_cast<int32_t>(XFLAG_GIVEN_BACK);
    return back;
}

bool gives_back(Server &server, Client &client, const Header &request, std::string_view data,
                std::string_view name)
{
    if (name.empty())
        name = service_name(request);
    if (!strike(server.faults, name, FaultKind::GIVE_BACK))
        return false;
    server.stats.given_back++;
    send_reply(server, client, {.header = given_back(request), .data = std::string(data)}, name);
    return true;
}

int32_t call_error(Server &server, const Service *service, const Header &request)
{
    std::string room;
    if (auto error = strike(server.faults, fault_name(request, room), FaultKind::REFUSE))
        return static_cast<int32_t>(*error);
    if (!service)
        return ERR_NOENT;
    if (int32_t error = direction_error(server.options, request))
        return error;
    return type_error(*service, request.buftype);
}

// The receipt of a TPACALL that waits for it. A call that is refused ends here: its error goes with the
// receipt, and no reply follows.
static void send_receipt(Server &server, Client &client, const Header &request, int32_t error)
{
    Header receipt = reply_header(request, error, 0);
    receipt.msgtype = MSG_RECEIPT + (error ? ERROR_REPLY : REPLY);
    receipt.buftype = BUF_HEADER_ONLY;
    receipt.subtype.fill(0);
    send_message(server, client, receipt, {});
}

// Anybody can make up numbers of servers: only so many are counted.
static void count_directed(Server &server, const std::string &name)
{
    constexpr size_t MOST_COUNTED = 1000;
    if (server.directed_calls.size() < MOST_COUNTED || server.directed_calls.contains(name))
        server.directed_calls[name]++;
}

static void handle_call(Server &server, Client &client, const Header &request, std::string_view data)
{
    std::string room;
    std::string_view name = fault_name(request, room);
    const Service *service = find_service(service_name(request));
    server.stats.calls++;
    client.calls++;
    if (service)
        server.calls_by_service[service->name]++;
    else
        server.stats.unknown_calls++;
    if (service && !room.empty())
        count_directed(server, room);

    if (gives_back(server, client, request, data, name))
        return;

    bool in_transaction = join_transaction(server, client, request);
    int32_t error = call_error(server, service, request);
    bool acall = request.msgtype == MSG_ACALL;
    bool receipt = acall && (request.flags & FLAG_BLOCK);
    bool reply = !(acall && (request.flags & FLAG_NOREPLY));
    if (receipt)
        send_receipt(server, client, request, error);
    if (error) {
        doom_transaction(client, in_transaction);
        if (reply && !receipt)
            send_reply(server, client, {.header = reply_header(request, error, 0)}, name);
        return;
    }
    Answer answer = run_service(*service, server, client, request, without_trailer(request, data));
    doom_transaction(client, in_transaction && answer.error != 0);
    if (!reply)
        return;
    Reply result = {.header = reply_header(request, answer.error, answer.rcode),
                    .data = std::move(answer.data),
                    .delay = answer.delay};
    send_reply(server, client, std::move(result), name);
}

static void handle_end(Server &server, Client &client, const Header &request, std::string_view)
{
    auto error = static_cast<int32_t>(strike(server.faults, "_tpend", FaultKind::REFUSE).value_or(0));
    send_reply(server, client, {.header = reply_header(request, error, 0), .last = error == 0}, "_tpend");
}

// A line may come with its newline or without one, and with a NUL behind it; in the log it is one line each.
static void handle_userlog(Server &server, Client &client, const Header &, std::string_view data)
{
    std::string_view text = data.substr(0, std::min(data.find('\0'), data.size()));
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    server.stats.log_lines++;
    if (server.log)
        fprintf(server.log, "%s\n", printable(text).c_str());
    else
        say("userlog %d: %s", client.number, printable(text).c_str());
}

static void handle_ulogsync(Server &server, Client &client, const Header &, std::string_view)
{
    server.stats.log_flushes++;
    if (!server.log) {
        say("ulogsync %d", client.number);
        return;
    }
    fflush(server.log);
    fdatasync(fileno(server.log));
}

// What this server doesn't do, but whose sender waits for an answer.
static void handle_unserved(Server &server, Client &client, const Header &request, std::string_view)
{
    send_refusal(server, client, request, ERR_NOENT);
}

struct MessageRow {
    int32_t type;
    const char *name;
    bool before_login;
    bool answered;  // the sender waits
    void (*handle)(Server &server, Client &client, const Header &header, std::string_view data);
};

static const MessageRow MESSAGES[] = {
    {MSG_START, "TPSTART", true, true, handle_start},
    {MSG_INIT, "TPINIT", true, true, handle_start},
    {MSG_END, "TPEND", true, true, handle_end},
    {MSG_CALL, "TPCALL", false, true, handle_call},
    {MSG_ACALL, "TPACALL", false, true, handle_call},
    {MSG_USERLOG, "USERLOG", false, false, handle_userlog},
    {MSG_ULOGSYNC, "ULOGSYNC", false, false, handle_ulogsync},
    {MSG_NOTIFY + REPLY, "TPNOTIFY_REPLY", false, false, handle_acknowledgement},
    {MSG_NOTIFY, "TPNOTIFY", false, false, handle_notify},
    {MSG_CONNECT, "TPCONNECT", false, true, handle_connect},
    {MSG_SEND, "TPSEND", false, false, handle_send},
    {MSG_DISCON, "TPDISCON", false, false, handle_disconnect},
    {MSG_POST, "TPPOST", false, true, handle_post},
    {MSG_BROADCAST, "TPBROADCAST", false, false, handle_broadcast},
    {MSG_SUBSCRIBE, "TPSUBSCRIBE", false, false, handle_subscribe},
    {MSG_SUBSCRIBE2, "TPSUBSCRIBE2", false, false, handle_subscribe},
    {MSG_UNSUBSCRIBE, "TPUNSUBSCRIBE", false, false, handle_unsubscribe},
    {MSG_ENQ, "TPENQ", false, true, handle_enqueue},
    {MSG_DEQ, "TPDEQ", false, true, handle_dequeue},
    {MSG_QSTAT, "TPQSTAT", false, true, handle_queue_status},
    {MSG_REISSUE, "TPREISSUE", false, true, handle_reissue},
    {MSG_COMMIT, "TX_COMMIT", false, true, handle_commit},
    {MSG_ROLLBACK, "TX_ROLLBACK", false, true, handle_rollback},
    {MSG_MCALL, "TPMCALL", false, true, handle_unserved},
    {MSG_GETSVG, "GETSVG", false, true, handle_group_list},
    {MSG_GETADDR, "GETADDR", false, true, handle_address},
    {MSG_ACTIVESVR, "GET_ACTIVESVR", false, true, handle_active_servers},
    {MSG_SQ, "SQ_REQUEST", false, true, handle_key_store},
    {MSG_GETSPR, "GETSPR", false, true, handle_process_list},
    {MSG_SESSION_OPEN, "KMQ_SESSION_OPEN", false, true, handle_session_open},
    {MSG_SESSION_CLOSE, "KMQ_SESSION_CLOSE", false, true, handle_session_close},
    {MSG_OBJECT_OPEN, "KMQ_OBJECT_OPEN", false, true, handle_object_open},
    {MSG_OBJECT_CLOSE, "KMQ_OBJECT_CLOSE", false, true, handle_object_close},
    {MSG_SERVICE_SEND, "KMQ_SEND", false, true, handle_service_send},
    {MSG_SERVICE_GET, "KMQ_GETNEXT", false, true, handle_service_get},
    {MSG_SERVICE_ACK, "KMQ_ACK", false, false, handle_service_ack},
    {MSG_SESSION_COMMIT, "KMQ_COMMIT", false, true, handle_session_commit},
    {MSG_SESSION_ROLLBACK, "KMQ_ROLLBACK", false, true, handle_session_rollback},
    {MSG_SESSION_RECOVER, "KMQ_RECOVER", false, true, handle_session_recover},
};

static const MessageRow *find_message(int32_t type)
{
    for (const MessageRow &row : MESSAGES) {
        if (row.type == type)
            return &row;
    }
    return nullptr;
}

static void tell_message(const Client &client, const MessageRow *row, const Frame &frame)
{
    const Header &header = frame.header;
    fprintf(stderr, "clhsim: client %d: %s (%d) \"%s\" seqno %d cd %d flags %#x buftype %d, %d bytes%s\n",
            client.number, row ? row->name : "ignored", header.msgtype,
            printable(service_name(header)).c_str(), header.seqno, header.cd,
            static_cast<unsigned>(header.flags), header.buftype, header.datalen,
            frame.compressed ? ", compressed" : "");
}

void handle_message(Server &server, Client &client, const Frame &frame)
{
    const MessageRow *row = find_message(frame.header.msgtype);
    if (server.options.verbose)
        tell_message(client, row, frame);
    if (!row || (!client.logged_in && !row->before_login && !row->answered)) {
        server.stats.ignored++;
        return;
    }
    if (!client.logged_in && !row->before_login) {
        send_refusal(server, client, frame.header, ERR_PROTO);
        return;
    }
    if (row->answered && handled_on_leave(server, client, frame.header, frame.data))
        return;
    row->handle(server, client, frame.header, frame.data);
}

}  // namespace clhsim
