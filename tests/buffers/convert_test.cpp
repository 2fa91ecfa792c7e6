// tphton and tpntoh: a typed buffer as a message that the application carries itself, and back; and the two
// whole-message forms.
#include "buffers/convert.h"

#include "buffers/fieldbytes.h"
#include "buffers/structs.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/trailer.h"

#include <limits.h>
#include <string.h>

namespace {

constexpr size_t HOST = sizeof(person_record), WIRE = PERSON_WIRE;

struct Convert : testing::Test {
    LogFile log;
    char *out = nullptr;
    long outlen = -77;

    Convert()
    {
        for (const char *name : {"SDLFILE64", "SDLFILE", "FDLFILE", "VORN_STRING_NULL"})
            unsetenv(name);
        setenv("SDLFILE", write_definition(sdl::file_bytes(definitions())).c_str(), 1);
    }

    char *make(const char *type, const std::string &data, const char *subtype = nullptr, long size = 0)
    {
        char *buffer = tpalloc((char *)type, (char *)subtype, std::max(size, (long)data.size()));
        EXPECT_NE(buffer, nullptr);
        memcpy(buffer, data.data(), data.size());
        return buffer;
    }

    // The buffer as a message; the buffer goes away.
    std::string carried(char *buffer, long length)
    {
        EXPECT_EQ(tphton(buffer, length, &out, &outlen), 1) << get_tperrno();
        std::string bytes(out, (size_t)outlen);
        free(out);
        tpfree(buffer);
        return bytes;
    }

    // A message in a block of just its length. What tpntoh gave, with the result in `out`.
    int arrive(const std::string &bytes, long length = LONG_MIN)
    {
        char *block = (char *)malloc(bytes.size());
        memcpy(block, bytes.data(), bytes.size());
        out = nullptr;
        outlen = -77;
        set_tperrno(0);
        int result = tpntoh(block, length == LONG_MIN ? (long)bytes.size() : length, &out, &outlen);
        free(block);
        return result;
    }
    std::string arrived() const { return std::string(out, (size_t)outlen); }
};

wire::frame message_of_kind(int32_t kind, const std::string &data, const char *subtype = "", int32_t room = 0)
{
    wire::frame message = wire::message(3, data, {.buftype = kind, .bufsize = room, .subtype = subtype});
    return message;
}

}  // namespace

// ---- tphton: arguments

