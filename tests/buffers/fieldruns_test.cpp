// Field data of many numbers in a row, which may be turned several at a time: every length and place of a run
// must come out as single fields do. Also buffers made at random, and the lookup cache of a place that is
// written over.
#include "buffers/dencode.h"
#include "buffers/fieldbytes.h"
#include "fields/fbcommon2.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "support/fixtures.h"
#include "vorn/buffers.h"

#include <string.h>

namespace {

struct FieldRuns : testing::Test {
    LogFile log;

    FieldRuns() { _check_node(); }

    static void expect_turned(const fb::bytes &fields)
    {
        Message out(BUF_FIELD, fields.host);
        int length = 0;
        char *block = _hton_data_fdl(out, &length);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(fb::same_wire(Encoded(block, length).data(), fields));
        Message in(BUF_FIELD, fields.wire);
        std::vector<char> beside(fields.wire.size());
        ASSERT_EQ(_ntoh_data_fdl(in, in.data(), beside.data()), beside.data());
        EXPECT_TRUE(fb::same_host(std::string(beside.data(), beside.size()), fields));
        ASSERT_EQ(_ntoh_data_fdl(in, in.data(), in.data()), in.data());
        EXPECT_TRUE(fb::same_host(in.text(fields.wire.size()), fields));
    }
    static void expect_refused(const fb::bytes &fields)
    {
        Message out(BUF_FIELD, fields.host);
        int length = 0;
        EXPECT_EQ(_hton_data_fdl(out, &length), nullptr);
        Message in(BUF_FIELD, fields.wire);
        EXPECT_EQ(_ntoh_data_fdl(in, in.data(), in.data()), nullptr);
    }
};

void add_number(fb::bytes &fields, int32_t type, int32_t i)
{
    if (type == fb::DOUBLE)
        fields.add<double>(type, i, i * 1.7);
    else
        fields.add<uint32_t>(type, i, 0x01020304u * (uint32_t)(i + 1));
}

}  // namespace

TEST_F(FieldRuns, NumbersOfEachTypeInRunsOfAnyLength)
{
    for (int32_t type : {fb::INT, fb::LONG, fb::FLOAT, fb::DOUBLE})
        for (int length = 0; length < 40; length++) {
            SCOPED_TRACE(std::to_string(length) + " of type " + std::to_string(type));
            fb::bytes alone, between;
            between.add_string(1, "in front");
            for (int i = 0; i < length; i++) {
                add_number(alone, type, i);
                add_number(between, type, i);
            }
            between.add_string(2, "between").add<int16_t>(fb::SHORT, 3, 0x1234);
            for (int i = 0; i < length; i++)
                add_number(between, type, i);
            between.add_carray(4, "behind");
            expect_turned(alone);
            expect_turned(between);
        }
}

TEST_F(FieldRuns, AnotherTypeAtAnyPlaceOfARun)
{
    for (int32_t type : {fb::INT, fb::DOUBLE})
        for (int place = 0; place < 24; place++)
            for (int other = 1; other <= 8; other++) {
                SCOPED_TRACE(std::to_string(other) + " at " + std::to_string(place) + " of " +
                             std::to_string(type));
                fb::bytes fields;
                for (int i = 0; i < 24; i++) {
                    if (i != place)
                        add_number(fields, type, i);
                    else if (other == fb::STRING)
                        fields.add_string(i, "a string of some length");
                    else if (other == fb::CARRAY)
                        fields.add_carray(i, "bytes");
                    else if (other == fb::CHAR)
                        fields.add<char>(other, i, 'c');
                    else if (other == fb::SHORT)
                        fields.add<int16_t>(other, i, 0x1234);
                    else
                        add_number(fields, other, i);
                }
                expect_turned(fields);
            }
}

TEST_F(FieldRuns, MarksTravelInARun)
{
    fb::bytes fields;
    for (int i = 0; i < 32; i++)
        fields.add_raw(fb::key_of(fb::INT, i) | (i % 3 == 0 ? fb::READ_MARK : 0), (uint32_t)i);
    expect_turned(fields);
}

