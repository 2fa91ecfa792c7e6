// The record as a field buffer, and in a flat list.
#include "records.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <vorn.h>

record_values sample_values = {
    {1001, 48, 250000, 7, 1999999999},
    {20261121, 86399, 4000000000, 12, 77777},
    {19.95, -0.125, 6.02214076e23},
    {"ORDER-2026-00417", "WAREHOUSE-NORTH ", "PENDING-APPROVAL", "0123456789ABCDEF", "a text as it is "},
    {"the first of two byte arrays, which hold 64 bytes each, like so",
     "the second one: as long as the other, and no more to read in it"}};
constinit thread_local record_values values_read = {};

bool were_read()
{
    bool equal = memcmp(&values_read, &sample_values, sizeof values_read) == 0;
    memset(&values_read, 0, sizeof values_read);
    return equal;
}

// --- As a field buffer.

struct field_of_record {
    int key;
    size_t offset;  // of the value in record_values
    int length;
};

static int key_of(int type, int number)
{
    constexpr int TYPE_SHIFT = 26, FIRST_NUMBER = 1001;
    return (type << TYPE_SHIFT) + FIRST_NUMBER + number;
}

// Numbers in a row, as a table of definitions has them.
static std::array<field_of_record, RECORD_FIELDS> fields_of_record()
{
    static const struct {
        int type, count;
        size_t offset, width;
    } groups[] = {{FB_INT, 5, offsetof(record_values, ints), sizeof(int32_t)},
                  {FB_LONG, 5, offsetof(record_values, longs), sizeof(int64_t)},
                  {FB_DOUBLE, 3, offsetof(record_values, doubles), sizeof(double)},
                  {FB_STRING, 5, offsetof(record_values, texts), TEXT_SIZE + 1},
                  {FB_CARRAY, 2, offsetof(record_values, bytes), BYTES_SIZE}};
    std::array<field_of_record, RECORD_FIELDS> fields;
    int number = 0;
    for (const auto &group : groups)
        for (int i = 0; i < group.count; i++, number++)
            fields[(size_t)number] = {key_of(group.type, number), group.offset + (size_t)i * group.width,
                                      (int)group.width};
    return fields;
}

static const std::array<field_of_record, RECORD_FIELDS> FIELDS = fields_of_record();

static char *sample_value(const field_of_record &field)
{
    return (char *)&sample_values + field.offset;
}

static char *value_read(const field_of_record &field)
{
    return (char *)&values_read + field.offset;
}

static void expect(int result, const char *what)
{
    if (result < 0)
        give_up("%s: %s", what, fbstrerror(fberror));
}

FBUF *new_field_buffer(int count, int length)
{
    FBUF *fbuf = fballoc(count, length);
    if (fbuf == nullptr)
        give_up("fballoc: %s", fbstrerror(fberror));
    return fbuf;
}

static FBUF *new_record_buffer()
{
    return new_field_buffer(RECORD_FIELDS, sizeof(record_values));
}

void put_record(FBUF *fbuf)
{
    for (const field_of_record &field : FIELDS)
        expect(fbput(fbuf, field.key, sample_value(field), field.length), "fbput");
}

static void get_record(FBUF *fbuf)
{
    for (const field_of_record &field : FIELDS) {
        int length = field.length;
        expect(fbget_tu(fbuf, field.key, 0, value_read(field), &length), "fbget_tu");
    }
    keep(&values_read);
}

static void get_as_they_come(FBUF *fbuf)
{
    int key = 0, nth = 0, length = BYTES_SIZE;
    size_t position = 0;
    while (fbnext_tu(fbuf, &key, &nth, value_read(FIELDS[position]), &length) > 0) {
        length = BYTES_SIZE;
        if (++position == FIELDS.size())
            break;
    }
    keep(&values_read);
}

static void update_record(FBUF *fbuf)
{
    for (const field_of_record &field : FIELDS)
        expect(fbupdate(fbuf, field.key, 0, sample_value(field), field.length), "fbupdate");
}

static void delete_each(FBUF *fbuf)
{
    for (const field_of_record &field : FIELDS) {
        expect(fbdelete(fbuf, field.key, 0), "fbdelete");
        expect(fbput(fbuf, field.key, sample_value(field), field.length), "fbput");
    }
}

