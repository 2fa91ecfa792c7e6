// The user log.
//
// The environment decides at the first line: ULOGPFX or ULOG name a local file, without them lines travel to
// the server. _ulog_mutex is held over the way out of a line, so lines stay whole and in order; ulogsync,
// userlog2 and the reset by the environment calls run beside it. What they share with a line in progress is
// local_flag, which is only touched atomically, and ulogfd with its file, for which file_mutex is held; it is
// taken inside _ulog_mutex, and only for the time of a write.
#include "runtime/userlog.h"

#include "runtime/common.h"
#include "runtime/errlog.h"
#include "runtime/thrapi.h"
#include "tx/tx.h"
#include "vorn/errors.h"
#include "wire/clhio.h"
#include "wire/msgheader.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {

pthread_mutex_t _ulog_mutex = PTHREAD_MUTEX_INITIALIZER;
int32_t local_flag = ULOG_UNDECIDED;
int32_t ulogfd = -1;
char *pulogpfx = nullptr;
int32_t ulog_date[3] = {0, 0, 0};
time_t _cur_time = 0;

static constexpr size_t LINE_SIZE = 8100;
static constexpr size_t TEXT_LIMIT = 8097;     // prefix and text of a formatted line, with a terminator
static constexpr size_t COUNTED_LIMIT = 8099;  // prefix and text of a counted line
static constexpr uint32_t FLAGS_OF_COUNTING_FORM = 0x200;

static pthread_mutex_t file_mutex = PTHREAD_MUTEX_INITIALIZER;

static std::atomic_ref<int32_t> destination(void)
{
    return std::atomic_ref<int32_t>(local_flag);
}

// Expects file_mutex.
static void close_file(void)
{
    if (ulogfd >= 0)
        close(ulogfd);
    ulogfd = -1;
}

void close_user_log(void)
{
    _thread_mutex_lock(&file_mutex);
    close_file();
    _thread_mutex_unlock(&file_mutex);
}

void reset_user_log(void)
{
    destination().store(ULOG_UNDECIDED);
    close_user_log();
}

int date_cmp(const int *a, const int *b)
{
    int64_t difference =
        (a[2] - (int64_t)b[2]) * 10000 + (a[0] - (int64_t)b[0]) * 100 + (a[1] - (int64_t)b[1]);
    return difference == 0 ? 0 : difference > 0 ? 1 : -1;
}

// Takes the present time into _cur_time, for the line and for the banner of a file that it opens.
static void take_time(tm *local)
{
    time_t now = time(nullptr);
    std::atomic_ref<time_t>(_cur_time).store(now, std::memory_order_relaxed);
    localtime_r(&now, local);
}

static bool write_banner(int fd)
{
    time_t now = std::atomic_ref<time_t>(_cur_time).load(std::memory_order_relaxed);
    char when[26], banner[64];
    int length = snprintf(banner, sizeof banner, "\n\nNew log started at %s\n\n", ctime_r(&now, when));
    return write(fd, banner, (size_t)length) == length;
}

