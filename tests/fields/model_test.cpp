// Random steps of all calls on two buffers, each held against a plain list after every step.
#include "fields/fixture.h"

#include "fields/fbapim.h"
#include "fields/model.h"

#include <random>

using namespace fld;
using model::outcome;

namespace {

constexpr int STEPS = 4000, SEEDS = 6;
constexpr int AREA = 256;

struct side {
    Buffer real;
    model::buffer plain;
    int cursor = 0;

    explicit side(int32_t capacity)
    {
        set_capacity(real, capacity);
        plain.capacity = capacity;
    }
};

struct World {
    std::mt19937 random;
    side sides[2];
    side *own = &sides[0], *other = &sides[1];
    char area[AREA];  // where readers deliver; 'u' before each step
    int len = 0;      // room, then length

    World(unsigned seed, model::mode mode)
        : random(seed), sides{side(8 + 8 * (int)(10 + seed * 7 % 40)),
                              side(8 + 8 * (int)(10 + seed * 13 % 60) + 3)}
    {
        for (side &each : sides)
            each.plain.length_mode = mode;
    }
    ~World()
    {
        for (side &each : sides)
            _clear_fcache(each.real);
    }

    int below(int limit) { return (int)(random() % (unsigned)limit); }
    template <typename T, size_t N> T one_of(const T (&choices)[N]) { return choices[below((int)N)]; }

    FBUF *fbuf() { return own->real; }
    model::buffer &plain() { return own->plain; }

    // --- What the steps are made of.

    int32_t any_key()
    {
        static const int numbers[] = {1, 2, 1 + 1019};
        int32_t k = key(1 + below(8), one_of(numbers));
        return below(25) == 0 ? k | READ : k;
    }
    int32_t plain_key() { return any_key() & ~READ; }
    int32_t known_key()  // most of the time one that is there
    {
        const list &fields = plain().fields;
        if (fields.empty() || below(4) == 0)
            return any_key();
        int32_t k = fields[(size_t)below((int)fields.size())].key;
        return below(8) == 0 ? k : k & ~READ;
    }
    int any_type() { return below(12) == 0 ? 9 * below(2) : 1 + below(8); }
    int any_nth()
    {
        static const int rare[] = {-1, -2, 5, 9, INT_MAX};
        return below(12) == 0 ? one_of(rare) : below(4);
    }
    int any_room() { return below(2) == 0 ? 0 : 1 + below(30); }
    std::string any_text(int least)
    {
        std::string text((size_t)(least + below(below(6) == 0 ? 60 : 14)), 'x');
        bool digits = below(2) == 0;
        for (char &c : text)
            c = (char)(digits ? '0' + below(10) : 'a' + below(6));
        return digits ? text.substr(0, 9) : text;
    }
    // A value of a type as it stands in an entry; a long has all its 8 bytes.
    std::string any_value(int type)
    {
        static const int64_t wholes[] = {0, 0, 1, -1, 7, 65, 255, 300, -129, 70000, INT_MAX, INT_MIN};
        int64_t whole = below(3) == 0 ? below(5) : one_of(wholes);
        switch (type) {
        case CHAR:
            return raw((int8_t)whole);
        case SHORT:
            return raw((int16_t)whole);
        case INT:
            return raw((int32_t)whole);
        case LONG:
            return raw(below(4) == 0 ? whole * 0x10000001 : whole);
        case FLOAT:
            return raw((float)(below(4000) - 2000) / 4);
        case DOUBLE:
            return raw((double)(below(4000) - 2000) / 8);
        }
        return any_text(type == CARRAY ? 1 : 0);
    }
    // The field that the buffer then holds, of a value that is handed over.
    static field stored(int32_t k, const std::string &value)
    {
        return {k, type_of(k) == LONG ? value.substr(0, 4) : value};
    }
    std::string given_to(int32_t k, const std::string &value)
    {
        return type_of(k) == STRING ? value + '\0' : value;
    }

    // --- Comparisons.

