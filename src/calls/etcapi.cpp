// Status and information: questions to the server, addresses, priorities, what a buffer's header tells.
//
// Entered from the application. A question is a bare header without a number, and its answer is told by its
// type alone: threads that share a connection and ask the same at one time may get each other's answer.
#include "calls/etcapi.h"

#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "queue/rqapi.h"
#include "runtime/thrapi.h"
#include "session/address.h"
#include "session/cliapi.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "vorn/query.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>

extern "C" {

static constexpr api_text TPGETCLIADDR = API_TEXT("tpgetcliaddr", "(%d, %#x, %#x, %d)");
static constexpr api_text TPGETPEERNAME = API_TEXT("tpgetpeername", "(%#x, %#x)");
static constexpr api_text TPGETSOCKNAME = API_TEXT("tpgetsockname", "(%#x, %#x)");
static constexpr api_text TPSET_TIMEOUT = API_TEXT("tpset_timeout", "(%d)");
static constexpr api_text TPGET_TIMEOUT = API_TEXT("tpget_timeout", "(void)");
static constexpr api_text TPSLEEP = API_TEXT("tpsleep", "(%#x)");
static constexpr api_text TPGPRIO = API_TEXT("tpgprio", "(void)");
static constexpr api_text TPSPRIO = API_TEXT("tpsprio", "(%d, %d)");
static constexpr api_text TPCHKAUTH = API_TEXT("tpchkauth", "(void)");
static constexpr api_text TPGETACTIVESVR = API_TEXT("tpgetactivesvr", "(\"%s\", %#x)");
static constexpr api_text TPGETSVGLIST = API_POINTER_TEXT("tpgetsvglist", "(\"%s\", %d)");
static constexpr api_text VORNLASTSVC = {"vornlastsvc", "vornlastsvc(%#x, %#x, %d)", "vornlastsvc = \"%s\"",
                                         "vornlastsvc = NULL [%d : %s]"};
static constexpr api_text TPEXTSVCNAME = API_TEXT("tpextsvcname", "(%#x, %#x)");
static constexpr api_text TPEXTSVCINFO = API_TEXT("tpextsvcinfo", "(%#x, %#x, %#x, %#x)");
static constexpr api_text TPQSVCSTAT = API_TEXT("tpqsvcstat", "(\"%s\", \"%s\", %d)");
static constexpr api_text TPQSTAT = API_TEXT("tpqstat", "(\"%s\", %d)");

// --- Addresses.

int tpgetcliaddr(int clid, int *addr, int *port, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETCLIADDR, clid, addr, port, (int)flags))
        return -1;
    set_tperrno(0);
    if (addr == nullptr || port == nullptr)
        return api_fail(&frame, &TPGETCLIADDR, TPEINVAL);
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPGETCLIADDR);
    msg_header *question = _header_msg_make(MSG_GETADDR, clid);
    if (question == nullptr)
        return api_fail(&frame, &TPGETCLIADDR, TPESYSTEM);
    msg_header *answer = ask_server(question, block);
    if (answer == nullptr)
        return api_error(&frame, &TPGETCLIADDR);
    bool known = answer->msgtype == MSG_GETADDR + REPLY;
    if (known) {
        *addr = answer->rcode;
        *port = answer->cd;
    }
    free(answer);
    return known ? api_return(&TPGETCLIADDR, 0) : api_fail(&frame, &TPGETCLIADDR, TPESYSTEM);
}

typedef int name_of_socket(int fd, struct sockaddr *name, socklen_t *namelen);

static int tell_name(const api_frame *frame, const api_text *text, name_of_socket *tell,
                     struct sockaddr *name, socklen_t *namelen)
{
    set_tperrno(0);
    if (name == nullptr || namelen == nullptr)
        return api_fail(frame, text, TPEINVAL);
    wthr_var *block = begin_session(frame->block);
    if (block == nullptr)
        return api_error(frame, text);
    socklen_t length = 16;
    int result = tell(block->clhfd, name, &length);
    *namelen = length;
    return api_return(text, result);
}

