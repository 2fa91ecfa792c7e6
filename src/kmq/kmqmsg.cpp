// Message objects: body and properties of a message.
//
// A message belongs to the thread that holds it. It may come from a hostile server: walks stay inside the
// buffer, and a name whose value isn't there has none.
#include "kmq/kmqmsg.h"

#include "buffers/payload.h"
#include "fields/fbapi.h"
#include "fields/fbapim.h"
#include "fields/fbcommon2.h"
#include "kmq/kmqapi.h"
#include "kmq/kmqobj.h"
#include "runtime/thrapi.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"

#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

static constexpr api_text KMQ_ALLOC = API_POINTER_TEXT("kmq_alloc", "(%#x, %d)");
static constexpr api_text KMQ_GET_PROPERTY = API_TEXT("kmq_get_property", "(%#x, \"%s\", %#x, %#x, %#x)");
static constexpr api_text KMQ_SET_PROPERTY = API_TEXT("kmq_set_property", "(%#x, \"%s\", %d, %#x, %d)");
static constexpr api_text KMQ_GET_BODY = API_TEXT("kmq_get_body", "(%#x, %#x, %#x)");
static constexpr api_text KMQ_SET_BODY = API_TEXT("kmq_set_body", "(%#x, %#x, %d)");

int32_t rsvd_count = RESERVED_NAMES;
const char *rsvd_property[RESERVED_NAMES] = {
    "$Data",      "$Destination", "$DeliveryMode", "$Expiration",   "$Priority",
    "$MessageID", "$TimeStamp",   "$Redelivered",  "@KMQStartSec@", "@KMQStartUsec@",
};
static const char BODY_NAME[] = "$Data";

static FBUF *fields_of(char *msg)
{
    return (FBUF *)msg;
}

static bool is_message(const char *msg)
{
    return msg != nullptr && has_magic((const FBUF *)msg);
}

// --- Allocation.

int _calc_msgsize(int size)
{
    double with_room = size * 1.05;
    return with_room > INT_MAX ? INT_MAX : with_room < INT_MIN ? INT_MIN : (int)with_room;
}

char *kmq_alloc(void *owner, int size)
{
    api_frame frame;
    if (!API_ENTER(&frame, KMQ_ALLOC, owner, size))
        return nullptr;
    set_tperrno(0);
    if (owner == nullptr) {
        set_tperrno(TPEINVAL);
        return (char *)api_give(&frame, &KMQ_ALLOC, nullptr);
    }
    char type[] = "FIELD", subtype[] = "";
    int room = _calc_msgsize(size);
    char *msg = tpalloc(type, subtype, room);
    if (msg == nullptr)
        set_tperrno_if_none(TPESYSTEM);
    else
        fbinit(fields_of(msg), room);
    return (char *)api_give(&frame, &KMQ_ALLOC, msg);
}

void kmq_free(char *msg)
{
    VORN_TRACE("kmq_free", 1, TRACE_ENTRY, "kmq_free(%#x)", msg);
    fbfree(fields_of(msg));
}

// --- Names.

char *_search_by_name(char *msg, int key, const char *name)
{
    FBUF *fields = fields_of(msg);
    int nth = 0, offset = 0, count = 0;
    char *from = first_entry(fields), *end = entries_end(fields);
    if (_srch_fcache(fields, key, 0, &nth, &offset) >= 0 && offset >= 0 && offset <= end - from) {
        from += offset;
        count = nth;
    }
    bool is_first = true;
    for (entry_walk walk = walk_from(from, end); walk.size > 0; next_entry(&walk), count++) {
        if (get_int32(walk.entry) != key)
            continue;
        if (is_first)
            _upd_fcache(fields, key, 0, (int)(walk.entry - first_entry(fields)));
        is_first = false;
        const char *text = value_of(walk.entry);
        if (count % 2 == 0 && *text == *name && strcmp(text, name) == 0)
            return walk.entry;
    }
    return nullptr;
}

// The value behind a name; a size of 0 if there is none.
static entry_walk value_behind(char *msg, char *name)
{
    entry_walk walk = walk_from(name, entries_end(fields_of(msg)));
    next_entry(&walk);
    return walk;
}

// --- Reading.

static int give_text(const char *text, bool counts_nul, int *type, void *value, long *len)
{
    long length = (long)strlen(text) + 1;
    if (*len < length) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    memcpy(value, text, (size_t)length);
    *len = counts_nul ? length : length - 1;
    *type = FB_STRING;
    return 1;
}

// What is done with `*len`: each name has its own way.
enum length_rule { LENGTH_TESTED, LENGTH_TESTED_AND_KEPT, LENGTH_NOT_TESTED };

static int give_number(int32_t number, length_rule rule, int *type, void *value, long *len)
{
    if (rule != LENGTH_NOT_TESTED && *len < (long)sizeof number) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    memcpy(value, &number, sizeof number);
    if (rule != LENGTH_TESTED_AND_KEPT)
        *len = sizeof number;
    *type = FB_INT;
    return 1;
}

