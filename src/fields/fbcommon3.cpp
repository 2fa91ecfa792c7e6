// The field table: loading, searches, and the translations between names and keys.
#include "fields/fbcommon3.h"

#include "fields/fbapi.h"
#include "fields/fbcommon.h"
#include "runtime/deffile.h"
#include "runtime/errlog.h"
#include "runtime/mthr.h"

#include <atomic>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

extern "C" {

fdl_name_row *_fldname = nullptr;
fdl_key_row *_fldkey = nullptr;
int32_t _fname_count = 0;
int32_t _fldkey_count = 0;
int32_t _fname_hash_mask = 0;
fdl_header _fhdr = {};
int32_t _fname_fldkey_tab_loaded = 0;
pthread_mutex_t _fldtab_mutex = PTHREAD_MUTEX_INITIALIZER;

const char *const _fdl_type_name[FDL_TYPE_NAMES] = {"",      "char",   "short",  "int",    "long",
                                                    "float", "double", "string", "carray", ""};

// --- Loading. All of it runs under _fldtab_mutex; the tables are built aside and published at the end.

struct fdl_load {
    FILE *file;   // the one that is being read
    int files;    // that have been read
    char *names;  // rows of both tables; owned until they are published
    char *keys;
    int32_t rows;  // in each of them
};

// One of the two sections of a file, with the codes of its failures.
struct fdl_section {
    int64_t width;  // of a row
    const char *no_table, *no_growth, *no_block, *short_read;
};
static constexpr fdl_section NAMES = {sizeof(fdl_name_row), "FDL0506", "FDL0507", "FDL0508", "FDL0509"};
static constexpr fdl_section KEYS = {sizeof(fdl_key_row), "FDL0510", "FDL0511", "FDL0512", "FDL0513"};

static bool loaded(void)
{
    return std::atomic_ref<int32_t>(_fname_fldkey_tab_loaded).load(std::memory_order_acquire) != 0;
}

static void set_loaded(int32_t value)
{
    std::atomic_ref<int32_t>(_fname_fldkey_tab_loaded).store(value, std::memory_order_release);
}

// What ends a load that failed: everything is released, and the lock given back before the line is written.
// errno is kept for that line.
static void release(fdl_load *load)
{
    int error = errno;
    if (load->file != nullptr)
        fclose(load->file);
    free(load->names);
    free(load->keys);
    _thread_mutex_unlock(&_fldtab_mutex);
    errno = error;
}

static bool no_memory(fdl_load *load, const char *code, int64_t size)
{
    release(load);
    VORN_LOG(0, LEVEL_ERROR, code, "0004 memory allocation error : size = %d", (int)size);
    return false;
}

static bool short_file(fdl_load *load, const char *code, int64_t items, int64_t size)
{
    release(load);
    VORN_LOG(1, LEVEL_ERROR, code, "0011 file read error : %d %d", (int)items, (int)size);
    return false;
}

// Reads the next `count` rows of the file behind the rows that `*table` has. False if the load has failed.
static bool append_section(fdl_load *load, const fdl_section *section, char **table, int32_t count)
{
    int64_t before = load->rows * section->width, bytes = count * section->width;
    errno = 0;  // a file that is too short isn't an error of the system
    if (count < 0 || before + bytes > INT_MAX || bytes_left(load->file) < bytes)
        return short_file(load, section->short_read, count, bytes);
    bool first = load->files == 0;
    size_t size = (size_t)(before + bytes);
    char *grown = (char *)(first ? malloc(size) : realloc(*table, size));
    if (grown == nullptr)
        return no_memory(load, first ? section->no_table : section->no_growth, before + bytes);
    *table = grown;
    char *block = (char *)malloc((size_t)bytes);
    if (block == nullptr)
        return no_memory(load, section->no_block, bytes);
    bool whole = fread(block, (size_t)bytes, 1, load->file) == 1;
    if (whole)
        memcpy(grown + before, block, (size_t)bytes);
    free(block);
    return whole || short_file(load, section->short_read, count, bytes);
}

// Makes the last `count` rows fit to be searched: names get their NUL, and the row numbers, which count from
// their file's beginning, are moved behind the rows before. A number that no row has becomes that of a row
// not in use.
static void settle_rows(fdl_load *load, int32_t count)
{
    fdl_name_row *names = (fdl_name_row *)load->names + load->rows;
    fdl_key_row *keys = (fdl_key_row *)load->keys + load->rows;
    for (int32_t i = 0; i < count; i++) {
        names[i].name[FDL_NAME_SIZE - 1] = '\0';
        bool there = keys[i].name_row >= 0 && keys[i].name_row < count;
        keys[i].name_row = there ? keys[i].name_row + load->rows : FDL_UNUSED_ROW;
    }
}

static void add_to_mask(int32_t rows)
{
    _fname_hash_mask = (int32_t)((uint32_t)_fname_hash_mask + (uint32_t)rows);
}

static bool read_header(fdl_load *load, const char *path)
{
    errno = 0;
    size_t items = fread(&_fhdr, 1, sizeof _fhdr, load->file);
    if (items != sizeof _fhdr)
        return short_file(load, "FDL0503", (int64_t)items, sizeof _fhdr);
    if (_fhdr.magic != FDL_MAGIC) {
        int32_t magic = _fhdr.magic;
        release(load);
        VORN_LOG(0, LEVEL_ERROR, "FDL0504", "4408 Invalid magic number of FDL : %d", magic);
        return false;
    }
    if (_fhdr.count == 0) {
        release(load);
        VORN_LOG(0, LEVEL_ERROR, "FDL0505", "4507 FDL table size is zero : %s", path);
        return false;
    }
    return true;
}

static bool read_table(fdl_load *load, const char *path, bool possible)
{
    load->file = open_path(path, possible);
    if (load->file == nullptr) {
        release(load);
        VORN_LOG(1, LEVEL_ERROR, "FDL0502", "0010 file open error : %s", path);
        return false;
    }
    if (!read_header(load, path))
        return false;
    int32_t count = _fhdr.count;
    if (!append_section(load, &NAMES, &load->names, count) ||
        !append_section(load, &KEYS, &load->keys, count))
        return false;
    settle_rows(load, count);
    fclose(load->file);
    load->file = nullptr;
    load->files++;
    load->rows += count;
    _fldkey_count = _fname_count = load->rows;
    add_to_mask(count - 1);
    return true;
}

// The files of the list, in order.
static bool read_tables(fdl_load *load, const char *list)
{
    char path[PATH_MAX];
    bool possible;
    while (next_path(&list, path, &possible))
        if (!read_table(load, path, possible))
            return false;
    return true;
}

int _ffile_load(void)
{
    fdl_load load = {};
    _thread_mutex_lock(&_fldtab_mutex);
    if (loaded()) {
        _thread_mutex_unlock(&_fldtab_mutex);
        return 1;
    }
    const char *list = getenv("FDLFILE");
    if (list == nullptr) {
        release(&load);
        VORN_LOG(0, LEVEL_ERROR, "FDL0501", "0100 getenv error : %s", "FDLFILE");
        return -1;
    }
    if (!read_tables(&load, list))
        return -1;  // the lock is given back
    if (load.files != 1)
        add_to_mask(1);
    _fldname = (fdl_name_row *)load.names;
    _fldkey = (fdl_key_row *)load.keys;
    _fldkey_count = _fname_count = load.rows;
    set_loaded(1);
    _thread_mutex_unlock(&_fldtab_mutex);
    return 1;
}

// --- Searches.

// From this mask on the hashes take 16-bit words, read with the high byte first.
constexpr int32_t LARGE_TABLE = 512;

static uint32_t sum_of_words(const unsigned char *bytes, int size)
{
    uint32_t sum = 0;
    for (int i = 0; i < size; i += 2)
        sum += (uint32_t)bytes[i] << 8 | bytes[i + 1];
    return sum;
}

int _fname_hash(const char *name)
{
    uint32_t sum = 0;
    if (_fname_hash_mask < LARGE_TABLE) {
        for (; *name != '\0'; name++)
            sum += (uint32_t)(signed char)*name;
    } else {
        unsigned char area[FDL_NAME_SIZE] = {};
        memcpy(area, name, strnlen(name, sizeof area - 1));  // no row has a longer name
        sum = sum_of_words(area, sizeof area);
    }
    return (int)(sum & (uint32_t)_fname_hash_mask);
}

int _fldkey_hash(int key)
{
    if (_fname_hash_mask < LARGE_TABLE)
        return _fldkey_count > 0 ? key % _fldkey_count : 0;
    unsigned char halves[sizeof key];
    memcpy(halves, &key, sizeof halves);
    return (int)(sum_of_words(halves, sizeof halves) & (uint32_t)_fname_hash_mask);
}

// A hash, taken into the table: a mask that an unload has left, the sum of several files and a negative key
// all give hashes beyond it.
static int32_t row_of_hash(int hash, int32_t count)
{
    int32_t row = hash % count;
    return row < 0 ? row + count : row;
}

int _find_fnamei_by_fname(const char *name)
{
    if (_fldname == nullptr)
        return -1;
    int32_t row = row_of_hash(_fname_hash(name), _fname_count);
    for (int32_t left = _fname_count; left > 0; left--) {
        if (strcmp(_fldname[row].name, name) == 0)
            return row;
        row = row + 1 < _fname_count ? row + 1 : 0;
    }
    return -1;
}

int _find_fldkeyi_by_fldkey(int key)
{
    if (_fldkey == nullptr)
        return -1;
    int32_t row = row_of_hash(_fldkey_hash(key), _fldkey_count);
    for (int32_t left = _fldkey_count; left > 0; left--) {
        // What stands in the key word of a row not in use means nothing.
        if (_fldkey[row].key == key && _fldkey[row].name_row != FDL_UNUSED_ROW)
            return row;
        row = row + 1 < _fldkey_count ? row + 1 : 0;
    }
    return -1;
}

// --- Translations.

static constexpr api_text FBGET_FLDKEY = FB_ZERO_TEXT("fbget_fldkey", "(\"%s\")");
static constexpr api_text FBGET_FLDNAME = FB_STRING_TEXT("fbget_fldname", "(%d)");
static constexpr api_text FBGET_FLDNO = FB_TEXT("fbget_fldno", "(%d)");
static constexpr api_text FBGET_FLDTYPE = FB_TEXT("fbget_fldtype", "(%d)");
// The name in the texts of the next one is that of its neighbour.
static constexpr api_text FBMAKE_FLDKEY = {"fbmake_fldkey", "fbget_fldkey(%d, %d)", "fbget_fldkey = %d", ""};
static constexpr api_text FBKEYNM_UNLOAD = FB_TEXT("fbkeynm_unload", "(void)");

static bool have_tables(const char *code)
{
    if (loaded() || _ffile_load() > 0)
        return true;
    VORN_LOG(0, LEVEL_ERROR, code, "3007 failed to load field key table");
    return false;
}

int fbget_fldkey(char *name)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGET_FLDKEY, name != nullptr ? name : ""))
        return 0;
    if (!have_tables("FDL0801")) {
        fb_error(&FBGET_FLDKEY);
        return 0;
    }
    // Rows not in use have an empty name, which is nobody's.
    int row = name != nullptr && *name != '\0' ? _find_fnamei_by_fname(name) : -1;
    if (row < 0) {
        fb_fail(&FBGET_FLDKEY, FBENOENT);
        return 0;
    }
    return fb_return(&FBGET_FLDKEY, _fldname[row].key);
}

