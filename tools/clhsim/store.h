// What the reliable queues, the key store and the message service hold, in an SQLite database: a file, so
// that it outlives the server, or memory.
//
// A message is one row. Its kind tells in which part of its queue it stands; `hold` tells who has a hand on
// it: a transaction that put it there or takes it out, or the service that works on it. A held row is nobody
// else's. A server that ends, however it ends, lets go of all holds: what open transactions put in is gone at
// the next start, what they took out is back, and what was worked on is to be worked on again.
#ifndef CLHSIM_STORE_H
#define CLHSIM_STORE_H

#include "wire.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace clhsim {

enum class MessageKind : int32_t {
    STORED,   // put there with TPRQDIRECT; no service works on it
    REQUEST,  // waits for its service
    FAILED,   // a request whose service failed
    ANSWER,   // of a service, for a client that had gone
};
constexpr size_t MESSAGE_KINDS = 4;

constexpr uint32_t kind_bit(MessageKind kind)
{
    return uint32_t{1} << static_cast<uint32_t>(kind);
}
constexpr uint32_t KINDS_REQUEST = kind_bit(MessageKind::STORED) | kind_bit(MessageKind::REQUEST);
constexpr uint32_t KINDS_FAILED = kind_bit(MessageKind::FAILED);
constexpr uint32_t KINDS_ANSWER = kind_bit(MessageKind::ANSWER);
constexpr uint32_t KINDS_ANY = KINDS_REQUEST | KINDS_FAILED | KINDS_ANSWER;

constexpr int64_t NOT_HELD = 0;  // above: a transaction's number
constexpr int64_t AT_WORK = -1;

struct QueuedMessage {
    int64_t id = 0;
    MessageKind kind = MessageKind::STORED;
    uint64_t owner = 0;  // the id of the client that enqueued it, 0 from an earlier run
    int32_t error = 0;   // of a failed request
    int32_t rcode = 0;   // the user code of an answer
    Header header;       // of the request
    std::string record;  // the control record, or empty
    std::string data;
    size_t size = 0;  // of the data, where that is left out
};

// Whose store of keys: a session's, by its client's id, or with session 0 a node's.
struct KeyPlace {
    int64_t session = 0;
    int32_t node = 0;
};

// An entry of the key store: the value's header as it came, and its data.
struct StoredEntry {
    KeyPlace place = {};
    std::string key = {};
    std::string header = {};
    std::string data = {};
    size_t size = 0;  // of the data, where that is left out
};

// A message of the message service where it stands, or a durable subscription.
struct KeptPlace {
    std::string server = {};
    bool topic = false;
    std::string name = {};
    std::string reader = {};
    std::string selector = {};  // of a subscription
};
struct KeptMessage {
    KeptPlace place = {};
    int64_t id = 0;
    int32_t priority = 0;
    int32_t flags = 0;
    int32_t sent = 0;
    int32_t time_to_live = 0;
    int64_t expires = 0;
    std::string data = {};
};

constexpr size_t STORE_STATEMENTS = 33;

struct Store {
    sqlite3 *database = nullptr;
    std::array<sqlite3_stmt *, STORE_STATEMENTS> statements = {};  // made when first used
    int64_t entries = 0;                                           // of the key store
};

// An empty path: in memory. On failure `problem` says why.
bool open_store(Store &store, const std::string &path, std::string &problem);
void close_store(Store &store);

// Those that change something return whether that is safe in the database; it isn't when the disk is full.
// Puts a message at the end of the queue and sets its id. With a transaction it is held, and new.
bool add_message(Store &store, std::string_view queue, QueuedMessage &message, int64_t transaction);
bool remove_message(Store &store, int64_t id);
bool hold_message(Store &store, int64_t id, int64_t hold);
// The request becomes what its service made of it. It is held no more.
bool turn_message(Store &store, const QueuedMessage &message);
// All failed requests that nobody holds wait again; how many, or -1.
int64_t requeue_failed(Store &store, std::string_view queue);
bool commit_held(Store &store, int64_t transaction);
bool undo_held(Store &store, int64_t transaction);

// The oldest message of these kinds that nobody holds; a service that isn't empty narrows it down.
std::optional<QueuedMessage> first_message(Store &store, std::string_view queue, uint32_t kinds,
                                           std::string_view service);
// Messages of a kind without those that a transaction holds.
int64_t count_messages(Store &store, std::string_view queue, MessageKind kind, std::string_view service);
int64_t count_rows(Store &store, std::string_view queue);  // the held ones too
// Without their data.
std::vector<QueuedMessage> list_messages(Store &store, std::string_view queue, int64_t most);

// The entries of the key store. Those of sessions are gone with the server.
bool put_entry(Store &store, const KeyPlace &place,
               const StoredEntry &entry);  // in the place of an older one
std::optional<StoredEntry> find_entry(Store &store, const KeyPlace &place, std::string_view key);
bool has_entry(Store &store, const KeyPlace &place, std::string_view key);
// How many, or -1.
int64_t remove_entries(Store &store, const KeyPlace &place, std::string_view key);
int64_t remove_all_entries(Store &store, const KeyPlace &place);
int64_t count_entries(Store &store, const KeyPlace &place);
int64_t count_all_entries(Store &store);
// In no order, without their data.
std::vector<StoredEntry> entries_in(Store &store, const KeyPlace &place);
std::vector<StoredEntry> all_entries(Store &store, int64_t most);
// A number that this store has never given before; 0 if it can't be written down.
uint32_t next_key_number(Store &store);

// Changes between the two are all done, or none of them: with `keep` false, and where they can't be written.
bool begin_changes(Store &store);
bool end_changes(Store &store, bool keep);

// The message service.
bool keep_message(Store &store, const KeptMessage &message);
bool drop_message(Store &store, const KeptPlace &place, int64_t id);
std::vector<KeptMessage> kept_messages(Store &store);
bool keep_subscription(Store &store, const KeptPlace &place);  // or gives it another selector
bool drop_subscription(Store &store, const KeptPlace &place);  // with its messages
std::vector<KeptPlace> kept_subscriptions(Store &store);
// Sets `count` identities aside that nobody else gets; the last of them, or 0.
uint64_t reserve_identities(Store &store, int64_t count);

}  // namespace clhsim

#endif