int tpgetpeername(struct sockaddr *name, socklen_t *namelen)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETPEERNAME, name, namelen))
        return -1;
    return tell_name(&frame, &TPGETPEERNAME, getpeername, name, namelen);
}

int tpgetsockname(struct sockaddr *name, socklen_t *namelen)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETSOCKNAME, name, namelen))
        return -1;
    return tell_name(&frame, &TPGETSOCKNAME, getsockname, name, namelen);
}

// --- Time.

int tpset_timeout(int seconds)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSET_TIMEOUT, seconds))
        return -1;
    frame.block->block_time = seconds;
    return api_return(&TPSET_TIMEOUT, 1);
}

int tpget_timeout(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGET_TIMEOUT))
        return -1;
    return api_return(&TPGET_TIMEOUT, frame.block->block_time);
}

int tpsleep(struct timeval *time)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSLEEP, time))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPSLEEP);
    if (block->started == 0)  // lost: nothing could end the sleep
        return api_fail(&frame, &TPSLEEP, TPEOS);
    return api_return(&TPSLEEP, await_input(block, time));
}

// --- Priorities.

int tpgprio(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGPRIO))
        return -1;
    set_tperrno(0);
    if (frame.block->last_prio == -1)
        return api_fail(&frame, &TPGPRIO, TPENOENT);
    return api_return(&TPGPRIO, frame.block->next_prio);
}

int tpsprio(int prio, long flags)
{
    constexpr int64_t LOWEST = 1, HIGHEST = 100;
    api_frame frame;
    if (!API_ENTER(&frame, TPSPRIO, prio, (int)flags))
        return -1;
    set_tperrno(0);
    int64_t wanted = prio;
    if ((flags & TPABSOLUTE) == 0)
        wanted += frame.block->default_prio;
    if (wanted < LOWEST || wanted > HIGHEST)
        return api_fail(&frame, &TPSPRIO, TPEINVAL);
    frame.block->next_prio = (int32_t)wanted;
    return api_return(&TPSPRIO, 1);
}

int tpchkauth(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPCHKAUTH))
        return -1;
    set_tperrno(0);
    return api_return(&TPCHKAUTH, 0);
}

// --- Servers and their groups.

// Is there a row for this node? _get_nodeno_from_nodename wouldn't tell: where there is one node only, any
// name is its.
static bool is_known_node(const char *name, const wthr_var *block)
{
    initout_tables tables = initout_of(block);
    for (int32_t i = 0; i < tables.node_count; i++)
        if (is_row_name(name, tables.nodes[i].name))
            return true;
    return false;
}

int tpgetactivesvr(char *nodename, char **buffer)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETACTIVESVR, shown(nodename), buffer))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPGETACTIVESVR);
    if (nodename != nullptr && !is_known_node(nodename, block))
        return api_fail(&frame, &TPGETACTIVESVR, TPEINVAL);
    if (buffer == nullptr)
        return api_fail(&frame, &TPGETACTIVESVR, TPEINVAL);
    msg_header *question = _header_msg_make(MSG_GET_ACTIVESVR, 0);
    if (question == nullptr)
        return api_fail(&frame, &TPGETACTIVESVR, TPESYSTEM);
    // A name of the list has no more than 16 characters: it fits.
    if (nodename != nullptr)
        put_name(question->svcname, sizeof question->svcname, nodename);
    msg_header *answer = ask_server(question, block);
    if (answer == nullptr)
        return api_error(&frame, &TPGETACTIVESVR);
    if (answer->msgtype != MSG_GET_ACTIVESVR + REPLY) {
        free(answer);
        return api_error(&frame, &TPGETACTIVESVR);
    }
    *buffer = message_data(answer);
    return api_return(&TPGETACTIVESVR, answer->rcode);
}