    void expect(long result, const outcome &wanted)
    {
        EXPECT_EQ(result, wanted.result);
        EXPECT_EQ(getfberror(), wanted.error);
    }
    void expect_area(const outcome &wanted)
    {
        std::string whole = wanted.result == 1 ? wanted.bytes : "";
        whole.resize(AREA, 'u');
        EXPECT_EQ(std::string(area, AREA), whole);
        EXPECT_EQ(len, wanted.len);
    }
    // An address that was given back: the bytes there.
    void expect_bytes(const char *at, const std::string &wanted, int error)
    {
        EXPECT_EQ(getfberror(), error);
        EXPECT_EQ(at == nullptr, error != 0);
        if (at != nullptr && error == 0) {
            EXPECT_EQ(std::string(at, wanted.size()), wanted);
        }
    }
    void expect_all()
    {
        for (side &each : sides) {
            ASSERT_EQ(in(each.real), each.plain.fields);
            ASSERT_TRUE(each.real.reserve_is_untouched());
            ASSERT_EQ(capacity(each.real), each.plain.capacity);
        }
    }
    void between_steps()
    {
        memset(area, 'u', AREA);
        len = any_room();
        if (below(8) == 0)
            std::swap(own, other);
        FieldTest::stale();
    }
};

// --- Writing.

void put_step(World &w)
{
    int32_t k = w.below(30) == 0 ? key(9, 1) : w.plain_key();
    std::string value = w.any_value(type_of(k));
    int length = type_of(k) == CARRAY && w.below(10) == 0 ? -w.below(3) : (int)value.size();
    outcome wanted = w.plain().put(World::stored(k, length < 1 && type_of(k) == CARRAY ? "" : value));
    w.expect(fbput(w.fbuf(), k, w.given_to(k, value).data(), length), wanted);
}

void put_stored_step(World &w)
{
    int32_t k = w.plain_key();
    field one = World::stored(k, w.any_value(type_of(k)));
    w.expect(_fbput(w.fbuf(), k, w.given_to(k, one.value).data(), (int)one.value.size()), w.plain().put(one));
}

void insert_step(World &w)
{
    int32_t k = w.plain_key();
    int nth = w.any_nth();
    std::string value = w.any_value(type_of(k));
    outcome wanted = w.plain().insert(World::stored(k, value), nth);
    w.expect(fbinsert(w.fbuf(), k, nth, w.given_to(k, value).data(), (int)value.size()), wanted);
}

void update_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth();
    std::string value = w.any_value(type_of(k));
    outcome wanted = w.plain().update(World::stored(k, value), nth);
    w.expect(fbupdate(w.fbuf(), k, nth, w.given_to(k, value).data(), (int)value.size()), wanted);
}

void change_step(World &w)
{
    int32_t k = w.known_key() & ~READ;
    int nth = w.any_nth();
    std::string value = w.any_value(type_of(k)), given = w.given_to(k, value);
    field one = World::stored(k, value);
    bool removes = w.below(4) == 0 && nth != -1;
    outcome wanted = w.plain().change(removes ? nullptr : &one, k, nth);
    w.expect(fbchg_tu(w.fbuf(), k, nth, removes ? nullptr : given.data(), (int)value.size()), wanted);
}

// A value of one type for a field of another: what fbtypecvt makes of it, and whether it is refused.
struct converted {
    int32_t k;
    int type;
    std::string value, given;
    int length, error;
    field one;

    explicit converted(World &w)
    {
        k = w.below(20) == 0 ? key(9, 1) : w.known_key() & ~READ;
        type = w.any_type();
        int made = type < CHAR || type > CARRAY ? INT : type;
        value = w.any_value(made);
        given = made == STRING ? value + '\0' : value;
        length = made == CARRAY && w.below(10) == 0 ? 0 : (int)value.size();
        error = type == CARRAY && length < 1 ? FBEINVAL : 0;
        bool known_from = type >= CHAR && type <= CARRAY, known_to = type_of(k) <= CARRAY;
        if (error == 0 && !(known_from && known_to))
            error = !known_to ? FBEBADFLD : FBETYPE;
        if (error == 0)
            one = {k, model::of_value(type, value, type_of(k))};
    }
};

void put_as_step(World &w)
{
    converted c(w);
    outcome wanted = c.error != 0 ? model::failed(c.error) : w.plain().put(World::stored(c.k, c.one.value));
    w.expect(fbputt(w.fbuf(), c.k, c.given.data(), c.length, c.type), wanted);
}

void change_as_step(World &w)
{
    converted c(w);
    if (c.error == 0 && type_of(c.k) == CARRAY && c.one.value.empty())
        return;  // an update would leave a field with a length word of its own
    int nth = w.any_nth();
    field one = World::stored(c.k, c.one.value);
    outcome wanted = c.error != 0 ? model::failed(c.error) : w.plain().change(&one, c.k, nth);
    w.expect(fbchg_tut(w.fbuf(), c.k, nth, c.given.data(), c.length, c.type), wanted);
}

