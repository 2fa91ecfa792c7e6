// The 136 bytes in front of every message, byte by byte, and the names of the message types.
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>

#include "support/fixtures.h"

namespace {

// A header in which every field has a value of its own, and the same in wire order.
msg_header sample(int32_t msgtype)
{
    msg_header h;
    memset(&h, 0, sizeof h);
    h.magic = MESSAGE_MAGIC;
    h.seqno = 0x01020304;
    h.buftype = 3;
    h.bufsize = 1024;
    h.msgtype = msgtype;
    h.rcode = 0x11121314;
    h.srcid = 0x21222324;
    h.target = 0x31323334;
    h.prio = 50;
    h.value = 0x41424344;
    h.xid[0] = 0x51525354;
    h.xid[1] = 0x61626364;
    h.xid[2] = 0x71727374;
    memcpy(h.subtype, "employee", 8);
    memcpy(h.svcname, "TOUPPER", 7);
    h.datalen = 4;
    h.flags = 0x81828384;
    h.cd = -2;
    h.sessid = 0x0a0b0c0d;
    h.xflags = 0x02000000;
    h.reserved = 0x1a1b1c1d;
    h.callid[0] = 0x2a2b2c2d;
    h.callid[1] = 0x3a3b3c3d;
    h.callid[2] = 0x4a4b4c4d;
    return h;
}

// clang-format off
const unsigned char SAMPLE_ON_THE_WIRE[136] = {
    0x90, 0x35, 0x20, 0x82,                          // 0   magic
    0x01, 0x02, 0x03, 0x04,                          // 4   seqno
    0x00, 0x00, 0x00, 0x03,                          // 8   buftype: STRING
    0x00, 0x00, 0x04, 0x00,                          // 12  bufsize: 1024
    0x00, 0x00, 0x00, 0x03,                          // 16  msgtype: TPCALL
    0x11, 0x12, 0x13, 0x14,                          // 20  rcode
    0x21, 0x22, 0x23, 0x24,                          // 24  srcid
    0x31, 0x32, 0x33, 0x34,                          // 28  target
    0x00, 0x00, 0x00, 0x32,                          // 32  prio: 50
    0x41, 0x42, 0x43, 0x44,                          // 36  value
    0x51, 0x52, 0x53, 0x54,                          // 40  xid, word 0
    0x61, 0x62, 0x63, 0x64,                          // 44  xid, word 1
    0x71, 0x72, 0x73, 0x74,                          // 48  xid, word 2
    'e', 'm', 'p', 'l', 'o', 'y', 'e', 'e',          // 52  subtype, as it stands
    0, 0, 0, 0, 0, 0, 0, 0,                          //
    'T', 'O', 'U', 'P', 'P', 'E', 'R', 0,            // 68  svcname, as it stands
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  //
    0, 0, 0, 0, 0, 0, 0, 0,                          //
    0x00, 0x00, 0x00, 0x04,                          // 100 datalen
    0x81, 0x82, 0x83, 0x84,                          // 104 flags
    0xff, 0xff, 0xff, 0xfe,                          // 108 cd: -2
    0x0a, 0x0b, 0x0c, 0x0d,                          // 112 sessid
    0x02, 0x00, 0x00, 0x00,                          // 116 xflags: room for a trailer
    0x1a, 0x1b, 0x1c, 0x1d,                          // 120 reserved
    0x2a, 0x2b, 0x2c, 0x2d,                          // 124 callid, word 0
    0x3a, 0x3b, 0x3c, 0x3d,                          // 128 callid, word 1
    0x4a, 0x4b, 0x4c, 0x4d,                          // 132 callid, word 2
};
// clang-format on

std::string hex(const void *bytes, size_t from, size_t to)
{
    std::string text;
    for (size_t i = from; i < to; i++) {
        char one[12];
        snprintf(one, sizeof one, "%s%02x", i == from ? "" : " ", ((const unsigned char *)bytes)[i]);
        text += one;
    }
    return text;
}

void expect_bytes(const void *got, const void *awaited, size_t from, size_t to)
{
    EXPECT_EQ(hex(got, from, to), hex(awaited, from, to)) << "from offset " << from;
}

struct name_row {
    int number;
    const char *name;
};

// clang-format off
const name_row NAMES[] = {
    {1, "TPSTART"}, {2, "TPEND"}, {3, "TPCALL"}, {4, "TPACALL"}, {5, "TPCONNECT"}, {6, "TPSEND"},
    {7, "TPRECV"}, {8, "TPDISCON"}, {9, "TPFORWARD"}, {10, "TPGETRPLY"}, {11, "TPGETUNSOL"},
    {12, "TPPOST"}, {13, "TPBROADCAST"}, {14, "TPNOTIFY"}, {15, "TPSUBSCRIBE"}, {16, "TPUNSUBSCRIBE"},
    {17, "TPENQ"}, {18, "TPDEQ"}, {19, "TPSENDTOCLI"}, {20, "TPSENDTOCLH"}, {21, "TPINIT"}, {22, "TPTERM"},
    {23, "TPPRESVC"}, {24, "TPQCALL"}, {25, "TPRQS"}, {26, "TPEVENT_REQUEST"}, {27, "TPQSTAT"},
    {28, "TPACALL_BLOCK"}, {29, "TPRELAY"}, {30, "TPREISSUE"}, {31, "TX_BEGIN"}, {32, "TX_COMMIT"},
    {33, "TX_ROLLBACK"}, {34, "TX_OPEN"}, {35, "TX_CLOSE"}, {36, "TX_INFO"}, {37, "TX_SET_COMMIT_RETURN"},
    {38, "TX_SET_TX_CONTROL"}, {39, "TX_SET_TX_TIMEOUT"}, {40, "TPSUBSCRIBE2"}, {41, "PINGREQ"},
    {42, "PINGREPLY"}, {43, "GIOP_SVC"}, {44, "GIOP_CLI"}, {45, "TPMCALL"}, {46, "GETSVG"}, {47, "TPBOOT"},
    {48, "TPDOWN"}, {49, "TPSUSPENDTX"}, {50, "TPRESUMETX"}, {51, "CLIENT_RECV"}, {52, "SERVER_RECV"},
    {61, "CONV_TIMEOUT"}, {62, "ATTACH_CLISEND"}, {63, "ATTACH_SVRSEND"}, {71, "XA_BRANCH_INFO"},
    {72, "XA_JOIN_CHECK"}, {73, "CMPR_MSG"}, {80, "TPTHRDOWN"}, {81, "ACL_INFO"}, {99, "TPUNKNOWN"},
    {100, "INTERNAL_MSG"}, {101, "TPROCREG"}, {102, "FDSEND"}, {103, "TPGETPEERNAME"},
    {104, "TPGETSOCKNAME"}, {105, "TPROC_UNREG"}, {106, "SPRBOOT_REQUEST"}, {107, "SPRDOWN_REQUEST"},
    {108, "DOWN_REQUEST"}, {109, "CLH_REGISTER_NOTIFY"}, {110, "STATUS_INQUIRY"}, {111, "DDR_OFFSET_SET"},
    {112, "XA_PREPARE"}, {113, "XA_COMMIT"}, {114, "XA_RBACK"}, {115, "XA_RBACK2"}, {116, "XA_COMMIT2"},
    {117, "XID_BQUAL_REQUEST"}, {118, "NCLH_START_NOTIFY"}, {119, "NCLH_DOWN_NOTIFY"},
    {120, "NODE_DOWN_NOTIFY"}, {121, "USERLOG"}, {122, "SYSLOG"}, {123, "ULOGSYNC"},
    {124, "SUSPEND_REQUEST"}, {125, "RESUME_REQUEST"}, {126, "TXLOG_REQUEST"}, {127, "XA_RECOVER"},
    {128, "XA_FORGET"}, {129, "INFO_REQUEST"}, {130, "SET_REQUEST"}, {131, "QPURGE_REQUEST"},
    {133, "DISCON_REQUEST"}, {134, "TXQUERY_REQUEST"}, {135, "CPCREG"}, {136, "RQCTL_REQUEST"},
    {137, "CFGADD_REQUEST"}, {138, "ROUTINFO_PROPAGATE"}, {139, "SVRDOWN_PREPARE"}, {140, "CLEAR_REQUEST"},
    {141, "CLH_READY_NOTIFY"}, {142, "AUTH_REQUEST"}, {143, "SHMCHANGE_START"}, {144, "SHMCHANGE_END"},
    {145, "SHMCHANGE_CANCEL"}, {148, "SVCLOG"}, {149, "XA_START"}, {150, "XA_END"}, {151, "SVCREG"},
    {152, "NODE_SVCREG"}, {153, "NODE_SVCREG2"}, {154, "ADMIN_REQUEST"}, {155, "AUTOTRAN_RBACK"},
    {156, "GETADDR"}, {157, "NODE_SVCUNREG"}, {158, "SPRDOWN_PASS"}, {159, "GWTXLOG_REQUEST"},
    {160, "CHTRC_REQUEST"}, {161, "CHLOG_REQUEST"}, {162, "FUNC_REG"}, {163, "NODE_FUNCREG"},
    {164, "TOPSVC_REG"}, {165, "NODE_FUNCREG2"}, {166, "GET_ACTIVESVR"}, {167, "TPSVRINIT_END"},
    {168, "TPSVRDONE_START"}, {169, "SPR_CLOSE"}, {170, "TPROCTHRREG"}, {171, "TPROCTHRUNREG"},
    {172, "TPROC_TIMEO"}, {173, "TX_RECOVER"}, {174, "GWTX_GETPEND"}, {175, "GWTX_PUTPEND"},
    {176, "GWTX_RECOVER"}, {177, "TX_RECOVERD_NOTIFY"}, {178, "TX_RECOVER_REQ"},
    {179, "COUSIN_SVR_REGISTER_NOTIFY"}, {181, "SQ_REQUEST"}, {201, "NODEREG"}, {202, "NODE_UNREG"},
    {203, "NPING_REQUEST"}, {204, "NLIVE_NOTIFY"}, {205, "NDEAD_NOTIFY"}, {206, "NCLH_REG"},
    {207, "NCLH_UNREG"}, {208, "RBOOT_REQUEST"}, {209, "RDOWN_REQUEST"}, {210, "RCFL_REQUEST"},
    {211, "RADMIN_REG"}, {212, "RADMIN_UNREG"}, {213, "RADMIN_REQUEST"}, {214, "NODE_CFGADD"},
    {215, "RACL_REQUEST"}, {216, "RGWCH_CONNECT"}, {217, "DOWNWARN_REQUEST"}, {218, "RTDL_REQUEST"},
    {219, "ADV_REQUEST"}, {220, "UNADV_REQUEST"}, {221, "WSGW_RELOAD"}, {222, "WSGW_GET_INFO"},
    {223, "WSGW_SUSPEND"}, {224, "WSGW_RESUME"}, {225, "GETSPR"}, {226, "SENDFD_PREPARE"},
    {227, "RECVFD_PREPARE"}, {228, "ULOGCLOSE"}, {230, "ACLCTL_REQUEST"}, {231, "OPTCFG_REQUEST"},
    {232, "OPTSET_REQUEST"}, {233, "CLH_RECONN"}
};
// clang-format on
constexpr int HIGHEST = 2233;

// The name that a number must have, from the rows alone.
std::string name_of(int number)
{
    const char *const endings[] = {"", "_REPLY", "_EREPLY"};
    int form = number < 0 ? 3 : number / 1000;
    for (const name_row &row : NAMES)
        if (form < 3 && row.number == number - 1000 * form)
            return std::string(row.name) + endings[form];
    return "UNKNOWN";
}

}