char *fbget_fldname(int key)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBGET_FLDNAME, key))
        return nullptr;
    if (!have_tables("FDL0806"))
        return fb_null_error(&FBGET_FLDNAME);
    int row = _find_fldkeyi_by_fldkey(key);
    if (row < 0)
        return fb_null(&FBGET_FLDNAME, FBENOENT);
    char *name = _fldname[_fldkey[row].name_row].name;
    _vorn_trace(FBGET_FLDNAME.name, 1, TRACE_RESULT, FBGET_FLDNAME.result, name);
    return name;
}

// The arithmetic on keys has no frame: it needs no thread's row and leaves fberror alone.

int fbget_fldno(int key)
{
    _vorn_trace(FBGET_FLDNO.name, 1, TRACE_ENTRY, FBGET_FLDNO.enter, key);
    return fb_return(&FBGET_FLDNO, key & FIELD_NUMBER_MASK);
}

int fbget_fldtype(int key)
{
    _vorn_trace(FBGET_FLDTYPE.name, 1, TRACE_ENTRY, FBGET_FLDTYPE.enter, key);
    return fb_return(&FBGET_FLDTYPE, type_of_key(key));
}

char *fbget_strfldtype(int key)
{
    _vorn_trace("fbget_strfldtype", 1, TRACE_ENTRY, "fbget_strfldtype(%d)", key);
    int type = type_of_key(key);
    const char *name = type >= 0 && type < FDL_TYPE_NAMES ? _fdl_type_name[type] : "";
    _vorn_trace("fbget_strfldtype", 1, TRACE_RESULT, "fbget_strfldtype = \"%s\"", name);
    return (char *)name;
}

int fbmake_fldkey(int type, int number)
{
    _vorn_trace(FBMAKE_FLDKEY.name, 1, TRACE_ENTRY, FBMAKE_FLDKEY.enter, type, number);
    return fb_return(&FBMAKE_FLDKEY, (int)(((uint32_t)type << FIELD_TYPE_SHIFT) + (uint32_t)number));
}

void fbkeynm_unload(void)
{
    api_frame frame;
    if (!FB_ENTER(&frame, FBKEYNM_UNLOAD))
        return;
    _thread_mutex_lock(&_fldtab_mutex);
    if (loaded()) {
        set_loaded(0);
        _fname_count = _fldkey_count = 0;
        free(_fldname);
        free(_fldkey);
        _fldname = nullptr;
        _fldkey = nullptr;
    }
    _thread_mutex_unlock(&_fldtab_mutex);
    fb_return(&FBKEYNM_UNLOAD, 1);
}

void fbnmkey_unload(void)
{
    _vorn_trace("fbnmkey_unload", 1, TRACE_ENTRY, "fbget_unload(void)");
    fbkeynm_unload();
    _vorn_trace("fbnmkey_unload", 1, TRACE_RESULT, "fbget_unload = %d", 1);
}
}
