// Field buffers that nobody vouches for: decoded from what a server sends, or with a content of any bytes, as
// a file or a stray pointer could give it. All calls that walk, change or convert one are made with it.
//
// An input is 4 bytes (way, length mode, units of room behind the content, number of steps), 4 bytes for each
// step, and the content. Every buffer is a block that ends with its capacity, without the reserve of typed
// buffers, and every area for a result has the size that the call may fill: what goes outside is seen.
#include "buffers/dencode.h"
#include "buffers/sdli.h"
#include "buffers/tbuffer.h"
#include "fields/fbcommon2.h"
#include "queue/rqctl.h"
#include "runtime/errlog.h"
#include "runtime/semantics.h"
#include "vorn/buffers.h"
#include "vorn/structs.h"
#include "wire/msgheader.h"

#include <algorithm>
#include <iterator>
#include <limits.h>
#include <map>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

constexpr size_t HEAD = 4, STEP = 4;
constexpr int LONGEST_NUMBER = 318;  // text of a double, with its NUL
constexpr size_t MOST_KEYS = 12;     // of a buffer, that the reading calls are tried with

enum input_way { BY_CALL, IN_PLACE, RAW, BY_CALL_WITHOUT_SIZE, WAYS };

// What must hold. The trap's place tells which.
static void expect(bool holds)
{
    if (!holds)
        __builtin_trap();
}

static void touch(const char *bytes, int64_t length)
{
    static volatile char sink;
    for (int64_t i = 0; i < length; i++)
        sink = bytes[i];
    (void)sink;
}

struct exact_area {
    char *bytes;
    int room;
    explicit exact_area(int size) : bytes((char *)malloc(size > 0 ? (size_t)size : 1)), room(size) {}
    exact_area(const exact_area &) = delete;
    exact_area &operator=(const exact_area &) = delete;
    ~exact_area() { free(bytes); }
};

static bool is_text(int type)
{
    return type == FB_STRING || type == FB_CARRAY;
}

static bool is_known(int type)
{
    return type >= FB_CHAR && type <= FB_CARRAY;
}

static bool is_cut(void)
{
    return _vorn_flen_flag == FLEN_TRUNCATE || _vorn_flen_flag == FLEN_ERROR;
}

// --- Buffers.

// A field buffer of this capacity whose content begins with `size` bytes.
static FBUF *exact_buffer(const void *content, size_t size, size_t capacity)
{
    msg_header *header = (msg_header *)malloc(HEADER_SIZE + capacity);
    expect(header != nullptr);
    _init_header(header);
    header->buftype = BUF_FIELD;
    header->bufsize = (int32_t)capacity;
    header->datalen = (int32_t)size;
    memset(message_data(header), 0xa5, capacity);
    memcpy(message_data(header), content, size);
    return (FBUF *)message_data(header);
}

static FBUF *copy_of(FBUF *fbuf, size_t capacity)
{
    size_t size = (size_t)capacity_of(fbuf);
    return exact_buffer(fbuf, size < capacity ? size : capacity, capacity);
}

static void release(FBUF *fbuf)
{
    tpfree(bytes_of(fbuf));
}

// The message as it comes, in a block of its length.
static std::vector<char> wire_message(const uint8_t *content, size_t size, int32_t bufsize)
{
    std::vector<char> message(HEADER_SIZE + size);
    msg_header head;
    _init_header(&head);
    head.buftype = BUF_FIELD;
    head.bufsize = bufsize;
    head.datalen = (int32_t)size;
    _hton_header(&head, (msg_header *)message.data());
    memcpy(message.data() + HEADER_SIZE, content, size);
    return message;
}