void delete_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth();
    w.expect(fbdelete(w.fbuf(), k, nth), w.plain().remove(k, nth));
}

void delete_all_step(World &w)
{
    int32_t k = w.known_key();
    w.expect(fbdelall(w.fbuf(), k), w.plain().remove_all(k));
}

void delete_keys_step(World &w)
{
    std::vector<int> keys = {w.known_key(), w.any_key(), 0};
    long gone = 0;
    for (int i = 0; i < 2; i++)
        gone += std::max(0L, w.plain().remove_all(keys[(size_t)i]).result);
    EXPECT_EQ(fbdelall_tu(w.fbuf(), keys.data()), gone);
}

void init_step(World &w)
{
    if (w.below(4) != 0)
        return;
    int size = w.below(2) == 0 ? w.plain().capacity + 1 : w.below(w.plain().capacity + 1);
    outcome wanted = size > w.plain().capacity ? model::failed(FBENOSPACE) : outcome();
    if (wanted.result == 1)
        w.plain().fields.clear();
    w.expect(fbinit(w.fbuf(), size), wanted);
}

// --- Reading with a mark.

void get_step(World &w)
{
    int32_t k = w.known_key();
    bool with_length = w.below(3) != 0;
    int index = w.plain().find(k, 0);
    outcome wanted = w.plain().get(k, 0, with_length ? w.len : 0);
    if (!with_length)
        wanted.len = w.len;
    if (wanted.result == 1)
        w.plain().mark((size_t)index);
    w.expect(fbget(w.fbuf(), k, w.area, with_length ? &w.len : nullptr), wanted);
    w.expect_area(wanted);
}

// Where a cursor search ends: the entry's index or -1, and the cursor behind it. False: the cursor stands
// where its meaning is nobody's business.
bool cursor_search(World &w, int32_t k, int *from, int *index)
{
    const model::buffer &plain = w.plain();
    std::string bytes = entries(plain.fields);
    *index = -1;
    if (*from >= plain.used())
        return true;
    if (*from < 0 || *from + 4 > (int)bytes.size())
        return false;
    if ((model::as<int32_t>(bytes.substr((size_t)*from, 4)) & ~READ) != k)
        *from = 0;
    bool met = false;
    for (size_t i = 0; i < plain.fields.size(); i++) {
        met |= plain.offset_of(i) == *from;
        if (met && plain.fields[i].key == k) {
            *from = plain.offset_of(i);
            *index = (int)i;
            return true;
        }
    }
    return met;
}

void cursor_step(World &w)
{
    int32_t k = w.known_key() & ~READ;
    static const int starts[] = {0, 0, 8, 16, 24, 100000};
    int from = w.below(3) == 0 ? w.one_of(starts) : w.own->cursor, index = -1, expected = from;
    if (!cursor_search(w, k, &expected, &index)) {
        w.own->cursor = 0;
        return;
    }
    bool converts = w.below(2) == 0;
    int type = w.any_type();
    outcome wanted = {-1, FBENOENT, "", w.len};
    if (index >= 0)
        wanted =
            converts ? w.plain().read_as((size_t)index, type, w.len) : w.plain().read((size_t)index, w.len);
    if (converts && wanted.result < 0)
        wanted.len = w.len;
    if (wanted.result == 1)
        w.plain().mark((size_t)index);
    w.expect(converts ? fbgetc(w.fbuf(), k, w.area, &w.len, &from, type)
                      : fbgetf(w.fbuf(), k, w.area, &w.len, &from),
             wanted);
    w.expect_area(wanted);
    EXPECT_EQ(from, expected);
    w.own->cursor = from;
}

// --- Looking.

void value_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth(), index = w.plain().find(k, nth), length = -5;
    const field *one = index < 0 ? nullptr : &w.plain().fields[(size_t)index];
    const char *value = fbgetval(w.fbuf(), k, nth, &length);
    w.expect_bytes(value, one == nullptr ? "" : one->value, one == nullptr ? FBENOENT : 0);
    EXPECT_EQ(length, one == nullptr ? -5 : (int)one->value.size());
    if (one != nullptr) {
        EXPECT_EQ(value - (const char *)w.fbuf() - 8 - w.plain().offset_of((size_t)index),
                  type_of(k) == DOUBLE || type_of(k) == CARRAY ? 8 : 4);
    }
    EXPECT_EQ(fbgetlen(w.fbuf(), k, nth), one == nullptr ? -1 : (int)one->value.size());
    EXPECT_EQ(getfberror(), one == nullptr ? FBENOENT : 0);
}