TEST(HeaderToTheWire, InPlaceTurnsEveryIntegerAndNoText)
{
    msg_header h = sample(MSG_TPCALL);
    EXPECT_EQ(_hton_header(&h, &h), &h);
    expect_bytes(&h, SAMPLE_ON_THE_WIRE, 0, 136);
}

TEST(HeaderToTheWire, IntoAnotherRecordGivesTheSameBytesAndLeavesTheSource)
{
    msg_header h = sample(MSG_TPCALL), source = h, other;
    memset(&other, 0, sizeof other);
    EXPECT_EQ(_hton_header(&h, &other), &other);
    expect_bytes(&other, SAMPLE_ON_THE_WIRE, 0, 136);
    expect_bytes(&h, &source, 0, 136);
}

TEST(HeaderFromTheWire, InPlaceAndIntoAnotherRecord)
{
    msg_header awaited = sample(MSG_TPCALL), in_place, other;
    memcpy(&in_place, SAMPLE_ON_THE_WIRE, 136);
    memset(&other, 0, sizeof other);
    EXPECT_EQ(_ntoh_header(&in_place, &other), &other);
    expect_bytes(&other, &awaited, 0, 136);
    EXPECT_EQ(_ntoh_header(&in_place, &in_place), &in_place);
    expect_bytes(&in_place, &awaited, 0, 136);
}

