// Ten properties and a body, as a message of the message service has them, as plain fields, and in a map of
// protobuf. The values are those of the record.
#ifndef VORN_BENCH_PROPERTIES_H
#define VORN_BENCH_PROPERTIES_H

#include "records.h"

#include <cstddef>
#include <vorn/fields.h>

constexpr size_t PROPERTIES = 10;

struct property {
    const char *name;
    int type;
    size_t offset;  // of the value in record_values
    int length;     // of a text with its NUL
};
inline constexpr property PROPERTY_TABLE[PROPERTIES] = {
    {"OrderNumber", FB_INT, offsetof(record_values, ints[0]), sizeof(int32_t)},
    {"Lines", FB_INT, offsetof(record_values, ints[1]), sizeof(int32_t)},
    {"Customer", FB_INT, offsetof(record_values, ints[2]), sizeof(int32_t)},
    {"Placed", FB_LONG, offsetof(record_values, longs[0]), sizeof(int64_t)},
    {"Due", FB_LONG, offsetof(record_values, longs[1]), sizeof(int64_t)},
    {"Price", FB_DOUBLE, offsetof(record_values, doubles[0]), sizeof(double)},
    {"Change", FB_DOUBLE, offsetof(record_values, doubles[1]), sizeof(double)},
    {"Reference", FB_STRING, offsetof(record_values, texts[0]), TEXT_SIZE + 1},
    {"Warehouse", FB_STRING, offsetof(record_values, texts[1]), TEXT_SIZE + 1},
    {"State", FB_STRING, offsetof(record_values, texts[2]), TEXT_SIZE + 1},
};
inline constexpr property BODY = {"", FB_CARRAY, offsetof(record_values, bytes[0]), BYTES_SIZE};

inline char *sample_value(const property &one)
{
    return (char *)&sample_values + one.offset;
}

inline char *value_read(const property &one)
{
    return (char *)&values_read + one.offset;
}

// The steps, each a trip that does it REPEATS times.
enum property_step {
    STEP_SET,       // all ten, in an empty message whose memory is used again
    STEP_SET_BODY,  // the same, and the body in front of them
    STEP_READ,      // all ten, each by its name
    STEP_READ_BODY,
    STEP_REPLACE,  // all ten, by values of the same length
    PROPERTY_STEPS
};
using property_trips = std::array<trip, PROPERTY_STEPS>;

property_trips map_trips();

#endif
