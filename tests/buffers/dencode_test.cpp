// The wire form of field data: every type byte by byte, trailers, control records, and what can't be turned.
#include "buffers/dencode.h"

#include "buffers/fieldbytes.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"

#include <limits.h>
#include <string.h>

namespace {

struct FieldWire : testing::Test {
    LogFile log;

    FieldWire() { _check_node(); }

    static std::string encode(msg_header *message)
    {
        int length = -1;
        char *block = _hton_data_fdl(message, &length);
        EXPECT_NE(block, nullptr);
        if (block == nullptr)
            return "";
        return Encoded(block, length).data();
    }
    static std::string encode(const fb::bytes &fields, int32_t room = 0)
    {
        Message message(BUF_FIELD, fields.host, (size_t)room);
        std::string wire = encode(message);
        EXPECT_EQ(message.text(fields.host.size()), fields.host);
        return wire;
    }
    // Turned beside, and in place.
    static void expect_decoded(const fb::bytes &fields)
    {
        Message message(BUF_FIELD, fields.wire);
        std::string beside(fields.wire.size(), '\xEE');
        EXPECT_EQ(_ntoh_data_fdl(message, message.data(), &beside[0]), beside.data());
        EXPECT_TRUE(fb::same_host(beside, fields));
        EXPECT_EQ(message.text(fields.wire.size()), fields.wire);
        EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), message.data());
        EXPECT_TRUE(fb::same_host(message.text(fields.wire.size()), fields));
    }
};

template <size_t N> std::string raw(const unsigned char (&bytes)[N])
{
    return std::string((const char *)bytes, N);
}

// The types that a key can bear and no field has.
std::vector<uint32_t> wrong_types()
{
    std::vector<uint32_t> types = {0};
    for (uint32_t type = 9; type < 64; type++)
        types.push_back(type);
    return types;
}

// A type as it is logged: the key's top bits, with their sign.
std::string told(uint32_t type)
{
    return std::to_string((int32_t)(type << 26) >> 26);
}

}  // namespace

// ---- byte by byte

TEST_F(FieldWire, EmptyBufferIsItsHead)
{
    const unsigned char wire[8] = {0x00, 0x00, 0x22, 0xb8, 0x00, 0x00, 0x00, 0x08};
    EXPECT_EQ(encode(fb::bytes()), raw(wire));
    expect_decoded(fb::bytes());
}

TEST_F(FieldWire, EachTypeAsItStandsOnTheWire)
{
    const unsigned char x = 0xAA;  // carries nothing
    const struct {
        const char *name;
        std::string host, wire;
    } entries[] = {
        {"char", raw({0x65, 0, 0, 0x04, 'c', x, x, x}), raw({0x04, 0, 0, 0x65, 'c', x, x, x})},
        {"short", raw({0x66, 0, 0, 0x08, 0x22, 0x11, x, x}), raw({0x08, 0, 0, 0x66, 0x11, 0x22, x, x})},
        {"int", raw({0x67, 0, 0, 0x0c, 0x44, 0x33, 0x22, 0x11}),
         raw({0x0c, 0, 0, 0x67, 0x11, 0x22, 0x33, 0x44})},
        {"long", raw({0x68, 0, 0, 0x10, 0xfe, 0xff, 0xff, 0xff}),
         raw({0x10, 0, 0, 0x68, 0xff, 0xff, 0xff, 0xfe})},
        {"float", raw({0x69, 0, 0, 0x14, 0, 0, 0x80, 0x3f}), raw({0x14, 0, 0, 0x69, 0x3f, 0x80, 0, 0})},
        {"double", raw({0x6a, 0, 0, 0x18, x, x, x, x, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f}),
         raw({0x18, 0, 0, 0x6a, x, x, x, x, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0})},
        {"string", raw({0x6b, 0, 0, 0x1c, 'a', 'b', 'c', 0}), raw({0x1c, 0, 0, 0x6b, 'a', 'b', 'c', 0})},
        {"longer string", raw({0x6b, 0, 0, 0x1c, 'a', 'b', 'c', 'd', 0, x, x, x, x, x, x, x}),
         raw({0x1c, 0, 0, 0x6b, 'a', 'b', 'c', 'd', 0, x, x, x, x, x, x, x})},
        {"carray", raw({0x6c, 0, 0, 0x20, 3, 0, 0, 0, 7, 8, 9, x, x, x, x, x}),
         raw({0x20, 0, 0, 0x6c, 0, 0, 0, 3, 7, 8, 9, x, x, x, x, x})},
        {"empty carray", raw({0x6c, 0, 0, 0x20, 0, 0, 0, 0}), raw({0x20, 0, 0, 0x6c, 0, 0, 0, 0})},
        {"marked int", raw({0x67, 0, 0, 0x0d, 1, 0, 0, 0}), raw({0x0d, 0, 0, 0x67, 0, 0, 0, 1})},
        {"int with bit 25", raw({0x67, 0, 0, 0x0e, 1, 0, 0, 0}), raw({0x0e, 0, 0, 0x67, 0, 0, 0, 1})},
    };
    for (const auto &row : entries) {
        SCOPED_TRACE(row.name);
        fb::bytes fields;
        fields.host += row.host;
        fields.wire += row.wire;
        for (char byte : row.host)
            fields.meant += byte != (char)x;
        fields.set_used(8 + (int32_t)row.host.size());
        EXPECT_TRUE(fb::same_wire(encode(fields), fields));
        expect_decoded(fields);
    }
    EXPECT_EQ(log.lines(), 0) << log.text();
}

