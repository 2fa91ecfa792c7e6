// What leaves of a typed buffer, and how a message that arrived is fitted to the caller's buffer.
#include "buffers/payload.h"

#include "buffers/tbuffer.h"
#include "runtime/mthr.h"
#include "support/faults.h"
#include "support/gtest.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/msgheader.h"

#include <limits.h>

namespace {

struct Payload : testing::Test {
    wthr_var *block = nullptr;

    void SetUp() override
    {
        unsetenv("VORN_STRING_NULL");
        block = current_block();
        ASSERT_NE(block, nullptr);
        set_tperrno(0);
    }

    char *alloc(const char *type, long size) { return tpalloc((char *)type, nullptr, size); }

    // The length that would be sent, or the error as a negative number below -1000.
    int outgoing(char *data, int len)
    {
        set_tperrno(0);
        int result = _data_itype_check(data, len, block);
        if (result >= 0) {
            EXPECT_EQ(get_tperrno(), 0);
            return result;
        }
        EXPECT_EQ(result, -1);
        return -1000 - get_tperrno();
    }
};
constexpr int REFUSED_TYPE = -1000 - TPEITYPE, REFUSED_LENGTH = -1000 - TPEINVAL;

// A received message: a plain block, header and data, without the room that a typed buffer has.
msg_header *received(int buftype, int bufsize, const std::string &data, const char *subtype = "")
{
    size_t room = (size_t)bufsize > data.size() ? (size_t)bufsize : data.size();
    msg_header *message = (msg_header *)calloc(1, sizeof(msg_header) + room);
    message->magic = MESSAGE_MAGIC;
    message->buftype = buftype;
    message->bufsize = bufsize;
    message->datalen = (int32_t)data.size();
    strncpy(message->subtype, subtype, 16);
    memcpy(message_data(message), data.data(), data.size());
    return message;
}

}  // namespace

// ---- out

TEST_F(Payload, NoDataIsNoBytes)
{
    EXPECT_EQ(outgoing(nullptr, 0), 0);
    EXPECT_EQ(outgoing(nullptr, 100), 0);
    EXPECT_EQ(outgoing(nullptr, -1), 0);
}

TEST_F(Payload, StringGoesOutWithItsTerminator)
{
    char *data = alloc("STRING", 0);
    memcpy(data, "abc\0defghijk", 13);
    const struct {
        int len, sent;
    } cases[] = {
        {0, 4},
        {1, 4},
        {3, 4},
        {4, 4},
        {5, 5},
        {10, 10},
        {-1, 4},
        {INT_MIN, 4},
        {1024, 1024},
        {1025, REFUSED_LENGTH},
        {2000, REFUSED_LENGTH},
        {INT_MAX, REFUSED_LENGTH},
    };
    for (const auto &row : cases)
        EXPECT_EQ(outgoing(data, row.len), row.sent) << row.len;
    data[0] = 0;
    EXPECT_EQ(outgoing(data, 0), 1);
    tpfree(data);
}

TEST_F(Payload, StringThatFillsItsBufferHasNoRoomForTheTerminator)
{
    char *data = alloc("STRING", 1024);
    memset(data, 'x', 1023);
    EXPECT_EQ(outgoing(data, 0), 1024);
    // Without an end inside the buffer nothing behind the buffer may be read for it.
    memset(data, 'x', 1024);
    memset(data + 1024, 'y', TRAILER_ROOM);
    EXPECT_EQ(outgoing(data, 0), REFUSED_LENGTH);
    tpfree(data);
}

TEST_F(Payload, BytesGoOutAsTheCallerSays)
{
    char *data = alloc("CARRAY", 2000);
    const struct {
        int len, sent;
    } cases[] = {
        {0, 0},
        {1, 1},
        {1999, 1999},
        {2000, 2000},
        {2001, REFUSED_LENGTH},
        {-1, REFUSED_LENGTH},
        {INT_MIN, REFUSED_LENGTH},
        {INT_MAX, REFUSED_LENGTH},
    };
    for (const auto &row : cases)
        EXPECT_EQ(outgoing(data, row.len), row.sent) << row.len;
    tpfree(data);
}

TEST_F(Payload, StartRecordsAndHeadersHaveFixedLengths)
{
    char *start = alloc("TPSTART", 0), *init = alloc("TPINIT", 500), *header = alloc("HEADER", 0);
    for (int len : {0, 1, 76, 5000, -1}) {
        EXPECT_EQ(outgoing(start, len), 76);
        EXPECT_EQ(outgoing(init, len), 76);
        EXPECT_EQ(outgoing(header, len), 0);
    }
    message_of(start)->bufsize = 75;
    EXPECT_EQ(outgoing(start, 0), REFUSED_LENGTH);
    message_of(start)->bufsize = 76;
    tpfree(start);
    tpfree(init);
    tpfree(header);
}

