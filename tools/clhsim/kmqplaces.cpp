#include "kmqplaces.h"

#include "fields.h"

#include <algorithm>

namespace clhsim {

constexpr int64_t IDENTITIES_AT_ONCE = 1000;

// --- Time and identity.

int64_t milliseconds_now()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool is_over(const ServiceMessage &message)
{
    return message.expires != 0 && message.expires <= milliseconds_now();
}

uint64_t new_identity(Server &server)
{
    MessageService &service = server.service;
    if (service.last_id == service.reserved_ids) {
        uint64_t last = reserve_identities(server.queues.store, IDENTITIES_AT_ONCE);
        if (last == 0)
            return 0;
        service.reserved_ids = last;
        service.last_id = last - IDENTITIES_AT_ONCE;
    }
    return ++service.last_id;
}

int32_t low_word(const Rank &rank)
{
    return static_cast<int32_t>(static_cast<uint32_t>(rank.id));
}

int32_t high_word(const Rank &rank)
{
    auto priority = static_cast<uint32_t>(-rank.below_top) & 0xffff;
    return static_cast<int32_t>(static_cast<uint32_t>(rank.id >> 32) << 16 | priority);
}

Rank rank_of(const Header &header)
{
    auto word = static_cast<uint32_t>(header.callid[2]);
    auto priority = static_cast<int16_t>(word & 0xffff);
    return {-priority, static_cast<uint64_t>(word >> 16) << 32 | static_cast<uint32_t>(header.cd)};
}

// --- Places.

Place *find_place(Server &server, const PlaceKey &key)
{
    auto place = server.service.places.find(key);
    return place == server.service.places.end() ? nullptr : &place->second;
}

KeptPlace kept_place(const PlaceKey &key, const Place *place)
{
    return {key.server, key.topic, key.name, key.reader, place ? place->selector_text : std::string()};
}

static PlaceKey key_of(KeptPlace kept)
{
    return {std::move(kept.server), kept.topic, std::move(kept.name), std::move(kept.reader)};
}

bool open_message_service(Server &server)
{
    Store &store = server.queues.store;
    for (KeptPlace &kept : kept_subscriptions(store)) {
        Place place = {.durable = true, .selector_text = kept.selector};
        parse_selector(place.selector_text, place.selector);
        server.service.places[key_of(std::move(kept))] = std::move(place);
    }
    for (KeptMessage &kept : kept_messages(store)) {
        if (!is_field_buffer(kept.data))
            continue;  // somebody has spoilt the file
        ServiceMessage message = {.rank = {-kept.priority, static_cast<uint64_t>(kept.id)},
                                  .flags = kept.flags,
                                  .sent = kept.sent,
                                  .time_to_live = kept.time_to_live,
                                  .expires = kept.expires,
                                  .kept = true,
                                  .data = std::make_shared<const std::string>(std::move(kept.data))};
        Place &place = server.service.places[key_of(std::move(kept.place))];
        place.ready[message.rank] = std::move(message);
    }
    uint64_t first = new_identity(server);
    return first != 0;
}

static bool forget_message(Server &server, const PlaceKey &key, const ServiceMessage &message)
{
    return !message.kept ||
           drop_message(server.queues.store, kept_place(key), static_cast<int64_t>(message.rank.id));
}

static void expire(Server &server, const PlaceKey &key, Place &place, const ServiceMessage &message)
{
    place.expired++;
    server.stats.messages_expired++;
    forget_message(server, key, message);
}

std::map<Rank, ServiceMessage>::iterator first_selected(Server &server, const PlaceKey &key, Place &place,
                                                        std::map<Rank, ServiceMessage>::iterator from,
                                                        const Selector &selector)
{
    while (from != place.ready.end()) {
        if (is_over(from->second)) {
            expire(server, key, place, from->second);
            from = place.ready.erase(from);
        } else if (selects(selector, *from->second.data)) {
            break;
        } else {
            ++from;
        }
    }
    return from;
}

void expire_ready(Server &server, const PlaceKey &key, Place &place)
{
    std::erase_if(place.ready, [&](const auto &row) {
        bool over = is_over(row.second);
        if (over)
            expire(server, key, place, row.second);
        return over;
    });
}

std::vector<PlaceKey> targets_of(Server &server, const PlaceKey &target, const std::string &data)
{
    if (!target.topic)
        return {target};
    std::vector<PlaceKey> targets;
    auto &places = server.service.places;
    for (auto row = places.lower_bound(target); row != places.end(); ++row) {
        const PlaceKey &key = row->first;
        if (key.server != target.server || !key.topic || key.name != target.name)
            break;
        if (selects(row->second.selector, data))
            targets.push_back(key);
    }
    return targets;
}

// A queue outlives everybody, a subscription only if it is durable.
static bool is_kept(const PlaceKey &key, const Place *place, const ServiceMessage &message)
{
    return (message.flags & MESSAGE_PERSISTENT) && (!key.topic || (place && place->durable));
}

bool reads(const ServiceObject &object)
{
    return (object.flags & (OBJECT_READS | OBJECT_BROWSES)) != 0;
}

Client *find_owner(Server &server, const ServiceSession &session)
{
    auto owner = server.clients.find(session.client);
    bool there = owner != server.clients.end() && owner->second->life == Life::OPEN;
    return there ? owner->second.get() : nullptr;
}

// --- Delivery.

Reply delivery(const ServiceSession &session, const Header &request, const ServiceMessage &message)
{
    Reply reply = {.header = reply_header(request, 0, 0), .data = *message.data};
    Header &header = reply.header;
    header.msgtype = MSG_SERVICE_DELIVER;
    header.buftype = BUF_FIELD;
    header.subtype.fill(0);
    set_service_name(header, session.name);
    header.flags = message.flags | (message.redelivered ? MESSAGE_REDELIVERED : 0);
    header.cd = low_word(message.rank);
    header.callid = {message.sent, message.time_to_live, high_word(message.rank)};
    return reply;
}

void deliver(Server &server, Client &client, ServiceSession &session, int32_t id, const Header &request,
             ServiceMessage message)
{
    const PlaceKey &key = session.objects[id].place;
    Place &place = *find_place(server, key);
    bool in_transaction = (session.flags & SESSION_XA) && client.transaction.open;
    Work &work = in_transaction ? client.transaction.messages : session.work;
    work.taken[{id, message.rank}] = key;
    server.stats.messages_delivered++;
    Reply reply = delivery(session, request, message);
    place.held[message.rank] = std::move(message);
    send_reply(server, client, std::move(reply), GET_NAME);
}

// Whether a consumer that waits there takes the message.
static bool offer(Server &server, Place &place, ServiceMessage &message)
{
    for (auto waiter = place.waiting.begin(); waiter != place.waiting.end(); ++waiter) {
        ServiceSession &session = server.service.sessions[waiter->session];
        ServiceObject &object = session.objects[waiter->object];
        Client *owner = find_owner(server, session);
        if (!owner || !selects(object.selector, *message.data))
            continue;
        Header request = *object.asked;
        object.asked.reset();
        int32_t id = waiter->object;
        place.waiting.erase(waiter);
        deliver(server, *owner, session, id, request, std::move(message));
        return true;
    }
    return false;
}

static void make_ready(Server &server, const PlaceKey &key, Place &place, ServiceMessage message)
{
    if (is_over(message))
        expire(server, key, place, message);
    else if (!offer(server, place, message))
        place.ready[message.rank] = std::move(message);
}

void stop_waiting(Server &server, int32_t id, ServiceObject &object)
{
    object.asked.reset();
    if (Place *place = find_place(server, object.place))
        std::erase_if(place->waiting, [id](const Waiter &waiter) { return waiter.object == id; });
}

// --- Work.

static const ServiceMessage *held_message(Server &server, const PlaceKey &key, const Rank &rank)
{
    const Place *place = find_place(server, key);
    if (!place)
        return nullptr;
    auto row = place->held.find(rank);
    return row == place->held.end() ? nullptr : &row->second;
}

bool write_work(Server &server, const Work &work)
{
    Store &store = server.queues.store;
    if (work.sent.empty() && work.taken.empty())
        return true;
    if (!begin_changes(store))
        return false;
    bool done = true;
    for (const auto &[taker, key] : work.taken) {
        const ServiceMessage *message = held_message(server, key, taker.second);
        done = done && (!message || forget_message(server, key, *message));
    }
    for (const SentMessage &sent : work.sent) {
        const ServiceMessage &message = sent.message;
        for (const PlaceKey &key : targets_of(server, sent.target, *message.data)) {
            if (!is_kept(key, find_place(server, key), message))
                continue;
            done = done && keep_message(store, {.place = kept_place(key),
                                                .id = static_cast<int64_t>(message.rank.id),
                                                .priority = -message.rank.below_top,
                                                .flags = message.flags,
                                                .sent = message.sent,
                                                .time_to_live = message.time_to_live,
                                                .expires = message.expires,
                                                .data = *message.data});
        }
    }
    return end_changes(store, done);
}

void show_work(Server &server, Work work)
{
    for (const auto &[taker, key] : work.taken) {
        if (Place *place = find_place(server, key))
            place->taken += place->held.erase(taker.second);
    }
    for (SentMessage &sent : work.sent) {
        for (const PlaceKey &key : targets_of(server, sent.target, *sent.message.data)) {
            Place &place = server.service.places[key];
            ServiceMessage message = sent.message;
            message.kept = is_kept(key, &place, message);
            place.sent++;
            make_ready(server, key, place, std::move(message));
        }
    }
}

// What was sent never was; what was taken goes back to where it stood. The place may be gone with its reader.
void undo_work(Server &server, Work work)
{
    for (const auto &[taker, key] : work.taken) {
        Place *place = find_place(server, key);
        auto row = place ? place->held.extract(taker.second) : decltype(place->held)::node_type();
        if (row.empty())
            continue;
        ServiceMessage message = std::move(row.mapped());
        message.redelivered = true;
        place->redelivered++;
        server.stats.messages_redelivered++;
        make_ready(server, key, *place, std::move(message));
    }
}

bool finish_work(Server &server, Work work)
{
    if (!write_work(server, work))
        return false;
    show_work(server, std::move(work));
    return true;
}

}  // namespace clhsim