TEST_F(FieldWire, AllTypesInOneBuffer)
{
    fb::bytes fields = fb::all_types();
    EXPECT_TRUE(fb::same_wire(encode(fields), fields));
    EXPECT_TRUE(fb::same_wire(encode(fields, 1032), fields));
    expect_decoded(fields);
}

TEST_F(FieldWire, StringsAndArraysOfEveryLength)
{
    for (size_t length = 0; length < 40; length++) {
        SCOPED_TRACE(length);
        fb::bytes fields;
        fields.add_string(1, std::string(length, 's'))
            .add_carray(2, std::string(length, '\xC8'))
            .add<int32_t>(fb::INT, 3, (int32_t)length);
        EXPECT_TRUE(fb::same_wire(encode(fields), fields));
        expect_decoded(fields);
    }
}

TEST_F(FieldWire, ManyFieldsGoThereAndBack)
{
    fb::bytes fields;
    for (int i = 0; i < 3000; i++) {
        fields.add<int16_t>(fb::SHORT, i, (int16_t)(i * 7))
            .add<double>(fb::DOUBLE, i, i / 3.0)
            .add_string(i, std::string((size_t)i % 17, 'x'))
            .add_carray(i, std::string((size_t)i % 23, '\0'));
    }
    EXPECT_TRUE(fb::same_wire(encode(fields), fields));
    expect_decoded(fields);
}

TEST_F(FieldWire, FloatingPointKeepsItsBits)
{
    fb::bytes fields;
    for (uint32_t bits : {0x7f800001u, 0xffc12345u, 0x80000000u, 1u})
        fields.add<uint32_t>(fb::FLOAT, 1, bits);
    for (uint64_t bits : {0x7ff0000000000001u, 0xfff8123456789abcu, 0x8000000000000000u, 1ul})
        fields.add<uint64_t>(fb::DOUBLE, 2, bits);
    EXPECT_TRUE(fb::same_wire(encode(fields), fields));
    expect_decoded(fields);
}

// ---- how much

TEST_F(FieldWire, LengthIsTheBuffersOwnWord)
{
    fb::bytes fields = fb::all_types();
    for (int32_t datalen : {1, 7, 8, fields.used() - 1, fields.used(), fields.used() + 100}) {
        SCOPED_TRACE(datalen);
        Message message(BUF_FIELD, fields.host, 1032);
        message->datalen = datalen;
        EXPECT_TRUE(fb::same_wire(encode(message), fields));
    }
}