TEST_F(Convert, HtonNeedsBothResults)
{
    char *text = make("STRING", "abc");
    char stray[200] = {};
    set_tperrno(0);
    EXPECT_EQ(tphton(text, 0, nullptr, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(tphton(text, 0, &out, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    // It comes before what is wrong with the data.
    set_tperrno(0);
    EXPECT_EQ(tphton(stray + 160, 0, &out, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(tphton(stray + 160, 0, &out, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEITYPE);
    set_tperrno(0);
    EXPECT_EQ(tphton(text, 5000, &out, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(outlen, -77);
    tpfree(text);
}

// ---- tphton: what it gives

TEST_F(Convert, PlainDataIsHeaderAndData)
{
    char *text = make("STRING", "abc");
    message_of(text)->prio = 33;
    message_of(text)->value = 44;
    message_of(text)->rcode = 5;
    message_of(text)->target = 6;
    message_of(text)->flags = 7;
    message_of(text)->cd = 8;
    strcpy(message_of(text)->svcname, "SERVICE");
    ASSERT_EQ(tphton(text, 0, &out, &outlen), 1);
    ASSERT_EQ(outlen, 136 + 4);
    wire::frame sent = wire::decode_header(std::string(out, (size_t)outlen));
    EXPECT_EQ(sent.magic, wire::MAGIC);
    EXPECT_EQ(sent.msgtype, 3);
    EXPECT_EQ(sent.rcode, 0);
    EXPECT_EQ(sent.target, 0);
    EXPECT_EQ(sent.svcname, "");
    EXPECT_EQ(sent.datalen, 4);
    EXPECT_EQ(sent.flags, 0u);
    EXPECT_EQ(sent.cd, 0);
    EXPECT_EQ(sent.buftype, wire::STRING);
    EXPECT_EQ(sent.bufsize, 4);
    EXPECT_EQ(sent.prio, 33);
    EXPECT_EQ(sent.value, 44);
    EXPECT_EQ(std::string(out + 136, 4), std::string("abc\0", 4));
    free(out);

    // The buffer's own header was used and changed, and is in host order.
    msg_header *header = message_of(text);
    EXPECT_EQ(header->magic, MESSAGE_MAGIC);
    EXPECT_EQ(header->msgtype, 3);
    EXPECT_EQ(header->rcode, 0);
    EXPECT_EQ(header->target, 0);
    EXPECT_EQ(header->svcname[0], 0);
    EXPECT_EQ(header->datalen, 4);
    EXPECT_EQ(header->flags, 0u);
    EXPECT_EQ(header->cd, 0);
    EXPECT_EQ(header->bufsize, 1024);
    EXPECT_STREQ(text, "abc");
    tpfree(text);
}

TEST_F(Convert, EachMessageTakesTheNextNumber)
{
    wthr_var *block = current_block();
    char *text = make("STRING", "abc"), *fields = make("FIELD", fb::bytes().host);
    block->seqno = 100;
    int32_t wanted = 101;
    for (char *data : {text, text, fields, (char *)nullptr}) {
        ASSERT_EQ(tphton(data, 0, &out, &outlen), 1);
        EXPECT_EQ(wire::decode_header(std::string(out, 136)).seqno, wanted);
        EXPECT_EQ(block->seqno, wanted);
        if (data != nullptr) {
            EXPECT_EQ(message_of(data)->seqno, wanted);
        }
        wanted++;
        free(out);
    }
    block->seqno = 0xffffffe;
    ASSERT_EQ(tphton(text, 0, &out, &outlen), 1);
    EXPECT_EQ(wire::decode_header(std::string(out, 136)).seqno, 0);
    free(out);
    // A call that is refused takes none.
    block->seqno = 7;
    EXPECT_EQ(tphton(text, 5000, &out, &outlen), -1);
    EXPECT_EQ(block->seqno, 7);
    EXPECT_EQ(pthread_mutex_trylock(&block->msg_mutex), 0);
    pthread_mutex_unlock(&block->msg_mutex);
    tpfree(text);
    tpfree(fields);
}

TEST_F(Convert, WithoutDataItIsABareHeader)
{
    for (long length : {0, 500, -1}) {
        ASSERT_EQ(tphton(nullptr, length, &out, &outlen), 1);
        EXPECT_EQ(outlen, 136);
        wire::frame sent = wire::decode_header(std::string(out, 136));
        EXPECT_EQ(sent.magic, wire::MAGIC);
        EXPECT_EQ(sent.buftype, wire::HEADER_ONLY);
        EXPECT_EQ(sent.msgtype, 3);
        EXPECT_EQ(sent.datalen, 0);
        EXPECT_EQ(sent.bufsize, 0);
        free(out);
    }
}

TEST_F(Convert, DataLengthsAreThoseOfACall)
{
    char *bytes = make("CARRAY", "abcdef");
    const struct {
        long asked, sent;
    } cases[] = {{0, 0}, {3, 3}, {6, 6}, {1024, 1024}};
    for (const auto &row : cases) {
        ASSERT_EQ(tphton(bytes, row.asked, &out, &outlen), 1);
        EXPECT_EQ(outlen, 136 + row.sent);
        EXPECT_EQ(std::string(out + 136, (size_t)row.sent), std::string(bytes, (size_t)row.sent));
        EXPECT_EQ(wire::decode_header(std::string(out, 136)).bufsize, row.sent);
        free(out);
    }
    EXPECT_EQ(tphton(bytes, -1, &out, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    tpfree(bytes);
}

TEST_F(Convert, FieldsLeaveInWireForm)
{
    fb::bytes fields = fb::all_types();
    char *buffer = make("FIELD", fields.host);
    ASSERT_EQ(tphton(buffer, 0, &out, &outlen), 1);
    ASSERT_EQ(outlen, 136 + fields.used());
    wire::frame sent = wire::decode_header(std::string(out, 136));
    EXPECT_EQ(sent.datalen, fields.used());
    EXPECT_EQ(sent.buftype, wire::FIELD);
    EXPECT_EQ(sent.msgtype, 3);
    EXPECT_TRUE(fb::same_wire(std::string(out + 136, (size_t)fields.used()), fields));
    EXPECT_TRUE(fb::same_host(std::string(buffer, (size_t)fields.used()), fields));
    EXPECT_EQ(message_of(buffer)->magic, MESSAGE_MAGIC);
    free(out);
    tpfree(buffer);
}

TEST_F(Convert, StructsLeaveInWireForm)
{
    char *buffer = make("STRUCT", bytes_of(sample_person()) + bytes_of(sample_person()), "person");
    for (int records : {1, 2}) {
        ASSERT_EQ(tphton(buffer, records * (long)HOST, &out, &outlen), 1);
        ASSERT_EQ(outlen, 136 + records * (long)WIRE);
        wire::frame sent = wire::decode_header(std::string(out, 136));
        EXPECT_EQ(sent.datalen, records * (int)WIRE);
        EXPECT_EQ(sent.buftype, wire::STRUCT);
        EXPECT_EQ(sent.subtype, "person");
        EXPECT_EQ(std::string(out + 136, WIRE), sample_person_wire());
        free(out);
    }
    tpfree(buffer);
}

TEST_F(Convert, ByteOrderIsFoundOutAtTheFirstCall)
{
    char *buffer = make("FIELD", fb::all_types().host);
    _endian = 0;
    _node_type = 0;
    ASSERT_EQ(tphton(buffer, 0, &out, &outlen), 1);
    EXPECT_EQ(_endian, 2);
    EXPECT_EQ(_node_type, 4);
    EXPECT_TRUE(fb::same_wire(std::string(out + 136, (size_t)outlen - 136), fb::all_types()));
    free(out);
    _endian = 1;  // once only
    ASSERT_EQ(tphton(nullptr, 0, &out, &outlen), 1);
    EXPECT_EQ(_endian, 1);
    free(out);
    tpfree(buffer);
}

TEST_F(Convert, ByteOrderIsFoundOutByAnArrivalToo)
{
    _endian = 0;
    fb::bytes fields = fb::all_types();
    ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::FIELD, fields.wire))), 1);
    EXPECT_EQ(_endian, 2);
    EXPECT_TRUE(fb::same_host(arrived(), fields));
    tpfree(out);
}

TEST_F(Convert, HtonWithoutMemory)
{
    char *text = make("STRING", "abc"), *fields = make("FIELD", fb::all_types().host),
         *record = make("STRUCT", "", "pair");
    const struct {
        char *data;
        int error;  // 0: as it was, or none
    } cases[] = {{text, TPESYSTEM}, {nullptr, TPESYSTEM}, {fields, 0}, {record, 0}};
    for (const auto &row : cases)
        for (int nth = 1;; nth++) {
            SCOPED_TRACE(nth);
            set_tperrno(0);
            out = nullptr;
            faults::fail_allocation(nth);
            int result = tphton(row.data, 0, &out, &outlen);
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            if (!failed) {
                EXPECT_EQ(result, 1);
                free(out);
                break;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(get_tperrno(), row.error);
        }
    for (char *data : {text, fields, record})
        tpfree(data);
}

TEST_F(Convert, FieldsThatCantBeTurnedGiveNoNewError)
{
    fb::bytes fields;
    fields.add_raw(9u << 26 | 1, 1);
    char *buffer = make("FIELD", fields.host);
    set_tperrno(TPETIME);
    EXPECT_EQ(tphton(buffer, 0, &out, &outlen), -1);
    EXPECT_TRUE(get_tperrno() == TPETIME || get_tperrno() == 0) << get_tperrno();
    EXPECT_TRUE(log.has("[CSC6405]"));
    tpfree(buffer);
}

TEST_F(Convert, ControlRecordsAreNotAskedFor)
{
    // Data behind a control record isn't what a caller may send.
    for (int32_t kind : {BUF_RQ_STRUCT, BUF_RQ_FIELD}) {
        char *buffer = make("FIELD", fb::bytes().host);
        message_of(buffer)->buftype = kind;
        set_tperrno(0);
        EXPECT_EQ(tphton(buffer, 0, &out, &outlen), -1);
        EXPECT_EQ(get_tperrno(), TPEITYPE);
        message_of(buffer)->buftype = BUF_FIELD;
        tpfree(buffer);
    }
}

// ---- tpntoh: arguments

TEST_F(Convert, NtohNeedsBothResultsAndAWholeHeader)
{
    std::string good = wire::encode(message_of_kind(wire::CARRAY, "abc"));
    std::string mutable_good = good;
    set_tperrno(0);
    EXPECT_EQ(tpntoh(&mutable_good[0], (long)good.size(), nullptr, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    set_tperrno(0);
    EXPECT_EQ(tpntoh(&mutable_good[0], (long)good.size(), &out, nullptr), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
    for (size_t length : {0, 1, 4, 100, 135}) {
        EXPECT_EQ(arrive(good.substr(0, length)), -1) << length;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << length;
    }
    set_tperrno(0);
    EXPECT_EQ(tpntoh(nullptr, 0, &out, &outlen), -1);
    EXPECT_EQ(get_tperrno(), TPEINVAL);
}

TEST_F(Convert, AnotherMagicIsRefused)
{
    wire::frame message = message_of_kind(wire::CARRAY, "abc");
    for (uint32_t magic : {0u, 0x82203590u, 0x90352083u}) {
        message.magic = magic;
        EXPECT_EQ(arrive(wire::encode(message)), -1);
        EXPECT_EQ(get_tperrno(), TPEINVAL);
    }
}

TEST_F(Convert, DataThatIsNotThereIsRefused)
{
    std::string good = wire::encode(message_of_kind(wire::CARRAY, "abcdef"));
    for (long length = 136; length < 142; length++) {
        EXPECT_EQ(arrive(good, length), -1) << length;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << length;
    }
    EXPECT_EQ(arrive(good, 142), 1);
    EXPECT_EQ(arrived(), "abcdef");
    tpfree(out);
    wire::frame message = message_of_kind(wire::CARRAY, "abcdef");
    for (int32_t datalen : {7, 1000, INT_MAX, -1, -7, INT_MIN}) {
        message.datalen = datalen;
        EXPECT_EQ(arrive(wire::encode(message)), -1) << datalen;
        EXPECT_EQ(get_tperrno(), TPEINVAL) << datalen;
    }
}

// A negative length is taken without its sign, and so is long enough for anything.
TEST_F(Convert, NegativeLengthIsALongOne)
{
    EXPECT_EQ(arrive(wire::encode(message_of_kind(wire::CARRAY, "abcdef")), -1), 1);
    EXPECT_EQ(arrived(), "abcdef");
    tpfree(out);
    // But not for a data length that is negative too.
    wire::frame message = message_of_kind(wire::CARRAY, "abcdef");
    for (int32_t datalen : {-1, -137, INT_MIN}) {
        message.datalen = datalen;
        EXPECT_EQ(arrive(wire::encode(message), -1), -1);
        EXPECT_EQ(get_tperrno(), TPEINVAL);
    }
}

// ---- tpntoh: what it gives

TEST_F(Convert, PlainDataComesBackAsABuffer)
{
    for (int32_t kind : {wire::STRING, wire::CARRAY, wire::START, wire::HEADER_ONLY}) {
        SCOPED_TRACE(kind);
        wire::frame message = message_of_kind(kind, "abcdef\0x");
        message.rcode = 5;
        ASSERT_EQ(arrive(wire::encode(message) + "more that came along"), 1);
        EXPECT_EQ(arrived(), message.data);
        EXPECT_EQ(message_of(out)->magic, MESSAGE_MAGIC);
        EXPECT_EQ(message_of(out)->rcode, 5);
        EXPECT_EQ(message_of(out)->datalen, outlen);
        EXPECT_EQ(tpgettype(out), kind);
        tpfree(out);
    }
}

TEST_F(Convert, MessageWithoutDataComesBackEmpty)
{
    for (int32_t kind :
         {wire::STRUCT, wire::FIELD, wire::STRING, wire::HEADER_ONLY, (wire::buffer)11, (wire::buffer)12}) {
        ASSERT_EQ(arrive(wire::encode(message_of_kind(kind, "", "nobody"))), 1) << kind;
        EXPECT_NE(out, nullptr);
        EXPECT_EQ(outlen, 0);
        tpfree(out);
    }
}

TEST_F(Convert, FieldsComeBackInHostForm)
{
    fb::bytes fields = fb::all_types();
    for (int32_t room : {0, 100, fields.used(), 5000}) {
        SCOPED_TRACE(room);
        ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::FIELD, fields.wire, "", room))), 1);
        EXPECT_TRUE(fb::same_host(arrived(), fields));
        EXPECT_EQ(message_of(out)->datalen, fields.used());
        EXPECT_EQ(tpgettype(out), TPBUF_FIELD);
        tpfree(out);
    }
}

TEST_F(Convert, StructsComeBackInHostForm)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    for (int records : {1, 2, 40})
        for (int32_t room : {0, 1024, 100000}) {
            SCOPED_TRACE(std::to_string(records) + " in " + std::to_string(room));
            std::string wire;
            for (int i = 0; i < records; i++)
                wire += sample_person_wire();
            ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::STRUCT, wire, "person", room))), 1);
            ASSERT_EQ(outlen, records * (long)HOST);
            EXPECT_EQ(message_of(out)->datalen, outlen);
            EXPECT_GE(tpgetasize(out), outlen);
            person_record last;
            memcpy((void *)&last, out + outlen - HOST, HOST);
            EXPECT_EQ(last.salary, 0x55667788);
            char type[16], subtype[17] = {};
            EXPECT_EQ(tptypes(out, type, subtype), tpgetasize(out));
            EXPECT_STREQ(type, "STRUCT");
            EXPECT_STREQ(subtype, "person");
            tpfree(out);
        }
}

TEST_F(Convert, StructOfOneSizeOnBothSides)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::STRUCT, "abcdefgh", "pair"))), 1);
    EXPECT_EQ(arrived(), "dcbahgfe");
    tpfree(out);
}