TEST_F(Payload, FieldBufferGoesOutWithItsUsedLength)
{
    char *data = alloc("FIELD", 0);
    for (int len : {0, 1, 5000, -1})
        EXPECT_EQ(outgoing(data, len), 8) << len;
    int32_t used = 1032;
    memcpy(data + 4, &used, 4);
    EXPECT_EQ(outgoing(data, 0), 1032);
    used = 1033;
    memcpy(data + 4, &used, 4);
    EXPECT_EQ(outgoing(data, 0), REFUSED_LENGTH);
    used = -1;
    memcpy(data + 4, &used, 4);
    EXPECT_EQ(outgoing(data, 0), REFUSED_LENGTH);
    tpfree(data);
}

TEST_F(Payload, UnknownStructsAndTypesDontLeave)
{
    char *data = alloc("CARRAY", 0);
    for (int type : {0, -1, 1, 6, 7, 8, 10, 11, 12, 13, INT_MAX}) {
        message_of(data)->buftype = type;
        EXPECT_EQ(outgoing(data, 10), REFUSED_TYPE) << type;
        // A length that is wrong too doesn't come first.
        EXPECT_EQ(outgoing(data, 100000), REFUSED_TYPE) << type;
    }
    message_of(data)->buftype = BUF_CARRAY;
    tpfree(data);
}

TEST_F(Payload, WhatIsNoBufferDoesntLeave)
{
    char *data = alloc("CARRAY", 0);
    message_of(data)->magic = 0;
    EXPECT_EQ(outgoing(data, 10), REFUSED_TYPE);
    message_of(data)->magic = MESSAGE_MAGIC;
    for (int shift = 1; shift < 4; shift++)
        EXPECT_EQ(outgoing(data + shift, 10), REFUSED_TYPE) << shift;
    EXPECT_EQ(outgoing(data, 10), 10);
    tpfree(data);
    char *none = nullptr;
    EXPECT_EQ(outgoing(none + 136, 10), REFUSED_TYPE);  // a header at null
}

// ---- in: the type

TEST_F(Payload, AnyTypeIsTakenWithoutNoChange)
{
    char *user = alloc("CARRAY", 2000);
    for (int type = 1; type <= 12; type++) {
        msg_header *message = received(type, 100, "abc", type == 1 ? "person" : "");
        message_of(user)->flags = ~(uint32_t)TPNOCHANGE;
        set_tperrno(0);
        EXPECT_EQ(_data_otype_check_no_alloc(message, message_of(user), block), 1) << type;
        EXPECT_EQ(get_tperrno(), 0);
        free(message);
    }
    tpfree(user);
}

TEST_F(Payload, NoChangeDemandsTypeAndSubtype)
{
    const struct {
        int have, come;
        const char *have_sub, *come_sub;
        bool fits;
    } cases[] = {
        {4, 4, "", "", true},
        {4, 3, "", "", false},
        {3, 4, "", "", false},
        {1, 1, "person", "person", true},
        {1, 1, "person", "house", false},
        {1, 1, "person", "", false},
        {1, 1, "", "person", false},
        {1, 1, "person", "persons", false},
        {1, 1, "0123456789abcdef", "0123456789abcdef", true},
        {1, 1, "0123456789abcdef", "0123456789abcdeF", false},
        {3, 4, "person", "person", false},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.have) + row.have_sub + " " + std::to_string(row.come) + row.come_sub);
        const int wanted = row.fits ? 1 : -1;
        char *user = alloc("CARRAY", 2000);
        message_of(user)->buftype = row.have;
        strncpy(message_of(user)->subtype, row.have_sub, 16);
        message_of(user)->flags = (uint32_t)TPNOCHANGE;
        msg_header *message = received(row.come, 2000, "abc", row.come_sub);
        msg_header *stored = message, *same = message_of(user);

        set_tperrno(0);
        EXPECT_EQ(_data_otype_check_no_alloc(message, message_of(user), block), wanted);
        EXPECT_EQ(get_tperrno(), row.fits ? 0 : TPEOTYPE);
        set_tperrno(0);
        EXPECT_EQ(_data_otype_check2(&stored, message_of(user), block), wanted);
        EXPECT_EQ(get_tperrno(), row.fits ? 0 : TPEOTYPE);
        set_tperrno(0);
        EXPECT_EQ(_data_otype_check(stored, &same, block), wanted);
        EXPECT_EQ(get_tperrno(), row.fits ? 0 : TPEOTYPE);
        EXPECT_EQ(same, message_of(user));

        free(stored);
        message_of(user)->buftype = BUF_CARRAY;
        tpfree(user);
    }
}