TEST_F(FieldWire, BlockHasRoomForTheHeaderAndAReserve)
{
    Message message(BUF_FIELD, fb::all_types().host);
    int length = 0;
    char *block = _hton_data_fdl(message, &length);
    ASSERT_NE(block, nullptr);
    memset(block, 1, (size_t)length + 200);  // 136 in front, 64 behind
    free(block);
}

// ---- trailers

TEST_F(FieldWire, TrailerGoesOutBehindTheFields)
{
    fb::bytes fields;
    fields.add<int32_t>(fb::INT, 1, 1).add_string(2, "text").add<char>(fb::CHAR, 3, 'c');
    ASSERT_EQ(fields.used(), 40);
    for (size_t between : {0, 8, 100}) {
        SCOPED_TRACE(between);
        Message message(BUF_FIELD, fields.host + std::string(between, '-') + "\1\12trailbytes");
        message.mark_trailer(12);
        std::string wire = encode(message);
        ASSERT_EQ(wire.size(), 52u);
        EXPECT_TRUE(fb::same_wire(wire.substr(0, 40), fields));
        EXPECT_EQ(wire.substr(40), "\1\12trailbytes");
    }
}

TEST_F(FieldWire, TrailerWithoutAMarkIsNone)
{
    fb::bytes fields = fb::all_types();
    Message message(BUF_FIELD, fields.host + "\1\12trailbytes");
    message->xflags = XFLAG_TRAILER_ROOM | 12;
    EXPECT_TRUE(fb::same_wire(encode(message), fields));
    message->xflags = XFLAG_TRAILER;
    EXPECT_TRUE(fb::same_wire(encode(message), fields));
}

TEST_F(FieldWire, TrailerAloneIsDataWithoutAHead)
{
    Message message(BUF_FIELD, "\1\12trailbytes", 1032);
    message.mark_trailer(12);
    // The used length stands in the trailer then; it is taken out again, whatever it is.
    EXPECT_EQ(encode(message), "\1\12trailbytes");
}

TEST_F(FieldWire, TrailerLongerThanTheDataDoesNoHarm)
{
    for (int length : {13, 64, 65, 200, 255})
        for (const std::string &data : {std::string(1, 'x'), fb::bytes().host, fb::bytes().host + "abcd"}) {
            SCOPED_TRACE(length);
            Message message(BUF_FIELD, data, 16);
            message.mark_trailer(length);
            int out = 0;
            char *block = _hton_data_fdl(message, &out);
            if (block != nullptr) {
                EXPECT_GE(out, 0);
                EXPECT_LE(out, 8 + 255);
            }
            free(block);
            _ntoh_data_fdl(message, message.data(), message.data());
        }
}

TEST_F(FieldWire, TrailerComesInUntouched)
{
    fb::bytes fields = fb::all_types();
    Message message(BUF_FIELD, fields.wire + "\1\12trailbytes");
    message.mark_trailer(12);
    EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), message.data());
    EXPECT_TRUE(fb::same_host(message.text(fields.host.size()), fields));
    EXPECT_EQ(message.text((size_t)message->datalen).substr(fields.host.size()), "\1\12trailbytes");
    EXPECT_EQ(message->datalen, fields.used() + 12);
}

TEST_F(FieldWire, TrailerAloneComesInUntouched)
{
    Message message(BUF_FIELD, "\1\12trailbytes");
    message.mark_trailer(12);
    EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), message.data());
    EXPECT_EQ(message.text(12), "\1\12trailbytes");
}

// ---- behind a control record