TEST_F(Convert, StructThatShrinksComesBack)
{
    sdl::record wide = {"wide", {}, 4, 100, 0};
    wide.members.push_back({.name = "x", .wire_offset = 96});
    setenv("SDLFILE", write_definition(sdl::file_bytes({wide})).c_str(), 1);
    std::string wire = std::string(96, '-') + "\1\2\3\4";
    ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::STRUCT, wire + wire, "wide"))), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);  // definitions aren't loaded by an arrival
    EXPECT_EQ(_sdlfile_load(), 1);
    ASSERT_EQ(arrive(wire::encode(message_of_kind(wire::STRUCT, wire + wire, "wide"))), 1);
    EXPECT_EQ(arrived(), "\4\3\2\1\4\3\2\1");
    tpfree(out);
}

TEST_F(Convert, UnknownStructIsOfAWrongType)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    EXPECT_EQ(arrive(wire::encode(message_of_kind(wire::STRUCT, "abcdefgh", "nobody"))), -1);
    EXPECT_EQ(get_tperrno(), TPEOTYPE);
    // Only struct data proper is asked for its size.
    fb::bytes fields = fb::all_types();
    ASSERT_EQ(arrive(wire::encode(message_of_kind(11, fields.wire, "nobody"))), 1);
    EXPECT_TRUE(fb::same_host(arrived(), fields));
    tpfree(out);
}

