#include "queue/rqctl.h"

#include "calls/cscommon.h"
#include "calls/unsolapi.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <atomic>
#include <stdlib.h>
#include <string.h>

extern "C" {

// The rest of the record is bytes.
struct rqctl_words {
    int32_t offset;
    int32_t step;  // 8: a long, of which the low half travels, in front of four zero bytes
    int32_t count;
};
static constexpr rqctl_words WORDS[] = {{0, 4, 4}, {112, 8, 4}, {144, 4, 5}};

int _hton_data_rqctl(msg_header *message)
{
    constexpr int32_t big_endian = 1;
    if (std::atomic_ref<int32_t>(_endian).load(std::memory_order_relaxed) == big_endian)
        return 1;
    for (const rqctl_words &words : WORDS) {
        char *at = message_data(message) + words.offset;
        for (int i = 0; i < words.count; i++, at += words.step) {
            uint32_t turned = get_word(at);
            memcpy(at, &turned, sizeof turned);
            memset(at + 4, 0, (size_t)words.step - 4);
        }
    }
    return 1;
}

msg_header *_add_rqctl(const void *ctl, const msg_header *message)
{
    int64_t datalen = message->datalen < 0 ? 0 : message->datalen;
    int64_t room = message->bufsize > datalen ? message->bufsize : datalen;
    int64_t size = room + RQCTL_SIZE + BLOCK_OVERHEAD;
    msg_header *whole = size > INT32_MAX ? nullptr : (msg_header *)malloc((size_t)size);
    if (whole == nullptr) {
        set_tperrno(TPEOS);
        return nullptr;
    }
    memcpy(whole, message, sizeof *whole);
    char *to = message_data(whole);
    const char *data = (const char *)message + HEADER_SIZE;
    if (ctl == nullptr) {
        memcpy(to, data, (size_t)datalen);
        return whole;
    }
    memcpy(to, ctl, RQCTL_SIZE);
    memcpy(to + RQCTL_SIZE, data, (size_t)datalen);
    whole->target = RQCTL_MARK;
    if (message->buftype == BUF_STRUCT)
        whole->buftype = BUF_RQ_STRUCT;
    else if (message->buftype == BUF_FIELD)
        whole->buftype = BUF_RQ_FIELD;
    _hton_data_rqctl(whole);
    whole->datalen = (int32_t)datalen + RQCTL_SIZE;
    return whole;
}

static constexpr api_text TPREISSUE = API_TEXT("tpreissue", "(\"%s\", \"%s\", %d)");

int tpreissue(char *qname, char *svc, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPREISSUE, shown(qname), shown(svc), (int)flags))
        return -1;
    wthr_var *block = begin_session(frame.block);
    if (block == nullptr)
        return api_error(&frame, &TPREISSUE);
    if (flags != 0 || qname == nullptr || svc != nullptr)
        return api_fail(&frame, &TPREISSUE, TPEINVAL);
    int rqno = _get_rqno_by_qname(qname, block);
    if (rqno < 0)
        return api_fail(&frame, &TPREISSUE, TPENOENT);
    msg_header *question = _header_msg_make(MSG_TPREISSUE, 0);
    if (question == nullptr)
        return api_fail(&frame, &TPREISSUE, TPESYSTEM);
    question->seqno = next_seqno(block);
    question->cd = rqno;
    msg_header *answer = ask_server(question, block);
    if (answer == nullptr)
        return api_error(&frame, &TPREISSUE);
    bool good = answer->msgtype == MSG_TPREISSUE + REPLY;
    int result = good ? answer->rcode : error_in(answer);
    free(answer);
    return good ? api_return(&TPREISSUE, result) : api_fail(&frame, &TPREISSUE, result);
}
}
