// The queue control record: turned to wire order, in front of each kind of data, and tpreissue.
#include "queue/rqctl.h"

#include "queue/fixture.h"
#include "support/fieldbuffer.h"
#include "support/sdlfile.h"
#include "vorn/fields.h"

#include <stdlib.h>
#include <string.h>

namespace {

// A message whose block ends with the record, or with what stands behind it. The header is full of 0x77.
struct Queued {
    msg_header *message;
    size_t length;

    explicit Queued(const std::string &data) : length(data.size())
    {
        message = (msg_header *)malloc(HEADER_SIZE + length);
        memset((void *)message, 0x77, HEADER_SIZE);
        message->datalen = (int32_t)length;
        memcpy(message_data(message), data.data(), length);
    }
    Queued(const Queued &) = delete;
    Queued &operator=(const Queued &) = delete;
    ~Queued() { free(message); }
    std::string data() const { return std::string(message_data(message), length); }
};

std::string counting(size_t length, unsigned first)
{
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; i++)
        bytes[i] = (char)(first + i);
    return bytes;
}

}  // namespace

TEST(QueueControl, WordsAreReversedAndTheRestStays)
{
    _endian = 2;
    for (unsigned first : {0u, 0x80u, 0x33u}) {
        SCOPED_TRACE(first);
        std::string record = counting(168, first), wanted = record;
        for (size_t word : {0, 4, 8, 12, 144, 148, 152, 156, 160})
            std::swap(wanted[word], wanted[word + 3]), std::swap(wanted[word + 1], wanted[word + 2]);
        for (size_t slot : {112, 120, 128, 136}) {
            std::swap(wanted[slot], wanted[slot + 3]), std::swap(wanted[slot + 1], wanted[slot + 2]);
            wanted.replace(slot + 4, 4, 4, '\0');
        }
        Queued queued(record);
        _hton_data_rqctl(queued.message);
        std::string turned = queued.data();
        for (size_t i = 0; i < record.size(); i++)
            EXPECT_EQ(turned[i], wanted[i]) << "byte " << i;
    }
}

TEST(QueueControl, RecordAsItTravels)
{
    _endian = 2;
    unsigned char record[168] = {};
    const int64_t times[] = {0x1122334455667788, -1, 0, 0x80};
    const int32_t words[] = {1, -2, 0x01020304, 256};
    memcpy(record, words, 16);
    memcpy(record + 16, "queue", 6);
    memcpy(record + 112, times, 32);
    memcpy(record + 144, words, 16);
    memcpy(record + 160, words + 2, 4);
    memcpy(record + 164, words + 2, 4);
    const unsigned char wire[168 - 112] = {
        0x55, 0x66, 0x77, 0x88, 0, 0, 0, 0,  // the low half, and nothing
        0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0,  // no sign goes along
        0,    0,    0,    0,    0, 0, 0, 0,  //
        0,    0,    0,    0x80, 0, 0, 0, 0,  //
        0,    0,    0,    1,                 // 144
        0xff, 0xff, 0xff, 0xfe,              // 148
        1,    2,    3,    4,                 // 152
        0,    0,    1,    0,                 // 156
        1,    2,    3,    4,                 // 160
        4,    3,    2,    1,                 // 164, as it stood
    };
    Queued queued(std::string((const char *)record, sizeof record));
    _hton_data_rqctl(queued.message);
    EXPECT_EQ(queued.data().substr(112), std::string((const char *)wire, sizeof wire));
    EXPECT_EQ(queued.data().substr(0, 4), std::string("\0\0\0\1", 4));
    EXPECT_EQ(queued.data().substr(4, 4), "\xff\xff\xff\xfe");
    EXPECT_EQ(queued.data().substr(16, 5), "queue");
}

TEST(QueueControl, HeaderAndDataBehindStay)
{
    _endian = 2;
    std::string data = std::string(168, 'r') + counting(100, 0);
    Queued queued(data);
    std::string header((const char *)queued.message, HEADER_SIZE);
    _hton_data_rqctl(queued.message);
    EXPECT_EQ(std::string((const char *)queued.message, HEADER_SIZE), header);
    EXPECT_EQ(queued.data().substr(168), data.substr(168));
}