// Turns the group numbers of an answer to host order. How many there are: what the answer tells, but no more
// than its data holds.
static int32_t turn_groups(msg_header *answer)
{
    char *data = message_data(answer);
    int32_t room = answer->datalen / (int32_t)sizeof(int32_t);
    int32_t count = answer->rcode < 0 ? 0 : answer->rcode < room ? answer->rcode : room;
    for (int32_t i = 0; i < count; i++) {
        uint32_t group = get_word(data + i * sizeof group);
        memcpy(data + i * sizeof group, &group, sizeof group);
    }
    return count;
}

void free_groups(svg_list *list)
{
    if (list->spare != nullptr)
        tpfree(list->spare);
    if (list->svgs != nullptr)
        free(message_of((char *)list->svgs));
    *list = {};
}

// Asks for the groups and keeps the answer in the context's record; `copy`, unless null, gets a copy of its
// own. False with tperrno set, or 0 for another answer.
static bool ask_for_groups(const char *svc, group_numbers *copy, wthr_var *block)
{
    msg_header *question = _header_msg_make(MSG_GETSVG, 0);
    if (question == nullptr) {
        set_tperrno(TPESYSTEM);
        return false;
    }
    put_name(question->svcname, sizeof question->svcname, svc);
    msg_header *answer = ask_server(question, block);
    if (answer == nullptr)
        return false;
    if (answer->msgtype != MSG_GETSVG + REPLY) {
        free(answer);
        return false;
    }
    svg_list list = {turn_groups(answer), 0, (int32_t *)message_data(answer), nullptr};
    if (copy != nullptr) {
        size_t bytes = (size_t)list.count * sizeof(int32_t);
        *copy = {list.count, (int32_t *)malloc(bytes + 1)};
        if (copy->numbers == nullptr) {
            free(answer);
            set_tperrno(TPEOS);
            return false;
        }
        memcpy(copy->numbers, list.svgs, bytes);
    }
    _thread_mutex_lock(&block->msg_mutex);
    svg_list earlier = block->groups;
    block->groups = list;
    _thread_mutex_unlock(&block->msg_mutex);
    free_groups(&earlier);
    return true;
}

bool fetch_groups(const char *svc, group_numbers *groups, wthr_var *block)
{
    return ask_for_groups(svc, groups, block);
}

svg_list *tpgetsvglist(char *svc, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETSVGLIST, shown(svc), (int)flags))
        return nullptr;
    set_tperrno(0);
    if (svc == nullptr) {
        set_tperrno(TPEINVAL);
        return (svg_list *)api_give(&frame, &TPGETSVGLIST, nullptr);
    }
    wthr_var *block = begin_session(frame.block);
    bool asked = block != nullptr && ask_for_groups(svc, nullptr, block);
    return (svg_list *)api_give(&frame, &TPGETSVGLIST, asked ? &block->groups : nullptr);
}

// --- What a buffer's header tells.

static bool names_a_service(const char *data)
{
    return is_typed_buffer(data) && message_of((char *)data)->svcname[0] != '\0';
}

char *vornlastsvc(char *ibuf, char *obuf, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, VORNLASTSVC, ibuf, obuf, (int)flags))
        return nullptr;
    set_tperrno(0);
    char *source = names_a_service(obuf) ? obuf : names_a_service(ibuf) ? ibuf : nullptr;
    if (source == nullptr) {
        api_fail(&frame, &VORNLASTSVC, TPEINVAL);
        return nullptr;
    }
    char *last = frame.block->last_svc;
    memcpy(last, message_of(source)->svcname, sizeof frame.block->last_svc);
    last[sizeof frame.block->last_svc - 1] = '\0';
    VORN_TRACE(VORNLASTSVC.name, 1, TRACE_RESULT, VORNLASTSVC.result, last);
    return last;
}

// Copies the name of the buffer's service. The buffer's header, or null with tperrno set.
static const msg_header *extract_name(char *buffer, char *name)
{
    if (buffer == nullptr || name == nullptr) {
        set_tperrno(TPEINVAL);
        return nullptr;
    }
    if (!is_typed_buffer(buffer)) {
        set_tperrno(TPEITYPE);
        return nullptr;
    }
    const msg_header *header = message_of(buffer);
    memcpy(name, header->svcname, sizeof header->svcname);
    name[sizeof header->svcname - 1] = '\0';  // the application may have written to the header
    return header;
}