TEST_F(Convert, ControlRecordComesBackBeforeItsFields)
{
    fb::bytes fields = fb::all_types();
    ASSERT_EQ(arrive(wire::encode(message_of_kind(12, std::string(168, 'r') + fields.wire))), 1);
    ASSERT_EQ(outlen, 168 + fields.used());
    EXPECT_EQ(arrived().substr(0, 168), std::string(168, 'r'));
    EXPECT_TRUE(fb::same_host(arrived().substr(168), fields));
    free(message_of(out));
}

TEST_F(Convert, TrailerComesBackBehindTheFields)
{
    fb::bytes fields = fb::all_types();
    wire::frame message = message_of_kind(wire::FIELD, fields.wire + "\1\12trailbytes");
    message.xflags = XFLAG_TRAILER | 12;
    ASSERT_EQ(arrive(wire::encode(message)), 1);
    ASSERT_EQ(outlen, fields.used() + 12);
    EXPECT_TRUE(fb::same_host(arrived().substr(0, (size_t)fields.used()), fields));
    EXPECT_EQ(arrived().substr((size_t)fields.used()), "\1\12trailbytes");
    char content[64];
    int length = sizeof content;
    EXPECT_EQ(_vorn_find_trailer(message_of(out), content, 1, &length), 1);
    EXPECT_EQ(std::string(content, (size_t)length), "trailbytes");
    tpfree(out);
}

