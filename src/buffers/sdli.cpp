// Struct definitions: loading, lookup, and the conversion of one record.
//
// A load builds its tables beside the published ones, which are null until then: a thread that looks a name
// up meanwhile sees no table or the whole of it. Files are read as they are, and judged once all are there
// (refuse_unfit_structs): afterwards no number in the rows is doubted again, and the conversions run without
// a test.
#include "buffers/sdli.h"

#include "buffers/double.h"
#include "runtime/deffile.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"
#include "wire/msgheader.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

sdl_struct *_sdl_table = nullptr;
sdl_field *_sdl_field_table = nullptr;
int32_t _sdl_table_size = 0;
int32_t _sdl_field_table_size = 0;
int32_t _sdlfile_loadsw = 0;
pthread_mutex_t _sdlfile_mutex = PTHREAD_MUTEX_INITIALIZER;

// --- Loading.

constexpr int MOST_PATHS = 256;

struct sdl_load {
    FILE *file;              // the one that is being read
    int files;               // that have been read
    char *structs, *fields;  // rows; owned until they are published
    int32_t struct_count, field_count;
};

// One of the two sections of a file, with the codes of its failures.
struct sdl_section {
    int32_t width;  // of a row
    const char *no_table, *no_growth, *no_block;
    const char *short_read;  // null: nothing is logged
};
static constexpr sdl_section STRUCTS = {sizeof(sdl_struct), "CLI0119", "CLI0120", "CLI0121", "CLI0122"};
static constexpr sdl_section FIELDS = {sizeof(sdl_field), "CLI0123", "CLI0124", "CLI0125", nullptr};

// Ends a load that failed. It gives the lock back before the failure is logged: a fatal line ends the
// process, and its exit handlers may come here again. Keeps errno, for that line.
static void abandon(sdl_load *load)
{
    int error = errno;
    free(load->structs);
    free(load->fields);
    if (load->file != nullptr)
        fclose(load->file);
    _sdl_table_size = load->struct_count;
    _sdl_field_table_size = load->field_count;
    _thread_mutex_unlock(&_sdlfile_mutex);
    errno = error;
}

static bool without_memory(sdl_load *load, const char *code, bool growing, int64_t size)
{
    abandon(load);
    if (growing)
        VORN_LOG(1, LEVEL_FATAL, code, "0006 memory reallocation error : size = %d", (int)size);
    else
        VORN_LOG(1, LEVEL_FATAL, code, "0005 memory allocation error : size = %d", (int)size);
    return false;
}

static bool read_short(sdl_load *load, const char *code, int64_t got, int64_t wanted)
{
    abandon(load);
    if (code != nullptr)
        VORN_LOG(0, LEVEL_ERROR, code, "0011 file read error : %d %d", (int)got, (int)wanted);
    return false;
}

// Reads `count` rows behind the `have` rows of a table, which moves. False if the load has failed.
static bool append_rows(sdl_load *load, const sdl_section *section, char **table, int32_t have, int32_t count)
{
    int64_t bytes = (int64_t)count * section->width, before = (int64_t)have * section->width;
    int64_t there = bytes_left(load->file);
    if (count < 0 || before + bytes > INT32_MAX || there < bytes)
        return read_short(load, section->short_read, there < bytes ? there : 0, bytes);
    bool growing = *table != nullptr;
    size_t size = (size_t)(before + bytes);
    char *grown = (char *)(growing ? realloc(*table, size + 1) : malloc(size + 1));
    if (grown == nullptr)
        return without_memory(load, growing ? section->no_growth : section->no_table, growing,
                              before + bytes);
    *table = grown;
    char *rows = (char *)malloc((size_t)bytes + 1);
    if (rows == nullptr)
        return without_memory(load, section->no_block, false, bytes);
    size_t got = fread(rows, 1, (size_t)bytes, load->file);
    if (got == (size_t)bytes)
        memcpy(grown + before, rows, got);
    free(rows);
    return got == (size_t)bytes || read_short(load, section->short_read, (int64_t)got, bytes);
}

