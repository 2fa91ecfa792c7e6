// Field buffers: what single calls cost, a record beside protobuf and flatbuffers, long lists of occurrences,
// the wire form, and several threads.
#include "records.h"
#include "scenarios.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vorn.h>

constexpr int INT_KEY = (FB_INT << 26) + 1001;
constexpr double GOOD_ENOUGH = 0.95;  // of what is to be equal, by the noise of these measurements

static schedule field_schedule(const settings &chosen)
{
    return chosen.quick ? schedule{15, 4'000'000} : schedule{100, 5'000'000};
}

// Nanoseconds of one of `count` things that a trip does.
static double ns_of(const series &measured, double count)
{
    return 1e9 / median(measured.rates) / count;
}

static void print_aim(bool met, const char *what)
{
    printf("  %s: %s", what, met ? "met" : "MISSED");
}

// --- Single calls.

// Appends ints until the buffer is full, again and again. Emptying it, once in 8,000 times, is counted.
static trip put_trip()
{
    constexpr int ROOM = 8000;
    FBUF *fbuf = new_field_buffer(ROOM, 0);
    return repeated([fbuf] {
        if (fbput(fbuf, INT_KEY, (char *)&sample_values.ints[0], 0) < 0)
            fbinit(fbuf, 0);
    });
}

static trip get_trip(FBUF *fbuf)
{
    return repeated([fbuf] {
        int value;
        fbget_tu(fbuf, INT_KEY, 0, (char *)&value, nullptr);
        keep(&value);
    });
}

void field_calls(const settings &chosen, placement)
{
    constexpr double AIM = 15;
    place_client(placement::one_core);
    FBUF *record = new_field_buffer(RECORD_FIELDS, sizeof(record_values));
    put_record(record);
    std::vector<contender> calls = {{"fbput of an int", put_trip()},
                                    {"fbget_tu of the first field", get_trip(record)}};
    auto results = alternate(calls, field_schedule(chosen));
    printf("  %-44s %9s\n", "", "ns");
    for (size_t i = 0; i < calls.size(); i++) {
        double ns = ns_of(results[i], REPEATS);
        printf("  %-44s %9.1f", calls[i].name.c_str(), ns);
        print_aim(ns < AIM, "aim 15 ns");
        printf("\n");
    }
}

// --- The record.

enum rival { PROTOBUF = 1, FLATBUFFERS = 2 };

// What is compared, with the number of times a trip does it, and the rivals that it is to be faster than.
struct record_row {
    record_step step;
    const char *name;
    int count;
    int aims;
};
static constexpr record_row RECORD_ROWS[] = {
    {STEP_PUT, "put, an int behind others", REPEATS *NUMBERS_PUT, 0},
    {STEP_BUILD, "build, memory used again", REPEATS, PROTOBUF | FLATBUFFERS},
    {STEP_MAKE, "build, memory included", REPEATS, 0},
    {STEP_GET, "get by key; accessors", REPEATS, 0},
    {STEP_GET_KEY, "get by key; reflection by number", REPEATS, 0},
    {STEP_NEXT, "next, all fields; reflection", REPEATS, 0},
    {STEP_UPDATE, "update, all fields", REPEATS, 0},
    {STEP_DELETE, "delete and put, each field", REPEATS, 0},
    {STEP_ENCODE, "encode", REPEATS, PROTOBUF},
    {STEP_DECODE, "decode", REPEATS, PROTOBUF},
};

static bool reads_the_record(record_step step)
{
    return step == STEP_GET || step == STEP_GET_KEY || step == STEP_NEXT;
}

static void check_step(const record_row &row, const std::vector<contender> &contenders)
{
    for (const contender &one : contenders) {
        one.once();
        if (reads_the_record(row.step) && !were_read())
            give_up("%s: %s reads other values than were put", row.name, one.name.c_str());
    }
}