TEST_F(Convert, FieldsThatCantBeTurnedAreASystemError)
{
    fb::bytes fields;
    fields.add<int32_t>(fb::INT, 1, 1).add_raw(63u << 26 | 1, 1);
    EXPECT_EQ(arrive(wire::encode(message_of_kind(wire::FIELD, fields.wire))), -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_TRUE(log.has("0209 internal error : type error: -1 [CSC6406]")) << log.text();
    for (size_t length = 1; length < 8; length++) {
        EXPECT_EQ(arrive(wire::encode(message_of_kind(wire::FIELD, fields.wire.substr(0, length)))), -1);
        EXPECT_EQ(get_tperrno(), TPESYSTEM);
    }
}

TEST_F(Convert, NtohWithoutMemory)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    const std::string messages[] = {
        wire::encode(message_of_kind(wire::CARRAY, "abc")),
        wire::encode(message_of_kind(wire::FIELD, fb::all_types().wire)),
        wire::encode(message_of_kind(wire::STRUCT, sample_person_wire(), "person")),
        wire::encode(message_of_kind(wire::STRUCT, "abcdefgh", "pair")),
    };
    for (const std::string &bytes : messages) {
        std::string copy = bytes;
        for (int nth = 1;; nth++) {
            SCOPED_TRACE(nth);
            set_tperrno(0);
            faults::fail_allocation(nth);
            int result = tpntoh(&copy[0], (long)copy.size(), &out, &outlen);
            bool failed = faults::allocation_failed();
            faults::disarm_allocations();
            if (!failed) {
                EXPECT_EQ(result, 1);
                tpfree(out);
                break;
            }
            EXPECT_EQ(result, -1);
            EXPECT_EQ(get_tperrno(), nth == 1 ? TPEOS : TPESYSTEM);
        }
    }
}

