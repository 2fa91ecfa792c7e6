// Text to records and field buffers, and back: the steps of the calls in vorn/bridge.h.
#ifndef VORN_BUFFERS_PBIF_H
#define VORN_BUFFERS_PBIF_H

#include "vorn/bridge.h"

#include <string.h>

extern "C" {

constexpr int PATH_SIZE = 100;    // NUL included
constexpr int NUMBER_TEXT = 400;  // the longest double has 317 characters
constexpr char BLOCK_END = 0x7F;

// A piece of a text, ended by a NUL until it is mended.
struct text_cut {
    char *at;
    char was;
};

inline text_cut cut_at(char *at)
{
    text_cut cut = {at, *at};
    if (cut.was != '\0')
        *at = '\0';
    return cut;
}

inline void mend(const text_cut *cut)
{
    if (cut->was != '\0')
        *cut->at = cut->was;
}

// Behind the separator; at the end of a text there is none.
inline char *behind(const text_cut *cut)
{
    return cut->at + (cut->was != '\0');
}

inline text_cut cut_name(char *form)
{
    return cut_at(form + strcspn(form, "\n"));
}

// Each ends the first piece of a text with a NUL, and gives the bytes up to the next one: where the text ends
// there is no separator to count. The first stores what the NUL replaced (a NUL at the end of the text); the
// second ends name and value, and tells where the value begins.
int _get_value_from_pbsdata(char *text, char *separator);
int _get_name_value_from_pbfdata(char *line, int *value_offset);
int _get_name_from_form(char *form);

// Writes the elements at `value`, each with a tab behind it; `count` is in bytes for a text, and of no use
// are those behind the last whole element. Bytes written, or -1 for a type without text.
int _insert_value_to_pbodata(int type, char *out, char *value, int count, int element_size);

int chk_name(char *name);                  // 1 for the name of a line that names a file, else -1
int get_file_name(FBUF *fbuf, char *out);  // 1, and the path in NEWFILE; -1: there is none
// A file's contents, in a block that the caller frees. Null: no such file, one that can't be read, or a path
// that is empty or too long; with FBESYSTEM, or TPESYSTEM in tperrno, if there is no memory for it.
char *get_value(char *path, int *len);

const char *new_file_of(FBUF *fbuf);  // the path in NEWFILE, in the buffer itself; null: there is none
int key_of_bitmap(void);              // key of the field that stands for a file; 0: no table has it

// Ends a row whose text ends at `end`: in the place of its last tab, which a row without values doesn't have.
// The new end.
char *end_row(char *row, char *end);
}

#endif