static void compare_step(const settings &chosen, const record_row &row, const record_trips *trips)
{
    static const char *const names[] = {"field buffer", "protobuf", "flatbuffers"};
    std::vector<contender> contenders;
    size_t place[3] = {};
    for (size_t i = 0; i < 3; i++) {
        if (trips[i][row.step] == nullptr)
            continue;
        place[i] = contenders.size();
        contenders.push_back({names[i], trips[i][row.step]});
    }
    check_step(row, contenders);
    auto results = alternate(contenders, field_schedule(chosen));
    printf("  %-34s %9.1f", row.name, ns_of(results[0], row.count));
    bool met = true;
    for (size_t i = 1; i < 3; i++) {
        if (place[i] == 0) {
            printf(" %11s %7s", "-", "");
            continue;
        }
        double speed = ratio(results[0], results[place[i]]).middle;
        printf(" %11.1f (%5.2f)", ns_of(results[place[i]], row.count), speed);
        met = met && ((row.aims & (int)i) == 0 || speed > 1);
    }
    if (row.aims != 0)
        print_aim(met, row.aims == PROTOBUF ? "faster than protobuf" : "faster than both");
    printf("\n");
    fflush(stdout);
}

void field_records(const settings &chosen, placement)
{
    place_client(placement::one_core);
    record_trips trips[] = {field_trips(), protobuf_trips(), flatbuffers_trips()};
    printf("  %-34s %9s %11s %7s %11s %7s\n", "ns; in brackets: how many", "field", "protobuf", "", "flat-",
           "");
    printf("  %-34s %9s %11s %7s %11s %7s\n", "times as fast the field buffer is", "buffer", "", "",
           "buffers", "");
    for (const record_row &row : RECORD_ROWS)
        compare_step(chosen, row, trips);
    auto results =
        alternate({{"list", flat_list_trip()}, {"fields", trips[0][STEP_GET_KEY]}}, field_schedule(chosen));
    double speed = ratio(results[1], results[0]).middle;
    printf("  %-34s %9.1f %11.1f (%5.2f)", "get by key; scan of a flat list", ns_of(results[1], REPEATS),
           ns_of(results[0], REPEATS), speed);
    print_aim(speed >= GOOD_ENOUGH, "no slower");
    printf("\n");
}

// --- Occurrences.

static FBUF *buffer_of_ints(int count)
{
    FBUF *fbuf = new_field_buffer(count, 0);
    for (int i = 0; i < count; i++)
        if (fbput(fbuf, INT_KEY, (char *)&i, 0) < 0)
            give_up("fbput: %s", fbstrerror(fberror));
    return fbuf;
}

static trip loop_trip(FBUF *fbuf, int count)
{
    return [fbuf, count] {
        for (int done = 0; done < 10000; done += count)
            for (int nth = 0; nth < count; nth++) {
                int value = -1;
                fbget_tu(fbuf, INT_KEY, nth, (char *)&value, nullptr);
                if (value != nth)
                    give_up("occurrence %d isn't found", nth);
            }
    };
}

void field_loops(const settings &chosen, placement)
{
    constexpr int LOOPED = 10000;
    place_client(placement::one_core);
    static const int counts[] = {10, 100, 1000, 10000};
    std::vector<contender> contenders;
    for (int count : counts)
        contenders.push_back({std::to_string(count), loop_trip(buffer_of_ints(count), count)});
    auto results = alternate(contenders, field_schedule(chosen));
    printf("  %-44s %9s   %s\n", "occurrences of one key, by fbget_tu", "ns each", "as fast as 10");
    for (size_t i = 0; i < results.size(); i++) {
        double speed = ratio(results[i], results[0]).middle;
        printf("  %-44d %9.1f   %.2f", counts[i], ns_of(results[i], LOOPED), speed);
        if (i > 0)
            print_aim(speed > 0.8, "flat");
        printf("\n");
    }
}

// --- The wire form.

constexpr int WIRE_SIZE = 65536;

// Fills the buffer up to WIRE_SIZE with what `put` appends.
template <typename Put> static FBUF *filled(Put put)
{
    FBUF *fbuf = new_field_buffer(0, WIRE_SIZE - 16);
    for (long before = -1; before < fbget_used(fbuf);) {
        before = fbget_used(fbuf);
        put(fbuf);
    }
    return fbuf;
}

static FBUF *filled_with(int type, const char *value, int length)
{
    return filled([=](FBUF *fbuf) { fbput(fbuf, (type << 26) + 1001, (char *)value, length); });
}

static FBUF *filled_with_records()
{
    constexpr long RECORD_ROOM = 400;
    return filled([](FBUF *fbuf) {
        if (fbget_unused(fbuf) >= RECORD_ROOM)
            put_record(fbuf);
    });
}

struct wire_content {
    const char *name;
    FBUF *fbuf;
};

