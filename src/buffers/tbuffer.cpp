// Typed buffers. One heap block: header, `bufsize` bytes of data, and a reserve of 64 bytes for a trailer.
#include "buffers/tbuffer.h"

#include "buffers/sdli.h"
#include "fields/fbcommon2.h"
#include "runtime/common.h"
#include "runtime/thrapi.h"
#include "vorn/buffers.h"
#include "vorn/errors.h"
#include "wire/msgheader.h"

#include <limits.h>
#include <stdlib.h>

extern "C" {

// A number is turned back into a name by the first row that bears it.
const tmtype _tmtypetab[TYPE_ROWS] = {
    {"STRUCT", BUF_STRUCT, 1, 1024},
    {"FIELD", BUF_FIELD, 0, 1024},
    {"FML", BUF_FIELD, 0, 1024},
    {"STRING", BUF_STRING, 0, 1024},
    {"VIEW", BUF_STRUCT, 1, 1024},
    {"FML32", BUF_FIELD, 0, 1024},
    {"TPSTART", BUF_START, 0, 76},
    {"TPINIT", BUF_START, 0, 108},
    {"HEADER", BUF_HEADER, 0, HEADER_SIZE},
    {"X_C_TYPE", BUF_STRUCT, 1, 1024},
    {"X_COMMON", BUF_STRUCT, 1, 1024},
    {"CARRAY", BUF_CARRAY, 0, 1024},
    {"X_OCTET", BUF_CARRAY, 0, 1024},
    {"", -1, 0, 1024},
};

int _get_type_idx(const char *name, const char *subtype, int *struct_size)
{
    for (int i = 0; _tmtypetab[i].typeno != -1; i++) {
        if (strcmp(_tmtypetab[i].name, name) != 0)
            continue;
        if (_tmtypetab[i].needs_subtype == 0)
            return i;
        *struct_size = _get_host_stsize(subtype);
        return *struct_size < 0 ? -1 : i;
    }
    return -1;
}

int _get_idx_from_typeno(int typeno)
{
    for (int i = 0; _tmtypetab[i].typeno != -1; i++)
        if (_tmtypetab[i].typeno == typeno)
            return i;
    return -1;
}

int _get_subtype_len(const char *subtype, int *out)
{
    int index = find_struct(subtype);
    if (index < 0)
        return -1;
    if (out != nullptr)
        *out = _sdl_table[index].word;
    return _get_host_stsize(subtype);
}

bool is_typed_buffer(const char *data)
{
    const char *block = data == nullptr ? nullptr : data - HEADER_SIZE;
    return _vorn_IsHeapPtr(block) && ((const msg_header *)block)->magic == MESSAGE_MAGIC;
}

bool strings_get_a_null(void)
{
    const char *value = getenv("VORN_STRING_NULL");
    return value != nullptr && (value[0] == 'y' || value[0] == 'Y');
}

// Data size of a buffer of this type for which `size` bytes were asked. The terminator's extra byte goes only
// to strings that aren't raised to the default size. Kept in 64 bits, so that no request can wrap.
static int64_t fitted_size(const tmtype *type, int64_t size)
{
    if (size < type->default_size)
        size = type->default_size;
    else if (type->typeno == BUF_STRING && strings_get_a_null())
        size++;
    if (type->typeno == BUF_FIELD)
        size += (int64_t)sizeof(fb_head);
    return size;
}

static bool fits_a_block(int64_t size)
{
    return size <= INT32_MAX - BLOCK_OVERHEAD;
}

static constexpr api_text TPALLOC = {"tpalloc", "tpalloc(\"%s\", \"%s\", %d)", "tpalloc = %#x",
                                     "tpalloc = NULL [%d : %s]"};
static constexpr api_text TPREALLOC = {"tprealloc", "tprealloc(%#x, %d)", "tprealloc = %#x",
                                       "tprealloc = NULL [%d : %s]"};
// The failure line of tptypes bears tprealloc's name, and has a value in front of the error.
static constexpr api_text TPTYPES = {"tptypes", "tptypes(%#x, %#x, %#x)", "tptypes = %d",
                                     "tprealloc = %d [%d : %s]"};

static char *null_result(const api_text *text, int code)
{
    set_tperrno(code);
    _vorn_trace(text->name, 1, TRACE_ERROR, text->error, code, tpstrerror(code));
    return nullptr;
}

static char *pointer_result(const api_text *text, char *pointer)
{
    _vorn_trace(text->name, 1, TRACE_RESULT, text->result, pointer);
    return pointer;
}

char *tpalloc(char *type, char *subtype, long size)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPALLOC, type != nullptr ? type : "", subtype != nullptr ? subtype : "",
                   (int)size))
        return nullptr;
    set_tperrno(0);
    char name[17] = "";
    if (subtype != nullptr)
        put_name(name, sizeof name, subtype);
    if (type == nullptr)
        return null_result(&TPALLOC, TPEINVAL);
    load_structs_once();
    int struct_size = 0;
    int index = _get_type_idx(type, name, &struct_size);
    if (index < 0)
        return null_result(&TPALLOC, TPENOENT);
    const tmtype *row = &_tmtypetab[index];
    int64_t wanted = (int32_t)size < struct_size ? struct_size : (int32_t)size;
    int64_t fitted = fitted_size(row, wanted);
    msg_header *header =
        fits_a_block(fitted) ? (msg_header *)malloc((size_t)fitted + BLOCK_OVERHEAD) : nullptr;
    if (header == nullptr)
        return null_result(&TPALLOC, TPEOS);
    memset(header, 0, (size_t)fitted + HEADER_SIZE);
    header->magic = MESSAGE_MAGIC;
    header->buftype = row->typeno;
    if (struct_size != 0)
        memcpy(header->subtype, name, sizeof header->subtype);
    header->bufsize = (int32_t)fitted;
    header->xflags = XFLAG_TRAILER_ROOM;
    char *data = message_data(header);
    if (row->typeno == BUF_FIELD) {
        init_field_buffer(data);
        _clear_fcache(data);
    }
    return pointer_result(&TPALLOC, data);
}

