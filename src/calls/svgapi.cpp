// Calls that choose where they go: to one server, to one group of a service, to all of them.
//
// tpcallsvg and tpacallsvg stand beside tpcall and tpacall, which they are but for one word of the request.
// A multicast fills arrays of its own and puts them into the context's record at the end, so that threads
// that share a context replace each other's results and never write to them.
#include "calls/svgapi.h"

#include "buffers/payload.h"
#include "buffers/tbuffer.h"
#include "calls/cscommon.h"
#include "calls/etcapi.h"
#include "calls/tpapi.h"
#include "calls/unsolapi.h"
#include "runtime/thrapi.h"
#include "vorn/buffers.h"
#include "vorn/calls.h"
#include "vorn/errors.h"
#include "vorn/groups.h"
#include "wire/clhio.h"
#include "wire/msgheader.h"

#include <stdlib.h>
#include <string.h>
#include <utility>

extern "C" {

static constexpr uint32_t GROUP_REQUEST_FLAGS = TPSVGCALL | TPNOTRAN | TPNOREPLY;
static_assert(GROUP_REQUEST_FLAGS == 0x80000C);
static constexpr uint32_t TPGETRPLY_FLAGS = 0x1A3;  // what of a call's flags concerns the fetch of its reply

static constexpr api_text TPSVGCALL_TEXT = API_TEXT("tpsvgcall", "(%d, \"%s\", \"%s\", %#x, %d, %d)");
static constexpr api_text TPMCALL = API_POINTER_TEXT("tpmcall", "(\"%s\", \"%s\", %#x, %d, %d)");
static constexpr api_text TPMCALLX = API_POINTER_TEXT("tpmcallx", "(\"%s\", %#x, %d, %d)");
static constexpr api_text TPGETSPRLIST = API_TEXT("tpgetsprlist", "(\"%s\", %d, %#x, %#x)");

int tpspracall(char *svc, int spri, char *data, long len, long flags)
{
    return _tpacall(svc, spri, data, len, flags | TPSPRCALL);
}

int tpspracall2(char *svc, int spri, int proc, char *data, long len, long flags)
{
    return _tpacall2(svc, spri, proc, data, len, flags | TPSPRCALL);
}

// --- Requests to a group, without a reply.

// What tpsvgcall and tpmcall send.
struct group_request {
    msg_header *message;  // the caller's own
    int rqno;             // the queue it goes through; -1: none
    int datalen;
};

// The checks in front of such a request. 0, or an error number, or -1 with tperrno set.
static int check_request(group_request *request, const char *qname, const char *svc, char *data, long len,
                         long flags, wthr_var *block)
{
    if (flags != 0 || svc == nullptr || data == nullptr)
        return TPEINVAL;
    if (!is_typed_buffer(data))
        return TPEOTYPE;
    request->message = message_of(data);
    request->datalen = _data_itype_check(data, buffer_length(len), block);
    if (request->datalen < 0)
        return -1;
    request->rqno = qname == nullptr ? -1 : _get_rqno_by_qname(qname, block);
    return qname != nullptr && request->rqno < 0 ? TPENOENT : 0;
}

static void fill_request(const group_request *request, const char *svc, wthr_var *block)
{
    msg_header *message = request->message;
    if (request->rqno < 0)
        take_priority(message, block);
    message->msgtype = request->rqno < 0 ? MSG_TPACALL : MSG_TPENQ;
    message->flags = GROUP_REQUEST_FLAGS;
    put_name(message->svcname, sizeof message->svcname, svc);
    message->datalen = request->datalen;
    message->cd = request->rqno;
    clear_direction(message);
}

// Sends the request to one group and waits until its queue, if it has one, has it. 1, or -1 with tperrno set.
static int send_to_group(const group_request *request, int32_t svgno, wthr_var *block)
{
    msg_header *message = request->message;
    message->seqno = next_seqno(block);
    message->target = svgno;
    if (_send_csmsg_to_clh(message, block) < 0)
        return -1;
    if (request->rqno < 0)
        return 1;
    msg_header *want = template_of(MSG_TPENQ, 0, block);
    if (want == nullptr) {
        set_tperrno(TPEOS);
        return -1;
    }
    int block_time = block->block_time;
    msg_header *reply = await_reply(want, block_time > 0 ? block_time : 0, block);
    if (reply == nullptr)
        return -1;
    bool accepted = reply->msgtype == MSG_TPENQ + REPLY;
    free(reply);
    if (accepted)
        return 1;
    set_tperrno(error_in(message));  // the request's own header: callers know a refusal by its flags word
    return -1;
}

int tpsvgcall(int svgno, char *qname, char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPSVGCALL_TEXT, svgno, shown(qname), shown(svc), data, (int)len, (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPSVGCALL_TEXT);
    group_request request;
    int error = check_request(&request, qname, svc, data, len, flags, block);
    if (error > 0)
        return api_fail(&frame, &TPSVGCALL_TEXT, error);
    if (error < 0)
        return api_error(&frame, &TPSVGCALL_TEXT);
    fill_request(&request, svc, block);
    if (send_to_group(&request, svgno, block) < 0)
        return api_error(&frame, &TPSVGCALL_TEXT);
    return api_return(&TPSVGCALL_TEXT, 1);
}

// --- Multicasts.

static void *no_result(const api_frame *frame, const api_text *text, int error)
{
    if (error > 0)
        set_tperrno(error);
    return api_give(frame, text, nullptr);
}

// An array of `count` numbers, and one more; null without memory.
static int32_t *make_numbers(int32_t count)
{
    return (int32_t *)calloc((size_t)count + 1, sizeof(int32_t));
}

// The groups as a list ended by -1, which takes the place of the numbers. Null, and these freed, without
// memory.
static int32_t *ended_list(group_numbers *groups)
{
    int32_t *list = (int32_t *)realloc(groups->numbers, ((size_t)groups->count + 1) * sizeof(int32_t));
    if (list != nullptr)
        list[groups->count] = -1;
    else
        free(groups->numbers);
    return list;
}

static void free_result(mcall_result *result)
{
    free(result->list);
    free(result->failed_list);
    *result = {};
}

static void free_replies(mcallx_result *result)
{
    free(result->list);
    free(result->errors);
    free(result->urcodes);
    *result = {};
}

void free_answers(wthr_var *block)
{
    free_groups(&block->groups);
    free_result(&block->mcall);
    free_replies(&block->mcallx);
}

mcall_result *tpmcall(char *qname, char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPMCALL, shown(qname), shown(svc), data, (int)len, (int)flags))
        return nullptr;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return (mcall_result *)no_result(&frame, &TPMCALL, 0);
    group_request request;
    int error = check_request(&request, qname, svc, data, len, flags, block);
    group_numbers groups;
    if (error != 0 || !fetch_groups(svc, &groups, block))
        return (mcall_result *)no_result(&frame, &TPMCALL, error);
    mcall_result result = {groups.count, 0, ended_list(&groups), make_numbers(groups.count)};
    if (result.list == nullptr || result.failed_list == nullptr) {
        free_result(&result);
        return (mcall_result *)no_result(&frame, &TPMCALL, TPEOS);
    }
    fill_request(&request, svc, block);
    for (int32_t i = 0; i < result.count; i++)
        if (send_to_group(&request, result.list[i], block) < 0)
            result.failed_list[result.failed++] = result.list[i];
    _thread_mutex_lock(&block->msg_mutex);
    std::swap(block->mcall, result);
    _thread_mutex_unlock(&block->msg_mutex);
    free_result(&result);  // the earlier one
    return (mcall_result *)api_give(&frame, &TPMCALL, &block->mcall);
}