TEST_F(FieldWire, ControlRecordIsCopiedAsItStands)
{
    std::string record(168, '\0');
    for (size_t i = 0; i < record.size(); i++)
        record[i] = (char)(i + 1);
    fb::bytes fields = fb::all_types();
    for (bool trailer : {false, true}) {
        SCOPED_TRACE(trailer);
        std::string more = trailer ? "\1\2tr" : "";
        Message out(BUF_RQ_FIELD, record + fields.host + more);
        Message in(BUF_RQ_FIELD, record + fields.wire + more);
        if (trailer) {
            out.mark_trailer(4);
            in.mark_trailer(4);
        }
        std::string wire = encode(out);
        ASSERT_EQ(wire.size(), 168 + fields.wire.size() + more.size());
        EXPECT_EQ(wire.substr(0, 168), record);
        EXPECT_TRUE(fb::same_wire(wire.substr(168, fields.wire.size()), fields));
        EXPECT_EQ(wire.substr(168 + fields.wire.size()), more);
        EXPECT_EQ(_ntoh_data_fdl(in, in.data(), in.data()), in.data());
        EXPECT_EQ(in.text(168), record);
        EXPECT_TRUE(fb::same_host(in.text(168 + fields.host.size()).substr(168), fields));
    }
}

TEST_F(FieldWire, ControlRecordAloneHasNoFields)
{
    for (bool trailer : {false, true}) {
        std::string data = std::string(168, 'r') + (trailer ? "\1\2tr" : "");
        Message message(BUF_RQ_FIELD, data, 1032);
        if (trailer)
            message.mark_trailer(4);
        EXPECT_EQ(encode(message), data);
        EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), message.data());
        EXPECT_EQ(message.text(data.size()), data);
    }
}

TEST_F(FieldWire, ControlRecordThatIsCutIsNeverReadBeyond)
{
    for (size_t length : {1, 8, 100, 167, 169, 175}) {
        SCOPED_TRACE(length);
        std::string data = (std::string(168, 'r') + fb::bytes().host).substr(0, length);
        Message message(BUF_RQ_FIELD, data);
        int out = 0;
        free(_hton_data_fdl(message, &out));
        _ntoh_data_fdl(message, message.data(), message.data());
    }
}

// A struct behind a control record comes in as field data that begins at once, though it left as a struct.
TEST_F(FieldWire, StructBehindAControlRecordIsReadAsFieldsFromItsStart)
{
    fb::bytes fields = fb::all_types();
    Message message(BUF_RQ_STRUCT, fields.wire);
    EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), message.data());
    EXPECT_TRUE(fb::same_host(message.text(fields.host.size()), fields));
}

// ---- what can't be turned

TEST_F(FieldWire, EntryOfAnotherTypeDoesntLeave)
{
    int lines = 0;
    for (uint32_t type : wrong_types()) {
        SCOPED_TRACE(type);
        fb::bytes fields;
        fields.add<int32_t>(fb::INT, 1, 1).add_raw(type << 26 | 5, 7).add_string(2, "behind");
        Message message(BUF_FIELD, fields.host, 1032);
        int length = 0;
        EXPECT_EQ(_hton_data_fdl(message, &length), nullptr);
        EXPECT_TRUE(log.has("(E) CLI 0209 internal error : type error: " + told(type) + " [CSC6405]\n"))
            << log.text();
        EXPECT_EQ(log.lines(), ++lines);
        EXPECT_EQ(message.text(fields.host.size()), fields.host);
    }
}

TEST_F(FieldWire, EntryOfAnotherTypeDoesntComeIn)
{
    int lines = 0;
    for (uint32_t type : wrong_types()) {
        SCOPED_TRACE(type);
        fb::bytes fields;
        fields.add<int32_t>(fb::INT, 1, 1).add_raw(type << 26 | 5, 7).add_string(2, "behind");
        Message message(BUF_FIELD, fields.wire);
        std::string beside(fields.wire.size(), '\xEE');
        EXPECT_EQ(_ntoh_data_fdl(message, message.data(), &beside[0]), nullptr);
        EXPECT_TRUE(log.has("(E) CLI 0209 internal error : type error: " + told(type) + " [CSC6406]\n"))
            << log.text();
        EXPECT_EQ(log.lines(), ++lines);
        EXPECT_EQ(_ntoh_data_fdl(message, message.data(), message.data()), nullptr);
        lines++;
    }
}

