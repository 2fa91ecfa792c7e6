#include "wire.h"

#include "sqz.h"

#include <algorithm>
#include <cstring>

namespace clhsim {

// Where each single word of the header stands; the texts and the two identities of three words follow by
// hand.
struct WordField {
    size_t offset;
    int32_t Header::*field;
};
constexpr WordField WORD_FIELDS[] = {
    {0, &Header::magic},    {4, &Header::seqno},    {8, &Header::buftype},   {12, &Header::bufsize},
    {16, &Header::msgtype}, {20, &Header::rcode},   {24, &Header::srcid},    {28, &Header::target},
    {32, &Header::prio},    {36, &Header::value},   {100, &Header::datalen}, {104, &Header::flags},
    {108, &Header::cd},     {112, &Header::sessid}, {116, &Header::xflags},  {120, &Header::reserved},
};
constexpr size_t XID_OFFSET = 40;
constexpr size_t SUBTYPE_OFFSET = 52;
constexpr size_t SVCNAME_OFFSET = 68;
constexpr size_t CALLID_OFFSET = 124;

// A client's smallest typed buffer. Replies say at least this size, as a buffer of the server's own would.
constexpr size_t SMALLEST_BUFFER = 1024;

std::string_view service_name(const Header &header)
{
    const char *text = header.svcname.data();
    return {text, strnlen(text, header.svcname.size() - 1)};
}

void set_service_name(Header &header, std::string_view name)
{
    header.svcname.fill(0);
    std::copy_n(name.data(), std::min(name.size(), header.svcname.size() - 1), header.svcname.data());
}

std::string_view subtype_name(const Header &header)
{
    const char *text = header.subtype.data();
    return {text, strnlen(text, header.subtype.size())};
}

std::string broadcast_name(const Header &header)
{
    std::string area;
    append_word(area, static_cast<uint32_t>(header.value));
    for (int32_t word : header.xid)
        append_word(area, static_cast<uint32_t>(word));
    area.append(header.subtype.data(), header.subtype.size());
    return std::string(text_of(area));
}

std::string_view text_of(std::string_view data)
{
    return data.substr(0, std::min(data.find('\0'), data.size()));
}

uint32_t get_word(const char *bytes)
{
    auto at = [bytes](int i) { return static_cast<uint32_t>(static_cast<unsigned char>(bytes[i])); };
    return at(0) << 24 | at(1) << 16 | at(2) << 8 | at(3);
}

void put_word(char *bytes, uint32_t word)
{
    for (int i = 0; i < 4; i++)
        bytes[i] = static_cast<char>(word >> (24 - 8 * i));
}

void append_word(std::string &out, uint32_t word)
{
    char bytes[4];
    put_word(bytes, word);
    out.append(bytes, sizeof bytes);
}

Header unpack_header(const char *bytes)
{
    Header header;
    for (const WordField &word : WORD_FIELDS)
        header.*word.field = static_cast<int32_t>(get_word(bytes + word.offset));
    for (size_t i = 0; i < 3; i++) {
        header.xid[i] = static_cast<int32_t>(get_word(bytes + XID_OFFSET + 4 * i));
        header.callid[i] = static_cast<int32_t>(get_word(bytes + CALLID_OFFSET + 4 * i));
    }
    std::copy_n(bytes + SUBTYPE_OFFSET, header.subtype.size(), header.subtype.data());
    std::copy_n(bytes + SVCNAME_OFFSET, header.svcname.size(), header.svcname.data());
    return header;
}

void pack_header(const Header &header, char *bytes)
{
    for (const WordField &word : WORD_FIELDS)
        put_word(bytes + word.offset, static_cast<uint32_t>(header.*word.field));
    for (size_t i = 0; i < 3; i++) {
        put_word(bytes + XID_OFFSET + 4 * i, static_cast<uint32_t>(header.xid[i]));
        put_word(bytes + CALLID_OFFSET + 4 * i, static_cast<uint32_t>(header.callid[i]));
    }
    std::copy_n(header.subtype.data(), header.subtype.size(), bytes + SUBTYPE_OFFSET);
    std::copy_n(header.svcname.data(), header.svcname.size(), bytes + SVCNAME_OFFSET);
}

static Frame broken(const char *problem)
{
    Frame frame;
    frame.state = FrameState::BROKEN;
    frame.problem = problem;
    return frame;
}

static const char *header_problem(const Header &header, size_t max_data)
{
    if (static_cast<uint32_t>(header.magic) != MAGIC)
        return "no message header";
    if (header.datalen < 0)
        return "negative data length";
    if (static_cast<size_t>(header.datalen) > max_data)
        return "data too long";
    return nullptr;
}

static Frame plain_frame(std::string_view stream, size_t max_data)
{
    Frame frame;
    if (stream.size() < HEADER_SIZE)
        return frame;
    frame.header = unpack_header(stream.data());
    if (const char *problem = header_problem(frame.header, max_data))
        return broken(problem);
    frame.size = HEADER_SIZE + static_cast<size_t>(frame.header.datalen);
    if (stream.size() < frame.size)
        return frame;
    frame.data = stream.substr(HEADER_SIZE, frame.size - HEADER_SIZE);
    frame.state = FrameState::COMPLETE;
    return frame;
}

// A client writes the plain size at offset 8; the server's own frames carry it at offset 12.
static Frame compressed_frame(std::string_view stream, size_t max_data, std::string &plain)
{
    Frame frame;
    if (stream.size() < FRAME_HEAD_SIZE)
        return frame;
    size_t packed_size = get_word(stream.data() + 4);
    size_t plain_size = get_word(stream.data() + 8);
    if (plain_size < HEADER_SIZE || plain_size > HEADER_SIZE + max_data)
        return broken("impossible plain size of a compressed frame");
    // Data that doesn't shrink grows a little; what is beyond that is no compressed message.
    if (packed_size > plain_size + plain_size / 64 + 1024)
        return broken("compressed frame longer than its message");
    frame.size = FRAME_HEAD_SIZE + packed_size;
    if (stream.size() < frame.size)
        return frame;

    plain.resize(plain_size);
    int64_t length = static_cast<int64_t>(plain_size);
    if (_vorn_uncompress(plain.data(), &length, stream.data() + FRAME_HEAD_SIZE,
                         static_cast<int64_t>(packed_size)) != 0)
        return broken("compressed frame that can't be unpacked");
    if (length != static_cast<int64_t>(plain_size))
        return broken("compressed frame of another size than it says");
    frame.header = unpack_header(plain.data());
    if (const char *problem = header_problem(frame.header, max_data))
        return broken(problem);
    if (HEADER_SIZE + static_cast<size_t>(frame.header.datalen) != plain_size)
        return broken("compressed message of another length than its header says");
    frame.data = std::string_view(plain).substr(HEADER_SIZE);
    frame.compressed = true;
    frame.state = FrameState::COMPLETE;
    return frame;
}

Frame next_frame(std::string_view stream, size_t max_data, std::string &plain)
{
    if (stream.size() < 4)
        return {};
    switch (get_word(stream.data())) {
    case MAGIC:
        return plain_frame(stream, max_data);
    case COMPRESSED_MARK:
        return compressed_frame(stream, max_data, plain);
    case ENVELOPE_MARK:
        return broken("enciphered frame: this server doesn't negotiate keys");
    default:
        return broken("no message header");
    }
}

static bool append_compressed(std::string &out, const std::string &message)
{
    size_t data_size = message.size() - HEADER_SIZE;
    int64_t length = static_cast<int64_t>(((data_size + 148) >> 9) + 148 + data_size);
    std::string packed(static_cast<size_t>(length), '\0');
    if (_vorn_compress(packed.data(), &length, message.data(), static_cast<int64_t>(message.size())) != 0)
        return false;
    append_word(out, COMPRESSED_MARK);
    append_word(out, static_cast<uint32_t>(length));
    append_word(out, 0);
    append_word(out, static_cast<uint32_t>(message.size()));
    out.append(packed, 0, static_cast<size_t>(length));
    return true;
}

bool append_message(std::string &out, Header header, std::string_view data, int64_t compress_from)
{
    header.datalen = static_cast<int32_t>(data.size());
    header.bufsize = static_cast<int32_t>(std::max(data.size(), SMALLEST_BUFFER));
    char head[HEADER_SIZE] = {};
    pack_header(header, head);

    if (compress_from >= 0 && data.size() >= static_cast<uint64_t>(compress_from)) {
        std::string message(head, sizeof head);
        message.append(data);
        if (append_compressed(out, message))
            return true;
    }
    out.append(head, sizeof head);
    out.append(data);
    return false;
}

void append_raw(std::string &out, std::string_view data)
{
    append_word(out, RAW_MARK);
    append_word(out, static_cast<uint32_t>(data.size()));
    out.append(data);
}

}  // namespace clhsim
