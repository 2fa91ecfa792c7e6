// The message service: sending and receiving beside the bare ping-pong, and ten properties beside ten fields and
// a map of protobuf.
#include "properties.h"
#include "scenarios.h"

#include <cstdio>
#include <cstring>
#include <vorn.h>
#include <vorn/kmq.h>

constexpr size_t SIZES[] = {4, 1024};
constexpr int ACKNOWLEDGED_AT_ONCE = 1, ACKNOWLEDGED_LATER = 2;

static FBUF *fields_of(char *msg)
{
    return (FBUF *)msg;
}

static char *new_message(size_t room)
{
    static char owner;
    char *msg = kmq_alloc(&owner, (int)room);
    if (msg == nullptr)
        give_up("kmq_alloc: %s", tpstrerror(tperrno));
    return msg;
}

// --- Round trips.

static char *message_with_body(size_t size)
{
    std::string body(size, 'b');
    char *msg = new_message(size + 256);
    if (kmq_set_body(msg, body.data(), (long)size) < 0)
        give_up("kmq_set_body: %s", tpstrerror(tperrno));
    return msg;
}

static void expect_fields(char *msg, size_t bytes, const char *what)
{
    if ((size_t)fbget_used(fields_of(msg)) != bytes)
        give_up("%s: a message of %ld bytes for %zu", what, (long)fbget_used(fields_of(msg)), bytes);
}

// The session's name tells the responder how long the bodies of its messages are.
static kmq_session *new_session(size_t size, int ackmode)
{
    kmq_session *session = kmq_create_session(std::to_string(size).c_str(), 0, ackmode, 0);
    if (session == nullptr)
        give_up("kmq_create_session: %s", tpstrerror(tperrno));
    return session;
}

// A call that carries the same fields there and back.
static trip field_call_trip(size_t size, size_t bytes)
{
    return [data = message_with_body(size), reply = new_message(size + 256), bytes]() mutable {
        long length = 0;
        if (tpcall((char *)"ECHO", data, 0, &reply, &length, 0) < 0)
            give_up("tpcall: %s", tpstrerror(tperrno));
        expect_fields(reply, bytes, "tpcall");
    };
}

static trip send_trip(kmq_session *session, size_t size, size_t bytes)
{
    kmq_producer *producer = kmq_create_producer(session, "WORK", 0, nullptr, 0);
    if (producer == nullptr)
        give_up("kmq_create_producer: %s", tpstrerror(tperrno));
    return [producer, msg = message_with_body(size), bytes] {
        if (kmq_sendex(producer, msg, 0, 4, 0, 0) < 0)
            give_up("kmq_sendex: %s", tpstrerror(tperrno));
        expect_fields(msg, bytes, "kmq_sendex");
    };
}

static trip receive_trip(kmq_session *session, size_t size, size_t bytes)
{
    kmq_consumer *consumer = kmq_create_consumer(session, "WORK", 0, nullptr, nullptr, nullptr, 0);
    if (consumer == nullptr)
        give_up("kmq_create_consumer: %s", tpstrerror(tperrno));
    return [consumer, msg = new_message(size + 256), bytes]() mutable {
        if (kmq_recvex(consumer, &msg, 30, 0) < 0)
            give_up("kmq_recvex: %s", tpstrerror(tperrno));
        expect_fields(msg, bytes, "kmq_recvex");
    };
}

static void compare_trips(const settings &chosen, const server &peer, size_t size)
{
    kmq_session *at_once = new_session(size, ACKNOWLEDGED_AT_ONCE);
    kmq_session *later = new_session(size, ACKNOWLEDGED_LATER);
    char *sample = message_with_body(size);
    size_t bytes = (size_t)fbget_used(fields_of(sample));
    kmq_free(sample);
    std::vector<contender> contenders = {
        {"bare ping-pong", bare_trip(peer, bytes)},
        {"bare, and a header one way", bare_trip(peer, bytes, MESSAGE_HEAD)},
        {"tpcall of bytes", call_trip(bytes)},
        {"tpcall of the fields", field_call_trip(size, bytes)},
        {"kmq_sendex", send_trip(at_once, size, bytes)},
        {"kmq_recvex, unacknowledged", receive_trip(later, size, bytes)},
        {"kmq_recvex, acknowledged", receive_trip(at_once, size, bytes)},
    };
    auto results = alternate(contenders, trip_schedule(chosen));
    std::string of_size = size == 4 ? "4 bytes, " : "1 KiB, ";
    print_trip_row(of_size + contenders[0].name, results[0], nullptr);
    for (size_t i = 1; i < contenders.size(); i++)
        print_trip_row(of_size + contenders[i].name, results[i], &results[0]);
    print_trip_row(of_size + "acknowledged; ratio to the second", results.back(), &results[1]);
    if (kmq_close_session(at_once, 0) < 0 || kmq_close_session(later, 0) < 0)
        give_up("kmq_close_session: %s", tpstrerror(tperrno));
}

void messages(const settings &chosen, placement where)
{
    server peer = begin_trips(where);
    print_trip_columns();
    for (size_t size : SIZES)
        compare_trips(chosen, peer, size);
    end_trips(&peer);
}

// --- Properties.

static void expect(int result, const char *what, const property &one)
{
    if (result < 0)
        give_up("%s of \"%s\": %s, %s", what, one.name, tpstrerror(tperrno), fbstrerror(fberror));
}

static void set_properties(char *msg)
{
    for (const property &one : PROPERTY_TABLE)
        expect(kmq_set_property(msg, (char *)one.name, one.type, sample_value(one), one.length),
               "kmq_set_property", one);
}