TEST(HeaderToTheWire, BroadcastKeepsItsDestinationReadable)
{
    msg_header h = sample(MSG_TPBROADCAST);
    const char name[32] = "client-of-the-broadcast-and-on.";
    memcpy(&h.value, name, sizeof name);
    _hton_header(&h, &h);
    EXPECT_EQ(memcmp((char *)&h + 36, name, sizeof name), 0);
    expect_bytes(&h, SAMPLE_ON_THE_WIRE, 0, 16);
    EXPECT_EQ(hex(&h, 16, 20), "00 00 00 0d");
    expect_bytes(&h, SAMPLE_ON_THE_WIRE, 20, 36);
    expect_bytes(&h, SAMPLE_ON_THE_WIRE, 68, 136);
}

TEST(HeaderToTheWire, BroadcastIntoAnotherRecordLeavesThatAreaUnwritten)
{
    msg_header h = sample(MSG_TPBROADCAST), other;
    memset(&other, 0xee, sizeof other);
    _hton_header(&h, &other);
    EXPECT_EQ(hex(&other, 36, 52), "ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee ee");
    expect_bytes(&other, SAMPLE_ON_THE_WIRE, 52, 68);
}

TEST(HeaderFromTheWire, BroadcastIsTurnedLikeAnyOther)
{
    msg_header h = sample(MSG_TPBROADCAST);
    _hton_header(&h, &h);
    _ntoh_header(&h, &h);
    EXPECT_EQ(h.msgtype, MSG_TPBROADCAST);
    EXPECT_EQ(h.value, 0x44434241);
    EXPECT_EQ(h.xid[0], 0x54535251u);
    EXPECT_EQ(h.xid[1], 0x64636261u);
    EXPECT_EQ(h.xid[2], 0x74737271u);
    EXPECT_EQ(h.rcode, 0x11121314);
}