TEST_F(FieldWire, WithoutMemoryNothingLeaves)
{
    Message message(BUF_FIELD, fb::all_types().host);
    int length = 0;
    faults::fail_allocation(1);
    char *block = _hton_data_fdl(message, &length);
    faults::disarm_allocations();
    EXPECT_EQ(block, nullptr);
    EXPECT_TRUE(log.has("0003 memory allocation error : size = ")) << log.text();
    EXPECT_TRUE(log.has("[CSC6404]")) << log.text();
    EXPECT_EQ(log.lines(), 1);
}

TEST_F(FieldWire, EncodingTakesOneBlockAndDecodingNone)
{
    Message message(BUF_FIELD, fb::all_types().host);
    encode(message);  // makes the context
    faults::arm_allocations();
    std::string wire = encode(message);
    EXPECT_EQ(faults::count(faults::ALLOCATE), 1);
    Message in(BUF_FIELD, wire);
    int before = faults::count(faults::ALLOCATE);
    _ntoh_data_fdl(in, in.data(), in.data());
    EXPECT_EQ(faults::count(faults::ALLOCATE), before);
    faults::disarm_allocations();
}

// ---- lies

namespace {

// Turns the data both ways in blocks that end with it. Nothing outside may be touched; whether it fails is
// given back for each way.
struct both_ways {
    bool out = false, in = false;

    both_ways(const std::string &host, const std::string &wire)
    {
        Message message(BUF_FIELD, host);
        int length = 0;
        char *block = _hton_data_fdl(message, &length);
        out = block != nullptr;
        if (out) {
            EXPECT_GE(length, 0);
            EXPECT_LE((size_t)length, host.size());
        }
        free(block);
        Message here(BUF_FIELD, wire);
        in = _ntoh_data_fdl(here, here.data(), here.data()) != nullptr;
        Message there(BUF_FIELD, wire);
        std::vector<char> beside(wire.size());
        EXPECT_EQ(_ntoh_data_fdl(there, there.data(), beside.data()) != nullptr, in);
    }
};

}  // namespace

TEST_F(FieldWire, UsedLengthThatLiesIsRefusedOrHarmless)
{
    fb::bytes fields = fb::all_types();
    const int32_t whole = fields.used();
    for (int32_t used : {0, 1, 4, 7, -1, -8, INT_MIN, INT_MIN + 8, whole + 1, whole + 8, whole + 1024, 65536,
                         INT_MAX, INT_MAX - 7, INT_MAX - 200, INT_MAX - 336}) {
        SCOPED_TRACE(used);
        fields.set_used(used);
        both_ways result(fields.host, fields.wire);
        EXPECT_FALSE(result.in);
        EXPECT_FALSE(result.out);
    }
    for (int32_t used = 8; used <= whole; used++) {
        SCOPED_TRACE(used);
        fields.set_used(used);
        both_ways(fields.host, fields.wire);
    }
}

TEST_F(FieldWire, DataThatIsCutIsNeverReadBeyond)
{
    fb::bytes fields = fb::all_types();
    for (size_t length = 1; length < fields.wire.size(); length++) {
        SCOPED_TRACE(length);
        both_ways result(fields.host.substr(0, length), fields.wire.substr(0, length));
        EXPECT_FALSE(result.in);
        EXPECT_FALSE(result.out);
    }
}

TEST_F(FieldWire, LastEntryThatRunsPastTheEndIsRefused)
{
    // The entry alone, cut after its first words; the used length tells of what is there.
    fb::bytes number, text, array;
    number.add<double>(fb::DOUBLE, 1, 1.0);
    text.add_string(1, "0123456789abcdef");
    array.add_carray(1, "0123456789abcdef");
    for (fb::bytes *one : {&number, &text, &array})
        for (int32_t used = 16; used < one->used(); used += 8) {
            SCOPED_TRACE(used);
            fb::bytes cut = *one;
            cut.host.resize((size_t)used);
            cut.wire.resize((size_t)used);
            cut.set_used(used);
            both_ways result(cut.host, cut.wire);
            EXPECT_FALSE(result.in);
            EXPECT_FALSE(result.out);
        }
}