TEST_F(FieldRuns, WrongTypeAtAnyPlaceOfARunIsRefused)
{
    for (int32_t type : {fb::INT, fb::DOUBLE})
        for (int place = 0; place < 24; place++)
            for (uint32_t wrong : {0u, 9u, 31u, 32u, 35u, 38u, 63u}) {
                SCOPED_TRACE(std::to_string(wrong) + " at " + std::to_string(place));
                fb::bytes fields;
                for (int i = 0; i < 24; i++) {
                    if (i == place)
                        fields.add_raw(wrong << 26 | 7, 1);
                    else
                        add_number(fields, type, i);
                }
                expect_refused(fields);
            }
}

TEST_F(FieldRuns, RunThatIsCutIsRefused)
{
    fb::bytes fields;
    for (int i = 0; i < 20; i++)
        add_number(fields, fb::DOUBLE, i);
    for (int32_t used = 8; used < fields.used(); used += 8) {
        SCOPED_TRACE(used);
        fb::bytes cut = fields;
        cut.host.resize((size_t)used);
        cut.wire.resize((size_t)used);
        cut.meant.resize((size_t)used);
        cut.set_used(used);
        if (used % 16 == 8)
            expect_turned(cut);  // whole doubles
        else
            expect_refused(cut);
    }
}

TEST_F(FieldRuns, BuffersMadeAtRandom)
{
    uint32_t seed = 20240607;
    auto random = [&seed](uint32_t below) {
        seed = seed * 1664525 + 1013904223;
        return (seed >> 8) % below;
    };
    for (int round = 0; round < 1000; round++) {
        SCOPED_TRACE(round);
        fb::bytes fields;
        for (uint32_t runs = random(12); runs > 0; runs--) {
            int32_t type = 1 + (int32_t)random(8);
            for (uint32_t i = random(random(4) == 0 ? 40 : 4); i > 0; i--) {
                int32_t number = (int32_t)random(0x1000000);
                if (type == fb::CHAR)
                    fields.add<char>(type, number, (char)random(256));
                else if (type == fb::SHORT)
                    fields.add<uint16_t>(type, number, (uint16_t)random(65536));
                else if (type == fb::DOUBLE)
                    fields.add<uint64_t>(type, number, (uint64_t)random(1 << 24) << 40 | random(1 << 24));
                else if (type == fb::STRING)
                    fields.add_string(number, std::string(random(200), (char)('a' + random(26))));
                else if (type == fb::CARRAY)
                    fields.add_carray(number, std::string(random(200), (char)random(256)));
                else
                    fields.add<uint32_t>(type, number, random(1 << 24) << 8 | random(256));
            }
        }
        expect_turned(fields);
    }
}

// Positions that were found in what stood there before don't outlive it.
TEST_F(FieldRuns, DecodingForgetsWhatWasFoundInItsPlace)
{
    fb::bytes fields = fb::all_types();
    const int key = (int)fb::key_of(fb::INT, 103);
    Message message(BUF_FIELD, fields.wire);
    std::vector<char> beside(fields.wire.size());
    for (char *target : {beside.data(), message.data()}) {
        int nth = 0, offset = 0;
        ASSERT_GE(_upd_fcache((FBUF *)target, key, 2, 16), 0);
        ASSERT_GE(_srch_fcache((FBUF *)target, key, 2, &nth, &offset), 0);
        ASSERT_EQ(_ntoh_data_fdl(message, message.data(), target), target);
        EXPECT_EQ(_srch_fcache((FBUF *)target, key, 2, &nth, &offset), -1);
    }
}

// On a host of the other order doubles turn by their halves, and nothing else changes.
TEST_F(FieldRuns, DoublesFollowTheOrderOfTheHost)
{
    _endian = 1;
    fb::bytes fields, turned;
    for (int i = 0; i < 20; i++) {
        uint64_t bits = 0x0102030405060708 + (uint64_t)i, swapped = bits << 32 | bits >> 32;
        fields.add<uint64_t>(fb::DOUBLE, i, bits);
        turned.add<uint64_t>(fb::DOUBLE, i, swapped);
    }
    for (int i = 0; i < 20; i++) {
        fields.add<int32_t>(fb::INT, i, i);
        turned.add<int32_t>(fb::INT, i, i);
    }
    Message out(BUF_FIELD, fields.host);
    int length = 0;
    char *block = _hton_data_fdl(out, &length);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(fb::same_wire(Encoded(block, length).data(), turned));
    Message in(BUF_FIELD, turned.wire);
    ASSERT_EQ(_ntoh_data_fdl(in, in.data(), in.data()), in.data());
    EXPECT_TRUE(fb::same_host(in.text(fields.host.size()), fields));
}