TEST(QueueControl, HostOfTheWiresOrderTurnsNothing)
{
    std::string record = counting(168, 3);
    _endian = 1;
    Queued stays(record);
    _hton_data_rqctl(stays.message);
    EXPECT_EQ(stays.data(), record);
    _endian = 0;
    Queued turns(record);
    _hton_data_rqctl(turns.message);
    EXPECT_NE(turns.data(), record);
}

// ---- the calls

namespace {

// A record in which every byte is of its own, and its image on the wire, made from the layout alone.
RQCTL_T some_record(void)
{
    RQCTL_T record;
    for (size_t i = 0; i < sizeof record; i++)
        ((unsigned char *)&record)[i] = (unsigned char)(0x50 + i);
    record.counts[0] = 0x112233445566;
    record.counts[1] = -2;
    record.counts[2] = INT64_MIN;
    record.head[0] = -1;
    return record;
}

std::string image_of(const RQCTL_T &record)
{
    std::string image;
    for (int32_t word : record.head)
        image += wire::word((uint32_t)word);
    image.append(record.text, sizeof record.text);
    for (int64_t count : record.counts)
        image += wire::word((uint32_t)count) + std::string(4, '\0');
    for (int32_t word : record.tail)
        image += wire::word((uint32_t)word);
    image.append(record.filler, sizeof record.filler);
    EXPECT_EQ(image.size(), 168u);
    return image;
}

struct WithRecord : QueueTest {
    RQCTL_T record = some_record();
    wire::frame seen;

    // One enqueue of these data behind the record; what the server sees is in `seen`.
    int enqueue(char *data, long length, RQCTL_T *ctl, long flags = 0, const char *service = "WORK")
    {
        peer.play([&] {
            seen = peer.expect(wire::TPENQ).frame;
            peer.reply("", {.rcode = 6});
        });
        int result = tpenq_ctl(svc("SECOND"), svc(service), ctl, data, length, flags);
        peer.done();
        return result;
    }
    wire::frame text_frame(const std::string &data)
    {
        wire::frame m = wire::message(wire::TPENQ, data, {.bufsize = 1024, .cd = SECOND});
        m.svcname = "WORK";
        m.xflags = ROOM_FOR_TRAILER;
        return m;
    }
};

}  // namespace

TEST_F(WithRecord, TextTravelsBehindIt)
{
    ASSERT_TRUE(start_queues());
    const RQCTL_T before = record;
    EXPECT_EQ(enqueue(in, 0, &record), 6);
    wire::frame wanted = text_frame(image_of(record) + std::string("hello\0", 6));
    wanted.target = INT32_MIN;
    EXPECT_EQ(wire::fields_of(seen), wire::fields_of(wanted));
    EXPECT_EQ(seen.data.substr(112, 8), std::string("\x33\x44\x55\x66\0\0\0\0", 8));
    EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
    EXPECT_STREQ(in, "hello");
    EXPECT_EQ(message_of(in)->target, 0);
    EXPECT_EQ(message_of(in)->datalen, 6);
    EXPECT_EQ(message_of(in)->buftype, BUF_STRING);
    EXPECT_EQ(pending(), 1);
    expect_idle();
}

TEST_F(WithRecord, WithoutItTheMessageIsPlain)
{
    ASSERT_TRUE(start_queues());
    EXPECT_EQ(enqueue(in, 0, nullptr), 6);
    EXPECT_EQ(wire::fields_of(seen), wire::fields_of(text_frame(std::string("hello\0", 6))));
    EXPECT_EQ(seen.seqno, block()->seqno);
}

TEST_F(WithRecord, BytesOfABufferThatIsFull)
{
    ASSERT_TRUE(start_queues());
    const std::string bytes = counting(3000, 1);
    char *data = new_buffer("CARRAY", bytes, 3000);
    EXPECT_EQ(enqueue(data, 3000, &record), 6);
    EXPECT_EQ(seen.buftype, wire::CARRAY);
    EXPECT_EQ(seen.bufsize, 3000);
    EXPECT_EQ(seen.data, image_of(record) + bytes);
    EXPECT_EQ(enqueue(data, 3000, nullptr), 6);
    EXPECT_EQ(seen.data, bytes);
    EXPECT_EQ(enqueue(data, 0, &record), 6);
    EXPECT_EQ(seen.datalen, 168);
    EXPECT_EQ(seen.data, image_of(record));
    tpfree(data);
}

