// The 136-byte record in front of every message and of every typed buffer, its conversion between host and
// wire order, and the catalogue of message types.
#ifndef VORN_WIRE_MSGHEADER_H
#define VORN_WIRE_MSGHEADER_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

extern "C" {

constexpr uint32_t MESSAGE_MAGIC = 0x90352082;

// On the wire every 32-bit word is big-endian; in memory it is in host order. `value` and `xid` aren't turned
// on sending when msgtype is TPBROADCAST: offset 36 to 67 then holds the destination's name.
struct msg_header {
    uint32_t magic;      // 0
    int32_t seqno;       // 4   the reply carries the request's number
    int32_t buftype;     // 8   kind of the data, BUF_*
    int32_t bufsize;     // 12  allocated size of the data area at the sender
    int32_t msgtype;     // 16
    int32_t rcode;       // 20  user return code; count or size in some replies
    int32_t srcid;       // 24  goes back in `cd` of a notification's acknowledgement
    int32_t target;      // 28  server group; the error number in a refused start
    int32_t prio;        // 32  request priority; engine version in a start reply
    int32_t value;       // 36
    uint32_t xid[3];     // 40  compact transaction identity
    char subtype[16];    // 52  struct name, NUL-padded
    char svcname[32];    // 68  31 characters and a NUL
    int32_t datalen;     // 100 bytes of data behind the header
    uint32_t flags;      // 104 request: the caller's flags; reply: the caller's tperrno
    int32_t cd;          // 108 descriptor, or a selector
    int32_t sessid;      // 112
    uint32_t xflags;     // 116 transport flags, XFLAG_*
    uint32_t reserved;   // 120
    uint32_t callid[3];  // 124
};
static_assert(sizeof(msg_header) == 136);
static_assert(offsetof(msg_header, value) == 36);
static_assert(offsetof(msg_header, subtype) == 52);
static_assert(offsetof(msg_header, svcname) == 68);
static_assert(offsetof(msg_header, datalen) == 100);
static_assert(offsetof(msg_header, callid) == 124);

constexpr int32_t HEADER_SIZE = 136;
constexpr int32_t TRAILER_ROOM = 64;                            // reserve behind the data of every block
constexpr int32_t BLOCK_OVERHEAD = HEADER_SIZE + TRAILER_ROOM;  // what a block holds besides its data

enum buffer_kind : int32_t {
    BUF_STRUCT = 1,
    BUF_FIELD = 2,
    BUF_STRING = 3,
    BUF_CARRAY = 4,
    BUF_START = 5,
    BUF_HEADER = 9,
    BUF_NEGOTIATION = 10,
    BUF_RQ_STRUCT = 11,  // behind a queue-control record
    BUF_RQ_FIELD = 12
};

enum transport_flag : uint32_t {
    XFLAG_TRAILER_LENGTH = 0xff,
    XFLAG_TO_PROCESS = 0x00100000,
    XFLAG_TO_GROUP = 0x00400000,
    XFLAG_TRAILER_ROOM = 0x02000000,
    XFLAG_TRAILER = 0x04000000,
    XFLAG_GIVEN_BACK = 0x20000000  // the server is going down and didn't process the request
};

// seqno mark of a TPCALL that travels as a TPACALL because several threads share the context.
constexpr int32_t SEQNO_SHARED_CALL = 0x40000000;

constexpr int32_t REPLY = 1000, ERROR_REPLY = 2000, ERROR_REPLY2 = 3000;

// The message types that the library handles by name; _real_getmsgtype names them all.
enum message_type : int32_t {
    MSG_TPSTART = 1,
    MSG_TPEND = 2,
    MSG_TPCALL = 3,
    MSG_TPACALL = 4,
    MSG_TPCONNECT = 5,
    MSG_TPSEND = 6,
    MSG_TPRECV = 7,
    MSG_TPDISCON = 8,
    MSG_TPGETUNSOL = 11,
    MSG_TPPOST = 12,
    MSG_TPBROADCAST = 13,
    MSG_TPNOTIFY = 14,
    MSG_TPSUBSCRIBE = 15,
    MSG_TPUNSUBSCRIBE = 16,
    MSG_TPENQ = 17,
    MSG_TPDEQ = 18,
    MSG_TPSENDTOCLI = 19,
    MSG_TPINIT = 21,
    MSG_TPRQS = 25,
    MSG_TPEVENT_REQUEST = 26,
    MSG_TPQSTAT = 27,
    MSG_TPACALL_BLOCK = 28,
    MSG_TPREISSUE = 30,
    MSG_TX_COMMIT = 32,
    MSG_TX_ROLLBACK = 33,
    MSG_TPSUBSCRIBE2 = 40,
    MSG_GETSVG = 46,
    MSG_USERLOG = 121,
    MSG_ULOGSYNC = 123,
    MSG_SET_REQUEST = 130,
    MSG_GETADDR = 156,
    MSG_GET_ACTIVESVR = 166,
    MSG_TX_RECOVER = 173,
    MSG_SQ_REQUEST = 181,
    MSG_GETSPR = 225,
    MSG_KMQ_SESSION_OPEN = 500,
    MSG_KMQ_SESSION_CLOSE = 501,
    MSG_KMQ_OBJECT_OPEN = 502,
    MSG_KMQ_OBJECT_CLOSE = 503,
    MSG_KMQ_SEND = 504,
    MSG_KMQ_GETNEXT = 505,
    MSG_KMQ_ACK = 506,
    MSG_KMQ_DELIVER = 507,
    MSG_KMQ_COMMIT = 508,
    MSG_KMQ_ROLLBACK = 509,
    MSG_KMQ_RECOVER = 510
};

// 501 with this bit of `flags`: the server closed the session.
constexpr uint32_t FLAG_SESSION_CLOSED = 0x1000;

int _init_header(msg_header *header);                          // cleared, magic, BUF_HEADER; 1
msg_header *_header_msg_make(int32_t msgtype, int32_t rcode);  // owned by the caller; null without memory
msg_header *_hton_header(const msg_header *source, msg_header *destination);
msg_header *_ntoh_header(const msg_header *source, msg_header *destination);
const char *_real_getmsgtype(int number);

// The data behind a header, and the header in front of a user pointer.
static inline char *message_data(msg_header *message)
{
    return (char *)message + HEADER_SIZE;
}
static inline msg_header *message_of(char *data)
{
    return (msg_header *)(data - HEADER_SIZE);
}

// A buffer that served an earlier request may still bear its direction.
static inline void clear_direction(msg_header *message)
{
    message->xflags &= ~(uint32_t)(XFLAG_TO_GROUP | XFLAG_TO_PROCESS);
}

// One word of wire data, wherever it stands.
static inline uint32_t get_word(const void *from)
{
    uint32_t word;
    memcpy(&word, from, sizeof word);
    return __builtin_bswap32(word);
}
static inline void put_word(void *to, uint32_t word)
{
    word = __builtin_bswap32(word);
    memcpy(to, &word, sizeof word);
}

// Writes a name into a fixed field: cut to fit, always ended by a NUL, the rest left as it is.
void put_name(char *field, size_t size, const char *name);
}

#endif
