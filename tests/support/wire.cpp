// The peer's codec: messages to bytes and back. Written from the layout of the frames alone.
#include <string.h>

#include "sqz.h"
#include "support/peer.h"

namespace wire {

uint32_t word_at(const std::string &bytes, size_t offset)
{
    if (offset + 4 > bytes.size())
        return 0;
    uint32_t value = 0;
    for (size_t i = 0; i < 4; i++)
        value = value << 8 | (unsigned char)bytes[offset + i];
    return value;
}

std::string word(uint32_t value)
{
    return {(char)(value >> 24), (char)(value >> 16), (char)(value >> 8), (char)value};
}

static std::string padded(const std::string &text, size_t size)
{
    std::string field = text.substr(0, size);
    field.resize(size, '\0');
    return field;
}

static std::string text_at(const std::string &bytes, size_t offset, size_t size)
{
    std::string field = bytes.substr(offset, size);
    return field.substr(0, field.find('\0'));
}

std::string encode_header(const frame &m)
{
    std::string bytes;
    for (uint32_t value : {m.magic, (uint32_t)m.seqno, (uint32_t)m.buftype, (uint32_t)m.bufsize,
                           (uint32_t)m.msgtype, (uint32_t)m.rcode, (uint32_t)m.srcid, (uint32_t)m.target,
                           (uint32_t)m.prio, (uint32_t)m.value, m.xid[0], m.xid[1], m.xid[2]})
        bytes += word(value);
    bytes += padded(m.subtype, 16);
    bytes += padded(m.svcname, 32);
    for (uint32_t value : {(uint32_t)m.datalen, m.flags, (uint32_t)m.cd, (uint32_t)m.sessid, m.xflags,
                           m.reserved, m.callid[0], m.callid[1], m.callid[2]})
        bytes += word(value);
    return bytes;
}

std::string encode(const frame &m)
{
    return encode_header(m) + m.data;
}

frame decode_header(const std::string &b)
{
    frame m;
    m.magic = word_at(b, 0);
    m.seqno = (int32_t)word_at(b, 4);
    m.buftype = (int32_t)word_at(b, 8);
    m.bufsize = (int32_t)word_at(b, 12);
    m.msgtype = (int32_t)word_at(b, 16);
    m.rcode = (int32_t)word_at(b, 20);
    m.srcid = (int32_t)word_at(b, 24);
    m.target = (int32_t)word_at(b, 28);
    m.prio = (int32_t)word_at(b, 32);
    m.value = (int32_t)word_at(b, 36);
    for (size_t i = 0; i < 3; i++)
        m.xid[i] = word_at(b, 40 + 4 * i);
    m.subtype = text_at(b, 52, 16);
    m.svcname = text_at(b, 68, 32);
    m.datalen = (int32_t)word_at(b, 100);
    m.flags = word_at(b, 104);
    m.cd = (int32_t)word_at(b, 108);
    m.sessid = (int32_t)word_at(b, 112);
    m.xflags = word_at(b, 116);
    m.reserved = word_at(b, 120);
    for (size_t i = 0; i < 3; i++)
        m.callid[i] = word_at(b, 124 + 4 * i);
    return m;
}

std::string compressed_frame(const std::string &message)
{
    std::string packed(message.size() + message.size() / 128 + 256, '\0');
    int64_t length = (int64_t)packed.size();
    if (_vorn_compress(packed.data(), &length, message.data(), (int64_t)message.size()) != 0)
        return {};
    packed.resize((size_t)length);
    return word(COMPRESSED_FRAME) + word((uint32_t)length) + word(0) + word((uint32_t)message.size()) +
           packed;
}

std::string raw_frame(const std::string &data)
{
    return word(RAW_FRAME) + word((uint32_t)data.size()) + data;
}

frame message(int32_t msgtype, const std::string &data, const with &fields)
{
    frame m;
    m.msgtype = fields.msgtype != -1 ? fields.msgtype : msgtype;
    m.rcode = fields.rcode;
    m.flags = fields.flags;
    m.buftype = fields.buftype != -1 ? fields.buftype : data.empty() ? HEADER_ONLY : STRING;
    m.bufsize = fields.bufsize != -1 ? fields.bufsize : (int32_t)data.size();
    m.datalen = fields.datalen != -1 ? fields.datalen : (int32_t)data.size();
    m.cd = fields.cd != INT32_MIN ? fields.cd : 0;
    m.seqno = fields.seqno != INT32_MIN ? fields.seqno : 0;
    m.subtype = fields.subtype;
    m.xflags = fields.xflags;
    m.srcid = fields.srcid;
    m.target = fields.target;
    m.value = fields.value;
    m.sessid = fields.sessid;
    m.data = data;
    return m;
}

frame answer(const frame &request, const std::string &data, const with &fields)
{
    frame m = message(request.msgtype + (fields.flags != 0 ? EREPLY : REPLY), data, fields);
    m.svcname = request.svcname;
    for (size_t i = 0; i < 3; i++) {
        m.xid[i] = request.xid[i];
        m.callid[i] = request.callid[i];
    }
    if (fields.cd == INT32_MIN)
        m.cd = request.cd;
    if (fields.seqno == INT32_MIN)
        m.seqno = request.seqno;
    return m;
}

std::string start_payload(const start_reply &reply)
{
    std::string bytes = word((uint32_t)reply.nodes.size()) + word((uint32_t)reply.queues.size()) +
                        word((uint32_t)reply.thirds.size());
    for (const std::string &name : reply.nodes)
        bytes += padded(name, 16) + padded(name + ".lnid", 16) + word(0) + word(0);
    for (const std::string &name : reply.queues)
        bytes += padded(name, 16);
    for (const std::string &row : reply.thirds)
        bytes += padded(row, 32);
    bytes += word((uint32_t)reply.threshold);
    if (!reply.server_name.empty())
        bytes += word(0) + word((uint32_t)reply.server_name.size()) + reply.server_name;
    return bytes;
}

frame start_answer(const frame &request, const start_reply &reply)
{
    frame m = answer(request);
    m.buftype = HEADER_ONLY;
    m.callid[0] = m.callid[1] = m.callid[2] = 0;
    if (reply.refuse != 0) {
        m.msgtype = request.msgtype + EREPLY;
        m.target = reply.refuse;
        return m;
    }
    m.rcode = reply.acall_size;
    m.cd = reply.conv_size;
    m.prio = reply.engine_version;
    m.value = reply.client;
    m.xid[0] = reply.location;
    m.xid[1] = (uint32_t)reply.tx_timeout;
    m.xid[2] = (uint32_t)reply.block_time;
    m.sessid = reply.token;
    if (!reply.payload.empty())
        m.data = reply.payload;
    else if (reply.with_payload)
        m.data = start_payload(reply);
    m.datalen = m.bufsize = (int32_t)m.data.size();
    return m;
}

}