TEST_F(WithRecord, FieldsAreTurnedBehindIt)
{
    ASSERT_TRUE(start_queues());
    char *data = tpalloc(svc("FIELD"), nullptr, 1000);
    ASSERT_NE(data, nullptr);
    int32_t number = 0x01020304;
    ASSERT_EQ(fbput((FBUF *)data, fld::key(fld::INT, 5), (char *)&number, 0), 1);
    const std::string fields = wire::word(8888) + wire::word(16) +
                               wire::word((uint32_t)fld::key(fld::INT, 5)) + wire::word(0x01020304);
    EXPECT_EQ(enqueue(data, 0, &record), 6);
    EXPECT_EQ(seen.buftype, 12);
    EXPECT_EQ(seen.target, INT32_MIN);
    EXPECT_EQ(seen.data, image_of(record) + fields);
    EXPECT_EQ(message_of(data)->buftype, BUF_FIELD);
    EXPECT_EQ(fbget_used((FBUF *)data), 16);
    EXPECT_EQ(enqueue(data, 0, nullptr), 6);
    EXPECT_EQ(seen.buftype, wire::FIELD);
    EXPECT_EQ(seen.target, 0);
    EXPECT_EQ(seen.data, fields);
    tpfree(data);
}

TEST_F(WithRecord, FieldsThatFillTheirBuffer)
{
    ASSERT_TRUE(start_queues());
    char *data = tpalloc(svc("FIELD"), nullptr, 1000);
    int32_t number = 7, count = 0;
    while (fbput((FBUF *)data, fld::key(fld::INT, 5), (char *)&number, 0) == 1)
        count++;
    EXPECT_GE(count, 100);
    EXPECT_EQ(enqueue(data, 0, &record), 6);
    EXPECT_EQ(seen.datalen, 168 + 8 + 8 * count);
    EXPECT_EQ(seen.data.substr(0, 168), image_of(record));
    EXPECT_EQ(seen.data.substr(seen.data.size() - 4), wire::word(7));
    tpfree(data);
}

// As many bytes leave as the same length of plain records takes on the wire.
TEST_F(WithRecord, RecordsAreTurnedBehindIt)
{
    sdl::member word, half, whole;
    word.name = "word", word.type = sdl::INT;
    half.name = "half", half.type = sdl::INT, half.host_offset = 4, half.wire_offset = 4;
    whole.name = "whole", whole.type = sdl::LONG;
    std::string path =
        write_definition(sdl::file_bytes({{"pair", {word, half}, 8, 8, 0}, {"tall", {whole}, 8, 4, 0}}));
    setenv("SDLFILE64", path.c_str(), 1);
    ASSERT_TRUE(start_queues());
    const int32_t words[] = {0x01020304, -2};
    const std::string pair((const char *)words, sizeof words);
    const std::string turned = wire::word(0x01020304) + wire::word(0xfffffffe);
    char *data = tpalloc(svc("STRUCT"), svc("pair"), 24);
    ASSERT_NE(data, nullptr);
    for (int count : {1, 3}) {
        std::string behind;
        for (int i = 0; i < count; i++) {
            memcpy(data + 8 * i, pair.data(), 8);
            behind += turned;
        }
        EXPECT_EQ(enqueue(data, 8 * count, &record), 6);
        EXPECT_EQ(seen.buftype, 11);
        EXPECT_EQ(seen.subtype, "pair");
        EXPECT_EQ(seen.target, INT32_MIN);
        EXPECT_EQ(seen.datalen, (168 + 8 * count) / 8 * 8);
        EXPECT_EQ(seen.data, image_of(record) + behind);
    }
    EXPECT_EQ(std::string(data, 8), pair);
    EXPECT_EQ(message_of(data)->buftype, BUF_STRUCT);
    tpfree(data);
    data = tpalloc(svc("STRUCT"), svc("tall"), 800);
    ASSERT_NE(data, nullptr);
    memset(data, 0x21, 800);
    EXPECT_EQ(enqueue(data, 800, &record), 6);
    EXPECT_EQ(seen.datalen, (168 + 800) / 8 * 4);
    EXPECT_EQ(seen.data.substr(0, 168), image_of(record));
    EXPECT_EQ(seen.data.substr(168), std::string(seen.data.size() - 168, 0x21));
    EXPECT_EQ(enqueue(data, 8, &record), 6);
    EXPECT_EQ(seen.datalen, (168 + 8) / 8 * 4);
    EXPECT_EQ(seen.data, image_of(record).substr(0, seen.data.size()));
    tpfree(data);
}