TEST(HeaderToTheWire, RoundTripGivesEveryOtherTypeBack)
{
    for (int type : {1, 2, 3, 4, 12, 14, 130, 1003, 2233, 0, -1}) {
        msg_header h = sample(type), awaited = h;
        _ntoh_header(_hton_header(&h, &h), &h);
        expect_bytes(&h, &awaited, 0, 136);
    }
}

TEST(HeaderServiceName, ThirtyOneCharactersSurviveAndTheLastByteIsNul)
{
    msg_header h = sample(MSG_TPCALL), out, back;
    memset(&out, 0xee, sizeof out);
    memset(&back, 0xee, sizeof back);
    memcpy(h.svcname, "0123456789012345678901234567890!", 32);  // no NUL at all
    _hton_header(&h, &out);
    EXPECT_STREQ(out.svcname, "0123456789012345678901234567890");
    memcpy(out.svcname, h.svcname, 32);
    _ntoh_header(&out, &back);
    EXPECT_STREQ(back.svcname, "0123456789012345678901234567890");
}

TEST(HeaderServiceName, ShortNameIsCopiedWithItsNul)
{
    msg_header h = sample(MSG_TPCALL), out;
    memset(&out, 0xee, sizeof out);
    _hton_header(&h, &out);
    EXPECT_STREQ(out.svcname, "TOUPPER");
    EXPECT_EQ(out.svcname[31], 0);
}

