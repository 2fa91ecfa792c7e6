// Access lists.
//
// A list decides who gets in, so what a line of its file doesn't say plainly it doesn't say at all: numbers
// are decimal, nothing stands behind them, and a line that is too long isn't cut to a shorter, wider network.
#include "vorn/acl.h"

#include "runtime/errlog.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

extern "C" {

static constexpr uint32_t NO_ADDRESS = 0xffffffff;
static constexpr int LONGEST_PREFIX = 32;
static constexpr size_t LINE_SIZE = 1024;  // with its NUL

static_assert(sizeof(acl) == 24 && sizeof(acl_entry) == 16);

uint32_t __vorn_acl_mask_tab[LONGEST_PREFIX + 1] = {
    0x00000000, 0x80000000, 0xc0000000, 0xe0000000, 0xf0000000, 0xf8000000, 0xfc000000,
    0xfe000000, 0xff000000, 0xff800000, 0xffc00000, 0xffe00000, 0xfff00000, 0xfff80000,
    0xfffc0000, 0xfffe0000, 0xffff0000, 0xffff8000, 0xffffc000, 0xffffe000, 0xfffff000,
    0xfffff800, 0xfffffc00, 0xfffffe00, 0xffffff00, 0xffffff80, 0xffffffc0, 0xffffffe0,
    0xfffffff0, 0xfffffff8, 0xfffffffc, 0xfffffffe, 0xffffffff};
int32_t __vorn_acl_mask_tab_inited = 0;

static pthread_mutex_t mask_mutex = PTHREAD_MUTEX_INITIALIZER;  // the table's one turn

static void turn_mask_table(void)
{
    pthread_mutex_lock(&mask_mutex);
    if (__vorn_acl_mask_tab_inited == 0) {
        for (uint32_t &mask : __vorn_acl_mask_tab)
            mask = htonl(mask);
        __vorn_acl_mask_tab_inited = 1;
    }
    pthread_mutex_unlock(&mask_mutex);
}

static bool is_prefix(int mask)
{
    return mask >= 0 && mask <= LONGEST_PREFIX;
}

int _acl_destroy(acl *list)
{
    if (list == nullptr)
        return 1;
    for (acl_entry *entry = list->head; entry != nullptr;) {
        acl_entry *next = entry->next;
        free(entry);
        entry = next;
    }
    free(list);
    return 1;
}

// The entry of just this network; `*before` is the one in front of it, or the last. Null if there is none.
static acl_entry *find_entry(const acl *list, uint32_t ip, int mask, acl_entry **before)
{
    *before = nullptr;
    acl_entry *entry = list->head;
    while (entry != nullptr && (entry->ip != ip || entry->mask != mask)) {
        *before = entry;
        entry = entry->next;
    }
    return entry;
}

int _acl_add(acl *list, unsigned ip, int mask)
{
    if (list == nullptr || ip == NO_ADDRESS || !is_prefix(mask))
        return -1;
    acl_entry *last;
    ip &= __vorn_acl_mask_tab[mask];
    if (find_entry(list, ip, mask, &last) != nullptr)
        return 0;
    acl_entry *entry = (acl_entry *)malloc(sizeof *entry);
    if (entry == nullptr) {
        // The line tells the list's size, not the entry's.
        VORN_LOG(1, LEVEL_ERROR, "COM0052", "0001 memory allocation error : size = %d", (int)sizeof *list);
        return -1;
    }
    *entry = {ip, mask, nullptr};
    if (last != nullptr)
        last->next = entry;
    else
        list->head = entry;
    list->tail = entry;
    list->count++;
    return 1;
}

int _acl_del(acl *list, unsigned ip, int mask)
{
    if (list == nullptr || ip == NO_ADDRESS || !is_prefix(mask))
        return -1;
    acl_entry *before;
    acl_entry *entry = find_entry(list, ip & __vorn_acl_mask_tab[mask], mask, &before);
    if (entry == nullptr)
        return 0;
    if (before != nullptr)
        before->next = entry->next;
    else
        list->head = entry->next;
    if (list->tail == entry)
        list->tail = before;
    list->count--;
    free(entry);
    return 1;
}

int _acl_search(acl *list, unsigned ip)
{
    if (list == nullptr || ip == NO_ADDRESS)
        return 0;
    for (const acl_entry *entry = list->head; entry != nullptr; entry = entry->next)
        if (is_prefix(entry->mask) && (ip & __vorn_acl_mask_tab[entry->mask]) == entry->ip)
            return 1;
    return 0;
}

struct acl_line {
    char text[LINE_SIZE];
    bool whole;  // false if it is longer, or holds a NUL
};

// The next line, without its newline. False at the end of the file.
static bool read_line(FILE *stream, acl_line *line)
{
    size_t length = 0;
    int c;
    line->whole = true;
    while ((c = getc(stream)) != EOF && c != '\n') {
        if (c == '\0' || length + 1 == LINE_SIZE)
            line->whole = false;
        else
            line->text[length++] = (char)c;
    }
    line->text[length] = '\0';
    return c != EOF || length > 0 || !line->whole;
}

static const char *skip_space(const char *text)
{
    while (isspace((unsigned char)*text))
        text++;
    return text;
}

// Files from elsewhere have a carriage return at the end of each line.
static void trim_end(char *text)
{
    size_t length = strlen(text);
    while (length > 0 && isspace((unsigned char)text[length - 1]))
        length--;
    text[length] = '\0';
}

// A prefix length; -1 for what is no number.
static int read_prefix(const char *text)
{
    char *end;
    long number = strtol(text, &end, 10);
    if (end == text || *skip_space(end) != '\0' || number < 0)
        return -1;
    return number > INT_MAX ? INT_MAX : (int)number;
}

// The entry that a line means. False for a line without one.
static bool read_entry(acl_line *line, acl_entry *entry)
{
    *entry = {0, 0, nullptr};
    if (line->whole && strncasecmp(line->text, "all", 3) == 0)
        return true;
    char *rest = nullptr;
    char *address = strtok_r(line->text, "/", &rest);
    const char *prefix = strtok_r(nullptr, "/", &rest);
    if (address != nullptr)
        trim_end(address);
    // No list can hold 255.255.255.255; one such line mustn't cost the others.
    if (!line->whole || address == nullptr || inet_pton(AF_INET, address, &entry->ip) != 1 ||
        entry->ip == NO_ADDRESS) {
        VORN_LOG(0, LEVEL_ERROR, "COM0053", "0209 internal error : ACL parsing error - invalid ip(%s)",
                 address != nullptr ? address : "");
        return false;
    }
    entry->mask = prefix == nullptr ? LONGEST_PREFIX : read_prefix(prefix);
    if (!is_prefix(entry->mask)) {
        VORN_LOG(0, LEVEL_ERROR, "COM0054", "0209 internal error : ACL parsing error - invalid mask(%d)",
                 entry->mask);
        return false;
    }
    return true;
}

// False without memory, and for a file that can't be read to its end: half a list is another list.
static bool read_entries(FILE *stream, acl *list)
{
    acl_line line;
    acl_entry entry;
    while (read_line(stream, &line)) {
        bool counts = (line.text[0] != '\0' || !line.whole) && line.text[0] != '#';
        if (counts && read_entry(&line, &entry) && _acl_add(list, entry.ip, entry.mask) < 0)
            return false;
    }
    return ferror(stream) == 0;
}

static FILE *open_list(const char *file, int create)
{
    FILE *stream = fopen(file, "r");
    if (stream == nullptr && create != 0 && errno == ENOENT)
        stream = fopen(file, "a+");
    return stream;
}

acl *_acl_create(const char *file, int create)
{
    turn_mask_table();
    if (file == nullptr)
        return nullptr;
    FILE *stream = open_list(file, create);
    if (stream == nullptr)
        return nullptr;
    acl *list = (acl *)calloc(1, sizeof *list);
    if (list == nullptr) {
        VORN_LOG(1, LEVEL_ERROR, "COM0051", "0001 memory allocation error : size = %d", (int)sizeof *list);
    } else if (!read_entries(stream, list)) {
        _acl_destroy(list);
        list = nullptr;
    }
    fclose(stream);
    return list;
}

// ctime's text ends with a newline, so comment and entry stand on two lines; the entry gets its own from the
// next addition.
static bool write_entry(FILE *stream, const char *address, int mask)
{
    time_t now = time(nullptr);
    char when[32];
    if (ctime_r(&now, when) == nullptr)
        return false;
    int written = mask == 0 ? fprintf(stream, "\n#added by system, %s%s", when, address)
                            : fprintf(stream, "\n#added by system, %s%s/%d", when, address, mask);
    return written > 0;
}

int _acl_add_to_file(const char *file, const char *address, int mask)
{
    if (file == nullptr || address == nullptr || !is_prefix(mask) || strchr(address, '\n') != nullptr)
        return -1;  // with a newline in it one address could be several
    FILE *stream = fopen(file, "a");
    if (stream == nullptr)
        return -1;
    bool written = write_entry(stream, address, mask);
    if (fclose(stream) != 0)
        written = false;
    return written ? 1 : -1;
}

int _acl_del_from_file(const char *file, const char *address, int mask)
{
    (void)file;
    (void)address;
    (void)mask;
    return -1;
}
}
