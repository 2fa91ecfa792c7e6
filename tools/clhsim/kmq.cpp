#include "kmqplaces.h"

#include "fields.h"

#include <algorithm>
#include <cstring>

namespace clhsim {

// What an acknowledgement says.
constexpr int32_t ACK_TAKE = 0x20;
constexpr int32_t ACK_REFUSE = 0x40;

constexpr int32_t CLOSED_BY_SERVER = 0x1000;

// The record of names, in which an object is described: two names, the consumer's own, and the selector.
constexpr size_t SUBNAME_OFFSET = 0, SUBNAME_SIZE = 32;
constexpr size_t QUEUE_OFFSET = 32, QUEUE_SIZE = 16;
constexpr size_t SELECTOR_OFFSET = 80;
constexpr size_t SMALLEST_RECORD = 81;

constexpr size_t MOST_SESSIONS = 10 * 1000;
constexpr size_t MOST_OBJECTS = 1000;  // of a session
constexpr size_t MOST_PLACES = 10 * 1000;

static ServiceSession *find_session(Server &server, const Client &client, int32_t id)
{
    auto session = server.service.sessions.find(id);
    bool own = session != server.service.sessions.end() && session->second.client == client.id;
    return own ? &session->second : nullptr;
}

static ServiceObject *find_object(ServiceSession &session, int32_t id)
{
    auto object = session.objects.find(id);
    return object == session.objects.end() ? nullptr : &object->second;
}

// --- What clients ask for.

static void answer(Server &server, Client &client, const Header &request, int32_t error, const char *name,
                   int32_t id = 0)
{
    Header header = reply_header(request, error, error);
    header.buftype = BUF_HEADER_ONLY;
    header.subtype.fill(0);
    if (request.msgtype == MSG_SESSION_OPEN)
        header.sessid = id;
    if (request.msgtype == MSG_OBJECT_OPEN)
        header.prio = id;
    send_reply(server, client, {.header = header}, name);
}

// The session of a request, unless the request has been dealt with: given back or refused. Who has lost its
// session gets the error of a closed one.
static ServiceSession *asked_session(Server &server, Client &client, const Header &request,
                                     std::string_view data, const char *name)
{
    if (gives_back(server, client, request, data, name))
        return nullptr;
    ServiceSession *session = find_session(server, client, request.sessid);
    int32_t error = session ? 0 : ERR_CLOSE;
    if (auto set = strike(server.faults, name, FaultKind::REFUSE))
        error = static_cast<int32_t>(*set);
    if (error == 0)
        return session;
    doom_transaction(client, session && (session->flags & SESSION_XA) && client.transaction.open);
    answer(server, client, request, error, name);
    return nullptr;
}

static int32_t session_error(const Server &server, std::string_view name)
{
    const std::vector<std::string> &names = server.options.message_servers;
    if (!name.starts_with('_') || name.size() == 1)
        return ERR_INVAL;
    if (!names.empty() && std::find(names.begin(), names.end(), name.substr(1)) == names.end())
        return ERR_NOENT;
    return server.service.sessions.size() >= MOST_SESSIONS ? ERR_LIMIT : 0;
}

void handle_session_open(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqopen";
    if (gives_back(server, client, request, data, NAME))
        return;
    int32_t error = session_error(server, service_name(request));
    if (auto set = strike(server.faults, NAME, FaultKind::REFUSE))
        error = static_cast<int32_t>(*set);
    if (error) {
        answer(server, client, request, error, NAME);
        return;
    }
    int32_t id = ++server.service.last_session;
    server.service.sessions[id] = {
        .id = id, .client = client.id, .flags = request.flags, .name = std::string(service_name(request))};
    answer(server, client, request, 0, NAME, id);
}

static void close_object(Server &server, ServiceSession &session, int32_t id)
{
    ServiceObject &object = session.objects[id];
    stop_waiting(server, id, object);
    Place *place = find_place(server, object.place);
    if (place && place->reader == id) {
        place->reader = 0;
        if (!place->durable)
            server.service.places.erase(object.place);
    }
    session.objects.erase(id);
}

// The consumers go first, so that what goes back doesn't come to them again.
static void end_session(Server &server, int32_t id)
{
    ServiceSession &session = server.service.sessions[id];
    while (!session.objects.empty())
        close_object(server, session, session.objects.begin()->first);
    Work work = std::move(session.work);
    server.service.sessions.erase(id);
    undo_work(server, std::move(work));
}

static std::vector<int32_t> sessions_of(const Server &server, const Client &client)
{
    std::vector<int32_t> ids;
    for (const auto &[id, session] : server.service.sessions) {
        if (session.client == client.id)
            ids.push_back(id);
    }
    return ids;
}

void handle_session_close(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqclose";
    if (!asked_session(server, client, request, data, NAME))
        return;
    end_session(server, request.sessid);
    answer(server, client, request, 0, NAME);
}

void abandon_sessions(Server &server, const Client &client)
{
    for (int32_t id : sessions_of(server, client))
        end_session(server, id);
}

size_t close_sessions(Server &server, Client &client)
{
    std::vector<int32_t> ids = sessions_of(server, client);
    for (int32_t id : ids) {
        Header notice;
        notice.msgtype = MSG_SESSION_CLOSE;
        notice.flags = CLOSED_BY_SERVER;
        notice.sessid = id;
        set_service_name(notice, server.service.sessions[id].name);
        end_session(server, id);
        send_message(server, client, notice, {});
    }
    server.stats.sessions_closed += ids.size();
    return ids.size();
}

// --- Objects.

struct ObjectNames {
    std::string_view subname;
    std::string_view queue;
    std::string_view selector;
};

static std::string_view text_at(std::string_view data, size_t offset, size_t size)
{
    std::string_view field = data.substr(offset, size);
    return field.substr(0, field.find('\0'));
}

// False: no record, or without a queue.
static bool read_names(std::string_view data, ObjectNames &names)
{
    if (data.size() < SMALLEST_RECORD)
        return false;
    names = {text_at(data, SUBNAME_OFFSET, SUBNAME_SIZE - 1), text_at(data, QUEUE_OFFSET, QUEUE_SIZE - 1),
             text_at(data, SELECTOR_OFFSET, data.npos)};
    return !names.queue.empty();
}

static PlaceKey subscription_key(const ServiceSession &session, const ObjectNames &names)
{
    return {session.name, true, std::string(names.queue), "durable " + std::string(names.subname)};
}

// A durable subscription has one consumer at a time. One with another selector is another subscription, in
// the place of the first.
static int32_t join_subscription(Server &server, const PlaceKey &key, const ServiceObject &object, int32_t id,
                                 std::string_view selector)
{
    Store &store = server.queues.store;
    bool durable = (object.flags & OBJECT_DURABLE) != 0;
    Place *old = find_place(server, key);
    if (old && old->reader != 0)
        return ERR_PROTO;
    if (old && old->selector_text == selector) {
        old->reader = id;
        return 0;
    }
    if (old && !drop_subscription(store, kept_place(key)))
        return ERR_SYSTEM;
    Place place = {.durable = durable,
                   .reader = id,
                   .selector_text = std::string(selector),
                   .selector = object.selector};
    if (durable && !keep_subscription(store, kept_place(key, &place)))
        return ERR_SYSTEM;
    server.service.places[key] = std::move(place);
    return 0;
}

// Opens the object's place; 0 or why not.
static int32_t open_place(Server &server, const ServiceSession &session, const ObjectNames &names, int32_t id,
                          ServiceObject &object)
{
    bool durable = (object.flags & OBJECT_DURABLE) != 0;
    bool subscribes = (object.flags & OBJECT_TOPIC) && reads(object);
    object.place = {session.name, (object.flags & OBJECT_TOPIC) != 0, std::string(names.queue), {}};
    if (subscribes && durable && names.subname.empty())
        return ERR_INVAL;
    if (subscribes)
        object.place = durable ? subscription_key(session, names)
                               : PlaceKey{session.name, true, std::string(names.queue),
                                          "consumer " + std::to_string(id)};
    if (object.place.topic && !subscribes)
        return 0;  // a producer, whose topic is nothing but its subscriptions
    if (!find_place(server, object.place) && server.service.places.size() >= MOST_PLACES)
        return ERR_LIMIT;
    if (subscribes)
        return join_subscription(server, object.place, object, id, names.selector);
    server.service.places.try_emplace(object.place);
    return 0;
}

static bool is_object_kind(int32_t flags)
{
    static constexpr int32_t KINDS[] = {0,
                                        OBJECT_TOPIC,
                                        OBJECT_READS,
                                        OBJECT_READS | OBJECT_TOPIC,
                                        OBJECT_READS | OBJECT_TOPIC | OBJECT_DURABLE,
                                        OBJECT_BROWSES,
                                        OBJECT_BROWSES | OBJECT_BROWSES_HELD};
    return std::find(std::begin(KINDS), std::end(KINDS), flags) != std::end(KINDS);
}

void handle_object_open(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqobject";
    ServiceSession *session = asked_session(server, client, request, data, NAME);
    if (!session)
        return;
    ServiceObject object = {.flags = request.flags};
    ObjectNames names;
    int32_t id = ++server.service.last_object;
    int32_t error = 0;
    if (!is_object_kind(request.flags) || !read_names(without_trailer(request, data), names) ||
        !parse_selector(names.selector, object.selector))
        error = ERR_INVAL;
    else if (session->objects.size() >= MOST_OBJECTS)
        error = ERR_LIMIT;
    else
        error = open_place(server, *session, names, id, object);
    if (error == 0)
        session->objects[id] = std::move(object);
    answer(server, client, request, error, NAME, id);
}

static int32_t end_subscription(Server &server, const ServiceSession &session, std::string_view data)
{
    ObjectNames names;
    if (!read_names(data, names) || names.subname.empty())
        return ERR_INVAL;
    PlaceKey key = subscription_key(session, names);
    Place *place = find_place(server, key);
    if (!place)
        return ERR_NOENT;
    if (place->reader != 0)
        return ERR_PROTO;
    if (!drop_subscription(server.queues.store, kept_place(key)))
        return ERR_SYSTEM;
    server.service.places.erase(key);
    return 0;
}

void handle_object_close(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqobject";
    ServiceSession *session = asked_session(server, client, request, data, NAME);
    if (!session)
        return;
    int32_t error = 0;
    if (request.flags & OBJECT_DURABLE)
        error = end_subscription(server, *session, without_trailer(request, data));
    else if (find_object(*session, request.prio))
        close_object(server, *session, request.prio);
    else
        error = ERR_NOENT;
    answer(server, client, request, error, NAME);
}

// --- Traffic.

// Whether one of the places that the message goes to is full, by what is there and what waits for a commit.
static bool is_full(Server &server, const PlaceKey &target, const Work &work, const std::string &data)
{
    auto limit = static_cast<size_t>(server.options.queue_limit);
    std::vector<PlaceKey> targets = targets_of(server, target, data);
    return work.sent.size() >= limit || std::any_of(targets.begin(), targets.end(), [&](const PlaceKey &key) {
               const Place *place = find_place(server, key);
               return place && place->ready.size() + place->held.size() + work.sent.size() >= limit;
           });
}

static ServiceMessage message_of(const Header &request, uint64_t id, std::string_view data)
{
    int32_t priority = std::clamp<int32_t>(request.callid[2], INT16_MIN, INT16_MAX);
    int32_t time_to_live = request.callid[1];
    int64_t end = milliseconds_now() + static_cast<int64_t>(time_to_live) * 1000;
    return {.rank = {-priority, id},
            .flags = request.flags & (MESSAGE_PERSISTENT | MESSAGE_TRANSACTED),
            .sent = request.callid[0],
            .time_to_live = time_to_live,
            .expires = time_to_live > 0 ? end : 0,
            .data = std::make_shared<const std::string>(data)};
}

// The request, in place of which the answer says what became of the message; an error, or 0.
static int32_t send_one(Server &server, Client &client, ServiceSession &session, bool in_transaction,
                        Header &request, std::string_view data)
{
    const ServiceObject *producer = find_object(session, request.prio);
    if (!producer || reads(*producer))
        return ERR_NOENT;
    if (request.buftype != BUF_FIELD)
        return ERR_ITYPE;
    if (!is_field_buffer(data))
        return ERR_INVAL;
    bool waits = in_transaction || (session.flags & SESSION_TRANSACTED);
    Work now;
    Work &work = in_transaction ? client.transaction.messages : waits ? session.work : now;
    uint64_t id = new_identity(server);
    if (id == 0)
        return ERR_SYSTEM;
    ServiceMessage message = message_of(request, id, data);
    if (is_full(server, producer->place, work, *message.data))
        return ERR_QFULL;
    request.flags = message.flags;
    request.cd = low_word(message.rank);
    request.callid[2] = high_word(message.rank);
    work.sent.push_back({producer->place, std::move(message)});
    return waits || finish_work(server, std::move(now)) ? 0 : ERR_SYSTEM;
}

void handle_service_send(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqsend";
    ServiceSession *session = asked_session(server, client, request, data, NAME);
    if (!session)
        return;
    bool in_transaction = (session->flags & SESSION_XA) && join_transaction(server, client, request);
    Header sent = request;
    int32_t error = send_one(server, client, *session, in_transaction, sent, without_trailer(request, data));
    doom_transaction(client, in_transaction && error != 0);
    if (error) {
        answer(server, client, request, error, NAME);
        return;
    }
    server.stats.messages_sent++;
    Header header = reply_header(sent, 0, 0);
    header.flags = sent.flags;
    header.buftype = BUF_HEADER_ONLY;
    send_reply(server, client, {.header = header}, NAME);
}

// The message behind the position that the request gives, from the start with a position of all ones. A
// browser of the one kind sees what is ready, one of the other also what somebody holds.
static const ServiceMessage *next_message(Server &server, Place &place, const ServiceObject &browser,
                                          const Header &request)
{
    bool from_start = request.cd == -1 && request.callid[2] == -1;
    Rank position = from_start ? Rank{INT32_MIN, 0} : rank_of(request);
    auto ready =
        first_selected(server, browser.place, place, place.ready.upper_bound(position), browser.selector);
    const ServiceMessage *next = ready == place.ready.end() ? nullptr : &ready->second;
    if (!(browser.flags & OBJECT_BROWSES_HELD))
        return next;
    auto held = std::find_if(place.held.upper_bound(position), place.held.end(),
                             [&](const auto &row) { return selects(browser.selector, *row.second.data); });
    if (held != place.held.end() && (!next || held->first < next->rank))
        next = &held->second;
    return next;
}

static void browse(Server &server, Client &client, const ServiceSession &session,
                   const ServiceObject &browser, const Header &request)
{
    Place &place = *find_place(server, browser.place);
    if (const ServiceMessage *message = next_message(server, place, browser, request))
        send_reply(server, client, delivery(session, request, *message), GET_NAME);
    else
        answer(server, client, request, ERR_MATCH, GET_NAME);
}

// Who asks twice is answered once.
static void get_one(Server &server, Client &client, ServiceSession &session, ServiceObject &consumer,
                    const Header &request)
{
    Place &place = *find_place(server, consumer.place);
    auto row = first_selected(server, consumer.place, place, place.ready.begin(), consumer.selector);
    if (row != place.ready.end()) {
        ServiceMessage message = std::move(row->second);
        place.ready.erase(row);
        deliver(server, client, session, request.prio, request, std::move(message));
        return;
    }
    if (!consumer.asked)
        place.waiting.push_back({session.id, request.prio});
    consumer.asked = request;
}

void handle_service_get(Server &server, Client &client, const Header &request, std::string_view data)
{
    ServiceSession *session = asked_session(server, client, request, data, GET_NAME);
    if (!session)
        return;
    bool in_transaction = (session->flags & SESSION_XA) && join_transaction(server, client, request);
    ServiceObject *consumer = find_object(*session, request.prio);
    if (!consumer || !reads(*consumer)) {
        doom_transaction(client, in_transaction);
        answer(server, client, request, ERR_NOENT, GET_NAME);
        return;
    }
    if (consumer->flags & OBJECT_BROWSES)
        browse(server, client, *session, *consumer, request);
    else
        get_one(server, client, *session, *consumer, request);
}

// Nobody waits for an answer. What isn't held for the sender, or has to wait for a commit, is left alone.
void handle_service_ack(Server &server, Client &client, const Header &request, std::string_view)
{
    constexpr const char *NAME = "_kmqack";
    if (strike(server.faults, NAME, FaultKind::DROP)) {
        server.stats.dropped++;
        return;
    }
    ServiceSession *session = find_session(server, client, request.sessid);
    bool takes = request.flags == ACK_TAKE;
    Work one;
    if (session && !(session->flags & SESSION_TRANSACTED) && (takes || request.flags == ACK_REFUSE))
        one.taken.insert(session->work.taken.extract({request.prio, rank_of(request)}));
    if (one.taken.empty())
        server.stats.ignored++;
    else if (!takes || !finish_work(server, one))
        undo_work(server, std::move(one));
}

// --- The end of a session's work.

static bool has_mode(const ServiceSession &session, bool transacted)
{
    return ((session.flags & SESSION_TRANSACTED) != 0) == transacted;
}

static ServiceSession *session_to_end(Server &server, Client &client, const Header &request,
                                      std::string_view data, bool transacted, const char *name)
{
    ServiceSession *session = asked_session(server, client, request, data, name);
    if (!session || has_mode(*session, transacted))
        return session;
    answer(server, client, request, ERR_PROTO, name);
    return nullptr;
}

// A commit that can't be written down is a rollback.
void handle_session_commit(Server &server, Client &client, const Header &request, std::string_view data)
{
    constexpr const char *NAME = "_kmqcommit";
    ServiceSession *session = session_to_end(server, client, request, data, true, NAME);
    if (!session)
        return;
    Work work = std::exchange(session->work, {});
    bool done = finish_work(server, work);
    if (!done)
        undo_work(server, std::move(work));
    answer(server, client, request, done ? 0 : ERR_SYSTEM, NAME);
}

static void take_back(Server &server, Client &client, const Header &request, std::string_view data,
                      bool transacted, const char *name)
{
    ServiceSession *session = session_to_end(server, client, request, data, transacted, name);
    if (!session)
        return;
    undo_work(server, std::exchange(session->work, {}));
    answer(server, client, request, 0, name);
}

void handle_session_rollback(Server &server, Client &client, const Header &request, std::string_view data)
{
    take_back(server, client, request, data, true, "_kmqrollback");
}

void handle_session_recover(Server &server, Client &client, const Header &request, std::string_view data)
{
    take_back(server, client, request, data, false, "_kmqrecover");
}

// --- Commands.

static std::string mode_of(const ServiceSession &session)
{
    struct Mode {
        int32_t flag;
        const char *name;
    };
    static constexpr Mode MODES[] = {
        {SESSION_TRANSACTED, "transacted"},
        {SESSION_XA, "xa"},
        {0x400, "async"},
        {0x40, "mode 2"},
        {0x02, "mode 1"},
    };
    for (const Mode &mode : MODES) {
        if (session.flags & mode.flag)
            return mode.name;
    }
    return "mode 0";
}

static std::string list_sessions(Server &server)
{
    std::string text;
    for (const auto &[id, session] : server.service.sessions) {
        Client *owner = find_owner(server, session);
        auto consumers = std::count_if(session.objects.begin(), session.objects.end(),
                                       [](const auto &row) { return reads(row.second); });
        text += "  client " + std::to_string(owner ? owner->number : -1) + " session " + std::to_string(id) +
                " " + printable(session.name) + " " + mode_of(session) + " producers " +
                std::to_string(static_cast<int64_t>(session.objects.size()) - consumers) + " consumers " +
                std::to_string(consumers) + " uncommitted " + std::to_string(session.work.sent.size()) +
                " held " + std::to_string(session.work.taken.size()) + "\n";
    }
    return text;
}

std::string list_message_service(Server &server)
{
    std::string text = list_sessions(server);
    for (auto &[key, place] : server.service.places) {
        expire_ready(server, key, place);
        text += "  ";
        text += printable(key.server) + (key.topic ? " topic " : " queue ") + printable(key.name);
        if (key.topic)
            text.append(" ").append(printable(key.reader));
        text += " ready " + std::to_string(place.ready.size()) + " held " +
                std::to_string(place.held.size()) + " waiting " + std::to_string(place.waiting.size()) +
                " sent " + std::to_string(place.sent) + " taken " + std::to_string(place.taken) +
                " redelivered " + std::to_string(place.redelivered) + " expired " +
                std::to_string(place.expired) + "\n";
    }
    return text;
}

}  // namespace clhsim
