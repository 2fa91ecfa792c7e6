// Typed buffers: the table of types and the layout of the block. The calls are in vorn/buffers.h.
#ifndef VORN_BUFFERS_TBUFFER_H
#define VORN_BUFFERS_TBUFFER_H

#include <stdint.h>

struct msg_header;

extern "C" {

struct tmtype {
    const char *name;
    int32_t typeno;
    int32_t needs_subtype;
    int32_t default_size;  // smallest data size of the type
};
constexpr int TYPE_ROWS = 14;
extern const tmtype _tmtypetab[TYPE_ROWS];  // the last row has typeno -1

int _get_type_idx(const char *name, const char *subtype, int *struct_size);  // row or -1
int _get_idx_from_typeno(int typeno);                 // first row with the number, or -1
int _get_subtype_len(const char *subtype, int *out);  // host size of the struct, or -1

// Frees a buffer's block. Its cached field positions go with it: the address may be another buffer's soon.
void free_buffer(msg_header *header);

// True for a user pointer with a live header in front of it. Null and unaligned pointers aren't looked at.
bool is_typed_buffer(const char *data);
// True if VORN_STRING_NULL asks for a terminator's byte in string buffers.
bool strings_get_a_null(void);
}

#endif