// ---- the result is a typed buffer like any other

TEST_F(Convert, ResultHoldsWhatItsHeaderSays)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    const struct {
        int32_t kind;
        std::string data;
        const char *subtype;
    } cases[] = {{wire::CARRAY, std::string(300, 'c'), ""},
                 {wire::FIELD, fb::all_types().wire, ""},
                 {wire::STRUCT, sample_person_wire() + sample_person_wire(), "person"},
                 {wire::STRUCT, "abcdefgh", "pair"}};
    for (const auto &row : cases)
        for (int32_t room : {0, 10, 1024, -1, INT_MIN}) {
            SCOPED_TRACE(std::to_string(row.kind) + " with " + std::to_string(room));
            wire::frame message = message_of_kind(row.kind, row.data, row.subtype);
            message.bufsize = room;
            message.xflags = XFLAG_TRAILER_ROOM;
            ASSERT_EQ(arrive(wire::encode(message)), 1);
            int size = tpgetasize(out);
            EXPECT_GE(size, outlen);
            memset(out + outlen, 1, (size_t)(size - outlen));
            // A trailer finds the room that the header promises.
            if ((message_of(out)->xflags & XFLAG_TRAILER_ROOM) != 0) {
                message_of(out)->datalen = size;
                EXPECT_EQ(_vorn_add_trailer(message_of(out), std::string(62, 't').data(), 1, 62), 1);
            }
            out = tprealloc(out, 3000);
            ASSERT_NE(out, nullptr);
            memset(out, 1, (size_t)tpgetasize(out));
            tpfree(out);
        }
}