// Field data behind a control record, in front of a trailer, or both: decoded in place, and encoded again.
// The fields may have taken the place of the trailer.
static void other_forms(const uint8_t *content, size_t size, uint8_t trailer)
{
    for (int form = 1; form <= 3; form++) {
        FBUF *fbuf = exact_buffer(content, size, size);
        msg_header *message = message_of(bytes_of(fbuf));
        message->buftype = (form & 1) != 0 ? BUF_RQ_FIELD : BUF_FIELD;
        message->xflags = (form & 2) != 0 ? XFLAG_TRAILER | trailer : 0;
        int length = 0;
        if (_ntoh_data_fdl(message, bytes_of(fbuf), bytes_of(fbuf)) != nullptr) {
            char *block = _hton_data_fdl(message, &length);
            expect(block != nullptr && length <= message->datalen + trailer);
            touch(block + HEADER_SIZE, length);
            free(block);
        }
        free(message);
    }
}

static FBUF *received(const uint8_t *content, size_t size, size_t capacity, input_way way)
{
    FBUF *fbuf = nullptr;
    if (way == RAW)
        return exact_buffer(content, size, capacity);
    if (way == IN_PLACE) {
        fbuf = exact_buffer(content, size, capacity);
        if (_ntoh_data_fdl(message_of(bytes_of(fbuf)), bytes_of(fbuf), bytes_of(fbuf)) != nullptr)
            return fbuf;
        release(fbuf);
        return nullptr;
    }
    if (way == BY_CALL_WITHOUT_SIZE)
        capacity = size;
    std::vector<char> message = wire_message(content, size, way == BY_CALL ? (int32_t)capacity : -1);
    char *out;
    long length;
    if (tpntoh(message.data(), (long)message.size(), &out, &length) != 1)
        return nullptr;
    expect(length == (long)size && capacity_of((FBUF *)out) == (int32_t)capacity);
    fbuf = exact_buffer(out, size, capacity);
    tpfree(out);
    return fbuf;
}

// --- What the counting calls say of one buffer.

// Key and number of occurrences, in the order of the first ones. Found by stepping through the buffer.
static std::map<int, int> occurrences(FBUF *fbuf)
{
    std::map<int, int> found;
    int key = 0, nth = 0, left = capacity_of(fbuf) / FIELD_ENTRY_UNIT, result;
    while ((result = fbnext_tu(fbuf, &key, &nth, nullptr, nullptr)) == 1) {
        expect(nth == found[key]++);
        expect(left-- > 0);
    }
    expect(result == 0);
    return found;
}

static void check_counts(FBUF *fbuf)
{
    std::map<int, int> found = occurrences(fbuf);
    int fields = fbkeyoccur(fbuf, 0);
    for (const auto &[key, count] : found) {
        expect(fbkeyoccur(fbuf, key) == count);
        expect(fbispres(fbuf, key, count - 1) == 1 && fbispres(fbuf, key, count) == 0);
        expect(fbgetval(fbuf, key, 0, nullptr) != nullptr);
        fields += count;
    }
    expect(fbfldcount(fbuf) == fields);
}

// --- Back to the wire.

// What can be encoded comes back; as it was, if it had been decoded before. Where nothing is used, a header
// is sent, and a buffer without content comes back.
static void take_back(FBUF *fbuf, char *message, long length, bool decoded)
{
    char *back;
    long back_length;
    int32_t used = used_of(fbuf);
    expect(length == used + HEADER_SIZE);
    expect(tpntoh(message, length, &back, &back_length) == 1 && back_length == used);
    check_counts((FBUF *)back);
    if (used > 0)
        expect(used_of((FBUF *)back) == used);
    if (decoded)
        expect(memcmp(back + FB_HEAD_SIZE, bytes_of(fbuf) + FB_HEAD_SIZE, (size_t)used - FB_HEAD_SIZE) == 0);
    tpfree(back);
}

static void encode_again(FBUF *fbuf, bool decoded)
{
    FBUF *copy = copy_of(fbuf, (size_t)capacity_of(fbuf));
    char *out;
    long length;
    int result = tphton(bytes_of(copy), capacity_of(copy), &out, &length);
    expect(result == 1 || !decoded);
    if (result == 1) {
        take_back(fbuf, out, length, decoded);
        free(out);
    }
    release(copy);
}

// --- Reading.