// The queue of the producer or consumer that the message belongs to; null if either is gone. Expects
// msg_mutex: sessions of other threads may come and go.
static const char *destination_of(const msg_header *header, wthr_var *block)
{
    kmq_session *session = _search_sess_by_id(header->sessid, block);
    if (session == nullptr)
        return nullptr;
    const kmq_producer *producer = _search_prod_by_id(session, header->prio);
    if (producer != nullptr)
        return producer->queue;
    const kmq_consumer *consumer = _search_cons_by_id(session, header->prio);
    return consumer != nullptr ? consumer->queue : nullptr;
}

static int give_destination(const msg_header *header, int *type, void *value, long *len, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    const char *queue = destination_of(header, block);
    int given = queue != nullptr ? give_text(queue, false, type, value, len) : -1;
    _thread_mutex_unlock(&block->msg_mutex);
    if (queue == nullptr)
        set_tperrno(TPESYSTEM);
    return given;
}

int _get_property_from_header(char *msg, const char *name, int *type, void *value, long *len, wthr_var *block)
{
    if (name[0] != '$')  // none of these, as nearly every name
        return 0;
    const msg_header *header = message_of(msg);
    uint32_t priority = header->callid[WORD_PRIORITY];
    if (strcmp(name, "$MessageID") == 0) {
        char text[16];
        snprintf(text, sizeof text, "%.4X%.8X", priority >> 16, (uint32_t)header->cd);
        return give_text(text, true, type, value, len);
    }
    if (strcmp(name, "$TimeStamp") == 0)
        return give_number((int32_t)header->callid[WORD_TIME], LENGTH_TESTED, type, value, len);
    if (strcmp(name, "$Destination") == 0)
        return give_destination(header, type, value, len, block);
    if (strcmp(name, "$Redelivered") == 0)
        return give_number((header->flags & KMQ_REDELIVERED) != 0, LENGTH_TESTED_AND_KEPT, type, value, len);
    if (strcmp(name, "$DeliveryMode") == 0)
        return give_number((header->flags & KMQ_PERSISTENT) != 0, LENGTH_NOT_TESTED, type, value, len);
    if (strcmp(name, "$Expiration") == 0)
        return give_number((int32_t)header->callid[WORD_EXPIRATION], LENGTH_NOT_TESTED, type, value, len);
    if (strcmp(name, "$Priority") == 0)
        return give_number((int32_t)priority, LENGTH_NOT_TESTED, type, value, len);
    return 0;
}

// Copies the value of an entry. 0, or an error number.
static int give_value(const entry_walk *at, void *value, long *len)
{
    if (at->size <= 0)
        return TPENOENT;
    int32_t length = length_of(at->entry);
    if (length > *len)
        return TPEINVAL;
    memcpy(value, value_of(at->entry), (size_t)length);
    *len = length;
    return 0;
}

// The value of a name. 0, or an error number; `*type` takes its field type.
static int read_value(char *msg, int name_key, const char *name, int *type, void *value, long *len)
{
    char *entry = _search_by_name(msg, name_key, name);
    if (entry == nullptr)
        return TPENOENT;
    entry_walk at = value_behind(msg, entry);
    if (at.size > 0)
        *type = type_of_key(get_int32(at.entry));
    return give_value(&at, value, len);
}

int kmq_get_property(char *msg, char *name, int *type, void *value, long *len)
{
    api_frame frame;
    if (!API_ENTER(&frame, KMQ_GET_PROPERTY, msg, shown(name), type, value, len))
        return -1;
    set_tperrno(0);
    if (name == nullptr || value == nullptr || len == nullptr || name[0] == '\0' || !is_message(msg))
        return api_fail(&frame, &KMQ_GET_PROPERTY, TPEINVAL);
    int unasked;
    if (type == nullptr)
        type = &unasked;
    int found = _get_property_from_header(msg, name, type, value, len, frame.block);
    if (found < 0)
        return api_error(&frame, &KMQ_GET_PROPERTY);
    int error = found > 0 ? 0 : read_value(msg, PROPERTY_NAME_KEY, name, type, value, len);
    return error == 0 ? api_return(&KMQ_GET_PROPERTY, 1) : api_fail(&frame, &KMQ_GET_PROPERTY, error);
}

int kmq_get_body(char *msg, void *data, long *len)
{
    api_frame frame;
    if (!API_ENTER(&frame, KMQ_GET_BODY, msg, data, len))
        return -1;
    set_tperrno(0);
    if (data == nullptr || len == nullptr || !is_message(msg))
        return api_fail(&frame, &KMQ_GET_BODY, TPEINVAL);
    int type, error = read_value(msg, BODY_NAME_KEY, BODY_NAME, &type, data, len);
    return error == 0 ? api_return(&KMQ_GET_BODY, 1) : api_fail(&frame, &KMQ_GET_BODY, error);
}