TEST_F(Convert, HugeRoomIsRefusedOrGiven)
{
    wire::frame message = message_of_kind(wire::CARRAY, "abc");
    for (int32_t room : {INT_MAX, INT_MAX - 136, INT_MAX - 200, 1 << 30}) {
        SCOPED_TRACE(room);
        message.bufsize = room;
        faults::limit_allocation(1 << 20);
        EXPECT_EQ(arrive(wire::encode(message)), -1);
        EXPECT_EQ(get_tperrno(), TPEOS);
        faults::limit_allocation(0);
    }
}

TEST_F(Convert, BuffersOfAllKindsGoThereAndBack)
{
    const struct {
        const char *type, *subtype;
        std::string data;
        long length;
    } cases[] = {
        {"STRING", "", std::string("a text\0", 7), 7},
        {"CARRAY", "", std::string("\0\1\2\3", 4), 4},
        {"FIELD", "", fb::all_types().host, 0},
        {"FIELD", "", fb::bytes().host, 0},
        {"STRUCT", "pair", "abcdefgh", 8},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.type);
        char *sent = make(row.type, row.data, row.subtype);
        ASSERT_EQ(arrive(carried(sent, row.length)), 1);
        std::string meant = row.type == std::string("FIELD") ? fb::all_types().meant : "";
        meant.resize(row.data.size(), '\1');
        EXPECT_TRUE(fb::same(arrived(), row.data, meant));
        // And out once more, from the result.
        std::string again = carried(out, row.length);
        ASSERT_EQ(arrive(again), 1);
        EXPECT_TRUE(fb::same(arrived(), row.data, meant));
        tpfree(out);
    }
}

// ---- the whole-message forms

TEST_F(Convert, MessagesWithoutAFormPassUnchanged)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    for (int32_t kind : {BUF_STRING, BUF_CARRAY, BUF_START, BUF_HEADER, BUF_NEGOTIATION}) {
        Message message(kind, "abcdefgh", 0, "pair");
        EXPECT_EQ((msg_header *)_vorn_encode_odata(message), message.header);
        EXPECT_EQ((msg_header *)_vorn_decode_idata(message), message.header);
        EXPECT_EQ(message.text(8), "abcdefgh");
        EXPECT_EQ(message->datalen, 8);
    }
    for (int32_t kind : {BUF_STRUCT, BUF_FIELD, BUF_RQ_STRUCT, BUF_RQ_FIELD}) {
        Message message(kind, "", 100, "nobody");
        EXPECT_EQ((msg_header *)_vorn_encode_odata(message), message.header);
        EXPECT_EQ((msg_header *)_vorn_decode_idata(message), message.header);
    }
}

