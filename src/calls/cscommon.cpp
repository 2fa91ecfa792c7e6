// Tables of outstanding work. Rows are created, released and scanned under msg_mutex; the sweeps collect what
// they end while they hold it, and send or free after they have let it go, because sending takes it again.
#include "calls/cscommon.h"

#include "calls/convapi.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "vorn/errors.h"
#include "vorn/flags.h"
#include "wire/clhread.h"
#include "wire/msgheader.h"

#include <stdlib.h>

extern "C" {

static int table_size(int size)
{
    return size > MOST_ROWS ? MOST_ROWS : size;
}

static void clear_acall_row(acall_elem *row)
{
    row->cd = -1;
    row->flags = 0;
    row->reply = nullptr;
    row->ready_no = 0;
    row->fd = -1;
}

int _init_acall(int size, wthr_var *block)
{
    for (int i = 0; block->acall != nullptr && i < block->acall_size; i++)
        free(block->acall[i].reply);
    free(block->acall);
    block->acall = nullptr;
    block->acall_size = 0;
    block->acall_active = 0;
    if (size < 1)
        return -1;
    size = table_size(size);
    block->acall = (acall_elem *)calloc((size_t)size, sizeof(acall_elem));
    if (block->acall == nullptr) {
        VORN_LOG(1, LEVEL_FATAL, "CSC5106", "0005 memory allocation error : size = %d",
                 (int)(size * sizeof(acall_elem)));
        return -1;
    }
    block->acall_size = size;
    for (int i = 0; i < size; i++)
        clear_acall_row(&block->acall[i]);
    return 1;
}

static void free_nodes(msg_node *node)
{
    while (node != nullptr) {
        msg_node *next = node->next;
        free(node);
        node = next;
    }
}

static void free_nodes_and_messages(msg_node *node)
{
    for (msg_node *n = node; n != nullptr; n = n->next)
        free(n->msg);
    free_nodes(node);
}

static void clear_conv_row(conv_elem *row)
{
    row->cd = -1;
    row->flags = 0;
    row->event = 0;
    row->head = nullptr;
    row->tail = nullptr;
}

// Threads may hold numbers of rows across a rolling start: their rows stay, cleared, where the table is large
// enough for the new server, or as a retired block. Expects msg_mutex.
static bool remake_conv(int size, wthr_var *block)
{
    conv_elem *table = block->conv;
    for (int i = 0; table != nullptr && i < block->conv_room; i++) {
        free_nodes_and_messages(table[i].head);
        clear_conv_row(&table[i]);
    }
    if (block->rolling != 0) {
        block->conv_generation++;
        end_waits_of_conversations(block);
    }
    block->conv_active = 0;
    block->conv_size = 0;
    if (size > 0 && size <= block->conv_room && block->rolling != 0) {
        block->conv_size = size;
        return true;
    }
    conv_elem *made = size < 1 ? nullptr : (conv_elem *)calloc((size_t)size, sizeof(conv_elem));
    for (int i = 0; made != nullptr && i < size; i++)
        clear_conv_row(&made[i]);
    if (made != nullptr || block->rolling == 0) {
        block->conv = made;
        block->conv_room = made == nullptr ? 0 : size;
        block->conv_size = block->conv_room;
        retire(table, block);
    }
    return made != nullptr;
}

int _init_conv(int size, wthr_var *block)
{
    size = table_size(size);
    _thread_mutex_lock(&block->msg_mutex);
    bool made = remake_conv(size, block);
    _thread_mutex_unlock(&block->msg_mutex);
    if (size > 0 && !made)
        VORN_LOG(0, LEVEL_ERROR, "CSC5101", "0004 memory allocation error : size = %d",
                 (int)(size * sizeof(conv_elem)));
    return made ? 1 : -1;
}

// Expects msg_mutex.
static bool remake_qcall(int size, wthr_var *block)
{
    for (int i = 0; block->qcall != nullptr && i < block->qcall_size; i++)
        free_nodes_and_messages(block->qcall[i].head);
    free(block->qcall);
    block->qcall = size < 1 ? nullptr : (qcall_elem *)calloc((size_t)size, sizeof(qcall_elem));
    block->qcall_size = block->qcall == nullptr ? 0 : size;
    for (int i = 0; i < block->qcall_size; i++)
        block->qcall[i].id = -1;
    return size < 1 || block->qcall != nullptr;
}

int _init_qcall(int size, wthr_var *block)
{
    size = table_size(size);
    _thread_mutex_lock(&block->msg_mutex);
    bool made = remake_qcall(size, block);
    _thread_mutex_unlock(&block->msg_mutex);
    if (!made)
        VORN_LOG(1, LEVEL_FATAL, "CSC5106", "0005 memory allocation error : size = %d",
                 (int)(size * sizeof(qcall_elem)));
    return 1;
}

int _init2_acall(int size, wthr_var *block)
{
    for (int i = 0; i < size && i < block->acall_size; i++) {
        acall_elem *row = &block->acall[i];
        uint32_t ready_no = row->ready_no;
        free(row->reply);
        clear_acall_row(row);
        row->ready_no = ready_no;
    }
    return 1;
}

int _init2_conv(int size, wthr_var *block)
{
    for (int i = 0; i < size && i < block->conv_size; i++) {
        free_nodes(block->conv[i].head);
        clear_conv_row(&block->conv[i]);
    }
    return 1;
}

// Row with descriptor `cd`: a walk over all rows from its home row; -1. Both tables begin their rows with the
// descriptor.
static int find_descriptor(const void *table, size_t row_size, int size, int cd)
{
    if (size < 1 || cd < 0)
        return -1;
    for (int walked = 0, i = cd % size; walked < size; walked++, i = i + 1 == size ? 0 : i + 1)
        if (*(const shared_int32 *)((const char *)table + row_size * (size_t)i) == cd)
            return i;
    return -1;
}

int _create_acall_cd(uint32_t flags, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    int size = block->acall_size;
    int cd = -1;
    if (size >= 1) {
        block->acall_next = block->acall_next == INT32_MAX ? 1 : block->acall_next + 1;
        for (int walked = 0, i = block->acall_next % size; walked < size;
             walked++, i = i + 1 == size ? 0 : i + 1) {
            acall_elem *row = &block->acall[i];
            if (row->cd != -1)
                continue;
            row->flags = flags;
            row->fd = -1;  // that of the call before it may end while this one hasn't left yet
            row->cd = cd = block->acall_next;
            block->acall_active++;
            break;
        }
    }
    _thread_mutex_unlock(&block->msg_mutex);
    return cd;
}

// Expects msg_mutex. The reply is the caller's to free, or went to the user.
static void release_acall_row(acall_elem *row, wthr_var *block)
{
    row->cd = -1;
    row->flags = 0;
    row->reply = nullptr;
    block->acall_active--;
}

int _make_acall_cd_invalid(int index, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    if (index >= 0 && index < block->acall_size)
        release_acall_row(&block->acall[index], block);
    _thread_mutex_unlock(&block->msg_mutex);
    return 1;
}

// Releases the live rows that have all bits of `flags`, and frees their stored replies.
static void release_acall_rows(uint32_t flags, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    for (int i = 0; i < block->acall_size; i++) {
        acall_elem *row = &block->acall[i];
        if (row->cd == -1 || (row->flags & flags) != flags)
            continue;
        free(row->reply);
        release_acall_row(row, block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
}

int _make_all_acall_cd_invalid(wthr_var *block)
{
    release_acall_rows(0, block);
    block->acall_active = 0;
    return 1;
}

int _make_tran_acall_cd_invalid(wthr_var *block)
{
    release_acall_rows(TPTRAN, block);
    return 1;
}

int _get_active_tran_acall(wthr_var *block)
{
    int count = 0;
    for (int i = 0; i < block->acall_size; i++)
        if (block->acall[i].cd != -1 && (block->acall[i].flags & TPTRAN) != 0)
            count++;
    return count;
}

int _get_acall_cd_ind(int cd, wthr_var *block)
{
    return find_descriptor(block->acall, sizeof(acall_elem), block->acall_size, cd);
}

int set_acall_fd(int fd, const msg_header *message, wthr_var *block)
{
    if (message->msgtype != MSG_TPACALL)
        return 1;
    int index = _get_acall_cd_ind(message->cd, block);
    if (index < 0)
        return -1;
    block->acall[index].fd = fd;
    return 1;
}

// Released rows count too: they keep their socket.
int check_rolling_cd(int fd, wthr_var *block)
{
    for (int i = 0; i < block->acall_size; i++)
        if (block->acall[i].fd == fd)
            return 1;
    return -1;
}

bool awaits_reply_on(int fd, const wthr_var *block)
{
    for (int i = 0; i < block->acall_size; i++) {
        const acall_elem *row = &block->acall[i];
        if (row->fd == fd && row->cd != -1 && row->reply == nullptr)
            return true;
    }
    return false;
}

void fail_calls_on(int fd, wthr_var *block)
{
    for (int i = 0; i < block->acall_size; i++) {
        acall_elem *row = &block->acall[i];
        if (row->fd != fd || row->cd == -1 || row->reply != nullptr)
            continue;
        msg_header *reply = _header_msg_make(MSG_TPACALL + ERROR_REPLY, 0);
        if (reply == nullptr)
            return;  // what is left waits for its own time limit
        reply->cd = row->cd;
        reply->flags = TPECLOSE;
        if (hand_to_waiter(reply, block))
            continue;
        row->reply = reply;
        row->ready_no = ++block->ready_seq;
    }
}

int oldest_ready(const wthr_var *block)
{
    int oldest = -1;
    for (int i = 0; i < block->acall_size; i++) {
        const acall_elem *row = &block->acall[i];
        if (row->reply != nullptr && (oldest < 0 || row->ready_no < block->acall[oldest].ready_no))
            oldest = i;
    }
    return oldest;
}

int _get_acall_ind_from_ready(wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    int oldest = oldest_ready(block);
    _thread_mutex_unlock(&block->msg_mutex);
    return oldest;
}

int release_call(int cd, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    int index = _get_acall_cd_ind(cd, block);
    if (index >= 0) {
        free(block->acall[index].reply);
        release_acall_row(&block->acall[index], block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
    end_old_socket_if_done(false, block);
    return index < 0 ? -1 : 1;
}

msg_header *take_stored_reply(int index, wthr_var *block)
{
    msg_header *reply = block->acall[index].reply;
    block->acall[index].reply = nullptr;
    return reply;
}

int append_msg_node(msg_node **head, msg_node **tail, msg_header *message)
{
    msg_node *node = (msg_node *)calloc(1, sizeof *node);
    if (node == nullptr)
        return -1;
    node->msg = message;
    if (*tail == nullptr)
        *head = node;
    else
        (*tail)->next = node;
    *tail = node;
    return 1;
}

static void fill_conv_row(conv_elem *row, int cd, uint32_t flags, wthr_var *block)
{
    row->cd = cd;
    row->flags = flags;
    row->event = 0;
    if ((flags & CONV_OUT) != 0)
        block->conv_active++;
}

// Expects msg_mutex. The nodes go; their messages stay with whoever else holds them.
static void release_conv_row(conv_elem *row, wthr_var *block)
{
    if ((row->flags & CONV_OUT) != 0)
        block->conv_active--;
    free_nodes(row->head);
    clear_conv_row(row);
}

// A row whose caller may lose it: opened with one of the lowest four flags.
constexpr uint32_t CONV_RECLAIMABLE = 0xF;

int _create_conv_entry(int cd, uint32_t flags, wthr_var *block)
{
    int size = block->conv_size;
    if (size < 1)
        return -1;
    int start = (cd < 0 ? 0 : cd) % size, found = -1;
    _thread_mutex_lock(&block->msg_mutex);
    for (int walked = 0, i = start; walked < size && found < 0; walked++, i = i + 1 == size ? 0 : i + 1)
        if (block->conv[i].cd == -1)
            found = i;
    for (int walked = 0, i = start; walked < size && found < 0; walked++, i = i + 1 == size ? 0 : i + 1) {
        if ((block->conv[i].flags & CONV_RECLAIMABLE) == 0)
            continue;
        free_nodes_and_messages(block->conv[i].head);
        block->conv[i].head = nullptr;
        release_conv_row(&block->conv[i], block);
        found = i;
    }
    if (found >= 0)
        fill_conv_row(&block->conv[found], cd, flags, block);
    _thread_mutex_unlock(&block->msg_mutex);
    return found;
}

int release_conversation(int index, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    if (index >= 0 && index < block->conv_size) {
        free_nodes_and_messages(block->conv[index].head);
        block->conv[index].head = nullptr;
        release_conv_row(&block->conv[index], block);
    }
    _thread_mutex_unlock(&block->msg_mutex);
    return 1;
}

int _make_conv_cd_invalid(int index, wthr_var *block)
{
    _thread_mutex_lock(&block->msg_mutex);
    if (index >= 0 && index < block->conv_size)
        release_conv_row(&block->conv[index], block);
    _thread_mutex_unlock(&block->msg_mutex);
    return 1;
}

// True for a live row with all bits of `flags`.
static bool conv_row_has(const conv_elem *row, uint32_t flags)
{
    return row->cd != -1 && (row->flags & flags) == flags;
}

// Ends the conversations whose rows have all bits of `flags`. No lock: ending one sends, and takes msg_mutex.
static void end_conversations(uint32_t flags, wthr_var *block)
{
    for (int i = 0; i < block->conv_size; i++)
        if (conv_row_has(&block->conv[i], flags))
            end_conversation(i, block);
}

int _make_all_convout_cd_invalid(wthr_var *block)
{
    end_conversations(CONV_OUT, block);
    block->conv_active = 0;
    return 1;
}

int _make_tran_convout_cd_invalid(wthr_var *block)
{
    end_conversations(CONV_OUT | TPTRAN, block);
    return 1;
}

int _get_active_tran_conv(wthr_var *block)
{
    int count = 0;
    for (int i = 0; i < block->conv_size; i++)
        count += conv_row_has(&block->conv[i], CONV_OUT | TPTRAN);
    return count;
}

int _get_conv_cd_ind(int cd, wthr_var *block)
{
    int size = block->conv_size;  // before the table, which may be replaced by a larger one
    return find_descriptor(block->conv, sizeof(conv_elem), size, cd);
}

int _enqueue_qcall_q(int rqno, msg_header *message, wthr_var *block)
{
    if (rqno < 0 || rqno >= block->qcall_size)
        return -1;
    qcall_elem *row = &block->qcall[rqno];
    if (append_msg_node(&row->head, &row->tail, message) < 0) {
        VORN_LOG(0, LEVEL_ERROR, "CSC5102", "0004 memory allocation error : size = %d",
                 (int)sizeof(msg_node));
        return -1;
    }
    row->count++;
    return 1;
}

msg_header *_dequeue_qcall_q(int rqno, wthr_var *block)
{
    qcall_elem *row = rqno >= 0 && rqno < block->qcall_size ? &block->qcall[rqno] : nullptr;
    if (row == nullptr || row->head == nullptr) {
        VORN_LOG(0, LEVEL_ERROR, "CSC5103", "0209 internal error : Qcall Q is NULL, but tried to dequeue");
        return nullptr;
    }
    msg_node *node = row->head;
    msg_header *message = node->msg;
    row->head = node->next;
    if (row->head == nullptr)
        row->tail = nullptr;
    row->count--;
    free(node);
    return message;
}

int _get_any_rqno_from_ready(wthr_var *block)
{
    for (int i = 0; i < block->qcall_size; i++)
        if (block->qcall[i].head != nullptr)
            return i;
    return -1;
}

bool has_queue_reply(int rqno, const wthr_var *block)
{
    return rqno >= 0 && rqno < block->qcall_size && block->qcall[rqno].head != nullptr;
}
}