void counts_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth();
    EXPECT_EQ(fbkeyoccur(w.fbuf(), k), w.plain().count(k));
    EXPECT_EQ(fbispres(w.fbuf(), k, nth), w.plain().find(k, nth) >= 0);
    EXPECT_EQ(fbfldcount(w.fbuf()), (int)w.plain().fields.size());
    EXPECT_EQ(fbget_used(w.fbuf()), w.plain().used());
    EXPECT_EQ(fbget_unused(w.fbuf()), w.plain().capacity - w.plain().used());
    EXPECT_EQ(fbget_fbsize(w.fbuf()), w.plain().capacity);
    EXPECT_EQ(getfberror(), 0);
}

void find_value_step(World &w)
{
    int32_t k = w.known_key();
    std::string value = w.any_value(type_of(k));
    int index = w.plain().find(k, w.below(3));
    if (index >= 0 && w.below(2) == 0)
        value = w.plain().fields[(size_t)index].value + (type_of(k) == LONG ? std::string(4, '\0') : "");
    EXPECT_EQ(fbgetnth(w.fbuf(), k, w.given_to(k, value).data(), (int)value.size()),
              w.plain().find_value(k, value));
    EXPECT_EQ(getfberror(), 0);
}

void find_value_as_step(World &w)
{
    converted c(w);
    int error = c.error, wanted = -1;
    if (error == 0 && type_of(c.k) == CARRAY && c.one.value.empty())
        error = FBEINVAL;
    if (error == 0)
        wanted = w.plain().find_value(c.k, c.one.value);
    EXPECT_EQ(fbgetntht(w.fbuf(), c.k, c.given.data(), c.length, c.type), wanted);
    EXPECT_EQ(getfberror(), error);
}

void look_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth();
    bool with_length = w.below(3) != 0;
    outcome wanted = w.plain().get(k, nth, with_length ? w.len : 0);
    if (!with_length)
        wanted.len = w.len;
    w.expect(fbget_tu(w.fbuf(), k, nth, w.area, with_length ? &w.len : nullptr), wanted);
    w.expect_area(wanted);
}

void look_as_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.below(3) == 0 ? 0 : w.any_nth(), type = w.any_type();
    outcome wanted = w.plain().get_as(k, nth, type, w.len);
    bool first = nth == 0 && w.below(2) == 0;
    w.expect(first ? fbgett(w.fbuf(), k, w.area, &w.len, type)
                   : fbget_tut(w.fbuf(), k, nth, w.area, &w.len, type),
             wanted);
    w.expect_area(wanted);
}

void value_as_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth(), type = w.any_type(), index = w.plain().find(k, nth), length = -5;
    int error = index < 0 ? FBENOENT : type < CHAR || type > CARRAY ? FBEBADFLD : 0;
    std::string wanted;
    if (error == 0) {
        const field &one = w.plain().fields[(size_t)index];
        wanted = model::of_value(type_of(k) == LONG ? INT : type_of(k), one.value, type);
        wanted += type == STRING ? std::string(1, '\0') : "";
    }
    w.expect_bytes(fbgetvalt(w.fbuf(), k, nth, &length, type), wanted, error);
    EXPECT_EQ(length, error == 0 ? (int)wanted.size() : -5);
    FieldTest::stale();
    if (type == STRING)
        w.expect_bytes(fbgetvals(w.fbuf(), k, nth), wanted, error);
    if (type == INT) {
        EXPECT_EQ(fbgetvali(w.fbuf(), k, nth), error == 0 ? model::as<int>(wanted) : 0);
    }
}

void last_step(World &w)
{
    int32_t k = w.known_key();
    int count = w.plain().count(k), nth = -5, length = -5;
    int index = w.plain().find(k, count - 1);
    const char *value = fbgetval_last_tu(w.fbuf(), k, &nth, &length);
    w.expect_bytes(value, index < 0 ? "" : w.plain().fields[(size_t)index].value, index < 0 ? FBENOENT : 0);
    EXPECT_EQ(nth, count == 0 ? -5 : count - 1);
    nth = -5;
    outcome wanted = w.plain().get(k, count - 1, w.len);
    w.expect(fbgetlast_tu(w.fbuf(), k, &nth, w.area, &w.len), wanted);
    w.expect_area(wanted);
    EXPECT_EQ(nth, count == 0 ? -5 : count - 1);
}