TEST_F(Convert, FieldMessageIsReplacedByItsWireForm)
{
    _check_node();
    fb::bytes fields = fb::all_types();
    Message message(BUF_FIELD, fields.host, 1032);
    message->seqno = 4711;
    message.header = (msg_header *)_vorn_encode_odata(message.header);
    ASSERT_NE(message.header, nullptr);
    EXPECT_EQ(message->seqno, 4711);
    EXPECT_EQ(message->magic, MESSAGE_MAGIC);
    EXPECT_EQ(message->datalen, fields.used());
    EXPECT_TRUE(fb::same_wire(message.text((size_t)fields.used()), fields));
    msg_header *back = (msg_header *)_vorn_decode_idata(message.header);
    EXPECT_EQ(back, message.header);  // in place
    EXPECT_TRUE(fb::same_host(message.text((size_t)fields.used()), fields));
}

TEST_F(Convert, StructMessageIsReplacedBothWays)
{
    _check_node();
    EXPECT_EQ(_sdlfile_load(), 1);
    Message message(BUF_STRUCT, bytes_of(sample_person()) + bytes_of(sample_person()), 0, "person");
    message.header = (msg_header *)_vorn_encode_odata(message.header);
    ASSERT_NE(message.header, nullptr);
    EXPECT_EQ(message->datalen, (int)(2 * WIRE));
    EXPECT_STREQ(message->subtype, "person");
    EXPECT_EQ(message.text(2 * WIRE), sample_person_wire() + sample_person_wire());
    message.header = (msg_header *)_vorn_decode_idata(message.header);
    ASSERT_NE(message.header, nullptr);
    person_record second;
    memcpy((void *)&second, message.data() + HOST, HOST);
    EXPECT_EQ(second.salary, 0x55667788);
    EXPECT_EQ(second.items[0].number, 0x2122);
    EXPECT_EQ(message->datalen, (int)(2 * HOST));
    EXPECT_STREQ(message->subtype, "person");
}

TEST_F(Convert, StructOfOneSizeIsTurnedInPlace)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    Message message(BUF_STRUCT, "abcdefgh", 0, "pair");
    EXPECT_EQ((msg_header *)_vorn_decode_idata(message), message.header);
    EXPECT_EQ(message.text(8), "dcbahgfe");
}

TEST_F(Convert, MessageStandsWhenItCantBeTurned)
{
    EXPECT_EQ(_sdlfile_load(), 1);
    fb::bytes bad;
    bad.add_raw(9u << 26, 0);
    Message fields(BUF_FIELD, bad.host), record(BUF_STRUCT, "abcdefgh", 0, "nobody");
    // Fields behind a control record go the way of structs here, and need a struct's name.
    Message queued(BUF_RQ_FIELD, std::string(168, 'r') + fb::bytes().host, 0, "nobody");
    for (msg_header *message : {fields.header, record.header, queued.header}) {
        int32_t datalen = message->datalen;
        std::string before = data_of(message);
        EXPECT_EQ((msg_header *)_vorn_encode_odata(message), nullptr);
        EXPECT_EQ(message->datalen, datalen);
        EXPECT_EQ(data_of(message), before);
    }
    EXPECT_EQ((msg_header *)_vorn_decode_idata(record), nullptr);
    EXPECT_EQ(record.text(8), "abcdefgh");
    Message person(BUF_STRUCT, sample_person_wire(), 0, "person");
    faults::fail_allocation(1, true);
    EXPECT_EQ((msg_header *)_vorn_decode_idata(person), nullptr);
    EXPECT_EQ((msg_header *)_vorn_encode_odata(person), nullptr);
    faults::disarm_allocations();
    EXPECT_EQ(person.text(WIRE), sample_person_wire());
}