TEST_F(FieldWire, HalfAnEntryAtTheEndIsRefused)
{
    for (size_t odd = 1; odd < 8; odd++) {
        SCOPED_TRACE(odd);
        fb::bytes fields;
        fields.add<int32_t>(fb::INT, 1, 5);
        std::string part = fields.host.substr(8, odd), wire_part = fields.wire.substr(8, odd);
        fields.host += part;
        fields.wire += wire_part;
        fields.set_used((int32_t)fields.host.size());
        both_ways result(fields.host, fields.wire);
        EXPECT_FALSE(result.in);
        EXPECT_FALSE(result.out);
    }
}

TEST_F(FieldWire, StringWithoutAnEndIsRefused)
{
    for (size_t length : {4, 12, 20, 100}) {
        SCOPED_TRACE(length);
        fb::bytes fields;
        fields.add_string(1, std::string(length - 1, 's'));
        ASSERT_EQ(fields.host.size(), 12 + length);
        fields.host.back() = fields.wire.back() = 's';
        both_ways result(fields.host, fields.wire);
        EXPECT_FALSE(result.in);
        EXPECT_FALSE(result.out);
        // A NUL that follows behind the used length, in the buffer still, isn't the string's.
        both_ways more(fields.host + std::string(8, '\0'), fields.wire + std::string(8, '\0'));
        EXPECT_FALSE(more.in);
        EXPECT_FALSE(more.out);
    }
}

TEST_F(FieldWire, ArrayLengthThatLiesIsRefused)
{
    for (int32_t length : {-1, -4, -8, -9, -12, INT_MIN, INT_MIN + 7, INT_MAX, INT_MAX - 7, INT_MAX - 8,
                           INT_MAX - 15, 17, 24, 1 << 20}) {
        SCOPED_TRACE(length);
        fb::bytes fields;
        fields.add_carray(1, "0123456789abcdef");
        fields.host.replace(12, 4, fb::little(length));
        fields.wire.replace(12, 4, fb::big(length));
        both_ways result(fields.host, fields.wire);
        EXPECT_FALSE(result.in);
        EXPECT_FALSE(result.out);
        fields.add_string(2, "more").set_used(fields.used());
        both_ways(fields.host, fields.wire);
    }
}

TEST_F(FieldWire, NegativeDataLengthDoesNoHarm)
{
    for (int32_t datalen : {-1, -8, -136, -168, INT_MIN}) {
        SCOPED_TRACE(datalen);
        for (int32_t kind : {BUF_FIELD, BUF_RQ_FIELD}) {
            Message message(kind, fb::bytes().host, 200);
            message->datalen = datalen;
            int length = 0;
            free(_hton_data_fdl(message, &length));
            _ntoh_data_fdl(message, message.data(), message.data());
        }
    }
}

// What a decoder takes, an encoder gives back; what it refuses, it refuses without harm. From a fixed seed.
TEST_F(FieldWire, BytesChangedAtRandomAreRefusedOrComeBack)
{
    const fb::bytes good = fb::all_types();
    uint32_t seed = 4711;
    auto random = [&seed] { return seed = seed * 1664525 + 1013904223, seed >> 8; };
    int taken = 0;
    setenv("VORN_ERR_MSG", "N", 1);
    for (int round = 0; round < 20000; round++) {
        std::string wire = good.wire;
        for (uint32_t changes = 1 + random() % 4; changes > 0; changes--)
            wire[4 + random() % (wire.size() - 4)] = (char)random();
        Message message(BUF_FIELD, wire);
        if (_ntoh_data_fdl(message, message.data(), message.data()) == nullptr)
            continue;
        taken++;
        int length = 0;
        char *block = _hton_data_fdl(message, &length);
        ASSERT_NE(block, nullptr);
        Encoded encoded(block, length);
        ASSERT_EQ((uint32_t)length, wire::word_at(wire, 4));
        Message again(BUF_FIELD, encoded.data());
        ASSERT_NE(_ntoh_data_fdl(again, again.data(), again.data()), nullptr);
    }
    EXPECT_GT(taken, 1000);
}
