// Messages that are turned as a whole, as buffers: their room is what their header tells, and nothing of the heap
// shows in them.
#include "buffers/convert.h"
#include "buffers/dencode.h"
#include "buffers/structs.h"
#include "support/gtest.h"
#include "vorn/buffers.h"
#include "vorn/fields.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>
#include <string>

namespace {

constexpr int TEXT = FB_STRING * 0x4000000 + 1, NUMBER = FB_INT * 0x4000000 + 2;

msg_header *field_message()
{
    FBUF *fields = fballoc(10, 100);
    EXPECT_NE(fields, nullptr);
    EXPECT_EQ(fbput(fields, TEXT, (char *)"some text", 0), 1);
    msg_header *message = message_of((char *)fields);
    message->datalen = (int32_t)fbget_used(fields);
    return message;
}

}  // namespace

TEST(WholeMessage, TurnedThereAndBackIsABufferToFill)
{
    msg_header *message = field_message();
    message = _vorn_encode_odata(message);
    ASSERT_NE(message, nullptr);
    message = _vorn_decode_idata(message);
    ASSERT_NE(message, nullptr);
    FBUF *fields = (FBUF *)message_data(message);
    long room = fbget_unused(fields);
    EXPECT_EQ(room, fbget_fbsize(fields) - fbget_used(fields));
    int number = 7;
    for (long put = 0; put < room / 8; put++)
        ASSERT_EQ(fbput(fields, NUMBER, (char *)&number, 0), 1);
    EXPECT_EQ(fbput(fields, NUMBER, (char *)&number, 0), -1);
    EXPECT_EQ(fbkeyoccur(fields, NUMBER), room / 8);
    EXPECT_STREQ(fbgetvals_tu(fields, TEXT, 0), "some text");
    free(message);
}

TEST(WholeMessage, WithNegativeLengthsIsRefused)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    char *data = tpalloc((char *)"STRUCT", (char *)"person", 0);
    ASSERT_NE(data, nullptr);
    msg_header *message = message_of(data);
    int32_t bufsize = message->bufsize;
    message->datalen = -1200;
    message->bufsize = -150;
    EXPECT_EQ(_vorn_decode_idata(message), nullptr);
    message->bufsize = bufsize;
    tpfree(data);
}

TEST(WholeMessage, ReceivedRecordsHaveZerosBetweenTheirMembers)
{
    ASSERT_EQ(load_structs(definitions()), 1);
    char *data = tpalloc((char *)"STRUCT", (char *)"person", 0);
    ASSERT_NE(data, nullptr);
    person_record person = sample_person();
    memcpy(data, &person, sizeof person);
    char *wire = nullptr, *back = nullptr;
    long wire_length = 0, length = 0;
    ASSERT_EQ(tphton(data, sizeof person, &wire, &wire_length), 1);
    // The heap gives the next block of a size back as it was left.
    for (size_t size = 64; size <= 2048; size += 16) {
        char *dirt = (char *)malloc(size);
        memset(dirt, 0x5a, size);
        free(dirt);
    }
    ASSERT_EQ(tpntoh(wire, wire_length, &back, &length), 1);
    ASSERT_EQ(length, (long)sizeof(person_record));
    for (size_t gap = 1; gap < offsetof(person_record, numbers); gap++)
        EXPECT_EQ(back[gap], 0) << gap;
    size_t behind_key = offsetof(person_record, key) + sizeof person.key;
    for (size_t gap = behind_key; gap < offsetof(person_record, items); gap++)
        EXPECT_EQ(back[gap], 0) << gap;
    tpfree(back);
    free(wire);
    tpfree(data);
}

// A message whose maker has told no size of its block.
TEST(WholeMessage, IsEncodedByTheLengthOfItsData)
{
    msg_header *message = field_message();
    int32_t bufsize = message->bufsize;
    message->bufsize = 0;
    int length = 0;
    char *block = _hton_data_fdl(message, &length);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(length, message->datalen);
    free(block);
    message->bufsize = bufsize;
    tpfree(message_data(message));
}

TEST(WholeMessage, MayBearATrailersMarkWithoutATrailer)
{
    msg_header *message = field_message();
    int length = 0;
    char *block = _hton_data_fdl(message, &length);
    ASSERT_NE(block, nullptr);
    msg_header *wire = (msg_header *)block;
    memcpy(wire, message, sizeof *wire);
    wire->xflags |= XFLAG_TRAILER | 8;
    wire->datalen = length;
    char *data = message_data(wire);
    ASSERT_EQ(_ntoh_data_fdl(wire, data, data), data);
    EXPECT_STREQ(fbgetvals_tu((FBUF *)data, TEXT, 0), "some text");
    free(block);
    tpfree(message_data(message));
}

// There is no field data on the wire, yet the result is a buffer to use.
TEST(WholeMessage, FieldMessageWithoutDataComesBackAsAnEmptyFieldBuffer)
{
    msg_header header = {};
    _init_header(&header);
    header.buftype = BUF_FIELD;
    for (int32_t bufsize : {0, 4, 8, 2000}) {
        header.bufsize = bufsize;
        char wire[HEADER_SIZE];
        memcpy(wire, &header, sizeof wire);
        _hton_header((msg_header *)wire, (msg_header *)wire);
        char *dirt = (char *)malloc(4096);
        memset(dirt, 0x77, 4096);
        free(dirt);
        char *back = nullptr;
        long length = -1;
        ASSERT_EQ(tpntoh(wire, sizeof wire, &back, &length), 1);
        EXPECT_EQ(length, 0);
        FBUF *fields = (FBUF *)back;
        EXPECT_EQ(fbisfbuf(fields), 1);
        EXPECT_EQ(fbfldcount(fields), 0);
        EXPECT_GE(fbget_fbsize(fields), fbget_used(fields));
        tpfree(back);
    }
}