static std::vector<int> keys_to_try(FBUF *fbuf)
{
    std::vector<int> keys;
    for (const auto &each : occurrences(fbuf)) {
        if (keys.size() == MOST_KEYS)
            break;
        keys.push_back(each.first);
    }
    for (int key :
         {0, -1, INT_MIN, fbmake_fldkey(9, 1), fbmake_fldkey(FB_STRING, 77), fbmake_fldkey(FB_INT, 77)})
        keys.push_back(key);
    return keys;
}

// Rooms to try for a value that takes `whole` bytes at most: if values are cut, also too small ones.
static std::vector<int> rooms_for(int whole, int length)
{
    if (!is_cut())
        return {whole};
    return {whole, length, length / 2, 1};
}

// The area has what the room says, but for a number, whose room doesn't count. The room 0 would mean enough.
static void read_natural(FBUF *fbuf, int key, int nth, int length)
{
    bool text = is_text(fbget_fldtype(key));
    for (int room : rooms_for(text ? length + 1 : 8, length)) {
        if (room < (text ? 1 : 8))
            continue;
        exact_area area(room);
        int len = room, last;
        fbget_tu(fbuf, key, nth, area.bytes, &len);
        len = room;
        if (fbgetlast_tu(fbuf, key, &last, nullptr, nullptr) == 1 && fbgetlen(fbuf, key, last) <= length)
            fbgetlast_tu(fbuf, key, nullptr, area.bytes, &len);
    }
}

static void read_as(FBUF *fbuf, int key, int nth, int length, int type)
{
    int whole = !is_text(type) ? 8 : length + 1 > LONGEST_NUMBER ? length + 1 : LONGEST_NUMBER;
    for (int room : rooms_for(whole, is_text(type) ? length : 8)) {
        if (room < (is_text(type) ? 1 : 8))
            continue;
        exact_area area(room);
        int len = room;
        fbget_tut(fbuf, key, nth, area.bytes, &len, type);
        len = room;
        if (nth == 0)
            fbgett(fbuf, key, area.bytes, &len, type);
    }
    int len = 0;
    char *value = fbgetvalt(fbuf, key, nth, &len, type);
    if (value != nullptr)
        touch(value, len);
    for (int extra : {0, 1, 100, -1, INT_MIN, INT_MAX}) {
        char *block = fbgetalloc_tut(fbuf, key, nth, type, &extra);
        if (block != nullptr)
            touch(block, extra);
        free(block);
    }
    free(fbgetalloc_tut(fbuf, key, nth, type, nullptr));
}

// A value is found by itself, unless it is equal to none, as a NaN, or too short to be asked for.
static void find_by_value(FBUF *fbuf, int key, int nth, int length)
{
    int type = fbget_fldtype(key), room = 0;
    exact_area area(length + 8);
    if (is_cut())
        room = length + 8;
    if (fbget_tu(fbuf, key, nth, area.bytes, &room) != 1)
        return;
    int found = fbgetnth(fbuf, key, area.bytes, length);
    bool comparable = type != FB_FLOAT && type != FB_DOUBLE && (type != FB_CARRAY || length > 0);
    expect(!comparable || (found >= 0 && found <= nth));
    for (int other = 0; other <= 9; other++)
        if (!is_text(other) || (other == type))
            fbgetntht(fbuf, key, area.bytes, length, other);
}

static void read_occurrence(FBUF *fbuf, int key, int nth)
{
    int length = -2, last = -2;
    char *value = fbgetval(fbuf, key, nth, &length);
    expect((value != nullptr) == (fbispres(fbuf, key, nth) == 1));
    fbgetvals(fbuf, key, nth);
    fbgetvali(fbuf, key, nth);
    touch(fbgetvals_tu(fbuf, key, nth), (int64_t)strlen(fbgetvals_tu(fbuf, key, nth)) + 1);
    fbgetvall_tu(fbuf, key, nth);
    fbgetval_last_tu(fbuf, key, &last, nullptr);
    if (value == nullptr || !is_known(fbget_fldtype(key))) {
        for (int type : {FB_INT, FB_STRING, 0, 9, -1})
            expect(fbgetvalt(fbuf, key, nth, nullptr, type) == nullptr);
        expect(fbgetalloc_tu(fbuf, key, nth, nullptr) == nullptr);
        return;
    }
    expect(length == fbgetlen(fbuf, key, nth) && length >= 0);
    touch(value, length + (fbget_fldtype(key) == FB_STRING));
    read_natural(fbuf, key, nth, length);
    for (int type = 0; type <= 9; type++)
        read_as(fbuf, key, nth, length, type);
    free(fbgetalloc_tu(fbuf, key, nth, nullptr));
    find_by_value(fbuf, key, nth, length);
}

