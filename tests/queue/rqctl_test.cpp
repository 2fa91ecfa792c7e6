// The queue control record turned to wire order.
#include "queue/rqctl.h"

#include "runtime/mthr.h"
#include "support/gtest.h"
#include "wire/msgheader.h"

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