TEST(HeaderInit, ClearsAllButMagicAndKind)
{
    msg_header h;
    memset(&h, 0xee, sizeof h);
    EXPECT_EQ(_init_header(&h), 1);
    unsigned char awaited[136] = {};
    memcpy(awaited, &MESSAGE_MAGIC, 4);
    awaited[8] = 9;
    expect_bytes(&h, awaited, 0, 136);
}

TEST(HeaderMessage, HasItsTypeItsArgumentAndRoomForATrailer)
{
    msg_header *h = _header_msg_make(1014, -7);
    ASSERT_NE(h, nullptr);
    msg_header awaited;
    memset(&awaited, 0, sizeof awaited);
    awaited.magic = 0x90352082;
    awaited.buftype = 9;
    awaited.msgtype = 1014;
    awaited.rcode = -7;
    awaited.xflags = 0x02000000;
    expect_bytes(h, &awaited, 0, 136);
    memset((char *)h + 136, 0x5a, 72);  // 208 bytes in all
    free(h);
}

TEST(HeaderMessage, WithoutMemoryIsLoggedWithTheHeadersSize)
{
    LogFile log;
    free(_header_msg_make(1, 0));  // the tables are there from now on
    faults::fail_allocation(1);
    EXPECT_EQ(_header_msg_make(1, 0), nullptr);
    faults::disarm_allocations();
    EXPECT_TRUE(log.has("(E) CLI 0001 memory allocation error : size = 136 [COM0001]")) << log.text();
}

TEST(HeaderNames, EveryNumberOfTheCatalogue)
{
    int known = 0;
    for (int number = 0; number <= 5000; number++) {
        ASSERT_EQ(std::string(_real_getmsgtype(number)), name_of(number)) << "number " << number;
        known += name_of(number) != "UNKNOWN";
    }
    EXPECT_EQ(known, 513);
    EXPECT_EQ(sizeof NAMES / sizeof NAMES[0], 171u);
}

TEST(HeaderNames, Edges)
{
    EXPECT_STREQ(_real_getmsgtype(0), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(HIGHEST), "CLH_RECONN_EREPLY");
    EXPECT_STREQ(_real_getmsgtype(HIGHEST + 1), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(3003), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(501), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(1), "TPSTART");
    EXPECT_STREQ(_real_getmsgtype(1001), "TPSTART_REPLY");
    EXPECT_STREQ(_real_getmsgtype(2001), "TPSTART_EREPLY");
    EXPECT_STREQ(_real_getmsgtype(-1), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(INT32_MIN), "UNKNOWN");
    EXPECT_STREQ(_real_getmsgtype(INT32_MAX), "UNKNOWN");
}

TEST(HeaderName, PutNameCutsAndEndsWithNul)
{
    char field[8];
    memset(field, 'x', sizeof field);
    put_name(field, sizeof field, "abcdefghij");
    EXPECT_STREQ(field, "abcdefg");
    put_name(field, sizeof field, "ab");
    EXPECT_STREQ(field, "ab");
}