// A value's room, as the stepping call counts it, has a byte more for a NUL, and a long has its whole width.
static void step_through(FBUF *fbuf)
{
    int key = 0, nth = 0;
    for (;;) {
        int to_key = key, to_nth = nth, length = INT_MAX;
        if (fbnext_tu(fbuf, &to_key, &to_nth, nullptr, &length) != 1)
            return;
        exact_area area(length < 8 ? 8 : length + 1);
        int room = length - 1, full = length;
        expect(fbnext_tu(fbuf, &key, &nth, area.bytes, &room) == -1);
        fbnext_tu(fbuf, &key, &nth, area.bytes, &full);
        key = to_key;
        nth = to_nth;
    }
}

static void read_all(FBUF *fbuf)
{
    fbisfbuf(fbuf);
    fbget_fbsize(fbuf);
    fbget_used(fbuf);
    fbget_unused(fbuf);
    check_counts(fbuf);
    step_through(fbuf);
    for (int key : keys_to_try(fbuf))
        for (int nth : {0, 1, fbkeyoccur(fbuf, key) - 1, -2, INT_MAX})
            read_occurrence(fbuf, key, nth);
}

// --- Whole buffers.

static void join_all(FBUF *fbuf, FBUF *other)
{
    for (int op = 0; op <= 8; op++) {
        FBUF *both[2] = {copy_of(fbuf, (size_t)capacity_of(fbuf)),
                         copy_of(other, (size_t)capacity_of(other))};
        fbbufop(both[0], both[0], op);
        check_counts(both[0]);
        fbbufop(both[1], both[0], op);
        check_counts(both[1]);
        fbbufop(both[0], both[1], op);
        check_counts(both[0]);
        release(both[0]);
        release(both[1]);
    }
}

static void project_all(FBUF *fbuf, FBUF *other)
{
    std::vector<int> keys;
    for (int key : keys_to_try(fbuf))
        if (key != 0 && keys.size() < 3)
            keys.push_back(key);
    keys.push_back(0);
    for (int way = 0; way < 4; way++) {
        FBUF *both[2] = {copy_of(fbuf, (size_t)capacity_of(fbuf)),
                         copy_of(other, (size_t)capacity_of(other))};
        FBUF *dest = both[way & 1], *src = way == 0 ? nullptr : way == 3 ? dest : both[~way & 1];
        if (fbbufop_proj(dest, src, keys.data()) == 1)
            for (const auto &each : occurrences(dest))
                expect(std::vector<int>(keys).end() != std::find(keys.begin(), keys.end(), each.first));
        fbdelall_tu(both[0], keys.data());
        check_counts(both[0]);
        release(both[0]);
        release(both[1]);
    }
}

static void through_streams(FBUF *fbuf)
{
    static FILE *nowhere = fopen("/dev/null", "w");
    fbfprint(fbuf, nowhere);
    size_t capacity = (size_t)capacity_of(fbuf), size = capacity + HEADER_SIZE;
    std::vector<char> record(size + 1);  // the stream ends what it holds with a NUL
    FILE *stream = fmemopen(record.data(), size + 1, "w");
    expect(fbwrite(fbuf, stream) == 1);
    fclose(stream);
    for (size_t room : {capacity, capacity - capacity / 2 + 7, capacity + 8}) {
        FBUF *copy = copy_of(fbuf, room);
        fbinit(copy, 0);
        stream = fmemopen(record.data(), size, "r");
        int result = fbread(copy, stream);
        expect((result == 1) == (room >= capacity));
        expect(result != 1 || memcmp(copy, fbuf, capacity) == 0);
        expect(result != 1 || fbread(copy, stream) == -1);
        fclose(stream);
        check_counts(copy);
        release(copy);
    }
}