TEST_F(WithRecord, NameOfTheServiceMayStayThatOfTheBuffer)
{
    ASSERT_TRUE(start_queues());
    EXPECT_EQ(enqueue(in, 0, &record, 0, "FIRST.OF.ALL"), 6);
    EXPECT_EQ(enqueue(in, 0, &record, 0, nullptr), 6);
    EXPECT_EQ(seen.svcname, "FIRST.OF.ALL");
    EXPECT_EQ(enqueue(in, 0, &record, 0, ""), 6);
    EXPECT_EQ(seen.svcname, "");
    EXPECT_EQ(enqueue(in, 0, &record, 0, std::string(40, 's').c_str()), 6);
    EXPECT_EQ(seen.svcname, std::string(31, 's'));
}

TEST_F(WithRecord, FlagsTravelAsGiven)
{
    ASSERT_TRUE(start_queues());
    int due = 0;
    for (long flags : {0L, (long)TPNOBLOCK, (long)TPSIGRSTRT, (long)TPNOREPLY, (long)TPNOTRAN, (long)TPNOTIME,
                       (long)TPRQDIRECT, TO_SERVICE, 0xC02FL}) {
        SCOPED_TRACE(flags);
        EXPECT_EQ(enqueue(in, 0, &record, flags), 6);
        EXPECT_EQ(seen.flags, (uint32_t)flags);
        due += (flags & (TPNOREPLY | TPRQDIRECT)) == 0;
        EXPECT_EQ(pending(), due);
    }
    for (int bit = 0; bit < 64; bit++)
        if ((0xC02Ful >> bit & 1) == 0)
            expect_refused(enq_ctl((long)(1ul << bit), &record), TPEINVAL);
}

TEST_F(WithRecord, RefusalsInTheirOrder)
{
    ASSERT_TRUE(start_queues());
    alignas(8) char plain[400] = {};
    char *bare = plain + 200, *none = nullptr;
    auto refused = [&](const char *queue, char *data, long length, long flags, int error) {
        expect_refused(tpenq_ctl(svc(queue), svc("S"), &record, data, length, flags), error);
    };
    refused(nullptr, nullptr, 0, TPBLOCK, TPEINVAL);
    refused("SECOND", bare, 0, TPBLOCK, TPEINVAL);  // flags before the buffer
    refused(nullptr, bare, 0, 0, TPEINVAL);         // arguments before the buffer
    refused("SECOND", nullptr, 0, 0, TPEINVAL);
    refused("NONE", bare, 0, 0, TPEITYPE);  // the buffer before the queue
    refused("NONE", in, 2000, 0, TPEINVAL);
    refused("NONE", in, 0, 0, TPENOENT);
    auto deq_refused = [&](const char *queue, char **data, long *length, long flags, int error) {
        expect_refused(tpdeq_ctl(svc(queue), nullptr, &record, data, length, flags), error);
    };
    for (long flags : {0L, (long)TPRQDIRECT, (long)TPNOREPLY}) {
        deq_refused("SECOND", nullptr, &len, flags, TPEINVAL);
        deq_refused("SECOND", &none, &len, flags, TPEINVAL);
        deq_refused("SECOND", &out, nullptr, flags, TPEINVAL);
    }
    deq_refused("SECOND", &bare, &len, TPNOREPLY, TPEINVAL);  // flags before the buffer
    deq_refused(nullptr, &bare, &len, TPRQDIRECT, TPEINVAL);  // the name before the buffer
    deq_refused("NONE", &bare, &len, TPRQDIRECT, TPEOTYPE);   // the buffer before the queue
    deq_refused("NONE", &out, &len, TPRQDIRECT, TPENOENT);
    deq_refused("NONE", &bare, &len, 0, TPEOTYPE);
    deq_refused("NONE", &out, &len, 0, TPENOENT);
    deq_refused(nullptr, &out, &len, 0, TPENOENT);
    deq_refused("SECOND", &out, &len, 0, TPEINVAL);  // none is due
}