void block_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth(), extra = 8 + w.below(9), before = extra, index = w.plain().find(k, nth);
    char *block = fbgetalloc_tu(w.fbuf(), k, nth, &extra);
    outcome wanted = w.plain().get(k, nth, 0);
    w.expect_bytes(block, wanted.bytes, wanted.error);
    EXPECT_EQ(extra, index < 0 ? before : before + (int)w.plain().fields[(size_t)index].value.size());
    free(block);
    FieldTest::stale();
    extra = before;
    int type = w.any_type();
    wanted = w.plain().get_as(k, nth, type, 0);
    block = fbgetalloc_tut(w.fbuf(), k, nth, type, &extra);
    w.expect_bytes(block, wanted.bytes, wanted.error);
    EXPECT_EQ(extra, before + (wanted.result == 1 ? w.plain().room_for((size_t)index, type) : 0));
    free(block);
}

void values_step(World &w)
{
    int32_t k = w.known_key();
    int nth = w.any_nth(), type = type_of(k), index = w.plain().find(k, nth);
    std::string text = index >= 0 && type == STRING ? w.plain().fields[(size_t)index].value : "";
    EXPECT_EQ(std::string(fbgetvals_tu(w.fbuf(), k, nth)), text);
    EXPECT_EQ(getfberror(), 0);
    long number = 0;
    bool whole = type >= SHORT && type <= LONG;
    if (whole && index >= 0)
        number = model::number_of(type, w.plain().fields[(size_t)index].value, true).whole;
    EXPECT_EQ(fbgetvall_tu(w.fbuf(), k, nth), number);
    int error = !whole ? FBETYPE : index < 0 ? FBENOENT : 0;
    EXPECT_EQ(getfberror(), error);
}

bool is_zero(const field &one)
{
    return one.value == std::string(type_of(one.key) >= STRING ? 0 : one.value.size(), '\0');
}

void next_step(World &w)
{
    int k = w.below(4) == 0 ? 0 : w.known_key(), nth = w.below(3), given = w.len;
    size_t at = k == 0 ? 0 : (size_t)(w.plain().find(k, nth) + 1);
    outcome wanted = {0, 0, "", given};
    int key_after = k, nth_after = nth;
    if (k != 0 && at == 0) {
        wanted = {-1, FBEINVAL, "", given};
    } else if (at < w.plain().fields.size()) {
        const field &one = w.plain().fields[at];
        int length = (int)one.value.size();
        wanted = {-1, FBENOSPACE, "", given};
        if (given >= length) {
            wanted = is_zero(one) ? outcome() : w.plain().read(at, given);
            wanted.len = length;
            key_after = one.key;
            nth_after = w.plain().number_of_entry(at);
        }
    }
    w.expect(fbnext_tu(w.fbuf(), &k, &nth, w.area, &w.len), wanted);
    w.expect_area(wanted);
    EXPECT_EQ(k, key_after);
    EXPECT_EQ(nth, nth_after);
}

// The whole walk, with room enough.
void walk_step(World &w)
{
    int k = 0, nth = 0;
    for (size_t i = 0; i < w.plain().fields.size(); i++) {
        const field &one = w.plain().fields[i];
        memset(w.area, 'u', AREA);
        w.len = AREA;
        ASSERT_EQ(fbnext_tu(w.fbuf(), &k, &nth, w.area, &w.len), 1) << i;
        outcome wanted = w.plain().read(i, 0);
        wanted.len = (int)one.value.size();
        if (is_zero(one))
            wanted.bytes = "";
        w.expect_area(wanted);
        EXPECT_EQ(k, one.key);
        EXPECT_EQ(nth, w.plain().number_of_entry(i));
    }
    EXPECT_EQ(fbnext_tu(w.fbuf(), &k, &nth, w.area, &w.len), 0);
}

// --- Whole buffers.

int compared(World &w)
{
    std::string own = used_bytes(w.fbuf()), other = used_bytes(w.other->real);
    if (w.plain().capacity == w.other->plain.capacity && own == other)
        return 0;
    if (own.size() < other.size())
        return -1;
    const list &left = w.plain().fields, &right = w.other->plain.fields;
    for (size_t i = 0; i < left.size() && i < right.size(); i++)
        if (left[i].key < right[i].key)
            return -1;
    return left.size() > right.size() ? 2 : 1;  // 2: what lies behind the other's end decides
}