// --- Records: a struct with a member of each type for a key of each type.

constexpr int STRUCT_TYPES = 8, ELEMENTS = 3, ELEMENT_BYTES = 8;
constexpr int RECORD_SIZE = STRUCT_TYPES * STRUCT_TYPES * ELEMENTS * ELEMENT_BYTES;
static char STRUCT_NAME[] = "all_pairs";

static std::string definitions(void)
{
    sdl_struct row = {};
    memcpy(row.name, STRUCT_NAME, sizeof STRUCT_NAME);
    row.last = STRUCT_TYPES * STRUCT_TYPES - 1;
    row.host_size = row.wire_size = RECORD_SIZE;
    int32_t head[] = {SDL_MAGIC, 1, row.last + 1};
    std::string bytes((const char *)head, sizeof head);
    bytes.append((const char *)&row, sizeof row);
    for (int n = 0; n <= row.last; n++) {
        sdl_field member = {};
        member.name[0] = (char)('a' + n / STRUCT_TYPES);
        member.name[1] = (char)('a' + n % STRUCT_TYPES);
        member.type = n / STRUCT_TYPES + 1;
        member.key = fbmake_fldkey(n % STRUCT_TYPES + 1, 1);
        bool bytewise = member.type == SDL_CHAR || is_text(member.type);
        member.count = bytewise ? ELEMENTS * ELEMENT_BYTES : ELEMENTS;
        member.element = bytewise ? ELEMENT_BYTES : 0;
        member.host_offset = member.wire_offset = n * ELEMENTS * ELEMENT_BYTES;
        memcpy(member.null_text, "0", 2);
        bytes.append((const char *)&member, sizeof member);
    }
    return bytes;
}

static void load_definitions(void)
{
    std::string bytes = definitions();
    int fd = memfd_create("structs", 0);
    expect(fd >= 0 && write(fd, bytes.data(), bytes.size()) == (ssize_t)bytes.size());
    setenv("SDLFILE", ("/proc/self/fd/" + std::to_string(fd)).c_str(), 1);
    unsetenv("SDLFILE64");
    expect(_sdlfile_load() == 1);
    close(fd);
    expect(find_struct(STRUCT_NAME) == 0);
}

static void through_records(FBUF *fbuf, const uint8_t *content, size_t size)
{
    exact_area record(RECORD_SIZE), wild(RECORD_SIZE);
    memset(wild.bytes, 'x', RECORD_SIZE);
    memcpy(wild.bytes, content, size < RECORD_SIZE ? size : RECORD_SIZE);
    memset(record.bytes, 'y', RECORD_SIZE);
    expect(fbftos(fbuf, record.bytes, STRUCT_NAME) == 1);
    for (int mode = FB_CONCAT; mode <= FB_UPDATE; mode++) {
        FBUF *copy = copy_of(fbuf, (size_t)capacity_of(fbuf));
        fbstof(copy, record.bytes, mode, STRUCT_NAME);
        fbstof(copy, wild.bytes, mode, STRUCT_NAME);
        check_counts(copy);
        release(copy);
    }
}

// --- Steps.

struct step_input {
    FBUF *fbuf, *other;
    int key, nth;
    char *value;
    int len;   // bytes at `value`, or a number that no value has
    int type;  // of the value, for the calls that convert: `len` is then true
    int cursor;
    bool whole;  // the buffer's entries fill it up to its used length: what is put behind them is found
};

static bool is_whole(FBUF *fbuf)
{
    entry_walk walk = walk_of(fbuf);
    while (walk.size > 0)
        next_entry(&walk);
    return walk.entry == walk.end;
}

// A text that was written as occurrence `nth` stands there.
static int expect_text(const step_input *s, int result, int nth, const std::string &text)
{
    if (result != 1 || !s->whole || !is_text(fbget_fldtype(s->key)))
        return result;
    int length = -1;
    const char *found = fbgetval(s->fbuf, s->key, nth, &length);
    expect(found != nullptr && length == (int)text.size() && memcmp(found, text.data(), text.size()) == 0);
    return result;
}