// ---- in: the size of a stored message

TEST_F(Payload, StoredMessageGrowsToTheCallersSize)
{
    const struct {
        int stored, user, result;
    } cases[] = {
        {100, 2000, 2000}, {1999, 2000, 2000}, {2000, 2000, 2000}, {2001, 2000, 2001}, {9000, 2000, 9000},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(row.stored);
        char *user = alloc("CARRAY", row.user);
        msg_header *stored = received(BUF_CARRAY, row.stored, std::string(90, 'd'));
        EXPECT_EQ(_data_otype_check2(&stored, message_of(user), block), 1);
        EXPECT_EQ(stored->bufsize, row.result);
        EXPECT_EQ(stored->datalen, 90);
        EXPECT_EQ(std::string(message_data(stored), 90), std::string(90, 'd'));
        if (row.stored < row.user) {
            EXPECT_EQ(stored->xflags, 0x02000000u);
            memset(message_data(stored), 1, (size_t)row.user + TRAILER_ROOM);  // the whole room is there
        } else {
            EXPECT_EQ(stored->xflags, 0u);
        }
        free(stored);
        tpfree(user);
    }
}

TEST_F(Payload, StoredMessageStaysWhenItCannotGrow)
{
    char *user = alloc("CARRAY", 20000);
    msg_header *stored = received(BUF_CARRAY, 100, "abc"), *before = stored;
    faults::fail_allocation(1);
    int result = _data_otype_check2(&stored, message_of(user), block);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPESYSTEM);
    EXPECT_EQ(stored, before);
    EXPECT_EQ(stored->bufsize, 100);
    EXPECT_EQ(std::string(message_data(stored), 3), "abc");
    EXPECT_EQ(_data_otype_check2(&stored, message_of(user), block), 1);
    EXPECT_EQ(stored->bufsize, 20000);
    free(stored);
    tpfree(user);
}

// ---- in: the size of the caller's buffer

TEST_F(Payload, CallersBufferIsReplacedWhenItIsTooSmall)
{
    const struct {
        int type, size;
        const char *env;
        int result;
    } cases[] = {
        {BUF_CARRAY, 5000, nullptr, 5000}, {BUF_STRING, 5000, nullptr, 5000},
        {BUF_STRING, 5000, "y", 5000},     {BUF_STRING, 5000, "Y", 5000},
        {BUF_CARRAY, 5000, "y", 5000},     {BUF_HEADER, 5000, nullptr, 5000},
        {BUF_START, 5000, nullptr, 5000},
    };
    for (const auto &row : cases) {
        SCOPED_TRACE(std::to_string(row.type) + (row.env ? row.env : ""));
        if (row.env != nullptr)
            setenv("VORN_STRING_NULL", row.env, 1);
        else
            unsetenv("VORN_STRING_NULL");
        msg_header *user = message_of(alloc("CARRAY", 1500));
        msg_header *message = received(row.type, row.size, "abc");
        EXPECT_EQ(_data_otype_check(message, &user, block), 1);
        EXPECT_EQ(user->magic, MESSAGE_MAGIC);
        EXPECT_EQ(user->buftype, row.type);
        EXPECT_EQ(user->bufsize, row.result);
        memset(message_data(user), 1, (size_t)row.result + TRAILER_ROOM);
        free(message);
        tpfree(message_data(user));
    }
}

TEST_F(Payload, CallersBufferStaysWhenItIsLargeEnough)
{
    for (int size : {0, 100, 1499, 1500}) {
        msg_header *user = message_of(alloc("CARRAY", 1500)), *before = user;
        msg_header *message = received(BUF_STRING, size, "");
        EXPECT_EQ(_data_otype_check(message, &user, block), 1);
        EXPECT_EQ(user, before) << size;
        EXPECT_EQ(user->bufsize, 1500) << size;
        free(message);
        tpfree(message_data(user));
    }
}

TEST_F(Payload, CallersBufferStaysWhenNoLargerOneCanBeMade)
{
    msg_header *user = message_of(alloc("CARRAY", 1500)), *before = user;
    msg_header *message = received(BUF_CARRAY, 5000, "abc");
    memset(message_data(user), 'u', 1500);
    faults::fail_allocation(1);
    int result = _data_otype_check(message, &user, block);
    faults::disarm_allocations();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(user, before);
    EXPECT_EQ(std::string(message_data(user), 1500), std::string(1500, 'u'));
    // A type without a name can't be made either.
    message->buftype = 77;
    set_tperrno(0);
    EXPECT_EQ(_data_otype_check(message, &user, block), -1);
    EXPECT_EQ(get_tperrno(), TPEOS);
    EXPECT_EQ(user, before);
    free(message);
    tpfree(message_data(user));
}
