// A record of 20 fields, and what is done with it: as a field buffer, with protobuf, with flatbuffers and in
// a flat list that a C programmer would write.
#ifndef VORN_BENCH_RECORDS_H
#define VORN_BENCH_RECORDS_H

#include "harness.h"

#include <array>

constexpr int TEXT_SIZE = 16, BYTES_SIZE = 64, RECORD_FIELDS = 20;

// The values, in the order of the fields. Longs keep 32 bits in a field buffer, so these do.
struct record_values {
    int32_t ints[5];
    int64_t longs[5];
    double doubles[3];
    char texts[5][TEXT_SIZE + 1];
    char bytes[2][BYTES_SIZE];
};
extern record_values sample_values;                       // what goes into every record
extern constinit thread_local record_values values_read;  // what comes out of one

// A use of memory that the compiler can't foresee.
inline void keep(const void *pointer)
{
    asm volatile("" : : "r"(pointer) : "memory");
}
bool were_read();  // true if `values_read` equals `sample_values`; clears it

// The steps. Each is a trip that does it REPEATS times; a step that one of the rivals hasn't is null.
enum record_step {
    STEP_PUT,      // NUMBERS_PUT ints, one by one
    STEP_BUILD,    // the record, in memory that is used again
    STEP_MAKE,     // the record, from its memory's beginning to its end
    STEP_GET,      // all fields, each by its key or name
    STEP_GET_KEY,  // the same by the number of the field
    STEP_NEXT,     // all fields, as they come
    STEP_UPDATE,   // of all fields, by values of the same length
    STEP_DELETE,   // of each field, which is then put again
    STEP_ENCODE,
    STEP_DECODE,
    STEPS
};
constexpr int REPEATS = 100, NUMBERS_PUT = 100;
using record_trips = std::array<trip, STEPS>;

record_trips field_trips();
record_trips protobuf_trips();
record_trips flatbuffers_trips();
trip flat_list_trip();      // STEP_GET_KEY
trip build_and_get_trip();  // STEP_BUILD and STEP_GET, in a buffer of its own

template <typename Call> trip repeated(Call call)
{
    return [call] {
        for (int i = 0; i < REPEATS; i++)
            call();
    };
}

// Parts of the steps. All end the program on an error.
typedef struct fbuf FBUF;
FBUF *new_field_buffer(int count, int length);
void put_record(FBUF *fbuf);
void encode_and_free(FBUF *fbuf);
void decode_and_free(char *wire, long length);

#endif