static void get_properties(char *msg)
{
    for (const property &one : PROPERTY_TABLE) {
        int type = 0;
        long length = one.length;
        expect(kmq_get_property(msg, (char *)one.name, &type, value_read(one), &length), "kmq_get_property",
               one);
    }
    keep(&values_read);
}

static void set_body(char *msg)
{
    expect(kmq_set_body(msg, sample_value(BODY), BODY.length), "kmq_set_body", BODY);
}

static void get_body(char *msg)
{
    long length = BODY.length;
    expect(kmq_get_body(msg, value_read(BODY), &length), "kmq_get_body", BODY);
}

static property_trips message_trips()
{
    char *msg = new_message(2048), *full = new_message(2048);
    set_body(full);
    set_properties(full);
    property_trips trips;
    trips[STEP_SET] = repeated([msg] {
        fbinit(fields_of(msg), 0);
        set_properties(msg);
    });
    trips[STEP_SET_BODY] = repeated([msg] {
        fbinit(fields_of(msg), 0);
        set_body(msg);
        set_properties(msg);
    });
    trips[STEP_READ] = repeated([full] { get_properties(full); });
    trips[STEP_READ_BODY] = repeated([full] {
        get_body(full);
        get_properties(full);
    });
    trips[STEP_REPLACE] = repeated([full] { set_properties(full); });
    return trips;
}

// --- The same values as fields with keys of their own.

static int key_of(const property &one)
{
    constexpr int TYPE_SHIFT = 26, FIRST_NUMBER = 1001;
    int number = &one == &BODY ? (int)PROPERTIES : (int)(&one - PROPERTY_TABLE);
    return (one.type << TYPE_SHIFT) + FIRST_NUMBER + number;
}

static void put_field(FBUF *fbuf, const property &one)
{
    expect(fbput(fbuf, key_of(one), sample_value(one), one.length), "fbput", one);
}

static void put_fields(FBUF *fbuf)
{
    for (const property &one : PROPERTY_TABLE)
        put_field(fbuf, one);
}

static void get_field(FBUF *fbuf, const property &one)
{
    int length = one.length;
    expect(fbget_tu(fbuf, key_of(one), 0, value_read(one), &length), "fbget_tu", one);
}

static void get_fields(FBUF *fbuf)
{
    for (const property &one : PROPERTY_TABLE)
        get_field(fbuf, one);
    keep(&values_read);
}

static property_trips plain_field_trips()
{
    FBUF *fbuf = new_field_buffer(PROPERTIES, 512), *full = new_field_buffer(PROPERTIES, 512);
    put_field(full, BODY);
    put_fields(full);
    property_trips trips;
    trips[STEP_SET] = repeated([fbuf] {
        fbinit(fbuf, 0);
        put_fields(fbuf);
    });
    trips[STEP_SET_BODY] = repeated([fbuf] {
        fbinit(fbuf, 0);
        put_field(fbuf, BODY);
        put_fields(fbuf);
    });
    trips[STEP_READ] = repeated([full] { get_fields(full); });
    trips[STEP_READ_BODY] = repeated([full] {
        get_field(full, BODY);
        get_fields(full);
    });
    trips[STEP_REPLACE] = repeated([full] {
        for (const property &one : PROPERTY_TABLE)
            expect(fbupdate(full, key_of(one), 0, sample_value(one), one.length), "fbupdate", one);
    });
    return trips;
}

// --- The comparison.

static bool is_as_set(const property &one)
{
    return memcmp(value_read(one), sample_value(one), (size_t)one.length) == 0;
}

static void check_step(property_step step, const contender &one)
{
    memset(&values_read, 0, sizeof values_read);
    one.once();
    bool equal = step != STEP_READ_BODY || is_as_set(BODY);
    for (const property &each : PROPERTY_TABLE)
        equal = equal && is_as_set(each);
    if (!equal && (step == STEP_READ || step == STEP_READ_BODY))
        give_up("%s reads other values than were set", one.name.c_str());
}

void properties(const settings &chosen, placement)
{
    static constexpr const char *ROWS[PROPERTY_STEPS] = {"set ten", "set a body and ten", "get ten",
                                                         "get the body and ten", "replace ten"};
    place_client(placement::one_core);
    property_trips message = message_trips(), fields = plain_field_trips(), map = map_trips();
    schedule plan = chosen.quick ? schedule{15, 4'000'000} : schedule{100, 5'000'000};
    printf("  %-34s %9s %11s %7s %11s\n", "ns; in brackets: how many", "message", "ten fields", "",
           "protobuf's");
    printf("  %-34s %9s %11s %7s %11s\n", "times as fast the message is", "", "by key", "", "map");
    for (int step = 0; step < PROPERTY_STEPS; step++) {
        size_t at = (size_t)step;
        std::vector<contender> contenders = {
            {"the message", message[at]}, {"the field buffer", fields[at]}, {"the map", map[at]}};
        for (const contender &one : contenders)
            check_step((property_step)step, one);
        auto results = alternate(contenders, plan);
        printf("  %-34s", ROWS[step]);
        for (size_t i = 0; i < results.size(); i++) {
            printf(i == 0 ? " %9.1f" : " %11.1f", 1e9 / median(results[i].rates) / REPEATS);
            if (i > 0)
                printf(" (%5.2f)", ratio(results[0], results[i]).middle);
        }
        printf("\n");
        fflush(stdout);
    }
}