// A multicast that collects replies.
struct multicast {
    char *svc, *data;
    long len, flags;
    char *buffer;      // takes the replies in turn
    int *descriptors;  // by group; -1: not sent, or the request failed
    mcallx_result result;
};

static void note_failure(multicast *cast, int32_t i)
{
    cast->result.errors[i] = get_tperrno();
    cast->result.urcodes[i] = 0;
}

// A call whose session is lost does nothing and says 1, which is no descriptor of ours.
static void start_group(multicast *cast, int32_t i, const wthr_var *block)
{
    int cd = -1;
    if (block->started == 0)
        set_tperrno(TPECLOSE);
    else
        cd = tpacallsvg(cast->result.list[i], cast->svc, cast->data, cast->len, cast->flags);
    cast->descriptors[i] = cd;
    if (cd < 0)
        note_failure(cast, i);
}

static void collect_group(multicast *cast, int32_t i, wthr_var *block)
{
    if (cast->descriptors[i] < 0 || (cast->flags & TPNOREPLY) != 0)
        return;
    int cd = cast->descriptors[i];
    long length;
    if (tpgetrply(&cd, &cast->buffer, &length, cast->flags & TPGETRPLY_FLAGS) > 0) {
        cast->result.errors[i] = 0;
        cast->result.urcodes[i] = (int32_t)gettpurcode();
        return;
    }
    note_failure(cast, i);
    release_call(cast->descriptors[i], block);  // a wait that failed left it, and nobody else knows it
}