void whole_step(World &w)
{
    int operation = w.below(10);
    const list &other = w.other->plain.fields;
    outcome wanted = model::failed(FBEINVAL);
    if (operation == 3) {
        int by_hand = compared(w);
        int result = fbbufop(w.fbuf(), w.other->real, 3);
        EXPECT_EQ(getfberror(), 0);
        EXPECT_TRUE(result == by_hand || (by_hand == 2 && (result == 1 || result == -1))) << result;
        return;
    }
    if (operation == 1)
        wanted = w.plain().move(other);
    if (operation == 2)
        wanted = w.plain().replace(other);
    if (operation == 4)
        wanted = w.plain().concat(other);
    if (operation >= 5 && operation <= 7)
        wanted = w.plain().join(other, operation);
    w.expect(fbbufop(w.fbuf(), w.other->real, operation), wanted);
}

void project_step(World &w)
{
    if (w.below(3) != 0)
        return;
    std::vector<int> keys;
    for (int i = w.below(12); i > 0; i--)
        keys.push_back(w.known_key());
    bool itself = w.below(2) == 0;
    outcome wanted = w.plain().project(itself ? w.plain().fields : w.other->plain.fields, keys);
    keys.push_back(0);
    w.expect(fbbufop_proj(w.fbuf(), itself ? nullptr : w.other->real.it, keys.data()), wanted);
}

const struct {
    const char *name;
    int weight;
    void (*run)(World &);
} KINDS[] = {
    {"fbput", 6, put_step},
    {"_fbput", 2, put_stored_step},
    {"fbinsert", 5, insert_step},
    {"fbupdate", 5, update_step},
    {"fbchg_tu", 4, change_step},
    {"fbputt", 3, put_as_step},
    {"fbchg_tut", 3, change_as_step},
    {"fbdelete", 5, delete_step},
    {"fbdelall", 1, delete_all_step},
    {"fbdelall_tu", 1, delete_keys_step},
    {"fbinit", 1, init_step},
    {"fbget", 4, get_step},
    {"fbgetf, fbgetc", 4, cursor_step},
    {"fbgetval", 5, value_step},
    {"fbkeyoccur", 5, counts_step},
    {"fbgetnth", 3, find_value_step},
    {"fbgetntht", 3, find_value_as_step},
    {"fbget_tu", 4, look_step},
    {"fbget_tut, fbgett", 4, look_as_step},
    {"fbgetvalt", 3, value_as_step},
    {"fbgetlast_tu", 2, last_step},
    {"fbgetalloc_tu", 2, block_step},
    {"fbgetvals_tu", 2, values_step},
    {"fbnext_tu", 3, next_step},
    {"fbnext_tu over all", 1, walk_step},
    {"fbbufop", 2, whole_step},
    {"fbbufop_proj", 1, project_step},
};

void (*pick(World &w, const char **name))(World &)
{
    int total = 0;
    for (const auto &kind : KINDS)
        total += kind.weight;
    int ticket = w.below(total);
    for (const auto &kind : KINDS) {
        *name = kind.name;
        if ((ticket -= kind.weight) < 0)
            return kind.run;
    }
    return nullptr;
}

void run(unsigned seed, model::mode mode)
{
    World w(seed, mode);
    for (int step = 0; step < STEPS; step++) {
        w.between_steps();
        const char *name = nullptr;
        auto call = pick(w, &name);
        SCOPED_TRACE(testing::Message() << "seed " << seed << ", step " << step << ": " << name);
        list before[2] = {w.sides[0].plain.fields, w.sides[1].plain.fields};
        call(w);
        w.expect_all();
        if (testing::Test::HasFailure()) {
            for (int i = 0; i < 2; i++)
                ADD_FAILURE() << "before, " << (w.own == &w.sides[i] ? "own " : "other ")
                              << w.sides[i].plain.capacity << ": " << testing::PrintToString(before[i]);
            return;
        }
    }
}

struct FieldModel : FieldTest {
    void run_all(const char *name, model::mode mode)
    {
        length_mode(name);
        for (unsigned seed = 1; seed <= SEEDS && !HasFailure(); seed++)
            run(seed, mode);
    }
};

}  // namespace

TEST_F(FieldModel, AgreesWithAPlainList)
{
    run_all(nullptr, model::OLD);
}

TEST_F(FieldModel, AgreesWithAPlainListThatCuts)
{
    run_all("TRU", model::TRUNCATE);
}

TEST_F(FieldModel, AgreesWithAPlainListThatRefuses)
{
    run_all("ERR", model::ERROR);
}
