// Server addresses, the order of connecting, and the node table.
#include "session/address.h"

#include "calls/cscommon.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "session/cliapi.h"
#include "wire/msgheader.h"
#include "wire/network.h"
#include "wire/tnetwork.h"

#include <atomic>
#include <charconv>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

extern "C" {

int32_t _vorn_srand_flag = 0;

static constexpr size_t LOGGED_TEXT = 256;           // of an address list, with its NUL
static constexpr char LOCAL_SOCKET[] = "/cllrcad";   // behind the directory of a local connection
static constexpr int TRIES = 10, TIMED_TRIES = 100;  // without and with VORN_CONNECT_TIMEOUT
static constexpr int LONGEST_TRY = 60;               // seconds
static constexpr useconds_t PAUSE = 100000;          // microseconds between two tries

// A decimal number; what isn't one reads as 0, and one that is too large as the largest.
static int decimal(const char *text)
{
    long number = strtol(text, nullptr, 10);
    return number > INT32_MAX ? INT32_MAX : number < INT32_MIN ? INT32_MIN : (int)number;
}

int _parse_hostport_string(char *text, address_row *row)
{
    char *colon = strchr(text, ':');
    if (colon != nullptr)
        *colon = '\0';
    put_name(row->host, sizeof row->host, text);
    row->port = colon == nullptr ? 0 : decimal(colon + 1);
    return colon == nullptr ? 0 : 1;
}

static size_t count_of(const char *text, char mark)
{
    size_t count = 0;
    for (; *text != '\0'; text++)
        count += *text == mark;
    return count;
}

// Copies the piece up to `mark` or the end, and moves the text behind it. 1, 0 for an empty piece, which ends
// the text, -1 for one that is too long.
static int next_piece(const char **text, char mark, char piece[MOST_GROUP_TEXT + 1])
{
    size_t length = (size_t)(strchrnul(*text, mark) - *text);
    if (length > (size_t)MOST_GROUP_TEXT)
        return -1;
    memcpy(piece, *text, length);
    piece[length] = '\0';
    *text += length;
    if (**text == mark)
        (*text)++;
    return length > 0 ? 1 : 0;
}

static void remove_brackets(char *text)
{
    char *to = text;
    for (; *text != '\0'; text++)
        if (*text != '(' && *text != ')')
            *to++ = *text;
    *to = '\0';
}

// The verdict on `count` pieces: a port may be left out only where there is but one.
static int verdict(int count, bool port_missing)
{
    if (count < 1 || (port_missing && count > 1))
        return -1;
    return port_missing ? 0 : count;
}

int _parse_cousin_string(const char *text, address_group *group)
{
    if (strlen(text) > (size_t)MOST_GROUP_TEXT)
        return -1;
    address_row *rows = (address_row *)calloc(count_of(text, '|') + 1, sizeof *rows);
    if (rows == nullptr)
        return -1;
    char piece[MOST_GROUP_TEXT + 1];
    int count = 0;
    bool port_missing = false;
    while (next_piece(&text, '|', piece) > 0)
        if (_parse_hostport_string(piece, &rows[count++]) == 0)
            port_missing = true;
    int result = verdict(count, port_missing);
    if (result < 0) {
        free(rows);
        return -1;
    }
    group->count = count;
    group->rows = rows;
    return result;
}

int _parse_addr_string(const char *text, address_group **groups)
{
    size_t room = count_of(text, ',') + 1;
    if (room > INT32_MAX)
        return -1;
    address_group *list = (address_group *)calloc(room, sizeof *list);
    if (list == nullptr)
        return -1;
    char piece[MOST_GROUP_TEXT + 1];
    int count = 0, got;
    bool port_missing = false;
    while ((got = next_piece(&text, ',', piece)) > 0) {
        remove_brackets(piece);
        int addresses = _parse_cousin_string(piece, &list[count++]);
        if (addresses < 0) {
            got = -1;
            break;
        }
        if (addresses == 0)
            port_missing = true;
    }
    int result = got < 0 ? -1 : verdict(count, port_missing);
    if (result < 0) {
        _free_addr_pairs(count, list);
        return -1;
    }
    *groups = list;
    return result;
}

int _free_addr_pairs(int count, address_group *groups)
{
    if (groups == nullptr)
        return 0;
    for (int i = 0; i < count; i++)
        free(groups[i].rows);
    free(groups);
    return 0;
}

// Where one attempt goes: a local socket if there is a path.
struct target {
    const char *host;
    int port;
    const char *path;
};

// A socket or a negative value; no limit if both parts of it are below 1.
static int attempt(const target *to, int seconds, int microseconds)
{
    bool limited = seconds >= 1 || microseconds >= 1;
    if (to->path != nullptr)
        return limited ? _tproc_connect_with_timeout(to->path, seconds, microseconds)
                       : _tproc_connect(to->path);
    return limited ? _network_connect_with_timeout3(to->host, 0, to->port, seconds, microseconds)
                   : _network_connect(to->host, 0, to->port);
}

struct time_limit {
    int seconds, microseconds;
    bool given;
};

// The number is read as the C locale writes it, whatever locale the application has set. What isn't a
// positive number is no time at all; a limit of more than a billion seconds is one of a billion.
static time_limit connect_limit(void)
{
    const char *text = getenv("VORN_CONNECT_TIMEOUT");
    if (text == nullptr)
        return {0, 0, false};
    text += strspn(text, " \t+");
    double seconds = 0;
    auto read = std::from_chars(text, text + strlen(text), seconds);
    if (read.ec == std::errc::result_out_of_range && memchr(text, '-', (size_t)(read.ptr - text)) == nullptr)
        seconds = 1e10;
    if (!(seconds > 0))
        return {0, 0, true};
    if (seconds > 1e9)
        return {1000000000, 0, true};
    int whole = (int)seconds;
    return {whole, (int)((seconds - whole) * 1000000), true};
}

// The timing of one address: without the variable ten tries without a limit; with a whole number of seconds
// try upon try until they have passed; with a fraction of a second a single try.
static int connect_in_time(const target *to)
{
    time_limit whole = connect_limit();
    time_t start = time(nullptr);
    int limit = whole.seconds < LONGEST_TRY ? whole.seconds : LONGEST_TRY;
    int microseconds = whole.microseconds;
    int tries = whole.given ? TIMED_TRIES : TRIES;
    for (int i = 0; i < tries; i++) {
        errno = 0;
        int fd = attempt(to, limit, microseconds);
        if (fd >= 0)
            return fd;
        if (whole.seconds < 1 && microseconds > 0)
            return -1;
        if (whole.seconds >= 1) {
            time_t left = whole.seconds - (time(nullptr) - start);
            if (left < 1)
                return -1;
            limit = left < LONGEST_TRY ? (int)left : LONGEST_TRY;
            microseconds = 0;
        }
        int cause = errno;  // the log line of a vain search tells it
        usleep(PAUSE);
        errno = cause;
    }
    return -1;
}

// Requests go out in one piece and wait for their answers: held back for more data, each would wait in vain.
int _connect_to_server(const char *host, int port)
{
    target to = {host, port, nullptr};
    int fd = connect_in_time(&to);
    int on = 1;
    if (fd >= 0)
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

int _connect_to_local_server(const char *path)
{
    target to = {nullptr, 0, path};
    return connect_in_time(&to);
}

int _connect_to_addr_pairs(const address_group *group)
{
    int count = group->count;
    int at = count > 1 ? rand() % count : 0;
    for (int tried = 0; tried < count; tried++) {
        int fd = _connect_to_server(group->rows[at].host, group->rows[at].port);
        if (fd >= 0)
            return fd;
        if (++at == count)
            at = 0;
    }
    return -1;
}

static void log_variable(const char *code, const char *variable)
{
    VORN_LOG(0, LEVEL_ERROR, code, "0100 getenv error : %s", variable);
}

// One text for the main and the backup servers.
static int log_no_server(const char *code, const char *where)
{
    VORN_LOG(1, LEVEL_ERROR, code, "3003 unable to connect to main server : %s", where);
    return -1;
}

// A path that doesn't fit is cut to one that no socket can have.
static int connect_to_directory(const char *directory)
{
    char path[512];
    snprintf(path, sizeof path, "%s%s", directory, LOCAL_SOCKET);
    int fd = _connect_to_local_server(path);
    return fd >= 0 ? fd : log_no_server("CLI0105", path);
}

// Once a process, whichever thread comes first.
static void seed_once(void)
{
    std::atomic_ref<int32_t> seeded(_vorn_srand_flag);
    if (seeded.load() == 0 && seeded.exchange(1) == 0)
        srand((unsigned)getpid());
}

static int connect_to_groups(int count, const address_group *groups)
{
    seed_once();
    for (int i = 0; i < count; i++) {
        int fd = _connect_to_addr_pairs(&groups[i]);
        if (fd >= 0)
            return fd;
    }
    return -1;
}

// Frees the groups, and keeps what went wrong.
static void drop_groups(int count, address_group *groups)
{
    int cause = errno;
    _free_addr_pairs(count, groups);
    errno = cause;
}

int _connect_to_vorn_server(const char *address_variable, const char *port_variable)
{
    const char *addresses = getenv(address_variable);
    if (addresses == nullptr) {
        log_variable("CLI0102", address_variable);
        return -1;
    }
    char logged[LOGGED_TEXT];
    snprintf(logged, sizeof logged, "%s", addresses);
    address_group *groups = nullptr;
    int count = _parse_addr_string(addresses, &groups);
    if (count < 0 || groups == nullptr) {
        log_variable("CLI0103", address_variable);
        return -1;
    }
    if (count == 0) {
        count = 1;
        const char *port = getenv(port_variable);
        if (port == nullptr || port[0] < '0' || port[0] > '9') {
            drop_groups(count, groups);
            if (port != nullptr)
                return connect_to_directory(port);
            log_variable("CLI0104", port_variable);
            return -1;
        }
        groups[0].rows[0].port = decimal(port);
    }
    int fd = connect_to_groups(count, groups);
    drop_groups(count, groups);
    return fd >= 0 ? fd : log_no_server("CLI0106", logged);
}

int _connect_to_main_server(void)
{
    return _connect_to_vorn_server("VORN_HOST_ADDR", "VORN_HOST_PORT");
}

int _connect_to_backup_server(void)
{
    return _connect_to_vorn_server("VORN_BACKUP_ADDR", "VORN_BACKUP_PORT");
}

// The number of nodes comes from the server; no domain has more than the tables of the context can have rows.
int _init_node(int count, wthr_var *block)
{
    retire(block->node_table, block);
    block->node_table = nullptr;
    if (count < 1) {
        block->node_count = 0;
        return -1;
    }
    if (count > MOST_ROWS)
        count = MOST_ROWS;
    size_t size = (size_t)count * sizeof(node_elem);
    block->node_table = (node_elem *)malloc(size);
    if (block->node_table == nullptr) {
        block->node_count = 0;
        VORN_LOG(0, LEVEL_FATAL, "CLI0114", "0005 memory allocation error : size = %d", (int)size);
        return -1;
    }
    for (int i = 0; i < count; i++)
        block->node_table[i] = {-1, -1, -1, 0};
    block->node_count = count;
    return 1;
}

// The number comes from the server; one outside the table is left out of it.
int _node_add(int fd, int node, int clh, int client, wthr_var *block)
{
    if (block->node_table == nullptr || node < 0 || node >= block->node_count)
        return -1;
    node_elem *row = &block->node_table[node];
    row->fd = fd;
    row->clh = clh;
    row->client = client;
    return 1;
}

void _node_del(int fd, wthr_var *block)
{
    if (block->node_table == nullptr)
        return;
    for (int i = 0; i < block->node_count; i++) {
        node_elem *row = &block->node_table[i];
        if (row->fd != fd)
            continue;
        row->fd = -1;
        row->active = 0;
        return;
    }
}

// A name of the start reply fills its 16 bytes, or ends before.
bool is_row_name(const char *name, const char field[16])
{
    size_t length = strnlen(field, 16);
    return strlen(name) == length && memcmp(name, field, length) == 0;
}

static int find_node(const char *name, size_t field, const wthr_var *block)
{
    if (block->node_count == 1)
        return 0;
    if (name == nullptr)
        return -1;
    initout_tables tables = initout_of(block);
    for (int32_t i = 0; i < tables.node_count; i++)
        if (is_row_name(name, (const char *)&tables.nodes[i] + field))
            return i;
    return -1;
}

int _get_nodeno_from_nodename(const char *name, const wthr_var *block)
{
    return find_node(name, offsetof(initout_node, name), block);
}

int _get_nodeno_from_lnid(const char *name, const wthr_var *block)
{
    return find_node(name, offsetof(initout_node, lnid), block);
}
}
