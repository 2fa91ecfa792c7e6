// Struct definitions: the two tables of SDLFILE64 or SDLFILE, and the conversion of one record.
//
// A struct buffer holds records of a struct whose shape is known by name only. The tables tell, for each
// member, where it stands in the host's record and where in the wire's. They are loaded once in the life of a
// process and don't change afterwards, so they are read without a lock.
#ifndef VORN_BUFFERS_SDLI_H
#define VORN_BUFFERS_SDLI_H

#include <atomic>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

extern "C" {

constexpr int32_t SDL_MAGIC = 7777;
constexpr int SDL_COMPARED_NAME = 16;  // bytes of a struct's name that take part in a comparison

enum sdl_type : int32_t {
    SDL_CHAR = 1,
    SDL_SHORT = 2,
    SDL_INT = 3,
    SDL_LONG = 4,  // 8 bytes on the host, 4 on the wire
    SDL_FLOAT = 5,
    SDL_DOUBLE = 6,
    SDL_STRING = 7,
    SDL_CARRAY = 8,
    SDL_STRUCT = 9
};

// The rows, as in the file. Names and null texts of loaded rows are ended by a NUL.
struct sdl_struct {
    char name[32];
    int32_t first;  // its members: first to last, both inclusive, rows of _sdl_field_table
    int32_t last;
    int32_t word;    // given out by _get_subtype_len
    int32_t unused;  // 0 once loaded
    int64_t host_size, wire_size;
};
static_assert(sizeof(sdl_struct) == 64);
static_assert(offsetof(sdl_struct, host_size) == 48);

struct sdl_field {
    char name[32];
    int32_t key;  // field key of the member in a field buffer
    int32_t type;
    char null_text[32];
    int32_t nested;   // SDL_STRUCT: row of _sdl_table
    int32_t count;    // elements; bytes in all for SDL_CHAR, SDL_STRING and SDL_CARRAY
    int32_t element;  // bytes of one element of these three; nobody has checked it
    int32_t host_offset, wire_offset;
};
static_assert(sizeof(sdl_field) == 92);
static_assert(offsetof(sdl_field, nested) == 72);

// Null until a load has succeeded. After a failed load the sizes count the rows of the files before the bad
// one, but there are no tables: who walks them goes through find_struct.
extern sdl_struct *_sdl_table;
extern sdl_field *_sdl_field_table;
extern int32_t _sdl_table_size;
extern int32_t _sdl_field_table_size;
extern int32_t _sdlfile_loadsw;  // 1 once loaded
extern pthread_mutex_t _sdlfile_mutex;

// 1 after a load, or with no variable set; 0 if it was done before; -1. Takes _sdlfile_mutex.
int _sdlfile_load(void);

// The same for those who come by often: no lock once it is done.
inline void load_structs_once(void)
{
    if (std::atomic_ref<int32_t>(_sdlfile_loadsw).load(std::memory_order_acquire) == 0)
        _sdlfile_load();
}

// Row of the struct of this name, or -1; also for a struct whose members don't fit its record. Everything
// that the rows of a struct found here say about places is true: its members are rows of the field table, lie
// inside both records with all their elements, and nest structs of which the same holds.
int find_struct(const char *name);

int _get_host_stsize(const char *name);                          // bytes of a record on the host; -1: unknown
int _get_host_nw_stsize(const char *name, int *host, int *net);  // 1, and both sizes; -1: unknown

// Convert one record of row `index` and give the second address back; null for a row that isn't there. Gaps
// between members aren't written.
char *_sdl_encode(int index, const char *host, char *wire);
char *_sdl_decode(int index, const char *wire, char *host);
}

#endif