// What the step's value is as the value of its key.
static std::string text_of(const step_input *s)
{
    if (fbget_fldtype(s->key) == FB_CARRAY)
        return std::string(s->value, s->len > 0 && s->len != INT_MAX ? (size_t)s->len : 0);
    return std::string(s->value);
}

static int put(step_input *s)
{
    int result = fbput(s->fbuf, s->key, s->value, s->len);
    return expect_text(s, result, fbkeyoccur(s->fbuf, s->key) - 1, text_of(s));
}

static int insert(step_input *s)
{
    return expect_text(s, fbinsert(s->fbuf, s->key, s->nth, s->value, s->len), s->nth, text_of(s));
}

static int update(step_input *s)
{
    return expect_text(s, fbupdate(s->fbuf, s->key, s->nth, s->value, s->len), s->nth, text_of(s));
}

static int remove_one(step_input *s)
{
    return fbdelete(s->fbuf, s->key, s->nth);
}

static int remove_all(step_input *s)
{
    return fbdelall(s->fbuf, s->key);
}

static int change(step_input *s)
{
    return fbchg_tu(s->fbuf, s->key, s->nth, s->value, s->len);
}

static int change_null(step_input *s)
{
    return fbchg_tu(s->fbuf, s->key, s->nth, nullptr, s->len);
}

static int concat(step_input *s)
{
    return fbbufop(s->fbuf, s->other, FB_CONCAT);
}

static int join(step_input *s)
{
    return fbbufop(s->fbuf, s->other, FB_JOIN + s->type % 3);
}

static bool is_true_length(const step_input *s)
{
    return s->len >= 0 && s->len != INT_MAX;
}

static int put_as(step_input *s)
{
    return is_true_length(s) ? fbputt(s->fbuf, s->key, s->value, s->len, s->type) : 0;
}

static int change_as(step_input *s)
{
    return is_true_length(s) ? fbchg_tut(s->fbuf, s->key, s->nth, s->value, s->len, s->type) : 0;
}

// The consuming calls, with an area for the longest value that there can be.
static int get(step_input *s)
{
    exact_area area(capacity_of(s->fbuf) + LONGEST_NUMBER);
    int len = is_cut() ? s->nth & 7 : 0;
    return fbget(s->fbuf, s->key, area.bytes, &len);
}

static int get_on(step_input *s)
{
    exact_area area(capacity_of(s->fbuf) + LONGEST_NUMBER);
    int len = 0;
    return fbgetf(s->fbuf, s->key, area.bytes, &len, &s->cursor);
}

static int get_as(step_input *s)
{
    exact_area area(capacity_of(s->fbuf) + LONGEST_NUMBER);
    int len = 0;
    return fbgetc(s->fbuf, s->key, area.bytes, &len, &s->cursor, s->type);
}

static int swap_buffers(step_input *s)
{
    std::swap(s->fbuf, s->other);
    return 0;
}

// A value that stands in the buffer itself, or the end of it, put under its own key.
static int put_own(step_input *s)
{
    int length = 0;
    char *own = fbgetval(s->fbuf, s->key, s->type, &length);
    if (own == nullptr || !is_text(fbget_fldtype(s->key)))
        return 0;
    int skipped = length > 1 ? (s->len >> 2 & 15) % length : 0;
    own += skipped;
    length -= skipped;
    std::string text(own, (size_t)length);
    switch (s->len & 3) {
    case 0:
        fbput(s->fbuf, s->key, own, length);
        return 0;
    case 1:
        return expect_text(s, fbinsert(s->fbuf, s->key, s->nth, own, length), s->nth, text);
    case 2:
        return expect_text(s, fbupdate(s->fbuf, s->key, s->nth, own, length), s->nth, text);
    }
    int type = fbget_fldtype(s->key);
    int result = fbchg_tut(s->fbuf, s->key, s->nth, own, length, type);
    return s->nth < 0 ? result : expect_text(s, result, s->nth, text);
}