// Moves the member numbers of the last `count` structs, which count from their file's beginning, behind those
// of the row before. Numbers that no row can have become -1. What a member nests keeps its number.
static void rebase_members(sdl_load *load, int32_t count)
{
    sdl_struct *rows = (sdl_struct *)load->structs + load->struct_count;
    int64_t before = load->struct_count > 0 ? rows[-1].last : (int64_t)load->field_count - 1;
    for (int32_t i = 0; i < count; i++) {
        int64_t first = before + 1, last = (int64_t)rows[i].last - rows[i].first + first;
        bool possible = first <= INT32_MAX && last >= INT32_MIN && last <= INT32_MAX;
        rows[i].first = possible ? (int32_t)first : -1;
        rows[i].last = possible ? (int32_t)last : -1;
        before = rows[i].last;
    }
}

// The beginning of a longer name is not `possible`: it would be another file.
static bool load_file(sdl_load *load, const char *path, bool possible)
{
    int32_t head[3];  // magic, structs, members
    load->file = open_path(path, possible);
    if (load->file == nullptr) {
        abandon(load);
        VORN_LOG(1, LEVEL_ERROR, "CLI0116", "0010 file open error : %s", path);
        return false;
    }
    size_t got = fread(head, 1, sizeof head, load->file);
    if (got != sizeof head)
        return read_short(load, "CLI0117", (int64_t)got, sizeof head);
    if (head[0] != SDL_MAGIC) {
        abandon(load);
        VORN_LOG(0, LEVEL_ERROR, "CLI0118", "3005 Invalid magic number of SDL file");
        return false;
    }
    if (!append_rows(load, &STRUCTS, &load->structs, load->struct_count, head[1]))
        return false;
    if (load->files > 0)
        rebase_members(load, head[1]);
    if (!append_rows(load, &FIELDS, &load->fields, load->field_count, head[2]))
        return false;
    load->struct_count += head[1];
    load->field_count += head[2];
    load->files++;
    fclose(load->file);
    load->file = nullptr;
    return true;
}

// The files of a list, in order.
static bool load_list(sdl_load *load, const char *list)
{
    char path[PATH_MAX];
    bool possible;
    while (load->files < MOST_PATHS && next_path(&list, path, &possible))
        if (!load_file(load, path, possible))
            return false;
    return true;
}

// --- Judging.

// A conversion calls itself for each level of nesting.
constexpr int32_t DEEPEST_NESTING = 64;

// Findings of the judgement, in the unused word of a row: the struct's height above the plain ones, from 1
// on.
constexpr int32_t UNDECIDED = 0, UNFIT = -1;

struct sdl_width {
    int32_t host, wire;
};
// By member type; a nested struct has its own.
static constexpr sdl_width WIDTHS[SDL_STRUCT] = {{0, 0}, {1, 1}, {2, 2}, {4, 4}, {8, 4},
                                                 {4, 4}, {8, 8}, {1, 1}, {1, 1}};

// True if `count` elements that are `step` bytes apart, the last of them `size` long, lie within the record.
static bool lies_within(int64_t offset, int64_t count, int64_t step, int64_t size, int64_t record)
{
    return offset >= 0 &&
           (count == 0 || (step >= 0 && step <= INT32_MAX && offset + (count - 1) * step + size <= record));
}

static int32_t record_size(int64_t size)
{
    return (int32_t)size;  // the high half counts only where it steps from record to record
}

// Height that a member gives to its struct, UNDECIDED as long as the nested one's isn't known. `nested_bytes`
// counts the host bytes of nested records: no more than the record's, or a few rows that nest one another in
// one place would make one record the work of years.
static int32_t judge_member(const sdl_load *load, const sdl_struct *row, const sdl_field *member,
                            int64_t *nested_bytes)
{
    int64_t host = record_size(row->host_size), wire = record_size(row->wire_size), count = member->count;
    if (count < 0)
        return UNFIT;
    if (member->type < SDL_CHAR || member->type > SDL_STRUCT)
        return 1;  // passed over, with a line in the log
    if (member->type != SDL_STRUCT) {
        const sdl_width *width = &WIDTHS[member->type];
        bool fits = lies_within(member->host_offset, count, width->host, width->host, host) &&
                    lies_within(member->wire_offset, count, width->wire, width->wire, wire);
        return fits ? 1 : UNFIT;
    }
    if (member->nested < 0 || member->nested >= load->struct_count)
        return UNFIT;
    const sdl_struct *nested = (const sdl_struct *)load->structs + member->nested;
    if (nested->unused <= 0)
        return nested->unused;
    int64_t nested_host = record_size(nested->host_size), nested_wire = record_size(nested->wire_size);
    *nested_bytes += count * nested_host;
    bool fits =
        *nested_bytes <= host &&
        lies_within(member->host_offset, count, count > 1 ? nested->host_size : 0, nested_host, host) &&
        lies_within(member->wire_offset, count, count > 1 ? nested->wire_size : 0, nested_wire, wire);
    return fits && nested->unused < DEEPEST_NESTING ? nested->unused + 1 : UNFIT;
}

