// Key lists of the key store: their check on arrival, the merge of two, and the calls that read them.
#include "queue/keylist.h"

#include "buffers/tbuffer.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "vorn/keystore.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static constexpr api_text KEYLIST_COUNT = API_TEXT("vorn_keylist_count", "(%#x)");
static constexpr api_text KEYLIST_GETAKEY = API_TEXT("vorn_keylist_getakey", "(%#x, %d, %#x)");
static constexpr api_text KEYLIST_FREE = API_TEXT("vorn_keylist_free", "(%#x)");

constexpr int ROW_WORDS = 3;
constexpr int64_t ROW_SIZE = ROW_WORDS * (int64_t)sizeof(int32_t);

// Bytes that stand behind the rows; negative if not even these are there.
static int64_t room_for_keys(const msg_header *list)
{
    return list->target < 0 ? -1 : list->datalen - list->target * ROW_SIZE;
}

bool is_key_list(const msg_header *message)
{
    const char *row = (const char *)message + HEADER_SIZE;
    int64_t room = room_for_keys(message);
    for (int32_t i = 0; i < message->target && room >= 0; i++, row += ROW_SIZE) {
        int32_t keylen = (int32_t)get_word(row);
        room = keylen < 0 ? -1 : room - keylen;
    }
    return room >= 0;
}

void turn_key_rows(msg_header *list)
{
    char *at = message_data(list);
    for (char *end = at + list->target * ROW_SIZE; at < end; at += sizeof(uint32_t)) {
        uint32_t word = get_word(at);
        memcpy(at, &word, sizeof word);
    }
}

int _sq_key_compare(const char *a, int alen, const char *b, int blen)
{
    for (int i = 0; i < alen && i < blen; i++)
        if (a[i] != b[i])
            return (signed char)a[i] > (signed char)b[i] ? 1 : -1;
    return alen == blen ? 0 : alen > blen ? 1 : -1;
}

// Where a walk over a list stands. With no rows left the other two point behind the last.
struct list_walk {
    int32_t left;
    const char *row, *key;
};

static list_walk begin_walk(const msg_header *list)
{
    const char *rows = (const char *)list + HEADER_SIZE;
    return {list->target, rows, rows + list->target * ROW_SIZE};
}

static int32_t key_length(const list_walk *walk)
{
    return (int32_t)get_word(walk->row);
}

static bool takes_first(const list_walk *a, const list_walk *b)
{
    if (a->left == 0 || b->left == 0)
        return b->left == 0;
    return _sq_key_compare(a->key, key_length(a), b->key, key_length(b)) <= 0;
}

// Merges two checked lists into `merged`, whose counts are set.
static void merge_into(msg_header *merged, const msg_header *a, const msg_header *b)
{
    list_walk first = begin_walk(a), second = begin_walk(b);
    char *row = message_data(merged), *key = row + merged->target * ROW_SIZE;
    while (first.left + (int64_t)second.left > 0) {
        list_walk *from = takes_first(&first, &second) ? &first : &second;
        int32_t keylen = key_length(from);
        memcpy(row, from->row, ROW_SIZE);
        memcpy(key, from->key, (size_t)keylen);
        row += ROW_SIZE;
        key += keylen;
        from->row += ROW_SIZE;
        from->key += keylen;
        from->left--;
    }
    // What came behind the last keys isn't taken over, nor may the heap show.
    memset(key, 0, (size_t)(message_data(merged) + merged->datalen - key));
}

msg_header *_sq_keylist_merge(msg_header *a, const msg_header *b)
{
    bool are_lists = is_key_list(a) && is_key_list(b);
    int64_t length = (int64_t)a->datalen + b->datalen, size = length + BLOCK_OVERHEAD;
    msg_header *merged = !are_lists || size > INT32_MAX ? nullptr : (msg_header *)malloc((size_t)size);
    if (merged == nullptr) {
        free(a);
        set_tperrno(are_lists ? TPEOS : TPESYSTEM);
        return nullptr;
    }
    memcpy(merged, a, sizeof *merged);
    merged->target = a->target + b->target;  // no more than the data has room for
    merged->bufsize = merged->datalen = (int32_t)length;
    merge_into(merged, a, b);
    free(a);
    return merged;
}

// --- The calls.

// The header of a list. Null with tperrno set for what can't be one. A block that counts rows passes,
// whatever its first word is.
static msg_header *list_header(char *list)
{
    if (list == nullptr) {
        set_tperrno(TPEINVAL);
        return nullptr;
    }
    bool aligned = (uintptr_t)list % alignof(msg_header) == 0;
    if (is_typed_buffer(list) || (aligned && message_of(list)->target > 0))
        return message_of(list);
    set_tperrno(TPEBADDESC);
    return nullptr;
}

int vorn_keylist_count(char *list)
{
    api_frame frame;
    if (!API_ENTER(&frame, KEYLIST_COUNT, list))
        return -1;
    set_tperrno(0);
    const msg_header *header = list_header(list);
    return header == nullptr ? api_error(&frame, &KEYLIST_COUNT) : api_return(&KEYLIST_COUNT, header->target);
}

// The words of row `index`, in host order.
struct key_row {
    int32_t keylen, total, attr;
};
static_assert(sizeof(key_row) == ROW_SIZE);

static key_row row_of(const char *list, int32_t index)
{
    key_row row;
    memcpy(&row, list + index * ROW_SIZE, sizeof row);
    return row;
}

// Tells of a key that the list has. False if its rows don't fit the header: another message, or a list that
// the application has written to.
static bool find_key(msg_header *header, int32_t index, vorn_key *result)
{
    char *list = message_data(header);
    int64_t room = room_for_keys(header), offset = 0;
    if (room < 0)
        return false;
    for (int32_t i = 0; i < index; i++) {
        int32_t keylen = row_of(list, i).keylen;
        offset += keylen;
        if (keylen < 0 || offset > room)
            return false;
    }
    key_row row = row_of(list, index);
    if (row.keylen < 0 || offset + row.keylen > room)
        return false;
    *result = {row.keylen, (long)row.total - row.keylen, row.attr, list + header->target * ROW_SIZE + offset};
    return true;
}

int vorn_keylist_getakey(char *list, int index, vorn_key *result)
{
    api_frame frame;
    if (!API_ENTER(&frame, KEYLIST_GETAKEY, list, index, result))
        return -1;
    set_tperrno(0);
    if (result == nullptr || index < 0)
        return api_fail(&frame, &KEYLIST_GETAKEY, TPEINVAL);
    msg_header *header = list_header(list);
    if (header == nullptr)
        return api_error(&frame, &KEYLIST_GETAKEY);
    if (index >= header->target)
        return api_fail(&frame, &KEYLIST_GETAKEY, TPELIMIT);
    if (!find_key(header, index, result))
        return api_fail(&frame, &KEYLIST_GETAKEY, TPEBADDESC);
    return api_return(&KEYLIST_GETAKEY, 1);
}

int vorn_keylist_free(char *list)
{
    api_frame frame;
    if (!API_ENTER(&frame, KEYLIST_FREE, list))
        return -1;
    set_tperrno(0);
    if (list == nullptr)
        return api_fail(&frame, &KEYLIST_FREE, TPEINVAL);
    if (!is_typed_buffer(list))
        return api_fail(&frame, &KEYLIST_FREE, TPEBADDESC);
    free_buffer(message_of(list));
    return api_return(&KEYLIST_FREE, 1);
}
}
