// The protocol as the server sees it: the message header, the frames that carry messages, and their bytes.
//
// A frame from a client is either a plain message, 136 bytes of header and `datalen` bytes of data, or a
// compressed one. Nothing that a client sends is believed before it is checked: lengths are held against a
// limit, and a frame that lies ends the connection.
#ifndef CLHSIM_WIRE_H
#define CLHSIM_WIRE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

constexpr uint32_t MAGIC = 0x90352082;
constexpr uint32_t COMPRESSED_MARK = 99999999;
constexpr uint32_t ENVELOPE_MARK = 77777777;
constexpr uint32_t RAW_MARK = 6666;
constexpr size_t HEADER_SIZE = 136;
constexpr size_t FRAME_HEAD_SIZE = 16;  // of a compressed frame

enum MessageType : int32_t {
    MSG_START = 1,
    MSG_END = 2,
    MSG_CALL = 3,
    MSG_ACALL = 4,
    MSG_CONNECT = 5,
    MSG_SEND = 6,
    MSG_RECV = 7,  // never on the wire, but its replies are
    MSG_DISCON = 8,
    MSG_POST = 12,
    MSG_BROADCAST = 13,
    MSG_NOTIFY = 14,
    MSG_SUBSCRIBE = 15,
    MSG_UNSUBSCRIBE = 16,
    MSG_ENQ = 17,
    MSG_DEQ = 18,
    MSG_SENDTOCLI = 19,
    MSG_INIT = 21,
    MSG_QUEUE_RESULT = 25,  // never from a client, but its replies are sent
    MSG_QUEUE_CHANGE = 26,  // likewise
    MSG_QSTAT = 27,
    MSG_RECEIPT = 28,  // of a TPACALL with FLAG_BLOCK
    MSG_REISSUE = 30,
    MSG_COMMIT = 32,
    MSG_ROLLBACK = 33,
    MSG_SUBSCRIBE2 = 40,
    MSG_MCALL = 45,
    MSG_GETSVG = 46,
    MSG_USERLOG = 121,
    MSG_ULOGSYNC = 123,
    MSG_SET = 130,
    MSG_GETADDR = 156,
    MSG_ACTIVESVR = 166,
    MSG_SQ = 181,
    MSG_GETSPR = 225,
    MSG_SESSION_OPEN = 500,
    MSG_SESSION_CLOSE = 501,
    MSG_OBJECT_OPEN = 502,
    MSG_OBJECT_CLOSE = 503,
    MSG_SERVICE_SEND = 504,
    MSG_SERVICE_GET = 505,
    MSG_SERVICE_ACK = 506,
    MSG_SERVICE_DELIVER = 507,  // to a client
    MSG_SESSION_COMMIT = 508,
    MSG_SESSION_ROLLBACK = 509,
    MSG_SESSION_RECOVER = 510,
};
constexpr int32_t REPLY = 1000;        // added to a request's number
constexpr int32_t ERROR_REPLY = 2000;  // likewise
constexpr int32_t EVENT_REPLY = 3000;  // likewise: a conversation's end with an event

enum BufferType : int32_t {
    BUF_STRUCT = 1,
    BUF_FIELD = 2,
    BUF_STRING = 3,
    BUF_CARRAY = 4,
    BUF_HEADER_ONLY = 9,
};

constexpr int32_t FLAG_NOREPLY = 0x4;
constexpr int32_t FLAG_NOTRAN = 0x8;
constexpr int32_t FLAG_BLOCK = 0x200;
constexpr int32_t FLAG_SENDONLY = 0x800;
constexpr int32_t FLAG_RECVONLY = 0x1000;
constexpr int32_t FLAG_RQDIRECT = 0x4000;
constexpr int32_t FLAG_SVGCALL = 0x800000;
constexpr int32_t FLAG_TXSTART = 0x4000000;
constexpr int32_t FLAG_NOTIFY_ACK = 0x8000;

// What a broadcast leaves open.
constexpr int32_t FLAG_ANY_NODE = 0x100;
constexpr int32_t FLAG_ANY_USER = 0x200;
constexpr int32_t FLAG_ANY_CLIENT = 0x400;

constexpr uint32_t XFLAG_TRAILER_LENGTH = 0xff;
constexpr uint32_t XFLAG_PROCESS = 0x00100000;  // directed to one process of a server
constexpr uint32_t XFLAG_SERVER = 0x00400000;   // directed to a server, whichever process
constexpr uint32_t XFLAG_TRAILER = 0x04000000;
constexpr uint32_t XFLAG_GIVEN_BACK = 0x20000000;

// Error numbers that this server gives by itself.
enum CallError : int32_t {
    ERR_INVAL = 4,
    ERR_LIMIT = 5,
    ERR_NOENT = 6,
    ERR_PROTO = 9,
    ERR_SVCFAIL = 11,
    ERR_SYSTEM = 12,
    ERR_TRAN = 14,
    ERR_ITYPE = 17,
    ERR_MATCH = 23,
    ERR_SECURITY = 25,
    ERR_QFULL = 26,
    ERR_CLOSE = 28,
};

// A message header in host order. Words keep the sign that the client's side sees in them.
struct Header {
    int32_t magic = static_cast<int32_t>(MAGIC);
    int32_t seqno = 0;
    int32_t buftype = BUF_HEADER_ONLY;
    int32_t bufsize = 0;
    int32_t msgtype = 0;
    int32_t rcode = 0;
    int32_t srcid = 0;
    int32_t target = 0;
    int32_t prio = 0;
    int32_t value = 0;
    std::array<int32_t, 3> xid = {};
    std::array<char, 16> subtype = {};
    std::array<char, 32> svcname = {};
    int32_t datalen = 0;
    int32_t flags = 0;
    int32_t cd = 0;
    int32_t sessid = 0;
    int32_t xflags = 0;
    int32_t reserved = 0;
    std::array<int32_t, 3> callid = {};
};

std::string_view service_name(const Header &header);
void set_service_name(Header &header, std::string_view name);  // cut at 31 characters
std::string_view subtype_name(const Header &header);
// The client name of a broadcast. It lies over the value, the identity and the subtype, as plain bytes.
std::string broadcast_name(const Header &header);

// The text of a message: the data of a STRING ends in a NUL that counts in its length, that of a CARRAY need
// not.
std::string_view text_of(std::string_view data);

uint32_t get_word(const char *bytes);
void put_word(char *bytes, uint32_t word);
void append_word(std::string &out, uint32_t word);

Header unpack_header(const char *bytes);
void pack_header(const Header &header, char *bytes);

enum class FrameState { INCOMPLETE, COMPLETE, BROKEN };

// What stands at the front of a stream. With COMPLETE, `size` bytes of the stream make up the frame and
// `data` is the message's; it points into the stream or, for a compressed frame, into the caller's `plain`,
// and lives as long as they do. With BROKEN, `problem` says why.
struct Frame {
    FrameState state = FrameState::INCOMPLETE;
    size_t size = 0;
    bool compressed = false;
    Header header;
    std::string_view data;
    const char *problem = nullptr;
};
Frame next_frame(std::string_view stream, size_t max_data, std::string &plain);

// Appends a message in its frame; sets the header's `datalen`, and `bufsize` to the room a client needs for
// it. It goes compressed if `compress_from` isn't negative and the data is at least that long. Tells whether
// it did.
bool append_message(std::string &out, Header header, std::string_view data, int64_t compress_from);
void append_raw(std::string &out, std::string_view data);

}  // namespace clhsim

#endif