int ulog_open(const int *date, const char *prefix)
{
    char name[PATH_MAX];
    int length = snprintf(name, sizeof name, "%s.%02d%02d%04d", prefix, date[0], date[1], date[2]);
    if ((size_t)length >= sizeof name)  // no file has such a name
        return -1;
    constexpr int flags = O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC;
    int fd = open(name, flags, 0666);
    if (fd < 0 && errno == ENOENT) {
        // The prefix itself becomes a directory too; the file stands beside it.
        _vorn_create_dir(prefix);
        fd = open(name, flags, 0666);
    }
    if (fd < 0)
        return -1;
    if (!write_banner(fd)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Our own copy of the prefix: the environment's may go when the application changes it.
static void set_prefix(const char *value)
{
    static char *owned = nullptr;
    free(owned);
    owned = strdup(value);
    pulogpfx = owned != nullptr ? owned : (char *)value;
}

// Where lines go; decides it at the first. Expects _ulog_mutex.
static int32_t decide_destination(void)
{
    int32_t decided = destination().load();
    if (decided >= 0)
        return decided;
    const char *prefix = getenv("ULOGPFX");
    if (prefix == nullptr)
        prefix = getenv("ULOG");
    if (prefix != nullptr)
        set_prefix(prefix);
    decided = prefix != nullptr ? ULOG_TO_FILE : ULOG_TO_SERVER;
    destination().store(decided);
    return decided;
}

// "cli.4711.120501: ", and the transaction's identity if one is open. The length.
static size_t write_prefix(char *line, const tm *local, const txinfo_elem *txinfo)
{
    int length = snprintf(line, LINE_SIZE, "cli.%d.%02d%02d%02d: ", (int)getpid(), local->tm_hour,
                          local->tm_min, local->tm_sec);
    if (txinfo != nullptr && txinfo->tx_active == 1)
        length += snprintf(line + length, LINE_SIZE - (size_t)length, "xid = %x %x %x: ", txinfo->xid_data[0],
                           txinfo->xid_data[1], txinfo->xid_data[2]);
    return (size_t)length;
}

// Sends line[0, length), with its terminator, as a message. Bytes sent, or -1 with tperrno set.
static int send_line(const char *line, size_t length, uint32_t flags, const char *code, wthr_var *block)
{
    size_t size = length + 1;
    msg_header *message = (msg_header *)malloc(HEADER_SIZE + size);
    if (message == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, code, "0003 memory allocation error : size = %d", (int)(HEADER_SIZE + size));
        set_tperrno(TPEOS);
        return -1;
    }
    _init_header(message);
    message->buftype = BUF_STRING;
    message->msgtype = MSG_USERLOG;
    message->rcode = (int32_t)getpid();
    message->target = 0;
    message->bufsize = (int32_t)size;
    message->datalen = (int32_t)size;
    message->flags = flags;
    message->cd = 0;
    put_name(message->svcname, sizeof message->svcname, "_userlog");
    memcpy(message_data(message), line, length);
    message_data(message)[length] = '\0';
    int result = _send_csmsg_to_clh(message, block);
    free(message);
    return result < 0 ? -1 : (int)size;
}

// The open file of today, opened if there is none or it is of another day, an earlier one too. Expects
// file_mutex.
static int file_of_day(const tm *local)
{
    const int today[3] = {local->tm_mon + 1, local->tm_mday, local->tm_year + 1900};
    if (ulogfd >= 0 && date_cmp(today, ulog_date) == 0)
        return ulogfd;
    close_file();
    ulogfd = ulog_open(today, pulogpfx);
    if (ulogfd >= 0)
        memcpy(ulog_date, today, sizeof ulog_date);
    return ulogfd;
}

// Bytes written, or -1 with tperrno set. One write a line: several processes may append to the file. Expects
// _ulog_mutex.
static int write_line(const char *line, size_t length, const tm *local)
{
    _thread_mutex_lock(&file_mutex);
    int fd = file_of_day(local);
    bool written = fd >= 0 && write(fd, line, length) == (ssize_t)length;
    if (!written)
        close_file();
    _thread_mutex_unlock(&file_mutex);
    if (written)
        return (int)length;
    set_tperrno(TPEOS);
    return -1;
}

// A formatted line on its way out. Bytes written or handed over, or -1 with tperrno set.
static int log_line(wthr_var *block, uint32_t flags, const char *code, const char *format, va_list args)
    __attribute__((format(printf, 4, 0)));
static int log_line(wthr_var *block, uint32_t flags, const char *code, const char *format, va_list args)
{
    if (format == nullptr) {
        set_tperrno(TPEINVAL);
        return -1;
    }
    tm local;
    take_time(&local);
    char line[LINE_SIZE];
    size_t length = write_prefix(line, &local, block->txinfo);
    size_t room = TEXT_LIMIT - length;
    int added = vsnprintf(line + length, room, format, args);
    if (added > 0)
        length += (size_t)added < room ? (size_t)added : room - 1;
    line[length++] = '\n';  // behind the cut, if there was one
    line[length] = '\0';
    _thread_mutex_lock(&_ulog_mutex);
    int result = decide_destination() == ULOG_TO_SERVER ? send_line(line, length, flags, code, block)
                                                        : write_line(line, length, &local);
    _thread_mutex_unlock(&_ulog_mutex);
    return result;
}

static const api_text USERLOG = API_TEXT("userlog", "(\"%s\")");
static const api_text USERLOG_COUNTING = API_TEXT("UserLog", "(\"%s\")");
static const api_text USERLOG2 = API_TEXT("userlog2", "(%#x, %d)");
static const api_text ULOGSYNC = API_TEXT("ulogsync", "()");

int userlog(const char *format, ...)
{
    api_frame frame;
    if (!API_ENTER(&frame, USERLOG, format == nullptr ? "" : format))
        return -1;
    va_list args;
    va_start(args, format);
    int result = log_line(frame.block, 0, "CSC5301", format, args);
    va_end(args);
    return result < 0 ? api_error(&frame, &USERLOG) : api_return(&USERLOG, 1);
}

int UserLog(const char *format, ...)
{
    api_frame frame;
    if (!API_ENTER(&frame, USERLOG_COUNTING, format == nullptr ? "" : format))
        return -1;
    va_list args;
    va_start(args, format);
    int result = log_line(frame.block, FLAGS_OF_COUNTING_FORM, "CSC5303", format, args);
    va_end(args);
    return result < 0 ? api_error(&frame, &USERLOG_COUNTING) : api_return(&USERLOG_COUNTING, result);
}

int userlog2(const char *data, int length)
{
    api_frame frame;
    if (!API_ENTER(&frame, USERLOG2, data, length))
        return -1;
    if (data == nullptr || length < 0)
        return api_fail(&frame, &USERLOG2, TPEINVAL);
    tm local;
    take_time(&local);
    char line[LINE_SIZE];
    size_t prefix = write_prefix(line, &local, frame.block->txinfo);
    size_t count = (size_t)length < COUNTED_LIMIT - prefix ? (size_t)length : COUNTED_LIMIT - prefix;
    memcpy(line + prefix, data, count);
    int result = send_line(line, prefix + count, 0, "CSC5302", frame.block);
    return result < 0 ? api_error(&frame, &USERLOG2) : api_return(&USERLOG2, 1);
}

int ulogsync(void)
{
    api_frame frame;
    if (!API_ENTER(&frame, ULOGSYNC))
        return -1;
    if (destination().load() == ULOG_TO_FILE) {
        close_user_log();
        return api_return(&ULOGSYNC, 1);
    }
    msg_header *message = _header_msg_make(MSG_ULOGSYNC, (int32_t)getpid());
    if (message == nullptr)
        return api_fail(&frame, &ULOGSYNC, TPESYSTEM);
    put_name(message->svcname, sizeof message->svcname, "_ulogsync");
    int result = _send_csmsg_to_clh(message, frame.block);
    free(message);
    return result < 0 ? api_error(&frame, &ULOGSYNC) : api_return(&ULOGSYNC, 1);
}
}