TEST_F(WithRecord, RefusalTellsItsErrorInEitherPlace)
{
    ASSERT_TRUE(start_queues());
    for (auto [rcode, flags, error] :
         {std::tuple(TPEQFULL, 0, TPEQFULL), std::tuple(0, TPEQPURGE, TPEQPURGE), std::tuple(0, 0, 0)}) {
        peer.play([&, rcode = rcode, flags = flags] {
            peer.expect(wire::TPENQ);
            peer.reply("", {.msgtype = 2017, .rcode = rcode, .flags = (uint32_t)flags});
        });
        EXPECT_EQ(enq_ctl(0, &record), -1);
        EXPECT_EQ(gettperrno(), error);
        peer.done();
    }
    EXPECT_EQ(pending(), 0);
}

TEST_F(WithRecord, OpensASession)
{
    peer.play([&] {
        accept_queues();
        peer.expect(wire::TPENQ).cd(SECOND);
        peer.reply("", {.rcode = 3});
    });
    EXPECT_EQ(enq_ctl(0, &record), 3);
}

TEST_F(WithRecord, DequeueLooksAtNoRecord)
{
    ASSERT_TRUE(start_queues());
    const RQCTL_T before = record;
    peer.play([&] {
        peer.expect(wire::TPDEQ).header_only().svcname(".RQ_FAIL").flags(TPRQDIRECT).cd(SECOND);
        EXPECT_EQ(peer.last.target, 0);
        peer.reply("MESSAGE", {.target = INT32_MIN});
    });
    EXPECT_EQ(tpdeq_ctl(svc("SECOND"), tpsubqname(1), &record, &out, &len, TPRQDIRECT), 1);
    EXPECT_EQ(reply_data(), "MESSAGE");
    EXPECT_EQ(memcmp(&record, &before, sizeof record), 0);
}

TEST_F(WithRecord, LongMessagesAreCompressedWithIt)
{
    wire::start_reply reply;
    reply.threshold = 200;
    ASSERT_TRUE(start_queues(reply));
    char *data = new_buffer("CARRAY", std::string(1000, 'c'));
    EXPECT_EQ(enqueue(data, 31, &record), 6);
    EXPECT_FALSE(seen.compressed);
    EXPECT_EQ(enqueue(data, 32, &record), 6);
    EXPECT_TRUE(seen.compressed);
    EXPECT_EQ(seen.data, image_of(record) + std::string(32, 'c'));
    tpfree(data);
}

// ---- running requests again

TEST_F(WithRecord, ReissueAsItTravels)
{
    ASSERT_TRUE(start_queues());
    peer.play([&] {
        wire::frame wanted = wire::message(wire::TPREISSUE, "", {.cd = SECOND});
        wanted.xflags = ROOM_FOR_TRAILER;
        seen = peer.expect(wire::TPREISSUE).header_only().frame;
        EXPECT_EQ(wire::fields_of(seen), wire::fields_of(wanted));
        peer.reply("", {.rcode = 12});
    });
    int before = block()->seqno;
    EXPECT_EQ(tpreissue(svc("SECOND"), nullptr, 0), 12);
    peer.done();
    EXPECT_EQ(seen.seqno, before + 1);
    EXPECT_EQ(gettperrno(), 0);
    expect_idle();
}

TEST_F(WithRecord, ReissueRefusalsInTheirOrder)
{
    ASSERT_TRUE(start_queues());
    for (long flags : {1L, (long)TPNOTRAN, -1L, 1L << 40})
        expect_refused(tpreissue(svc("SECOND"), nullptr, flags), TPEINVAL);
    expect_refused(tpreissue(nullptr, nullptr, 0), TPEINVAL);
    expect_refused(tpreissue(svc("SECOND"), svc("WORK"), 0), TPEINVAL);
    expect_refused(tpreissue(svc("SECOND"), svc(""), 0), TPEINVAL);
    expect_refused(tpreissue(svc("NONE"), svc("WORK"), 0), TPEINVAL);
    expect_refused(tpreissue(svc("NONE"), nullptr, 0), TPENOENT);
}