static void put_numbers(FBUF *fbuf)
{
    fbinit(fbuf, 0);
    for (int i = 0; i < NUMBERS_PUT; i++)
        expect(fbput(fbuf, FIELDS[0].key, (char *)&sample_values.ints[0], 0), "fbput");
}

static void build_record(FBUF *fbuf)
{
    fbinit(fbuf, 0);
    put_record(fbuf);
    keep(fbuf);
}

static void make_record()
{
    FBUF *fbuf = new_record_buffer();
    put_record(fbuf);
    keep(fbuf);
    fbfree(fbuf);
}

void encode_and_free(FBUF *fbuf)
{
    char *block;
    long length;
    if (tphton((char *)fbuf, 0, &block, &length) < 0)
        give_up("tphton: %s", tpstrerror(tperrno));
    keep(block);
    free(block);
}

void decode_and_free(char *wire, long length)
{
    char *data;
    if (tpntoh(wire, length, &data, &length) < 0)
        give_up("tpntoh: %s", tpstrerror(tperrno));
    keep(data);
    tpfree(data);
}

trip build_and_get_trip()
{
    FBUF *fbuf = new_record_buffer();
    return repeated([fbuf] {
        build_record(fbuf);
        get_record(fbuf);
    });
}

record_trips field_trips()
{
    FBUF *full = new_record_buffer(), *built = new_record_buffer(), *changed = new_record_buffer();
    FBUF *numbers = new_field_buffer(NUMBERS_PUT, 0);
    put_record(full);
    put_record(changed);
    char *wire;
    long length;
    if (tphton((char *)full, 0, &wire, &length) < 0)
        give_up("tphton: %s", tpstrerror(tperrno));
    record_trips trips;
    trips[STEP_PUT] = repeated([numbers] { put_numbers(numbers); });
    trips[STEP_BUILD] = repeated([built] { build_record(built); });
    trips[STEP_MAKE] = repeated(make_record);
    trips[STEP_GET] = trips[STEP_GET_KEY] = repeated([full] { get_record(full); });
    trips[STEP_NEXT] = repeated([full] { get_as_they_come(full); });
    trips[STEP_UPDATE] = repeated([full] { update_record(full); });
    trips[STEP_DELETE] = repeated([changed] { delete_each(changed); });
    trips[STEP_ENCODE] = repeated([full] { encode_and_free(full); });
    trips[STEP_DECODE] = repeated([wire, length] { decode_and_free(wire, length); });
    return trips;
}

// --- In a flat list: a block of {key, type, length, value} records, one behind the other.

struct flat_item {
    int key, type, length;
    char value[];
};

static size_t flat_size(int length)
{
    return (sizeof(flat_item) + (size_t)length + 3) & ~(size_t)3;
}

static char *flat_put(char *end, const field_of_record &field)
{
    auto *item = (flat_item *)end;
    item->key = field.key;
    item->type = fbget_fldtype(field.key);
    item->length = field.length;
    memcpy(item->value, sample_value(field), (size_t)field.length);
    return end + flat_size(field.length);
}

// Not inlined: whoever writes such a list has it in a file of its own.
__attribute__((noinline)) static int flat_get(const char *list, const char *end, int key, char *value,
                                              int *length)
{
    while (list < end) {
        const auto *item = (const flat_item *)list;
        if (item->key != key) {
            list += flat_size(item->length);
            continue;
        }
        if (*length < item->length)
            return -1;
        *length = item->length;
        memcpy(value, item->value, (size_t)item->length);
        return 1;
    }
    return -1;
}

trip flat_list_trip()
{
    char *list = (char *)malloc(4096), *end = list;
    if (list == nullptr)
        give_up("no memory");
    for (const field_of_record &field : FIELDS)
        end = flat_put(end, field);
    return repeated([list, end] {
        for (const field_of_record &field : FIELDS) {
            int length = field.length;
            if (flat_get(list, end, field.key, value_read(field), &length) < 0)
                give_up("flat_get");
        }
        keep(&values_read);
    });
}