int tpextsvcname(char *buffer, char *name)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPEXTSVCNAME, buffer, name))
        return -1;
    set_tperrno(0);
    if (extract_name(buffer, name) == nullptr)
        return api_error(&frame, &TPEXTSVCNAME);
    return api_return(&TPEXTSVCNAME, 1);
}

// What the thousands of the priority word stand for.
static int type_by_priority(int32_t prio)
{
    return prio < 1000 ? 0 : prio < 2000 ? 2 : prio < 3000 ? -1 : 1;
}

int tpextsvcinfo(char *buffer, char *name, int *type, int *errcode)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPEXTSVCINFO, buffer, name, type, errcode))
        return -1;
    set_tperrno(0);
    const msg_header *header = extract_name(buffer, name);
    if (header == nullptr)
        return api_error(&frame, &TPEXTSVCINFO);
    if (type != nullptr)
        *type = type_by_priority(header->prio);
    if (errcode != nullptr)
        *errcode = header->rcode;
    return api_return(&TPEXTSVCINFO, 1);
}

// --- Queues.

constexpr int STAT_KINDS = 4;

// Asks for the state of a queue's part, or of a service behind it. The answer is the caller's; null with
// tperrno set.
static msg_header *ask_for_state(const char *qname, const char *part, wthr_var *block)
{
    int rqno = _get_rqno_by_qname(qname, block);
    if (rqno < 0) {
        set_tperrno(TPENOENT);
        return nullptr;
    }
    msg_header *question = _header_msg_make(MSG_TPQSTAT, 0);
    if (question == nullptr) {
        set_tperrno(TPESYSTEM);
        return nullptr;
    }
    question->seqno = next_seqno(block);
    question->cd = rqno;
    put_name(question->svcname, sizeof question->svcname, part);
    if (send_request(question, nullptr, block) < 0)
        return nullptr;
    return await_reply(template_of(MSG_TPQSTAT, 0, block), wait_limit(block, 0, 0), block);
}

int tpqsvcstat(char *qname, char *svc, int kind)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPQSVCSTAT, shown(qname), shown(svc), kind))
        return -1;
    set_tperrno(0);
    if (kind < 0 || kind >= STAT_KINDS || qname == nullptr)
        return api_fail(&frame, &TPQSVCSTAT, TPEINVAL);
    wthr_var *block = begin_session(frame.block);
    msg_header *answer = block == nullptr ? nullptr : ask_for_state(qname, shown(svc), block);
    if (answer == nullptr)
        return api_error(&frame, &TPQSVCSTAT);
    bool good =
        answer->msgtype == MSG_TPQSTAT + REPLY && answer->datalen >= STAT_KINDS * (int32_t)sizeof(int32_t);
    int result = good ? (int)get_word(message_data(answer) + kind * sizeof(int32_t)) : error_in(answer);
    free(answer);
    return good ? api_return(&TPQSVCSTAT, result) : api_fail(&frame, &TPQSVCSTAT, result);
}

int tpqstat(char *qname, int kind)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPQSTAT, shown(qname), kind))
        return -1;
    set_tperrno(0);
    if (kind >= STAT_KINDS || qname == nullptr)
        return api_fail(&frame, &TPQSTAT, TPEINVAL);
    const char *part = kind < 0 ? "" : _rq_sub_queue_name[kind];
    wthr_var *block = begin_session(frame.block);
    msg_header *answer = block == nullptr ? nullptr : ask_for_state(qname, part, block);
    if (answer == nullptr)
        return api_error(&frame, &TPQSTAT);
    bool good = answer->msgtype == MSG_TPQSTAT + REPLY;
    int result = good ? answer->rcode : error_in(answer);
    free(answer);
    return good ? api_return(&TPQSTAT, result) : api_fail(&frame, &TPQSTAT, result);
}
}
