#include "queues.h"

#include "groups.h"
#include "services.h"

#include <algorithm>

namespace clhsim {

constexpr size_t RECORD_SIZE = 168;
constexpr auto RECORD_MARK = static_cast<int32_t>(0x80000000);
constexpr int32_t BUFTYPE_BEHIND_RECORD =
    10;                               // what a record in front adds to the type of structs and fields
constexpr int REQUESTS_A_ROUND = 64;  // so that a long queue doesn't keep the clients waiting
constexpr int64_t MOST_LISTED = 1000;

// What the priority of a message that is taken out tells of a request that wasn't answered.
constexpr int32_t PRIO_ANSWER = 1000;
constexpr int32_t PRIO_FAILED = 2000;

struct PartName {
    const char *name;
    uint32_t kinds;
};
static const PartName PARTS[] = {
    {".RQ_ANY", KINDS_ANY},
    {".RQ_FAIL", KINDS_FAILED},
    {".RQ_REQ", KINDS_REQUEST},
    {".RQ_RPLY", KINDS_ANSWER},
};

static const PartName *find_part(std::string_view name)
{
    for (const PartName &part : PARTS) {
        if (name == part.name)
            return &part;
    }
    return nullptr;
}

// Whoever changes something stirs the queue, who brings something new announces it: see below.
static void stir(Server &server, Queue &queue);

static void announce(Server &server, Queue &queue)
{
    queue.news = true;
    stir(server, queue);
}

bool open_queues(Server &server, std::string &problem)
{
    Queues &queues = server.queues;
    if (!open_store(queues.store, server.options.queue_file, problem))
        return false;
    for (const std::string &name : server.options.queues) {
        Queue &queue = queues.rows.emplace_back();
        queue.name = name;
        queue.rows = count_rows(queues.store, name);
    }
    server.nobody.life = Life::DEAD;
    for (Queue &queue : queues.rows)
        stir(server, queue);  // what an earlier run has left to do
    return true;
}

static Queue *find_queue(Server &server, int32_t number)
{
    auto &rows = server.queues.rows;
    return number >= 0 && static_cast<size_t>(number) < rows.size() ? &rows[static_cast<size_t>(number)]
                                                                    : nullptr;
}

static Queue *find_queue(Server &server, std::string_view name)
{
    for (Queue &queue : server.queues.rows) {
        if (queue.name == name)
            return &queue;
    }
    return nullptr;
}

static int32_t number_of(const Server &server, const Queue &queue)
{
    return static_cast<int32_t>(&queue - server.queues.rows.data());
}

static int64_t count_part(Server &server, const Queue &queue, uint32_t kinds, std::string_view service)
{
    int64_t count = 0;
    for (size_t i = 0; i < MESSAGE_KINDS; i++) {
        auto kind = static_cast<MessageKind>(i);
        if (kinds & kind_bit(kind))
            count += count_messages(server.queues.store, queue.name, kind, service);
    }
    return count;
}

// --- What happens behind a queue. When it is stirred, then later in the round, behind the answer to whoever
// did it, those who wait for something are told, and the services take what is there.

// Each is told how many were told before it, so that not all come back in the same moment.
static void tell_waiting(Server &server, Queue &queue)
{
    Header notice;
    notice.msgtype = MSG_QUEUE_CHANGE + REPLY;
    notice.cd = number_of(server, queue);
    for (uint64_t id : queue.waiting) {
        auto client = server.clients.find(id);
        if (client == server.clients.end() || congested(*client->second))
            continue;
        send_message(server, *client->second, notice, {});
        notice.target++;
    }
    queue.waiting.clear();
}

static Client *find_owner(Server &server, const QueuedMessage &message)
{
    auto owner = server.clients.find(message.owner);
    bool reads = owner != server.clients.end() && owner->second->life == Life::OPEN;
    return reads && !congested(*owner->second) ? owner->second.get() : nullptr;
}

// The type of the data alone.
static int32_t plain_buftype(const QueuedMessage &message)
{
    int32_t buftype = message.header.buftype;
    bool raised = !message.record.empty() && (buftype == BUF_STRUCT + BUFTYPE_BEHIND_RECORD ||
                                              buftype == BUF_FIELD + BUFTYPE_BEHIND_RECORD);
    return raised ? buftype - BUFTYPE_BEHIND_RECORD : buftype;
}

// The client takes the user code of a failure for the error, if it isn't 0.
static void send_result(Server &server, const Queue &queue, Client &owner, const QueuedMessage &message)
{
    Header header;
    header.msgtype = MSG_QUEUE_RESULT + (message.error ? ERROR_REPLY : REPLY);
    header.buftype = plain_buftype(message);
    header.subtype = message.header.subtype;
    header.seqno = message.header.seqno;
    header.flags = message.error;
    header.rcode = message.error ? message.error : message.rcode;
    header.cd = number_of(server, queue);
    set_service_name(header, service_name(message.header));
    send_message(server, owner, header, message.data);
}

// The service is done. What it made of the request is first written down, then told.
static void finish_request(Server &server, Queue &queue, QueuedMessage message, Answer answer)
{
    std::string room;
    std::string_view name = fault_name(message.header, room);
    bool wanted = !(message.header.flags & FLAG_NOREPLY);
    bool dropped = wanted && strike(server.faults, name, FaultKind::DROP);
    Client *owner = wanted ? find_owner(server, message) : nullptr;
    bool gone = answer.error == 0 && (!wanted || owner || dropped);
    std::string request_data = std::move(message.data);
    message.error = answer.error;
    message.rcode = answer.rcode;
    message.kind = answer.error ? MessageKind::FAILED : MessageKind::ANSWER;
    message.data = answer.error ? request_data : answer.data;
    bool kept =
        gone ? remove_message(server.queues.store, message.id) : turn_message(server.queues.store, message);
    if (!kept) {
        say("queue %s: can't write down what became of message %lld", queue.name.c_str(),
            static_cast<long long>(message.id));
        hold_message(server.queues.store, message.id, AT_WORK);
        return;
    }
    queue.rows -= gone;
    queue.processed++;
    queue.failed += answer.error != 0;
    if (!gone)
        announce(server, queue);
    server.stats.dropped += dropped;
    if (!owner || dropped)
        return;
    message.data = std::move(answer.data);
    send_result(server, queue, *owner, message);
}

static Answer run_request(Server &server, const QueuedMessage &message)
{
    Header request = message.header;
    request.buftype = plain_buftype(message);
    request.msgtype = MSG_CALL;
    std::string_view name = service_name(request);
    const Service *service = find_service(name);
    if (service)
        server.calls_by_service[service->name]++;
    if (int32_t error = call_error(server, service, request))
        return failed(error);
    // A service that asks for its caller gets one that has its number and nothing else.
    Client *owner = find_owner(server, message);
    server.nobody.number = owner ? owner->number : 0;
    return run_service(*service, server, server.nobody, request, message.data);
}

// One that takes its time holds up no other.
static bool work_on_first(Server &server, Queue &queue)
{
    std::optional<QueuedMessage> message =
        first_message(server.queues.store, queue.name, kind_bit(MessageKind::REQUEST), {});
    if (!message || !hold_message(server.queues.store, message->id, AT_WORK))
        return false;
    std::string room;
    Answer answer = run_request(server, *message);
    auto late = strike(server.faults, fault_name(message->header, room), FaultKind::DELAY);
    answer.delay += std::chrono::milliseconds(late.value_or(0));
    if (answer.delay == Clock::duration::zero()) {
        finish_request(server, queue, std::move(*message), std::move(answer));
        return true;
    }
    Clock::duration delay = answer.delay;
    after(server, server.nobody, delay, 0,
          [&server, &queue, message = std::move(*message), answer = std::move(answer)](Client &) {
              finish_request(server, queue, message, answer);
          });
    return true;
}

static void stir(Server &server, Queue &queue)
{
    if (queue.stirring)
        return;
    queue.stirring = true;
    after(server, server.nobody, Clock::duration::zero(), 0, [&server, &queue](Client &) {
        queue.stirring = false;
        if (queue.news)
            tell_waiting(server, queue);
        queue.news = false;
        int count = 0;
        while (!queue.held && count < REQUESTS_A_ROUND && work_on_first(server, queue))
            count++;
        if (count == REQUESTS_A_ROUND)
            stir(server, queue);
    });
}

// --- What clients ask for.

// The error stands in both words in which a client looks for it.
static void refuse(Server &server, Client &client, const Header &request, int32_t error, const char *name)
{
    Header header = reply_header(request, error, error);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    send_reply(server, client, {.header = header}, name);
}

static void answer_number(Server &server, Client &client, const Header &request, int32_t number,
                          const char *name)
{
    Header header = reply_header(request, 0, number);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    send_reply(server, client, {.header = header}, name);
}

// The queue of a request, unless the request has been dealt with: given back, refused, or for no queue at
// all. Enqueues and dequeues join the open transaction.
struct Asked {
    Queue *queue = nullptr;
    bool in_transaction = false;
};
static Asked asked_queue(Server &server, Client &client, const Header &request, std::string_view data,
                         const char *name)
{
    if (gives_back(server, client, request, data, name))
        return {};
    bool joins = request.msgtype == MSG_ENQ || request.msgtype == MSG_DEQ;
    bool in_transaction = joins && join_transaction(server, client, request);
    Queue *queue = find_queue(server, request.cd);
    int32_t error = queue ? 0 : ERR_NOENT;
    if (auto set = strike(server.faults, name, FaultKind::REFUSE))
        error = static_cast<int32_t>(*set);
    if (error == 0)
        return {queue, in_transaction};
    doom_transaction(client, in_transaction);
    refuse(server, client, request, error, name);
    return {};
}

static bool has_record(const Header &request)
{
    return !(request.flags & FLAG_SVGCALL) && request.target == RECORD_MARK;
}

// Why a message isn't accepted; 0 if it is.
static int32_t enqueue_error(Server &server, const Queue &queue, const Header &request, std::string_view data)
{
    bool stored = (request.flags & FLAG_RQDIRECT) != 0;
    if (!stored && service_name(request).empty())
        return ERR_INVAL;
    if (has_record(request) && data.size() < RECORD_SIZE)
        return ERR_INVAL;
    if (int32_t error = direction_error(server.options, request))
        return error;
    return queue.rows >= server.options.queue_limit ? ERR_QFULL : 0;
}

// Numbers that fit in a word, without 0.
static int32_t message_number(int64_t id)
{
    return static_cast<int32_t>((id - 1) % INT32_MAX) + 1;
}

void handle_enqueue(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_tpenq";
    auto [queue, in_transaction] = asked_queue(server, client, request, data, NAME);
    if (!queue)
        return;
    data = without_trailer(request, data);
    int32_t error = enqueue_error(server, *queue, request, data);
    QueuedMessage message;
    message.owner = client.id;
    message.header = request;
    if (error == 0) {
        size_t record = has_record(request) ? RECORD_SIZE : 0;
        bool stored = (request.flags & FLAG_RQDIRECT) != 0;
        message.kind = stored ? MessageKind::STORED : MessageKind::REQUEST;
        message.record = data.substr(0, record);
        message.data = data.substr(record);
        auto transaction = in_transaction ? static_cast<int64_t>(client.transaction.number) : NOT_HELD;
        if (!add_message(server.queues.store, queue->name, message, transaction))
            error = ERR_SYSTEM;
    }
    doom_transaction(client, in_transaction && error != 0);
    if (error) {
        refuse(server, client, request, error, NAME);
        return;
    }
    queue->rows++;
    queue->enqueued++;
    if (in_transaction)
        client.transaction.queues[number_of(server, *queue)].put = true;
    else
        announce(server, *queue);
    answer_number(server, client, request, message_number(message.id), NAME);
}

// A name is a part of the queue or a service; without one, and for a service, it is the stored messages.
static std::optional<QueuedMessage> take_first(Server &server, const Queue &queue, std::string_view name)
{
    const PartName *part = find_part(name);
    return part ? first_message(server.queues.store, queue.name, part->kinds, {})
                : first_message(server.queues.store, queue.name, kind_bit(MessageKind::STORED), name);
}

static Reply message_reply(const Header &request, QueuedMessage message)
{
    Reply reply = {.header = reply_header(request, 0, message.error ? message.error : message.rcode)};
    reply.header.buftype = plain_buftype(message);
    reply.header.subtype = message.header.subtype;
    reply.header.prio = message.header.prio;
    if (message.kind == MessageKind::FAILED)
        reply.header.prio = PRIO_FAILED;
    if (message.kind == MessageKind::ANSWER)
        reply.header.prio = PRIO_ANSWER;
    set_service_name(reply.header, service_name(message.header));
    reply.data = std::move(message.data);
    return reply;
}

void handle_dequeue(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_tpdeq";
    auto [queue, in_transaction] = asked_queue(server, client, request, data, NAME);
    if (!queue)
        return;
    std::optional<QueuedMessage> message = take_first(server, *queue, service_name(request));
    if (!message) {
        queue->waiting.insert(client.id);
        refuse(server, client, request, ERR_MATCH, NAME);
        return;
    }
    Store &store = server.queues.store;
    bool taken = in_transaction
                     ? hold_message(store, message->id, static_cast<int64_t>(client.transaction.number))
                     : remove_message(store, message->id);
    if (!taken) {
        doom_transaction(client, in_transaction);
        refuse(server, client, request, ERR_SYSTEM, NAME);
        return;
    }
    queue->dequeued++;
    if (in_transaction)
        client.transaction.queues[number_of(server, *queue)].taken = true;
    else
        queue->rows--;
    send_reply(server, client, message_reply(request, std::move(*message)), NAME);
}

void handle_queue_status(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_tpqstat";
    Queue *queue = asked_queue(server, client, request, data, NAME).queue;
    if (!queue)
        return;
    std::string_view name = service_name(request);
    if (const PartName *part = find_part(name)) {
        auto count = static_cast<int32_t>(count_part(server, *queue, part->kinds, {}));
        answer_number(server, client, request, count, NAME);
        return;
    }
    Reply reply;
    for (const PartName &part : PARTS)
        append_word(reply.data, static_cast<uint32_t>(count_part(server, *queue, part.kinds, name)));
    reply.header = reply_header(request, 0, static_cast<int32_t>(get_word(reply.data.data())));
    reply.header.buftype = BUF_CARRAY;
    send_reply(server, client, std::move(reply), NAME);
}

void handle_reissue(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_tpreissue";
    Queue *queue = asked_queue(server, client, request, data, NAME).queue;
    if (!queue)
        return;
    int64_t count = requeue_failed(server.queues.store, queue->name);
    if (count < 0) {
        refuse(server, client, request, ERR_SYSTEM, NAME);
        return;
    }
    queue->reissued += static_cast<uint64_t>(count);
    announce(server, *queue);
    answer_number(server, client, request, static_cast<int32_t>(count), NAME);
}

// --- The end of a transaction.

// A commit brings to the others what it put in, a rollback what it had taken.
static void announce_touched(Server &server, const Client &client, bool TouchedQueue::*news)
{
    for (const auto &[number, touched] : client.transaction.queues) {
        Queue &queue = *find_queue(server, number);
        queue.rows = count_rows(server.queues.store, queue.name);
        if (touched.*news)
            announce(server, queue);
    }
}

bool commit_messages(Server &server, Client &client)
{
    if (client.transaction.queues.empty())
        return true;
    if (!commit_held(server.queues.store, static_cast<int64_t>(client.transaction.number)))
        return false;
    announce_touched(server, client, &TouchedQueue::put);
    return true;
}

void undo_messages(Server &server, Client &client)
{
    if (client.transaction.queues.empty())
        return;
    if (!undo_held(server.queues.store, static_cast<int64_t>(client.transaction.number)))
        say("queues: can't undo transaction %llu before the next start",
            static_cast<unsigned long long>(client.transaction.number));
    announce_touched(server, client, &TouchedQueue::taken);
}

void abandon_queues(Server &server, const Client &client)
{
    for (Queue &queue : server.queues.rows)
        queue.waiting.erase(client.id);
}

// --- Commands.

std::string list_queues(Server &server)
{
    std::string text;
    for (const Queue &queue : server.queues.rows) {
        text += "  " + printable(queue.name);
        for (const PartName &part : PARTS)
            text += std::string(" ") + part.name + " " +
                    std::to_string(count_part(server, queue, part.kinds, {}));
        text += " enqueued " + std::to_string(queue.enqueued) + " dequeued " +
                std::to_string(queue.dequeued) + " processed " + std::to_string(queue.processed) +
                " failed " + std::to_string(queue.failed) + " reissued " + std::to_string(queue.reissued) +
                " waiting " + std::to_string(queue.waiting.size()) + (queue.held ? " on hold\n" : "\n");
    }
    return text;
}

static std::string hex(std::string_view bytes)
{
    static const char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (unsigned char byte : bytes) {
        text.push_back(DIGITS[byte >> 4]);
        text.push_back(DIGITS[byte & 15]);
    }
    return text;
}

bool list_queue(Server &server, std::string_view name, std::string &text)
{
    static const char *const KINDS[MESSAGE_KINDS] = {"stored", "request", "failed", "answer"};
    const Queue *queue = find_queue(server, name);
    if (!queue)
        return false;
    for (const QueuedMessage &message : list_messages(server.queues.store, queue->name, MOST_LISTED)) {
        auto kind = static_cast<size_t>(message.kind);
        text += "  " + std::to_string(message_number(message.id)) + " " +
                (kind < MESSAGE_KINDS ? KINDS[kind] : "damaged") + " \"" +
                printable(service_name(message.header)) + "\" bytes " + std::to_string(message.size) +
                " error " + std::to_string(message.error) + " record " +
                (message.record.empty() ? "none" : hex(message.record)) + "\n";
    }
    return true;
}

bool hold_queue(Server &server, std::string_view name, bool held)
{
    Queue *queue = find_queue(server, name);
    if (!queue)
        return false;
    queue->held = held;
    stir(server, *queue);
    return true;
}

}  // namespace clhsim
