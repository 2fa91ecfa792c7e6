// The field table: names for keys.
//
// The tables of FDLFILE are two open-addressed hash tables whose rows the compiler of the file has placed; a
// load reads them as they are. The rows of several files stand one behind the other, and are searched as one
// table: a search may begin anywhere, because it goes on to the end and around.
//
// Loaded once, the tables are read without a lock. Only an unload ends them, and the application sees to it
// that nobody translates then.
#ifndef VORN_FIELDS_FBCOMMON3_H
#define VORN_FIELDS_FBCOMMON3_H

#include <pthread.h>
#include <stdint.h>

extern "C" {

constexpr int32_t FDL_MAGIC = 8888;
constexpr int FDL_NAME_SIZE = 48;  // NUL included

// As in the file, in this host's byte order: the header, then `count` name rows, then `count` key rows.
struct fdl_header {
    int32_t magic;
    int32_t count;
    int32_t unused;
};
static_assert(sizeof(fdl_header) == 12);

struct fdl_name_row {
    char name[FDL_NAME_SIZE];  // a row that isn't in use starts with a NUL
    int32_t key;
};
static_assert(sizeof(fdl_name_row) == 52);

constexpr int32_t FDL_UNUSED_ROW = -1;
struct fdl_key_row {
    int32_t key;
    int32_t name_row;  // FDL_UNUSED_ROW in a row that isn't in use
};
static_assert(sizeof(fdl_key_row) == 8);

// Null without tables. In loaded rows names are ended by a NUL, and name rows are there or FDL_UNUSED_ROW.
// The counts are those of the tables; after a failed load, of the files that came before the bad one.
extern fdl_name_row *_fldname;
extern fdl_key_row *_fldkey;
extern int32_t _fname_count;
extern int32_t _fldkey_count;
extern int32_t _fname_hash_mask;          // an unload leaves it, and each load adds to it
extern fdl_header _fhdr;                  // of the file that was read last
extern int32_t _fname_fldkey_tab_loaded;  // 1 once loaded; written last, under _fldtab_mutex
extern pthread_mutex_t _fldtab_mutex;

constexpr int FDL_TYPE_NAMES = 10;
extern const char *const _fdl_type_name[FDL_TYPE_NAMES];  // by type; "" in the first row and the last

// Loads the tables if they aren't. 1, or -1 (the log tells why): then there are none, and the next call tries
// again. Takes _fldtab_mutex.
int _ffile_load(void);

// Where a search begins; it may lie beyond the table.
int _fname_hash(const char *name);
int _fldkey_hash(int key);

// Row numbers, or -1.
int _find_fnamei_by_fname(const char *name);
int _find_fldkeyi_by_fldkey(int key);
}

#endif