TEST_F(WithRecord, ReissueThatFails)
{
    ASSERT_TRUE(start_queues());
    for (auto [rcode, flags, error] : {std::tuple(TPEOS, 0, TPEOS), std::tuple(0, TPENOENT, TPENOENT),
                                       std::tuple(TPEOS, TPENOENT, TPEOS)}) {
        peer.play([&, rcode = rcode, flags = flags] {
            peer.expect(wire::TPREISSUE);
            peer.reply("", {.msgtype = 2030, .rcode = rcode, .flags = (uint32_t)flags});
        });
        EXPECT_EQ(tpreissue(svc("SECOND"), nullptr, 0), -1);
        EXPECT_EQ(gettperrno(), error);
        peer.done();
    }
    peer.play([&] {
        peer.expect(wire::TPREISSUE);
        peer.hang_up();
    });
    EXPECT_EQ(tpreissue(svc("SECOND"), nullptr, 0), -1);
    EXPECT_EQ(gettperrno(), TPECLOSE);
}

TEST_F(WithRecord, ReissueWaitsWithoutALimit)
{
    ASSERT_TRUE(start_limited(1));
    peer.play([&] {
        peer.expect(wire::TPREISSUE);
        wire::frame request = peer.last;
        for (int i = 0; i < 3; i++) {
            faults::shift_clock(1000);
            peer.send(wire::message(1012));
        }
        peer.send(answer_of(SECOND, "of a request"));
        peer.reply_to(request, "", {.rcode = 0});
    });
    EXPECT_EQ(tpreissue(svc("SECOND"), nullptr, 0), 0);
    EXPECT_EQ(stored_for(SECOND), 1);
}

TEST_F(WithRecord, ReissueOpensASession)
{
    peer.play([&] {
        accept_queues();
        peer.expect(wire::TPREISSUE).cd(THIRD);
        peer.reply("", {.rcode = 1});
    });
    EXPECT_EQ(tpreissue(svc("THIRD"), nullptr, 0), 1);
}

// ---- making the copy

TEST(QueueCopy, PlainAndWithARecord)
{
    _endian = 2;
    RQCTL_T record = some_record();
    Queued queued("data");
    queued.message->bufsize = 4;
    queued.message->buftype = BUF_CARRAY;
    msg_header *plain = _add_rqctl(nullptr, queued.message);
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(std::string((char *)plain, HEADER_SIZE + 4),
              std::string((char *)queued.message, HEADER_SIZE + 4));
    free(plain);
    for (auto [before, after] : {std::pair(1, 11), {2, 12}, {3, 3}, {4, 4}, {5, 5}, {9, 9}, {11, 11}}) {
        queued.message->buftype = before;
        msg_header *whole = _add_rqctl(&record, queued.message);
        ASSERT_NE(whole, nullptr);
        EXPECT_EQ(whole->buftype, after);
        EXPECT_EQ(whole->target, INT32_MIN);
        EXPECT_EQ(whole->datalen, 172);
        EXPECT_EQ(std::string(message_data(whole), 172), image_of(record) + "data");
        free(whole);
    }
}

TEST(QueueCopy, SizesThatLie)
{
    _endian = 2;
    RQCTL_T record = some_record();
    for (int32_t bufsize : {-1, INT32_MIN, 0, 3}) {
        Queued queued("data");
        queued.message->bufsize = bufsize;
        msg_header *whole = _add_rqctl(&record, queued.message);
        ASSERT_NE(whole, nullptr);
        EXPECT_EQ(std::string(message_data(whole), 172), image_of(record) + "data");
        free(whole);
    }
    Queued queued("data");
    queued.message->bufsize = INT32_MAX;
    EXPECT_EQ(_add_rqctl(&record, queued.message), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
    queued.message->bufsize = 4;
    faults::fail_allocation(1);
    set_tperrno(0);
    EXPECT_EQ(_add_rqctl(nullptr, queued.message), nullptr);
    EXPECT_EQ(get_tperrno(), TPEOS);
}
