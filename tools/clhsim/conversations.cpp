// The conversational services, and the messages of a conversation.
#include "server.h"

#include <algorithm>
#include <charconv>

namespace clhsim {

constexpr size_t MOST_CONVERSATIONS = 1024;  // of a client
constexpr int64_t MOST_MESSAGES = 100 * 1000;
constexpr int32_t EVENT_SERVICE_ERROR = 2;
constexpr int32_t EVENT_SERVICE_FAILED = 4;

// A service is asked when the connect came, and it may refuse; then at each message, and at each turn that it
// has the right to send. `last` and `data` are the message that brought the right: the connect, or a later
// one.
struct ConversationService {
    const char *name;
    const char *help;
    bool (*plan)(Conversation &conversation, std::string_view text);
    void (*heard)(Server &server, Client &client, Conversation &conversation);
    void (*turn)(Server &server, Client &client, Conversation &conversation, const Header &last,
                 std::string_view data);
};

static Header message_header(int32_t msgtype, int32_t buftype)
{
    Header header;
    header.msgtype = msgtype;
    header.buftype = buftype;
    return header;
}

static void speak(Server &server, Client &client, Conversation &conversation, Header header,
                  std::string_view data)
{
    header.cd = conversation.cd;
    set_service_name(header, conversation.service->name);
    conversation.sent++;
    send_reply(server, client, {.header = header, .data = std::string(data)}, conversation.service->name);
}

static std::string as_string(std::string text)
{
    text.push_back('\0');
    return text;
}

static void say_text(Server &server, Client &client, Conversation &conversation, const std::string &text,
                     bool hands_over)
{
    Header header = message_header(MSG_SEND, BUF_STRING);
    header.flags = hands_over ? FLAG_RECVONLY : 0;
    conversation.may_send = !hands_over;
    speak(server, client, conversation, header, as_string(text));
}

// Each of these is the last thing done with a conversation: its record is gone then.
static void forget_conversation(Client &client, const Conversation &conversation)
{
    client.conversations.erase(conversation.cd);
}

static void end_well(Server &server, Client &client, Conversation &conversation, int32_t code,
                     const std::string &text)
{
    Header header = message_header(MSG_RECV + REPLY, BUF_STRING);
    header.rcode = code;
    speak(server, client, conversation, header, as_string(text));
    forget_conversation(client, conversation);
}

static void end_with_event(Server &server, Client &client, Conversation &conversation, int32_t event,
                           int32_t code, const std::string &text)
{
    Header header = message_header(MSG_RECV + EVENT_REPLY, BUF_STRING);
    header.flags = event;
    header.rcode = code;
    doom_transaction(client, conversation.in_transaction);
    speak(server, client, conversation, header, as_string(text));
    forget_conversation(client, conversation);
}

static void disconnect(Server &server, Client &client, Conversation &conversation, int32_t code)
{
    Header header = message_header(MSG_DISCON, BUF_HEADER_ONLY);
    header.rcode = code;
    doom_transaction(client, conversation.in_transaction);
    speak(server, client, conversation, header, {});
    forget_conversation(client, conversation);
}

// Up to three numbers, each with its limits; those that aren't given stay as they are.
static bool take_numbers(std::string_view text, std::initializer_list<int64_t *> numbers, int64_t low)
{
    std::vector<std::string_view> words = split_words(text, SIZE_MAX);
    if (words.size() > numbers.size())
        return false;
    const auto *number = numbers.begin();
    for (size_t i = 0; i < words.size(); i++, number++) {
        bool first = i == 0;
        if (!parse_number(words[i], first ? 0 : low, first ? MOST_MESSAGES : INT32_MAX, **number))
            return false;
    }
    return true;
}

// --- STREAM: as many messages as it is asked for.

static bool plan_stream(Conversation &conversation, std::string_view text)
{
    std::vector<std::string_view> words = split_words(text, SIZE_MAX);
    conversation.count = 0;
    conversation.hands_over = false;
    if (words.empty() || (words.size() == 1 && words[0] == "end"))
        return true;
    if (words.size() > 2 || !parse_number(words[0], 0, MOST_MESSAGES, conversation.count))
        return false;
    conversation.hands_over = words.size() == 2 && words[1] == "give";
    return words.size() == 1 || conversation.hands_over || words[1] == "end";
}

static void hear_nothing(Server &, Client &, Conversation &) {}

static void turn_stream(Server &server, Client &client, Conversation &conversation, const Header &,
                        std::string_view data)
{
    std::string_view text = text_of(data);
    bool first = conversation.turns++ == 0;
    if (!text.empty() && !plan_stream(conversation, text)) {
        end_with_event(server, client, conversation, EVENT_SERVICE_FAILED, 1, "no number of messages");
        return;
    }
    if (text.empty() && !first)
        conversation.hands_over = false;  // nothing more was asked for
    int64_t count = text.empty() && !first ? 0 : conversation.count;
    for (int64_t i = 1; i <= count; i++) {
        bool last = i == count && conversation.hands_over;
        say_text(server, client, conversation, "message " + std::to_string(i), last);
    }
    if (!conversation.hands_over)
        end_well(server, client, conversation, static_cast<int32_t>(count),
                 std::to_string(count) + " messages");
    else if (count == 0)
        say_text(server, client, conversation, "", true);
}

// --- TURNS: each turn is answered with what it said.

static bool plan_turns(Conversation &, std::string_view)
{
    return true;
}

static void turn_turns(Server &server, Client &client, Conversation &conversation, const Header &last,
                       std::string_view data)
{
    if (text_of(data) == "end") {
        end_well(server, client, conversation, static_cast<int32_t>(conversation.turns),
                 std::to_string(conversation.turns) + " turns");
        return;
    }
    conversation.turns++;
    conversation.may_send = false;
    Header header = message_header(MSG_SEND, last.buftype);
    header.subtype = last.subtype;
    header.flags = FLAG_RECVONLY;
    speak(server, client, conversation, header, data);
}

// --- HANGUP and CONVFAIL: an end in the middle, after so many messages of both sides.

static bool plan_hangup(Conversation &conversation, std::string_view text)
{
    return take_numbers(text, {&conversation.count, &conversation.code}, INT32_MIN);
}

static bool plan_failure(Conversation &conversation, std::string_view text)
{
    conversation.code = 1;
    conversation.event = EVENT_SERVICE_FAILED;
    return take_numbers(text, {&conversation.count, &conversation.code, &conversation.event}, INT32_MIN);
}

static bool is_due(const Conversation &conversation)
{
    return conversation.received + conversation.sent >= static_cast<uint64_t>(conversation.count);
}

static void hear_hangup(Server &server, Client &client, Conversation &conversation)
{
    if (is_due(conversation))
        disconnect(server, client, conversation, static_cast<int32_t>(conversation.code));
}

static void hear_failure(Server &server, Client &client, Conversation &conversation)
{
    if (is_due(conversation))
        end_with_event(server, client, conversation, static_cast<int32_t>(conversation.event),
                       static_cast<int32_t>(conversation.code),
                       "failed after " + std::to_string(conversation.count) + " messages");
}

// The right to send is kept until the end.
static void turn_to_the_end(Server &server, Client &client, Conversation &conversation, const Header &,
                            std::string_view)
{
    while (!is_due(conversation))
        say_text(server, client, conversation, "message " + std::to_string(conversation.sent + 1), false);
    conversation.service->heard(server, client, conversation);
}

static const ConversationService SERVICES[] = {
    {"STREAM", "\"N\": N messages, then the end; \"N give\": the right to send with the last of them",
     plan_stream, hear_nothing, turn_stream},
    {"TURNS", "answers each turn with its last message, until that is \"end\"", plan_turns, hear_nothing,
     turn_turns},
    {"HANGUP", "\"K [CODE]\": disconnects after K messages, of both sides", plan_hangup, hear_hangup,
     turn_to_the_end},
    {"CONVFAIL", "\"K [CODE [EVENT]]\": fails after K messages, with the user code (1) and the event (4)",
     plan_failure, hear_failure, turn_to_the_end},
};

static const ConversationService *find_conversation_service(std::string_view name)
{
    for (const ConversationService &service : SERVICES) {
        if (name == service.name)
            return &service;
    }
    return nullptr;
}

std::string conversation_services_help()
{
    std::string text;
    for (const ConversationService &service : SERVICES) {
        char line[200];
        snprintf(line, sizeof line, "  %-28s %s\n", (std::string(service.name) + " (conversation)").c_str(),
                 service.help);
        text += line;
    }
    return text;
}

// --- Messages of the client.

static int32_t connect_error(Server &server, const Client &client, const ConversationService *service,
                             const Header &request)
{
    if (auto error = strike(server.faults, service_name(request), FaultKind::REFUSE))
        return static_cast<int32_t>(*error);
    if (!service)
        return ERR_NOENT;
    bool client_sends = (request.flags & FLAG_SENDONLY) != 0;
    bool service_sends = (request.flags & FLAG_RECVONLY) != 0;
    if (client_sends == service_sends)
        return ERR_INVAL;
    return client.conversations.size() >= MOST_CONVERSATIONS ? ERR_LIMIT : 0;
}

static int32_t next_descriptor(Server &server)
{
    server.last_conversation = server.last_conversation == INT32_MAX ? 1 : server.last_conversation + 1;
    return server.last_conversation;
}

static Header connect_reply(const Header &request, int32_t error, int32_t cd)
{
    Header header = reply_header(request, error, 0);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    header.cd = cd;
    return header;
}

void handle_connect(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (gives_back(server, client, request, data))
        return;
    data = without_trailer(request, data);
    const ConversationService *service = find_conversation_service(service_name(request));
    Conversation planned;
    planned.service = service;
    planned.in_transaction = join_transaction(server, client, request);
    planned.may_send = (request.flags & FLAG_RECVONLY) != 0;
    int32_t error = connect_error(server, client, service, request);
    if (!error && !service->plan(planned, text_of(data)))
        error = ERR_INVAL;
    if (error) {
        doom_transaction(client, planned.in_transaction);
        send_reply(server, client, {.header = connect_reply(request, error, request.cd)},
                   service_name(request));
        return;
    }

    planned.cd = next_descriptor(server);
    Conversation &conversation = client.conversations[planned.cd] = planned;
    server.stats.conversations++;
    send_reply(server, client, {.header = connect_reply(request, 0, planned.cd)}, service->name);
    if (conversation.may_send) {
        service->turn(server, client, conversation, request, data);
        return;
    }
    service->heard(server, client, conversation);
}

static Conversation *find_conversation(Client &client, int32_t cd)
{
    auto row = client.conversations.find(cd);
    return row == client.conversations.end() ? nullptr : &row->second;
}

void handle_send(Server &server, Client &client, const Header &message, std::string_view data)
{
    Conversation *conversation = find_conversation(client, message.cd);
    if (!conversation) {
        // What was on its way when the service ended.
        server.stats.ignored++;
        return;
    }
    if (conversation->may_send) {
        server.stats.conversation_faults++;
        end_with_event(server, client, *conversation, EVENT_SERVICE_ERROR, 0,
                       "sent without the right to send");
        return;
    }
    conversation->received++;
    if (message.flags & FLAG_RECVONLY) {
        conversation->may_send = true;
        conversation->service->turn(server, client, *conversation, message, without_trailer(message, data));
        return;
    }
    conversation->service->heard(server, client, *conversation);
}

void handle_disconnect(Server &server, Client &client, const Header &message, std::string_view)
{
    Conversation *conversation = find_conversation(client, message.cd);
    if (!conversation) {
        server.stats.ignored++;
        return;
    }
    server.stats.disconnected++;
    doom_transaction(client, conversation->in_transaction);
    forget_conversation(client, *conversation);
}

void end_transaction_conversations(Server &server, Client &client)
{
    for (auto next = client.conversations.begin(); next != client.conversations.end();) {
        Conversation &conversation = (next++)->second;
        if (conversation.in_transaction)
            disconnect(server, client, conversation, 0);
    }
}

// --- Commands.

std::string list_conversations(const Server &server)
{
    std::string text;
    for (const auto &[number, client] : server.numbers) {
        for (const auto &[cd, conversation] : client->conversations) {
            text += "  " + std::to_string(number) + " " + std::to_string(cd) + " " +
                    conversation.service->name + (conversation.may_send ? " sends" : " receives") + " in " +
                    std::to_string(conversation.received) + " out " + std::to_string(conversation.sent) +
                    (conversation.in_transaction ? " transaction\n" : "\n");
        }
    }
    return text;
}

// A message kind: its type, its flags, and whether the conversation is over behind it.
struct Kind {
    const char *name;
    int32_t msgtype;
    int32_t flags;
    bool ends;
};
// clang-format off
static const Kind KINDS[] = {
    {"send", MSG_SEND, 0, false},
    {"give", MSG_SEND, FLAG_RECVONLY, false},
    {"end", MSG_RECV + REPLY, 0, true},
    {"fail", MSG_RECV + EVENT_REPLY, EVENT_SERVICE_FAILED, true},
    {"error", MSG_RECV + EVENT_REPLY, EVENT_SERVICE_ERROR, true},
    {"disconnect", MSG_DISCON, 0, true},
    {"refuse", MSG_CONNECT + ERROR_REPLY, EVENT_SERVICE_FAILED, true},
    {"reject", MSG_RECV + ERROR_REPLY, EVENT_SERVICE_FAILED, true},
};
// clang-format on

static const Kind *find_kind(std::string_view name)
{
    for (const Kind &kind : KINDS) {
        if (name == kind.name)
            return &kind;
    }
    return nullptr;
}

bool is_conversation_kind(std::string_view kind)
{
    return find_kind(kind) != nullptr;
}

std::string conversation_kinds()
{
    std::string text;
    for (const Kind &kind : KINDS)
        text += (text.empty() ? "" : ", ") + std::string(kind.name);
    return text;
}

static void say_kind(Server &server, Client &client, Conversation &conversation, const Kind &kind,
                     std::string_view text)
{
    Header header = message_header(kind.msgtype, BUF_STRING);
    header.flags = kind.flags;
    if (kind.ends)  // stays 0 without a number
        std::from_chars(text.data(), text.data() + text.size(), header.rcode);
    speak(server, client, conversation, header, as_string(std::string(text)));
    if (!kind.ends) {
        conversation.may_send = !(kind.flags & FLAG_RECVONLY);
        return;
    }
    if (kind.msgtype != MSG_RECV + REPLY)
        doom_transaction(client, conversation.in_transaction);
    forget_conversation(client, conversation);
}

size_t converse(Server &server, Client &client, int32_t cd, std::string_view kind, std::string_view text)
{
    const Kind *row = find_kind(kind);
    size_t count = 0;
    for (auto next = client.conversations.begin(); row && next != client.conversations.end();) {
        Conversation &conversation = (next++)->second;
        if (cd != -1 && cd != conversation.cd)
            continue;
        say_kind(server, client, conversation, *row, text);
        count++;
    }
    return count;
}

}  // namespace clhsim
