// The message header, its two conversions, and the names of the message types.
#include "wire/msgheader.h"

#include "runtime/errlog.h"
#include "runtime/mthr.h"

#include <stdlib.h>

extern "C" {

int _init_header(msg_header *header)
{
    memset(header, 0, sizeof *header);
    header->magic = MESSAGE_MAGIC;
    header->buftype = BUF_HEADER;
    return 1;
}

msg_header *_header_msg_make(int32_t msgtype, int32_t rcode)
{
    if (current_row() == nullptr)
        return nullptr;
    msg_header *message = (msg_header *)malloc(BLOCK_OVERHEAD + 8);
    if (message == nullptr) {
        // The line tells the header's size, not the block's.
        VORN_LOG(1, LEVEL_ERROR, "COM0001", "0001 memory allocation error : size = %d", HEADER_SIZE);
        return nullptr;
    }
    _init_header(message);
    message->msgtype = msgtype;
    message->rcode = rcode;
    message->xflags = XFLAG_TRAILER_ROOM;
    return message;
}

// Turns `count` words from `offset` on. Turning a word is its own inverse, so both directions share it;
// source and destination may be the same record.
static void turn_words(const msg_header *source, msg_header *destination, size_t offset, int count)
{
    const char *from = (const char *)source + offset;
    char *to = (char *)destination + offset;
    for (int i = 0; i < count; i++) {
        uint32_t word;
        memcpy(&word, from + 4 * i, sizeof word);
        put_word(to + 4 * i, word);
    }
}

// The two names travel as they stand; a service name is always ended.
static void copy_names(const msg_header *source, msg_header *destination)
{
    if (source != destination) {
        memcpy(destination->subtype, source->subtype, sizeof destination->subtype);
        put_name(destination->svcname, sizeof destination->svcname, source->svcname);
    }
    destination->svcname[sizeof destination->svcname - 1] = '\0';
}

constexpr int LEADING_WORDS = 9;   // magic to prio
constexpr int VALUE_WORDS = 4;     // value and xid
constexpr int TRAILING_WORDS = 9;  // datalen to callid

msg_header *_hton_header(const msg_header *source, msg_header *destination)
{
    int32_t msgtype = source->msgtype;
    turn_words(source, destination, 0, LEADING_WORDS);
    if (msgtype != MSG_TPBROADCAST)
        turn_words(source, destination, offsetof(msg_header, value), VALUE_WORDS);
    turn_words(source, destination, offsetof(msg_header, datalen), TRAILING_WORDS);
    copy_names(source, destination);
    return destination;
}

// No exception for a broadcast here: a header that went out as one comes back with its destination's first 16
// bytes scrambled, and nobody reads them.
msg_header *_ntoh_header(const msg_header *source, msg_header *destination)
{
    turn_words(source, destination, 0, LEADING_WORDS + VALUE_WORDS);
    turn_words(source, destination, offsetof(msg_header, datalen), TRAILING_WORDS);
    copy_names(source, destination);
    return destination;
}

void put_name(char *field, size_t size, const char *name)
{
    size_t length = strnlen(name, size - 1);
    memmove(field, name, length);
    field[length] = '\0';
}

// One list gives the names of requests, replies (base number plus 1000) and error replies (plus 2000).
// clang-format off
#define MESSAGE_CATALOGUE(X) \
    X(1, TPSTART) X(2, TPEND) X(3, TPCALL) X(4, TPACALL) X(5, TPCONNECT) X(6, TPSEND) X(7, TPRECV) \
    X(8, TPDISCON) X(9, TPFORWARD) X(10, TPGETRPLY) X(11, TPGETUNSOL) X(12, TPPOST) X(13, TPBROADCAST) \
    X(14, TPNOTIFY) X(15, TPSUBSCRIBE) X(16, TPUNSUBSCRIBE) X(17, TPENQ) X(18, TPDEQ) X(19, TPSENDTOCLI) \
    X(20, TPSENDTOCLH) X(21, TPINIT) X(22, TPTERM) X(23, TPPRESVC) X(24, TPQCALL) X(25, TPRQS) \
    X(26, TPEVENT_REQUEST) X(27, TPQSTAT) X(28, TPACALL_BLOCK) X(29, TPRELAY) X(30, TPREISSUE) \
    X(31, TX_BEGIN) X(32, TX_COMMIT) X(33, TX_ROLLBACK) X(34, TX_OPEN) X(35, TX_CLOSE) X(36, TX_INFO) \
    X(37, TX_SET_COMMIT_RETURN) X(38, TX_SET_TX_CONTROL) X(39, TX_SET_TX_TIMEOUT) X(40, TPSUBSCRIBE2) \
    X(41, PINGREQ) X(42, PINGREPLY) X(43, GIOP_SVC) X(44, GIOP_CLI) X(45, TPMCALL) X(46, GETSVG) \
    X(47, TPBOOT) X(48, TPDOWN) X(49, TPSUSPENDTX) X(50, TPRESUMETX) X(51, CLIENT_RECV) \
    X(52, SERVER_RECV) X(61, CONV_TIMEOUT) X(62, ATTACH_CLISEND) X(63, ATTACH_SVRSEND) \
    X(71, XA_BRANCH_INFO) X(72, XA_JOIN_CHECK) X(73, CMPR_MSG) X(80, TPTHRDOWN) X(81, ACL_INFO) \
    X(99, TPUNKNOWN) X(100, INTERNAL_MSG) X(101, TPROCREG) X(102, FDSEND) X(103, TPGETPEERNAME) \
    X(104, TPGETSOCKNAME) X(105, TPROC_UNREG) X(106, SPRBOOT_REQUEST) X(107, SPRDOWN_REQUEST) \
    X(108, DOWN_REQUEST) X(109, CLH_REGISTER_NOTIFY) X(110, STATUS_INQUIRY) X(111, DDR_OFFSET_SET) \
    X(112, XA_PREPARE) X(113, XA_COMMIT) X(114, XA_RBACK) X(115, XA_RBACK2) X(116, XA_COMMIT2) \
    X(117, XID_BQUAL_REQUEST) X(118, NCLH_START_NOTIFY) X(119, NCLH_DOWN_NOTIFY) X(120, NODE_DOWN_NOTIFY) \
    X(121, USERLOG) X(122, SYSLOG) X(123, ULOGSYNC) X(124, SUSPEND_REQUEST) X(125, RESUME_REQUEST) \
    X(126, TXLOG_REQUEST) X(127, XA_RECOVER) X(128, XA_FORGET) X(129, INFO_REQUEST) X(130, SET_REQUEST) \
    X(131, QPURGE_REQUEST) X(133, DISCON_REQUEST) X(134, TXQUERY_REQUEST) X(135, CPCREG) \
    X(136, RQCTL_REQUEST) X(137, CFGADD_REQUEST) X(138, ROUTINFO_PROPAGATE) X(139, SVRDOWN_PREPARE) \
    X(140, CLEAR_REQUEST) X(141, CLH_READY_NOTIFY) X(142, AUTH_REQUEST) X(143, SHMCHANGE_START) \
    X(144, SHMCHANGE_END) X(145, SHMCHANGE_CANCEL) X(148, SVCLOG) X(149, XA_START) X(150, XA_END) \
    X(151, SVCREG) X(152, NODE_SVCREG) X(153, NODE_SVCREG2) X(154, ADMIN_REQUEST) X(155, AUTOTRAN_RBACK) \
    X(156, GETADDR) X(157, NODE_SVCUNREG) X(158, SPRDOWN_PASS) X(159, GWTXLOG_REQUEST) \
    X(160, CHTRC_REQUEST) X(161, CHLOG_REQUEST) X(162, FUNC_REG) X(163, NODE_FUNCREG) X(164, TOPSVC_REG) \
    X(165, NODE_FUNCREG2) X(166, GET_ACTIVESVR) X(167, TPSVRINIT_END) X(168, TPSVRDONE_START) \
    X(169, SPR_CLOSE) X(170, TPROCTHRREG) X(171, TPROCTHRUNREG) X(172, TPROC_TIMEO) X(173, TX_RECOVER) \
    X(174, GWTX_GETPEND) X(175, GWTX_PUTPEND) X(176, GWTX_RECOVER) X(177, TX_RECOVERD_NOTIFY) \
    X(178, TX_RECOVER_REQ) X(179, COUSIN_SVR_REGISTER_NOTIFY) X(181, SQ_REQUEST) X(201, NODEREG) \
    X(202, NODE_UNREG) X(203, NPING_REQUEST) X(204, NLIVE_NOTIFY) X(205, NDEAD_NOTIFY) X(206, NCLH_REG) \
    X(207, NCLH_UNREG) X(208, RBOOT_REQUEST) X(209, RDOWN_REQUEST) X(210, RCFL_REQUEST) \
    X(211, RADMIN_REG) X(212, RADMIN_UNREG) X(213, RADMIN_REQUEST) X(214, NODE_CFGADD) \
    X(215, RACL_REQUEST) X(216, RGWCH_CONNECT) X(217, DOWNWARN_REQUEST) X(218, RTDL_REQUEST) \
    X(219, ADV_REQUEST) X(220, UNADV_REQUEST) X(221, WSGW_RELOAD) X(222, WSGW_GET_INFO) \
    X(223, WSGW_SUSPEND) X(224, WSGW_RESUME) X(225, GETSPR) X(226, SENDFD_PREPARE) X(227, RECVFD_PREPARE) \
    X(228, ULOGCLOSE) X(230, ACLCTL_REQUEST) X(231, OPTCFG_REQUEST) X(232, OPTSET_REQUEST) \
    X(233, CLH_RECONN)
// clang-format on

constexpr int HIGHEST_BASE = 233;
constexpr int HIGHEST_NAMED = ERROR_REPLY + HIGHEST_BASE;

#define REQUEST_NAME(number, name) names[number] = #name;
#define REPLY_NAME(number, name) names[number] = #name "_REPLY";
#define ERROR_REPLY_NAME(number, name) names[number] = #name "_EREPLY";

struct base_names {
    const char *names[HIGHEST_BASE + 1];
};
static constexpr base_names request_names = [] {
    base_names table = {};
    auto &names = table.names;
    MESSAGE_CATALOGUE(REQUEST_NAME)
    return table;
}();
static constexpr base_names reply_names = [] {
    base_names table = {};
    auto &names = table.names;
    MESSAGE_CATALOGUE(REPLY_NAME)
    return table;
}();
static constexpr base_names error_reply_names = [] {
    base_names table = {};
    auto &names = table.names;
    MESSAGE_CATALOGUE(ERROR_REPLY_NAME)
    return table;
}();

static const base_names *const names_by_thousand[] = {&request_names, &reply_names, &error_reply_names};

const char *_real_getmsgtype(int number)
{
    if (number < 0 || number > HIGHEST_NAMED || number % 1000 > HIGHEST_BASE)
        return "UNKNOWN";
    const char *name = names_by_thousand[number / 1000]->names[number % 1000];
    return name != nullptr ? name : "UNKNOWN";
}
}
