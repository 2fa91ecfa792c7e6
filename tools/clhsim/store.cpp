#include "store.h"

#include <sqlite3.h>

namespace clhsim {

enum Statement : size_t {
    ADD,
    REMOVE,
    HOLD,
    TURN,
    REQUEUE,
    COMMIT_NEW,
    COMMIT_TAKEN,
    UNDO_NEW,
    UNDO_TAKEN,
    FIND,
    FIND_SERVICE,
    LOAD,
    COUNT,
    COUNT_SERVICE,
    COUNT_ROWS,
    LIST,
    PUT_ENTRY,
    FIND_ENTRY,
    HAS_ENTRY,
    REMOVE_ENTRY,
    REMOVE_ENTRIES,
    COUNT_ENTRIES,
    COUNT_ALL_ENTRIES,
    LIST_ENTRIES,
    NEXT_KEY,
    KEEP_MESSAGE,
    DROP_MESSAGE,
    LIST_KEPT,
    KEEP_SUBSCRIPTION,
    DROP_SUBSCRIPTION,
    DROP_ALL_OF,
    LIST_SUBSCRIPTIONS,
    RESERVE,
};

#define MESSAGE_COLUMNS "id, kind, owner, error, rcode, header, record, data"
#define IN_PLACE "queue = ? AND kind = ?"
#define ENTRY_COLUMNS "session, node, key, header, length(data)"
#define IN_STORE "session = ? AND node = ?"
#define PLACE_COLUMNS "server, topic, name, reader"
#define KEPT_COLUMNS PLACE_COLUMNS ", id, priority, flags, sent, time_to_live, expires, data"
#define AT_PLACE "server = ? AND topic = ? AND name = ? AND reader = ?"

// clang-format off
static const char *const SQL[STORE_STATEMENTS] = {
    /* ADD */           "INSERT INTO messages(queue, kind, service, owner, hold, fresh, header, record, "
                        "data) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)",
    /* REMOVE */        "DELETE FROM messages WHERE id = ?",
    /* HOLD */          "UPDATE messages SET hold = ? WHERE id = ?",
    /* TURN */          "UPDATE messages SET hold = 0, kind = ?, error = ?, rcode = ?, data = ? WHERE id = ?",
    /* REQUEUE */       "UPDATE messages SET kind = ?, error = 0 WHERE " IN_PLACE " AND hold = 0",
    /* COMMIT_NEW */    "UPDATE messages SET hold = 0, fresh = 0 WHERE hold = ? AND fresh = 1",
    /* COMMIT_TAKEN */  "DELETE FROM messages WHERE hold = ? AND fresh = 0",
    /* UNDO_NEW */      "DELETE FROM messages WHERE hold = ? AND fresh = 1",
    /* UNDO_TAKEN */    "UPDATE messages SET hold = 0 WHERE hold = ?",
    /* FIND */          "SELECT id FROM messages WHERE " IN_PLACE " AND hold = 0 ORDER BY id LIMIT 1",
    /* FIND_SERVICE */  "SELECT id FROM messages WHERE " IN_PLACE " AND hold = 0 AND service = ? "
                        "ORDER BY id LIMIT 1",
    /* LOAD */          "SELECT " MESSAGE_COLUMNS " FROM messages WHERE id = ?",
    /* COUNT */         "SELECT count(*) FROM messages WHERE " IN_PLACE " AND hold <= 0",
    /* COUNT_SERVICE */ "SELECT count(*) FROM messages WHERE " IN_PLACE " AND hold <= 0 AND service = ?",
    /* COUNT_ROWS */    "SELECT count(*) FROM messages WHERE queue = ?",
    /* LIST */          "SELECT " MESSAGE_COLUMNS " FROM messages WHERE queue = ? AND hold <= 0 "
                        "ORDER BY id LIMIT ?",
    /* PUT_ENTRY */     "INSERT OR REPLACE INTO entries(session, node, key, header, data) "
                        "VALUES(?, ?, ?, ?, ?)",
    /* FIND_ENTRY */    "SELECT " ENTRY_COLUMNS ", data FROM entries WHERE " IN_STORE " AND key = ?",
    /* HAS_ENTRY */     "SELECT 1 FROM entries WHERE " IN_STORE " AND key = ?",
    /* REMOVE_ENTRY */  "DELETE FROM entries WHERE " IN_STORE " AND key = ?",
    /* REMOVE_ENTRIES */ "DELETE FROM entries WHERE " IN_STORE,
    /* COUNT_ENTRIES */ "SELECT count(*) FROM entries WHERE " IN_STORE,
    /* COUNT_ALL_ENTRIES */ "SELECT count(*) FROM entries",
    /* LIST_ENTRIES */  "SELECT " ENTRY_COLUMNS " FROM entries WHERE session >= ? AND session <= ? AND "
                        "node >= ? AND node <= ? ORDER BY session, node, key LIMIT ?",
    /* NEXT_KEY */      "UPDATE key_numbers SET last = last + 1 RETURNING last",
    /* KEEP_MESSAGE */  "INSERT INTO service_messages(" KEPT_COLUMNS ") "
                        "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
    /* DROP_MESSAGE */  "DELETE FROM service_messages WHERE " AT_PLACE " AND id = ?",
    /* LIST_KEPT */     "SELECT " KEPT_COLUMNS " FROM service_messages",
    /* KEEP_SUBSCRIPTION */ "INSERT OR REPLACE INTO subscriptions(" PLACE_COLUMNS ", selector) "
                        "VALUES(?, ?, ?, ?, ?)",
    /* DROP_SUBSCRIPTION */ "DELETE FROM subscriptions WHERE " AT_PLACE,
    /* DROP_ALL_OF */   "DELETE FROM service_messages WHERE " AT_PLACE,
    /* LIST_SUBSCRIPTIONS */ "SELECT " PLACE_COLUMNS ", selector FROM subscriptions",
    /* RESERVE */       "UPDATE identities SET last = last + ? RETURNING last",
};
// clang-format on

// The file belongs to one server at a time. With the write-ahead log a commit costs a write and no wait for
// the disk: what was accepted outlives the server, whatever ends it, but perhaps not the machine.
static const char SET_UP[] =
    "PRAGMA locking_mode = EXCLUSIVE;"
    "PRAGMA journal_mode = WAL;"
    "PRAGMA synchronous = NORMAL;"
    "BEGIN IMMEDIATE;"
    "CREATE TABLE IF NOT EXISTS messages("
    "id INTEGER PRIMARY KEY AUTOINCREMENT, queue TEXT NOT NULL, kind INTEGER NOT NULL,"
    "service TEXT NOT NULL, owner INTEGER NOT NULL, hold INTEGER NOT NULL,"
    "fresh INTEGER NOT NULL, error INTEGER NOT NULL DEFAULT 0,"
    "rcode INTEGER NOT NULL DEFAULT 0, header BLOB NOT NULL, record BLOB NOT NULL,"
    "data BLOB NOT NULL);"
    "CREATE INDEX IF NOT EXISTS by_place ON messages(queue, kind, hold, id);"
    "CREATE INDEX IF NOT EXISTS by_holder ON messages(hold) WHERE hold != 0;"
    "CREATE TABLE IF NOT EXISTS entries("
    "session INTEGER NOT NULL, node INTEGER NOT NULL, key BLOB NOT NULL, header BLOB NOT NULL,"
    "data BLOB NOT NULL, PRIMARY KEY(session, node, key));"
    "CREATE TABLE IF NOT EXISTS key_numbers(last INTEGER NOT NULL);"
    "INSERT INTO key_numbers SELECT 0 WHERE NOT EXISTS(SELECT 1 FROM key_numbers);"
    "CREATE TABLE IF NOT EXISTS service_messages("
    "server TEXT NOT NULL, topic INTEGER NOT NULL, name TEXT NOT NULL, reader TEXT NOT NULL,"
    "id INTEGER NOT NULL, priority INTEGER NOT NULL, flags INTEGER NOT NULL, sent INTEGER NOT NULL,"
    "time_to_live INTEGER NOT NULL, expires INTEGER NOT NULL, data BLOB NOT NULL,"
    "PRIMARY KEY(server, topic, name, reader, id));"
    "CREATE TABLE IF NOT EXISTS subscriptions("
    "server TEXT NOT NULL, topic INTEGER NOT NULL, name TEXT NOT NULL, reader TEXT NOT NULL,"
    "selector TEXT NOT NULL, PRIMARY KEY(server, topic, name, reader));"
    "CREATE TABLE IF NOT EXISTS identities(last INTEGER NOT NULL);"
    "INSERT INTO identities SELECT 0 WHERE NOT EXISTS(SELECT 1 FROM identities);"
    "DELETE FROM entries WHERE session != 0;"
    "DELETE FROM messages WHERE hold != 0 AND fresh = 1;"
    "UPDATE messages SET hold = 0 WHERE hold != 0;"
    "UPDATE messages SET owner = 0 WHERE owner != 0;"
    "PRAGMA user_version = 3;"
    "COMMIT";
constexpr int64_t FORMAT = 3;

struct Blob {
    std::string_view bytes;
};

static void bind_one(sqlite3_stmt *statement, int index, int64_t value)
{
    sqlite3_bind_int64(statement, index, value);
}

static void bind_one(sqlite3_stmt *statement, int index, int32_t value)
{
    sqlite3_bind_int64(statement, index, value);
}

static void bind_one(sqlite3_stmt *statement, int index, MessageKind kind)
{
    sqlite3_bind_int64(statement, index, static_cast<int64_t>(kind));
}

static void bind_one(sqlite3_stmt *statement, int index, std::string_view text)
{
    sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// A blob without bytes isn't null, as one without an address would be.
static void bind_one(sqlite3_stmt *statement, int index, Blob blob)
{
    if (blob.bytes.empty())
        sqlite3_bind_zeroblob(statement, index, 0);
    else
        sqlite3_bind_blob64(statement, index, blob.bytes.data(), blob.bytes.size(), SQLITE_TRANSIENT);
}

// The statement with its arguments, ready to step; null if it can't be made.
template <typename... Values> static sqlite3_stmt *prepared(Store &store, Statement which, Values... values)
{
    sqlite3_stmt *&statement = store.statements[which];
    if (!statement && sqlite3_prepare_v3(store.database, SQL[which], -1, SQLITE_PREPARE_PERSISTENT,
                                         &statement, nullptr) != SQLITE_OK)
        return nullptr;
    int index = 0;
    (bind_one(statement, ++index, values), ...);
    return statement;
}

// Ends its run and gives back the memory of its arguments.
static void release(sqlite3_stmt *statement)
{
    sqlite3_reset(statement);
    sqlite3_clear_bindings(statement);
}

// Runs a statement that returns no rows.
template <typename... Values> static bool run(Store &store, Statement which, Values... values)
{
    sqlite3_stmt *statement = prepared(store, which, values...);
    if (!statement)
        return false;
    bool done = sqlite3_step(statement) == SQLITE_DONE;
    release(statement);
    return done;
}

// The number that a statement returns, 0 without a row.
template <typename... Values> static int64_t number_of(Store &store, Statement which, Values... values)
{
    sqlite3_stmt *statement = prepared(store, which, values...);
    if (!statement)
        return 0;
    int64_t number = sqlite3_step(statement) == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : 0;
    release(statement);
    return number;
}

static bool execute(Store &store, const char *sql)
{
    return sqlite3_exec(store.database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

static int64_t format_of(Store &store)
{
    sqlite3_stmt *statement = nullptr;
    int64_t format = -1;
    if (sqlite3_prepare_v2(store.database, "PRAGMA user_version", -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW)
        format = sqlite3_column_int64(statement, 0);
    sqlite3_finalize(statement);
    return format;
}

bool open_store(Store &store, const std::string &path, std::string &problem)
{
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    bool opened = sqlite3_open_v2(path.empty() ? ":memory:" : path.c_str(), &store.database, flags,
                                  nullptr) == SQLITE_OK;
    if (opened) {
        int64_t format = format_of(store);
        if (format > FORMAT) {
            problem = path + ": made by a later clhsim";
            return false;
        }
        opened = format >= 0 && execute(store, SET_UP);
    }
    if (opened)
        store.entries = number_of(store, COUNT_ALL_ENTRIES);
    if (!opened)
        problem = path + ": " + (store.database ? sqlite3_errmsg(store.database) : "out of memory");
    return opened;
}

void close_store(Store &store)
{
    for (sqlite3_stmt *statement : store.statements)
        sqlite3_finalize(statement);
    sqlite3_close(store.database);
    store = {};
}

bool add_message(Store &store, std::string_view queue, QueuedMessage &message, int64_t transaction)
{
    char header[HEADER_SIZE];
    pack_header(message.header, header);
    bool added =
        run(store, ADD, queue, message.kind, service_name(message.header),
            static_cast<int64_t>(message.owner), transaction, static_cast<int64_t>(transaction != NOT_HELD),
            Blob{{header, sizeof header}}, Blob{message.record}, Blob{message.data});
    message.id = added ? sqlite3_last_insert_rowid(store.database) : 0;
    return added;
}

bool remove_message(Store &store, int64_t id)
{
    return run(store, REMOVE, id);
}

bool hold_message(Store &store, int64_t id, int64_t hold)
{
    return run(store, HOLD, hold, id);
}

bool turn_message(Store &store, const QueuedMessage &message)
{
    return run(store, TURN, message.kind, static_cast<int64_t>(message.error),
               static_cast<int64_t>(message.rcode), Blob{message.data}, message.id);
}

int64_t requeue_failed(Store &store, std::string_view queue)
{
    bool done = run(store, REQUEUE, MessageKind::REQUEST, queue, MessageKind::FAILED);
    return done ? sqlite3_changes64(store.database) : -1;
}

bool begin_changes(Store &store)
{
    return execute(store, "SAVEPOINT changes");
}

// A release that fails leaves the savepoint, and a full disk may have ended the whole transaction already.
bool end_changes(Store &store, bool keep)
{
    if (keep && execute(store, "RELEASE changes"))
        return true;
    execute(store, "ROLLBACK TO changes");
    execute(store, "RELEASE changes");
    return false;
}

// Both statements or none of them.
static bool run_pair(Store &store, Statement first, Statement second, int64_t transaction)
{
    if (!begin_changes(store))
        return false;
    bool done = run(store, first, transaction) && run(store, second, transaction);
    return end_changes(store, done);
}

bool commit_held(Store &store, int64_t transaction)
{
    return run_pair(store, COMMIT_TAKEN, COMMIT_NEW, transaction);
}

bool undo_held(Store &store, int64_t transaction)
{
    return run_pair(store, UNDO_NEW, UNDO_TAKEN, transaction);
}

static std::string bytes_in(sqlite3_stmt *statement, int column)
{
    const void *bytes = sqlite3_column_blob(statement, column);
    auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    return bytes ? std::string(static_cast<const char *>(bytes), size) : std::string();
}

// A row of MESSAGE_COLUMNS. A header that somebody has cut in the file is an empty one.
static QueuedMessage message_in(sqlite3_stmt *statement, bool with_data)
{
    QueuedMessage message;
    message.id = sqlite3_column_int64(statement, 0);
    message.kind = static_cast<MessageKind>(sqlite3_column_int(statement, 1));
    message.owner = static_cast<uint64_t>(sqlite3_column_int64(statement, 2));
    message.error = sqlite3_column_int(statement, 3);
    message.rcode = sqlite3_column_int(statement, 4);
    std::string header = bytes_in(statement, 5);
    if (header.size() == HEADER_SIZE)
        message.header = unpack_header(header.data());
    message.record = bytes_in(statement, 6);
    message.size = static_cast<size_t>(sqlite3_column_bytes(statement, 7));
    if (with_data)
        message.data = bytes_in(statement, 7);
    return message;
}

static std::vector<QueuedMessage> rows_of(sqlite3_stmt *statement, bool with_data)
{
    std::vector<QueuedMessage> rows;
    if (!statement)
        return rows;
    while (sqlite3_step(statement) == SQLITE_ROW)
        rows.push_back(message_in(statement, with_data));
    release(statement);
    return rows;
}

std::optional<QueuedMessage> first_message(Store &store, std::string_view queue, uint32_t kinds,
                                           std::string_view service)
{
    int64_t oldest = 0;
    for (size_t i = 0; i < MESSAGE_KINDS; i++) {
        auto kind = static_cast<MessageKind>(i);
        if (!(kinds & kind_bit(kind)))
            continue;
        int64_t id = service.empty() ? number_of(store, FIND, queue, kind)
                                     : number_of(store, FIND_SERVICE, queue, kind, service);
        if (id != 0 && (oldest == 0 || id < oldest))
            oldest = id;
    }
    if (oldest == 0)
        return {};
    std::vector<QueuedMessage> rows = rows_of(prepared(store, LOAD, oldest), true);
    if (rows.empty())
        return {};
    return std::move(rows[0]);
}

int64_t count_messages(Store &store, std::string_view queue, MessageKind kind, std::string_view service)
{
    return service.empty() ? number_of(store, COUNT, queue, kind)
                           : number_of(store, COUNT_SERVICE, queue, kind, service);
}

int64_t count_rows(Store &store, std::string_view queue)
{
    return number_of(store, COUNT_ROWS, queue);
}

std::vector<QueuedMessage> list_messages(Store &store, std::string_view queue, int64_t most)
{
    return rows_of(prepared(store, LIST, queue, most), false);
}

// --- The key store.

bool put_entry(Store &store, const KeyPlace &place, const StoredEntry &entry)
{
    bool there = has_entry(store, place, entry.key);
    bool put = run(store, PUT_ENTRY, place.session, place.node, Blob{entry.key}, Blob{entry.header},
                   Blob{entry.data});
    store.entries += put && !there;
    return put;
}

// A row of ENTRY_COLUMNS. A header that somebody has cut in the file is an empty one.
static StoredEntry entry_in(sqlite3_stmt *statement)
{
    StoredEntry entry;
    entry.place = {sqlite3_column_int64(statement, 0), sqlite3_column_int(statement, 1)};
    entry.key = bytes_in(statement, 2);
    entry.header = bytes_in(statement, 3);
    entry.header.resize(HEADER_SIZE);
    entry.size = static_cast<size_t>(sqlite3_column_int64(statement, 4));
    return entry;
}

std::optional<StoredEntry> find_entry(Store &store, const KeyPlace &place, std::string_view key)
{
    sqlite3_stmt *statement = prepared(store, FIND_ENTRY, place.session, place.node, Blob{key});
    if (!statement)
        return {};
    std::optional<StoredEntry> entry;
    if (sqlite3_step(statement) == SQLITE_ROW) {
        entry = entry_in(statement);
        entry->data = bytes_in(statement, 5);
    }
    release(statement);
    return entry;
}

bool has_entry(Store &store, const KeyPlace &place, std::string_view key)
{
    return number_of(store, HAS_ENTRY, place.session, place.node, Blob{key}) == 1;
}

// What a statement has removed, or -1.
static int64_t removed(Store &store, bool done)
{
    if (!done)
        return -1;
    int64_t count = sqlite3_changes64(store.database);
    store.entries -= count;
    return count;
}

int64_t remove_entries(Store &store, const KeyPlace &place, std::string_view key)
{
    return removed(store, run(store, REMOVE_ENTRY, place.session, place.node, Blob{key}));
}

int64_t remove_all_entries(Store &store, const KeyPlace &place)
{
    return removed(store, run(store, REMOVE_ENTRIES, place.session, place.node));
}

int64_t count_entries(Store &store, const KeyPlace &place)
{
    return number_of(store, COUNT_ENTRIES, place.session, place.node);
}

int64_t count_all_entries(Store &store)
{
    return store.entries;
}

static std::vector<StoredEntry> entries_of(sqlite3_stmt *statement)
{
    std::vector<StoredEntry> entries;
    if (!statement)
        return entries;
    while (sqlite3_step(statement) == SQLITE_ROW)
        entries.push_back(entry_in(statement));
    release(statement);
    return entries;
}

std::vector<StoredEntry> entries_in(Store &store, const KeyPlace &place)
{
    constexpr int64_t ALL = -1;
    return entries_of(
        prepared(store, LIST_ENTRIES, place.session, place.session, place.node, place.node, ALL));
}

std::vector<StoredEntry> all_entries(Store &store, int64_t most)
{
    return entries_of(prepared(store, LIST_ENTRIES, INT64_C(0), INT64_MAX, INT32_MIN, INT32_MAX, most));
}

uint32_t next_key_number(Store &store)
{
    return static_cast<uint32_t>(number_of(store, NEXT_KEY));
}

// --- The message service.

// A statement with the place first.
template <typename... Values>
static bool run_at(Store &store, Statement which, const KeptPlace &place, Values... values)
{
    return run(store, which, std::string_view(place.server), static_cast<int32_t>(place.topic),
               std::string_view(place.name), std::string_view(place.reader), values...);
}

static KeptPlace place_in(sqlite3_stmt *statement)
{
    return {.server = bytes_in(statement, 0),
            .topic = sqlite3_column_int(statement, 1) != 0,
            .name = bytes_in(statement, 2),
            .reader = bytes_in(statement, 3)};
}

bool keep_message(Store &store, const KeptMessage &message)
{
    return run_at(store, KEEP_MESSAGE, message.place, message.id, message.priority, message.flags,
                  message.sent, message.time_to_live, message.expires, Blob{message.data});
}

bool drop_message(Store &store, const KeptPlace &place, int64_t id)
{
    return run_at(store, DROP_MESSAGE, place, id);
}

std::vector<KeptMessage> kept_messages(Store &store)
{
    std::vector<KeptMessage> messages;
    sqlite3_stmt *statement = prepared(store, LIST_KEPT);
    if (!statement)
        return messages;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        messages.push_back({.place = place_in(statement),
                            .id = sqlite3_column_int64(statement, 4),
                            .priority = sqlite3_column_int(statement, 5),
                            .flags = sqlite3_column_int(statement, 6),
                            .sent = sqlite3_column_int(statement, 7),
                            .time_to_live = sqlite3_column_int(statement, 8),
                            .expires = sqlite3_column_int64(statement, 9),
                            .data = bytes_in(statement, 10)});
    }
    release(statement);
    return messages;
}

bool keep_subscription(Store &store, const KeptPlace &place)
{
    return run_at(store, KEEP_SUBSCRIPTION, place, std::string_view(place.selector));
}

bool drop_subscription(Store &store, const KeptPlace &place)
{
    if (!begin_changes(store))
        return false;
    bool done = run_at(store, DROP_ALL_OF, place) && run_at(store, DROP_SUBSCRIPTION, place);
    return end_changes(store, done);
}

std::vector<KeptPlace> kept_subscriptions(Store &store)
{
    std::vector<KeptPlace> places;
    sqlite3_stmt *statement = prepared(store, LIST_SUBSCRIPTIONS);
    if (!statement)
        return places;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        places.push_back(place_in(statement));
        places.back().selector = bytes_in(statement, 4);
    }
    release(statement);
    return places;
}

uint64_t reserve_identities(Store &store, int64_t count)
{
    return static_cast<uint64_t>(number_of(store, RESERVE, count));
}

}  // namespace clhsim