static int (*const STEPS[])(step_input *) = {put,         insert, update,  remove_one,  remove_all, change,
                                             change_null, concat, join,    put_as,      change_as,  get,
                                             get_on,      get_as, put_own, swap_buffers};

static int pick_nth(uint8_t byte)
{
    static const int special[] = {-1, -2, 100, INT_MAX, INT_MAX - 1, INT_MIN, 1 << 16, 40};
    return byte < 200 ? byte % 5 : special[byte % std::size(special)];
}

// Text of this length, or a number, in a block that ends behind it.
static void make_value(uint8_t byte, std::vector<char> *value, int *len)
{
    static const int lengths[] = {0, 1, 3, 4, 7, 8, 9, 15, 16, 17, 40, 200};
    int length = lengths[byte % std::size(lengths)];
    std::string text =
        byte % 3 == 0 ? std::string((size_t)length, 'v') : "-123.456e2" + std::string((size_t)length, '\x80');
    value->assign(text.c_str(), text.c_str() + text.size() + 1);
    if (value->size() < 8)
        value->resize(8);
    value->shrink_to_fit();
    static const int lies[] = {0, -1, INT_MIN, INT_MAX, -9};
    *len = byte >= 240 ? lies[byte % std::size(lies)] : (int)text.size();
}

static void take_steps(FBUF **fbuf, FBUF **other, const uint8_t *steps, size_t count)
{
    step_input input = {*fbuf, *other, 0, 0, nullptr, 0, 0, 0, false};
    std::vector<int> keys = keys_to_try(*fbuf);
    for (int type = FB_CHAR; type <= FB_CARRAY; type++)
        keys.push_back(fbmake_fldkey(type, 1));
    for (size_t i = 0; i < count; i++, steps += STEP) {
        std::vector<char> value;
        make_value(steps[3], &value, &input.len);
        input.value = value.data();
        input.key = keys[steps[1] % keys.size()];
        input.nth = pick_nth(steps[2]);
        input.type = steps[0] / 16 % 10;
        if (steps[0] >= 250)
            input.cursor = input.nth;
        input.whole = is_whole(input.fbuf);
        STEPS[steps[0] % std::size(STEPS)](&input);
        check_counts(input.fbuf);
    }
    *fbuf = input.fbuf;
    *other = input.other;
}

// --- An input.

// The steps come first: inputs without any show what the rest does with the buffer as it came.
static void use_buffer(FBUF *fbuf, const uint8_t *content, size_t size, const uint8_t *steps, size_t count)
{
    FBUF *other = copy_of(fbuf, (size_t)capacity_of(fbuf) + 24);
    take_steps(&fbuf, &other, steps, count);
    read_all(fbuf);
    join_all(fbuf, other);
    project_all(fbuf, other);
    through_streams(fbuf);
    through_records(fbuf, content, size);
    encode_again(fbuf, false);
    FBUF *moved = fbrealloc(fbuf, 0, capacity_of(fbuf) / 2);
    expect(moved != nullptr);
    check_counts(moved);
    fbinit(moved, capacity_of(moved));
    expect(fbfldcount(moved) == 0 && fbfree(moved) == 1);
    release(other);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    _daemon = 1;
    setenv("FDLFILE", "", 1);
    _vorn_semantics_flag = 1;
    load_definitions();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < HEAD || size < HEAD + data[3] * STEP + FB_HEAD_SIZE)
        return 0;
    input_way way = (input_way)(data[0] % WAYS);
    _vorn_flen_flag = data[1] % (FLEN_ERROR + 1);
    const uint8_t *steps = data + HEAD, *content = steps + data[3] * STEP;
    size_t length = size - HEAD - data[3] * STEP;
    FBUF *fbuf = received(content, length, length + data[2] * (size_t)FIELD_ENTRY_UNIT, way);
    if (way != RAW)
        other_forms(content, length, data[2]);
    if (fbuf != nullptr) {
        encode_again(fbuf, way != RAW);
        use_buffer(fbuf, content, length, steps, data[3]);
    }
    // The cache and the scratch block of conversions: each input has to begin anew.
    free_field_memory(current_block());
    return 0;
}