static int32_t judge_struct(const sdl_load *load, const sdl_struct *row)
{
    if (record_size(row->host_size) < 1 || record_size(row->wire_size) < 1)
        return UNFIT;
    if (row->last < row->first)
        return 1;
    if (row->first < 0 || row->last >= load->field_count)
        return UNFIT;
    int32_t height = 1;
    int64_t nested_bytes = 0;
    bool undecided = false;
    for (int32_t i = row->first; i <= row->last; i++) {
        int32_t found = judge_member(load, row, (const sdl_field *)load->fields + i, &nested_bytes);
        if (found == UNFIT)
            return UNFIT;
        undecided |= found == UNDECIDED;
        if (found > height)
            height = found;
    }
    return undecided ? UNDECIDED : height;
}

// Takes the members and the sizes from a struct that no conversion could be run with; its name is then
// unknown. Structs may nest others that stand behind them, so this goes over the rows until nothing new is
// found; what is still undecided nests itself, or too deep.
static void refuse_unfit_structs(sdl_load *load)
{
    sdl_struct *rows = (sdl_struct *)load->structs;
    for (int32_t i = 0; i < load->struct_count; i++) {
        rows[i].name[sizeof rows[i].name - 1] = '\0';
        rows[i].unused = UNDECIDED;
    }
    bool found = true;
    for (int round = 0; found && round < DEEPEST_NESTING; round++) {
        found = false;
        for (int32_t i = 0; i < load->struct_count; i++) {
            if (rows[i].unused != UNDECIDED)
                continue;
            rows[i].unused = judge_struct(load, &rows[i]);
            found |= rows[i].unused != UNDECIDED;
        }
    }
    for (int32_t i = 0; i < load->struct_count; i++) {
        if (rows[i].unused <= 0) {
            rows[i].first = 0;
            rows[i].last = -1;
            rows[i].host_size = rows[i].wire_size = -1;
            VORN_LOG(0, LEVEL_ERROR, "CLI0126", "0209 internal error : members of struct %s don't fit",
                     rows[i].name);
        }
        rows[i].unused = 0;
    }
}

static void end_texts(sdl_load *load)
{
    sdl_field *fields = (sdl_field *)load->fields;
    for (int32_t i = 0; i < load->field_count; i++) {
        fields[i].name[sizeof fields[i].name - 1] = '\0';
        fields[i].null_text[sizeof fields[i].null_text - 1] = '\0';
    }
}

int _sdlfile_load(void)
{
    _thread_mutex_lock(&_sdlfile_mutex);
    if (_sdlfile_loadsw != 0) {
        _thread_mutex_unlock(&_sdlfile_mutex);
        return 0;
    }
    const char *list = getenv("SDLFILE64");
    if (list == nullptr)
        list = getenv("SDLFILE");
    if (list == nullptr) {
        _thread_mutex_unlock(&_sdlfile_mutex);
        return 1;
    }
    sdl_load load = {};
    if (!load_list(&load, list))
        return -1;  // the lock is given back
    refuse_unfit_structs(&load);
    end_texts(&load);
    _sdl_field_table = (sdl_field *)load.fields;
    _sdl_table_size = load.struct_count;
    _sdl_field_table_size = load.field_count;
    std::atomic_ref<sdl_struct *>(_sdl_table).store((sdl_struct *)load.structs, std::memory_order_release);
    std::atomic_ref<int32_t>(_sdlfile_loadsw).store(1, std::memory_order_release);
    _thread_mutex_unlock(&_sdlfile_mutex);
    return 1;
}

// --- Lookup.