// --- Writing.

static void *memcpy_or_null(void *to, const void *from, size_t bytes)
{
    return to == nullptr ? nullptr : memcpy(to, from, bytes);
}

int _update_value(char *msg, int key, const char *value, long len, char *position)
{
    FBUF *fields = fields_of(msg);
    int type = type_of_key(key), length = buffer_length(len);
    if (type == FB_CARRAY && length < 1) {  // before anything has moved
        set_fberror(FBEINVAL);
        return -1;
    }
    entry_walk at = walk_from(position, entries_end(fields));
    int64_t size = size_of_value(type, value, length);
    bool moves = (type == FB_STRING || type == FB_CARRAY) && size != at.size;
    int64_t end = moves ? at.end - bytes_of(fields) + size - at.size : position - bytes_of(fields) + size;
    if (end > capacity_of(fields)) {
        set_fberror(FBENOSPACE);
        return -1;
    }
    // A value out of the message itself would move, or be written over.
    char *copy = nullptr;
    if (moves && value >= bytes_of(fields) && value < at.end) {
        size_t bytes = type == FB_STRING ? strlen(value) + 1 : (size_t)length;
        value = copy = (char *)memcpy_or_null(malloc(bytes), value, bytes);
        if (copy == nullptr) {
            set_fberror(FBEMALLOC);
            return -1;
        }
    }
    if (moves) {
        _clear_fcache(fields);
        char *tail = position + at.size;
        memmove(position + size, tail, (size_t)(at.end - tail));
        set_used(fields, end);
    }
    int result = _put_fld_to_fbuf(position, key, value, length, 1);
    free(copy);
    return result;
}

// Appends a name and its value. 1, or -1: no room, or no such type; then the message is as before.
static int append_pair(char *msg, int name_key, const char *name, int key, const char *value, long len)
{
    FBUF *fields = fields_of(msg);
    int length = buffer_length(len);
    int64_t used = entries_end(fields) - bytes_of(fields);
    int64_t needed = size_of_value(FB_STRING, name, 0) + size_of_value(type_of_key(key), value, length);
    if (capacity_of(fields) < used + needed)
        return -1;
    if (fbput(fields, name_key, (char *)name, (int)strlen(name)) < 0)
        return -1;
    if (fbput(fields, key, (char *)value, length) >= 0)
        return 1;
    _clear_fcache(fields);
    set_used(fields, used);  // a name without its value would make a name of each value behind it
    return -1;
}

// Sets what a name stands for.
static int set_value(char *msg, int name_key, const char *name, int key, const char *value, long len)
{
    char *entry = _search_by_name(msg, name_key, name);
    if (entry == nullptr)
        return append_pair(msg, name_key, name, key, value, len);
    entry_walk at = value_behind(msg, entry);
    return at.size <= 0 ? -1 : _update_value(msg, key, value, len, at.entry);
}

int _set_property(char *msg, const char *name, int type, const char *value, long len)
{
    if (type < FIELD_TYPE_FIRST || type > FIELD_TYPE_LAST)
        return -1;
    return set_value(msg, PROPERTY_NAME_KEY, name, type << FIELD_TYPE_SHIFT | 1, value, len);
}

static bool is_reserved(const char *name)
{
    if (name[0] != '$' && name[0] != '@')
        return false;
    for (const char *reserved : rsvd_property)
        if (strcmp(name, reserved) == 0)
            return true;
    return false;
}

int kmq_set_property(char *msg, char *name, int type, void *value, long len)
{
    api_frame frame;
    if (!API_ENTER(&frame, KMQ_SET_PROPERTY, msg, shown(name), type, value, (int)len))
        return -1;
    set_tperrno(0);
    if (name == nullptr || value == nullptr || name[0] == '\0' || len < 0 || !is_message(msg))
        return api_fail(&frame, &KMQ_SET_PROPERTY, TPEINVAL);
    if (is_reserved(name) || _set_property(msg, name, type, (const char *)value, len) < 0)
        return api_fail(&frame, &KMQ_SET_PROPERTY, TPEINVAL);
    return api_return(&KMQ_SET_PROPERTY, 1);
}

int kmq_set_body(char *msg, void *data, long len)
{
    api_frame frame;
    if (!API_ENTER(&frame, KMQ_SET_BODY, msg, data, (int)len))
        return -1;
    set_tperrno(0);
    if (data == nullptr || len < 0 || !is_message(msg))
        return api_fail(&frame, &KMQ_SET_BODY, TPEINVAL);
    if (set_value(msg, BODY_NAME_KEY, BODY_NAME, BODY_KEY, (const char *)data, len) < 0)
        return api_fail(&frame, &KMQ_SET_BODY, TPEINVAL);
    return api_return(&KMQ_SET_BODY, 1);
}
}
