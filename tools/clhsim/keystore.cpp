#include "keystore.h"

#include "server.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <vector>

namespace clhsim {

enum Operation : int32_t {
    GET = 2,
    PUT = 3,
    PURGE = 4,
    COUNT = 5,
    KEYGEN = 6,
    LIST = 8,
};

// What the flags of a request say. The first two are this server's own.
constexpr int32_t FLAG_TAKE = 0x1000;  // get: the entry is removed
constexpr int32_t FLAG_ADD = 0x2000;   // put: an entry that is there is not replaced
constexpr int32_t FLAG_FIXKEY = 0x4000;
constexpr int32_t FLAG_NEWKEY = 0x8000;

constexpr int NODE_SHIFT = 21;
constexpr int32_t WHOLE_NODE =
    (1 << NODE_SHIFT) - 1;  // in place of a client, in the word that says whose store
constexpr size_t SYSTEM_KEY_SIZE = 16;
constexpr int64_t MOST_ENTRIES = 1000 * 1000;  // of all stores
constexpr int64_t MOST_LISTED = 1000;
constexpr const char *NAME = "_sq";

int32_t node_count(const Server &server)
{
    return std::max<int32_t>(1, static_cast<int32_t>(server.options.nodes.size()));
}

// The store that a request is for. False: there is no such node. Whatever number it gives, a client that
// means a session means its own: one that has moved here goes on giving the number that it had elsewhere.
static bool find_place(const Server &server, const Client &client, const Header &request, KeyPlace &place)
{
    place = {static_cast<int64_t>(client.id), server.options.node_number};
    if ((request.cd & WHOLE_NODE) != WHOLE_NODE)
        return true;
    place = {0, request.cd >> NODE_SHIFT};
    return (place.node >= 0 && place.node < node_count(server)) || place.node == server.options.node_number;
}

// The order of lists is that of signed bytes.
static bool comes_before(const StoredEntry &a, const StoredEntry &b)
{
    return std::lexicographical_compare(
        a.key.begin(), a.key.end(), b.key.begin(), b.key.end(),
        [](char x, char y) { return static_cast<signed char>(x) < static_cast<signed char>(y); });
}

// "$SQID", eight characters that no other key of this server has, and the node in three digits; empty on
// failure.
static std::string new_system_key(Server &server, int32_t node)
{
    uint32_t number = next_key_number(server.queues.store);
    if (number == 0)
        return {};
    char key[SYSTEM_KEY_SIZE + 1];
    snprintf(key, sizeof key, "$SQID%08x%03x", number, static_cast<unsigned>(node) & 0xfff);
    return {key, SYSTEM_KEY_SIZE};
}

// What an operation answers: an error, or `target` and data.
struct Outcome {
    int32_t error = 0;
    int32_t target = 0;
    std::string data = {};
};

static Outcome refused(int32_t error)
{
    return {.error = error};
}

// The key that the payload begins with; an operation may leave it out where `all` stands for all.
static bool take_key(const Header &request, std::string_view data, std::string_view &key)
{
    if (request.target <= 0 || static_cast<size_t>(request.target) > data.size())
        return false;
    key = data.substr(0, static_cast<size_t>(request.target));
    return true;
}

// The reply begins with the key, as the area that is passed over by whoever reads the value.
static Outcome get_entry(Server &server, const KeyPlace &place, const Header &request, std::string_view data)
{
    std::string_view key;
    if (!take_key(request, data, key) || key.size() != data.size())
        return refused(ERR_INVAL);
    std::optional<StoredEntry> entry = find_entry(server.queues.store, place, key);
    if (!entry)
        return refused(ERR_NOENT);
    if ((request.flags & FLAG_TAKE) && remove_entries(server.queues.store, place, key) < 0)
        return refused(ERR_SYSTEM);
    return {.target = request.target, .data = std::string(key) + entry->header + entry->data};
}

// Why an entry isn't accepted; 0 if it is.
static int32_t put_error(const Header &request, std::string_view value)
{
    if (value.size() < HEADER_SIZE)
        return ERR_INVAL;
    Header inner = unpack_header(value.data());
    if (static_cast<uint32_t>(inner.magic) != MAGIC || inner.datalen < 0 ||
        static_cast<size_t>(inner.datalen) != value.size() - HEADER_SIZE)
        return ERR_INVAL;
    bool whole_key = request.flags & (FLAG_FIXKEY | FLAG_NEWKEY);
    return whole_key && request.target != static_cast<int32_t>(SYSTEM_KEY_SIZE) ? ERR_INVAL : 0;
}

static Outcome put_entry(Server &server, const KeyPlace &place, const Header &request, std::string_view data)
{
    std::string_view key;
    if (!take_key(request, data, key))
        return refused(ERR_INVAL);
    std::string_view value = data.substr(key.size());
    if (int32_t error = put_error(request, value))
        return refused(error);
    bool makes_key = (request.flags & FLAG_NEWKEY) != 0;
    StoredEntry entry = {.key = makes_key ? new_system_key(server, place.node) : std::string(key),
                         .header = std::string(value.substr(0, HEADER_SIZE)),
                         .data = std::string(value.substr(HEADER_SIZE))};
    if (entry.key.empty())
        return refused(ERR_SYSTEM);
    Store &store = server.queues.store;
    bool there = has_entry(store, place, entry.key);
    if (there && (request.flags & FLAG_ADD))
        return refused(ERR_MATCH);
    if (!there && count_all_entries(store) >= MOST_ENTRIES)
        return refused(ERR_LIMIT);
    if (!put_entry(store, place, entry))
        return refused(ERR_SYSTEM);
    return {.data = makes_key ? entry.key : std::string()};
}

// A key that isn't there is an error, since who asks several nodes takes the first answer without one.
static Outcome purge_entries(Server &server, const KeyPlace &place, const Header &, std::string_view data)
{
    int64_t count = data.empty() ? remove_all_entries(server.queues.store, place)
                                 : remove_entries(server.queues.store, place, data);
    if (count < 0)
        return refused(ERR_SYSTEM);
    if (count == 0 && !data.empty())
        return refused(ERR_NOENT);
    return {.target = static_cast<int32_t>(count)};
}

static Outcome count_stored(Server &server, const KeyPlace &place, const Header &, std::string_view)
{
    return {.target = static_cast<int32_t>(count_entries(server.queues.store, place))};
}

static Outcome make_key(Server &server, const KeyPlace &place, const Header &, std::string_view)
{
    std::string key = new_system_key(server, place.node);
    return key.empty() ? refused(ERR_SYSTEM) : Outcome{.data = key};
}

// The selection is what the keys begin with. A row's third word is the value's buffer type.
static Outcome list_entries(Server &server, const KeyPlace &place, const Header &, std::string_view data)
{
    std::vector<StoredEntry> entries = entries_in(server.queues.store, place);
    std::erase_if(entries, [data](const StoredEntry &entry) { return !entry.key.starts_with(data); });
    if (entries.empty())
        return refused(ERR_NOENT);
    std::sort(entries.begin(), entries.end(), comes_before);
    Outcome outcome = {.target = static_cast<int32_t>(entries.size())};
    std::string keys;
    for (const StoredEntry &entry : entries) {
        append_word(outcome.data, static_cast<uint32_t>(entry.key.size()));
        append_word(outcome.data, static_cast<uint32_t>(entry.key.size() + entry.size));
        append_word(outcome.data, static_cast<uint32_t>(unpack_header(entry.header.data()).buftype));
        keys += entry.key;
    }
    outcome.data += keys;
    if (outcome.data.size() > static_cast<size_t>(server.options.max_data))
        return refused(ERR_LIMIT);
    return outcome;
}

struct OperationRow {
    Operation operation;
    Outcome (*run)(Server &server, const KeyPlace &place, const Header &request, std::string_view data);
};
static const OperationRow OPERATIONS[] = {
    {GET, get_entry},      {PUT, put_entry},   {PURGE, purge_entries},
    {COUNT, count_stored}, {KEYGEN, make_key}, {LIST, list_entries},
};

static Outcome run_operation(Server &server, const KeyPlace &place, const Header &request,
                             std::string_view data)
{
    for (const OperationRow &row : OPERATIONS) {
        if (row.operation == request.rcode)
            return row.run(server, place, request, data);
    }
    return refused(ERR_INVAL);
}

// Faults can be set for one node ("_sq@2"), for the stores of sessions ("_sq@session"), or for all of it.
static std::string exchange_name(const Header &request)
{
    std::string name = std::string(NAME) + "@";
    bool whole = (request.cd & WHOLE_NODE) == WHOLE_NODE;
    return name + (whole ? std::to_string(request.cd >> NODE_SHIFT) : "session");
}

void handle_key_store(Server &server, Client &client, const Header &request, std::string_view data)
{
    std::string name = exchange_name(request);
    if (gives_back(server, client, request, data, name))
        return;
    KeyPlace place;
    Outcome outcome;
    if (auto error = strike(server.faults, name, FaultKind::REFUSE))
        outcome = refused(static_cast<int32_t>(*error));
    else if (!find_place(server, client, request, place))
        outcome = refused(ERR_NOENT);
    else
        outcome = run_operation(server, place, request, without_trailer(request, data));
    Reply reply = {.header = reply_header(request, outcome.error, request.rcode),
                   .data = std::move(outcome.data)};
    reply.header.target = outcome.target;
    reply.header.buftype = reply.data.empty() ? BUF_HEADER_ONLY : BUF_CARRAY;
    send_reply(server, client, std::move(reply), name);
}

void abandon_keys(Server &server, const Client &client)
{
    remove_all_entries(server.queues.store, {static_cast<int64_t>(client.id), server.options.node_number});
}

std::string list_keys(Server &server)
{
    std::string text;
    for (const StoredEntry &entry : all_entries(server.queues.store, MOST_LISTED)) {
        text += entry.place.session == 0 ? "  node " + std::to_string(entry.place.node)
                                         : "  session " + std::to_string(entry.place.session);
        text += " \"" + printable(entry.key) + "\" buftype " +
                std::to_string(unpack_header(entry.header.data()).buftype) + " bytes " +
                std::to_string(entry.size) + "\n";
    }
    return text;
}

}  // namespace clhsim