int find_struct(const char *name)
{
    const sdl_struct *rows = std::atomic_ref<sdl_struct *>(_sdl_table).load(std::memory_order_acquire);
    if (rows == nullptr || name == nullptr)
        return -1;
    for (int32_t i = 0; i < _sdl_table_size; i++)
        if (strncmp(rows[i].name, name, SDL_COMPARED_NAME) == 0)
            return rows[i].host_size == -1 ? -1 : i;
    return -1;
}

int _get_host_stsize(const char *name)
{
    int index = find_struct(name);
    return index < 0 ? -1 : record_size(_sdl_table[index].host_size);
}

int _get_host_nw_stsize(const char *name, int *host, int *net)
{
    int index = find_struct(name);
    if (index < 0)
        return -1;
    *host = record_size(_sdl_table[index].host_size);
    *net = record_size(_sdl_table[index].wire_size);
    return 1;
}

// --- Conversion of one record.

static void turn_shorts(const char *from, char *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++, from += 2, to += 2) {
        uint16_t word;
        memcpy(&word, from, sizeof word);
        word = __builtin_bswap16(word);
        memcpy(to, &word, sizeof word);
    }
}

static void turn_words(const char *from, char *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++, from += 4, to += 4) {
        uint32_t word = get_word(from);
        memcpy(to, &word, sizeof word);
    }
}

static void turn_doubles(const char *from, char *to, int32_t count)
{
    bool whole = wire_turns_whole();
    for (int32_t i = 0; i < count; i++, from += 8, to += 8)
        turn_double(from, to, whole);
}

static void narrow_longs(const char *from, char *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++, from += 8, to += 4) {
        uint32_t low = get_word(from);
        memcpy(to, &low, sizeof low);
    }
}

// A negative long comes through as a large positive one.
static void widen_longs(const char *from, char *to, int32_t count)
{
    for (int32_t i = 0; i < count; i++, from += 4, to += 8) {
        uint64_t wide = get_word(from);
        memcpy(to, &wide, sizeof wide);
    }
}

static void convert_record(const sdl_struct *row, const char *from, char *to, bool encode);

static void convert_nested(const sdl_field *member, const char *from, char *to, bool encode)
{
    const sdl_struct *row = &_sdl_table[member->nested];
    int32_t host = record_size(row->host_size), wire = record_size(row->wire_size);
    for (int32_t i = 0; i < member->count; i++) {
        convert_record(row, from, to, encode);
        from += encode ? host : wire;
        to += encode ? wire : host;
    }
}

static void convert_record(const sdl_struct *row, const char *from, char *to, bool encode)
{
    for (int32_t n = row->first; n <= row->last; n++) {
        const sdl_field *member = &_sdl_field_table[n];
        const char *source = from + (encode ? member->host_offset : member->wire_offset);
        char *target = to + (encode ? member->wire_offset : member->host_offset);
        switch (member->type) {
        case SDL_CHAR:
        case SDL_STRING:
        case SDL_CARRAY:
            memcpy(target, source, (size_t)member->count);
            break;
        case SDL_SHORT:
            turn_shorts(source, target, member->count);
            break;
        case SDL_INT:
        case SDL_FLOAT:
            turn_words(source, target, member->count);
            break;
        case SDL_LONG:
            (encode ? narrow_longs : widen_longs)(source, target, member->count);
            break;
        case SDL_DOUBLE:
            turn_doubles(source, target, member->count);
            break;
        case SDL_STRUCT:
            convert_nested(member, source, target, encode);
            break;
        default:
            VORN_LOG(0, LEVEL_ERROR, encode ? "CLI0301" : "CLI0302",
                     "0209 internal error : unknown type (%d) found in struct", member->type);
        }
    }
}

static bool is_row(int index)
{
    return _sdl_table != nullptr && index >= 0 && index < _sdl_table_size;
}

char *_sdl_encode(int index, const char *host, char *wire)
{
    if (!is_row(index))
        return nullptr;
    convert_record(&_sdl_table[index], host, wire, true);
    return wire;
}

char *_sdl_decode(int index, const char *wire, char *host)
{
    if (!is_row(index))
        return nullptr;
    convert_record(&_sdl_table[index], wire, host, false);
    return host;
}
}