static std::vector<wire_content> wire_contents()
{
    static char array[1000], text[101];
    memset(array, 'a', sizeof array);
    memset(text, 't', sizeof text - 1);
    return {{"byte arrays of 1,000", filled_with(FB_CARRAY, array, sizeof array)},
            {"texts of 100", filled_with(FB_STRING, text, 0)},
            {"ints", filled_with(FB_INT, (const char *)&sample_values.ints[0], 0)},
            {"doubles", filled_with(FB_DOUBLE, (const char *)&sample_values.doubles[0], 0)},
            {"records of 20 fields", filled_with_records()}};
}

static trip copy_trip(bool allocate)
{
    static char from[WIRE_SIZE], to[WIRE_SIZE];
    memset(from, 1, sizeof from);
    return repeated([allocate] {
        char *block = allocate ? (char *)malloc(sizeof to) : to;
        memcpy(block, from, sizeof from);
        keep(block);
        if (allocate)
            free(block);
    });
}

static trip decode_trip(FBUF *fbuf)
{
    char *wire;
    long length;
    if (tphton((char *)fbuf, 0, &wire, &length) < 0)
        give_up("tphton: %s", tpstrerror(tperrno));
    return repeated([wire, length] { decode_and_free(wire, length); });
}

void field_wire(const settings &chosen, placement)
{
    constexpr double AIM = 0.5;
    place_client(placement::one_core);
    std::vector<contender> contenders = {{"memcpy", copy_trip(false)},
                                         {"malloc, memcpy, free", copy_trip(true)}};
    for (const wire_content &content : wire_contents()) {
        FBUF *fbuf = content.fbuf;
        contenders.push_back(
            {std::string("tphton, ") + content.name, repeated([fbuf] { encode_and_free(fbuf); })});
        contenders.push_back({std::string("tpntoh, ") + content.name, decode_trip(fbuf)});
    }
    auto results = alternate(contenders, field_schedule(chosen));
    printf("  %-44s %9s %9s   %s\n", "64 KiB", "ns", "GB/s", "of memcpy's speed");
    for (size_t i = 0; i < contenders.size(); i++) {
        double ns = ns_of(results[i], REPEATS), speed = ratio(results[i], results[0]).middle;
        printf("  %-44s %9.0f %9.1f   %.2f", contenders[i].name.c_str(), ns, WIRE_SIZE / ns, speed);
        if (contenders[i].name.starts_with("tphton"))
            print_aim(speed >= AIM, "aim 0.50");
        printf("\n");
    }
}

// --- Threads.

static trip own_session_trip(int)
{
    open_session(TPMULTICONTEXTS);
    return build_and_get_trip();
}

static void end_session(int)
{
    tpend();
}

// Speed of a thread, to that of one alone; more threads than cores share these.
static double thread_speed(const series &measured, const series &alone, int threads)
{
    return ratio(measured, alone).middle / std::min(threads, core_count());
}

void field_threads(const settings &chosen, placement)
{
    static const int counts[] = {1, 2, 4};
    constexpr size_t KINDS = 3;
    static const char *const names[KINDS] = {"flat lists, without the library", "without a session",
                                             "a session each"};
    place_server(placement::anywhere);
    server peer = start_responder();
    point_library_at(peer);
    std::vector<crew_plan> plans;
    for (int count : counts) {
        plans.push_back({"list", count, [](int) { return flat_list_trip(); }, nullptr});
        plans.push_back({"fields", count, [](int) { return build_and_get_trip(); }, nullptr});
        plans.push_back({"sessions", count, own_session_trip, end_session});
    }
    auto results = alternate_crews(plans, crew_schedule(chosen));
    printf("  %-44s %9s   %s\n", "a record built and read by each thread", "ns",
           "speed of a thread, to one alone");
    for (size_t i = 0; i < plans.size(); i++) {
        size_t kind = i % KINDS;
        int threads = plans[i].threads;
        double speed = thread_speed(results[i], results[kind], threads);
        printf("  %d %-42s %9.0f   %.2f", threads, names[kind],
               1e9 / median(results[i].rates) / REPEATS * std::min(threads, core_count()), speed);
        if (kind > 0 && threads > 1)
            print_aim(speed >= GOOD_ENOUGH * thread_speed(results[i - kind], results[0], threads), "no loss");
        printf("\n");
    }
    stop_server(&peer);
}