char *tprealloc(char *ptr, long size)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPREALLOC, ptr, (int)size))
        return nullptr;
    set_tperrno(0);
    if (!is_typed_buffer(ptr))
        return null_result(&TPREALLOC, TPEINVAL);
    msg_header *header = message_of(ptr);
    int index = _get_idx_from_typeno(header->buftype);
    if (index < 0)
        return null_result(&TPREALLOC, TPENOENT);
    const tmtype *row = &_tmtypetab[index];
    int64_t fitted = fitted_size(row, (int32_t)size);
    if (row->typeno == BUF_FIELD)
        _clear_fcache(ptr);
    msg_header *moved =
        fits_a_block(fitted) ? (msg_header *)realloc(header, (size_t)fitted + BLOCK_OVERHEAD) : nullptr;
    if (moved == nullptr)
        return null_result(&TPREALLOC, TPEOS);
    char *data = message_data(moved);
    int32_t before = moved->bufsize > 0 ? moved->bufsize : 0;
    if (fitted > before)
        memset(data + before, 0, (size_t)(fitted - before));
    moved->bufsize = (int32_t)fitted;
    moved->xflags |= XFLAG_TRAILER_ROOM;
    if (row->typeno == BUF_STRING) {
        // A request of 0 ends in the header's last byte; one below 0 has no place in the block.
        if ((int32_t)size >= 0)
            data[(int32_t)size - 1] = '\0';
        data[fitted - 1] = '\0';
    }
    if (row->typeno == BUF_FIELD)
        _clear_fcache(data);
    return pointer_result(&TPREALLOC, data);
}

// All 16 bytes, padded with NULs; a full name has none behind it.
static void copy_subtype(char *to, const char *from)
{
    size_t length = strnlen(from, sizeof msg_header::subtype);
    memcpy(to, from, length);
    memset(to + length, 0, sizeof msg_header::subtype - length);
}

long tptypes(char *ptr, char *type, char *subtype)
{
    api_frame frame;
    if (!API_ENTER(&frame, TPTYPES, ptr, type, subtype))
        return -1;
    int index = is_typed_buffer(ptr) ? 0 : -1;
    if (index == 0 && type != nullptr)
        index = _get_idx_from_typeno(message_of(ptr)->buftype);
    if (index < 0) {
        set_tperrno(TPEINVAL);
        _vorn_trace(TPTYPES.name, 1, TRACE_ERROR, TPTYPES.error, -1, TPEINVAL, tpstrerror(TPEINVAL));
        return -1;
    }
    const msg_header *header = message_of(ptr);
    if (type != nullptr)
        memcpy(type, _tmtypetab[index].name, strlen(_tmtypetab[index].name) + 1);
    if (subtype != nullptr)
        copy_subtype(subtype, header->subtype);
    _vorn_trace(TPTYPES.name, 1, TRACE_RESULT, TPTYPES.result, header->bufsize);
    return header->bufsize;
}

void free_buffer(msg_header *header)
{
    if (header->buftype == BUF_FIELD)
        _clear_fcache(message_data(header));
    header->magic = 0;
    free(header);
}

void tpfree(char *ptr)
{
    if (ptr == nullptr)
        return;
    _vorn_trace("tpfree", 1, TRACE_ENTRY, "tpfree(%#x)", ptr);
    if (!is_typed_buffer(ptr))
        return;
    free_buffer(message_of(ptr));
}

int tpgetasize(char *ptr)
{
    return message_of(ptr)->bufsize;
}

int tpgettype(char *ptr)
{
    return message_of(ptr)->buftype;
}

char *tpgetsubtype(char *ptr)
{
    msg_header *header = message_of(ptr);
    if (header->subtype[0] != '\0')
        _vorn_trace("tpgetsubtype", 1, TRACE_RESULT, "tpgetsubtype = \"%s\"", header->subtype);
    return header->subtype;
}
}