// Sends to the groups in their order, `window` of them ahead of the one whose reply is collected.
static void run_multicast(multicast *cast, int32_t window, wthr_var *block)
{
    int32_t sent = 0;
    for (int32_t next = 0; next < cast->result.count; next++) {
        for (; window > 0 && sent < cast->result.count; window--)
            start_group(cast, sent++, block);
        collect_group(cast, next, block);
        window++;
    }
}

// Makes what a multicast needs. 0, or an error number; what was made is freed by release_multicast.
static int prepare_multicast(multicast *cast, group_numbers *groups, int32_t window)
{
    int32_t count = groups->count;
    cast->result = {count, count, count, ended_list(groups), make_numbers(count), make_numbers(count)};
    if (cast->result.list == nullptr || cast->result.errors == nullptr || cast->result.urcodes == nullptr)
        return TPEOS;
    if (window < 1)
        return TPELIMIT;
    cast->buffer = tpalloc((char *)"STRING", nullptr, 0);
    cast->descriptors = make_numbers(count);
    if (cast->buffer == nullptr || cast->descriptors == nullptr)
        return TPEOS;
    memset(cast->descriptors, -1, (size_t)count * sizeof(int));
    return 0;
}

static void release_multicast(multicast *cast)
{
    free(cast->descriptors);
    if (cast->buffer != nullptr)
        tpfree(cast->buffer);
    free_replies(&cast->result);
}

mcallx_result *tpmcallx(char *svc, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPMCALLX, shown(svc), data, (int)len, (int)flags))
        return nullptr;
    set_tperrno(0);
    if (svc == nullptr)
        return (mcallx_result *)no_result(&frame, &TPMCALLX, TPEINVAL);
    if (_data_itype_check(data, buffer_length(len), frame.block) < 0)
        return (mcallx_result *)no_result(&frame, &TPMCALLX, 0);
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return (mcallx_result *)no_result(&frame, &TPMCALLX, 0);
    group_numbers groups;
    if (!fetch_groups(svc, &groups, block))
        return (mcallx_result *)no_result(&frame, &TPMCALLX, get_tperrno() == 0 ? TPENOENT : 0);
    multicast cast = {svc, data, len, flags, nullptr, nullptr, {}};
    int32_t window = block->acall_size - block->acall_active;
    int error = prepare_multicast(&cast, &groups, window);
    if (error == 0) {
        run_multicast(&cast, window, block);
        _thread_mutex_lock(&block->msg_mutex);
        std::swap(block->mcallx, cast.result);
        _thread_mutex_unlock(&block->msg_mutex);
    }
    release_multicast(&cast);  // with the earlier result
    if (error != 0)
        return (mcallx_result *)no_result(&frame, &TPMCALLX, error);
    return (mcallx_result *)api_give(&frame, &TPMCALLX, &block->mcallx);
}

// --- Servers of a group.

int tpgetsprlist(char *svc, int svgno, int *first, int *second)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPGETSPRLIST, shown(svc), svgno, first, second))
        return -1;
    set_tperrno(0);
    if (svc == nullptr || first == nullptr || second == nullptr)
        return api_fail(&frame, &TPGETSPRLIST, TPEINVAL);
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPGETSPRLIST);
    msg_header *question = _header_msg_make(MSG_GETSPR, 0);
    if (question == nullptr)
        return api_fail(&frame, &TPGETSPRLIST, TPESYSTEM);
    question->target = svgno;
    put_name(question->svcname, sizeof question->svcname, svc);
    msg_header *answer = ask_server(question, block);
    if (answer == nullptr)
        return api_error(&frame, &TPGETSPRLIST);
    bool good = answer->msgtype == MSG_GETSPR + REPLY;
    int error = (int)answer->flags;
    if (good) {
        *first = answer->srcid;
        *second = answer->target;
    }
    free(answer);
    return good ? api_return(&TPGETSPRLIST, 1) : api_fail(&frame, &TPGETSPRLIST, error);
}
}
