// Conversion between the eight types of fields. There are two engines, which differ in signs and text
// formats: one reads entries, the other (fbtypecvt, vorn/fields.h) values of the caller.
#ifndef VORN_FIELDS_FBTCONV_H
#define VORN_FIELDS_FBTCONV_H

struct wthr_var;

// Holds the block's conversion area until the end of the scope: around a conversion and the use of its
// result.
struct conversion_area {
    wthr_var *block;
    explicit conversion_area(wthr_var *owner);
    ~conversion_area();
    conversion_area(const conversion_area &) = delete;
    conversion_area &operator=(const conversion_area &) = delete;
};

extern "C" {

// Delivers the value of an entry as `to_type`; `*len` as at fbget, set to the width for a number. 1, or -1
// with fberror: FBEBADFLD (unknown target), FBETYPE (unknown stored type), FBENOSPACE.
int _typcvt_update(char *out, int to_type, int *len, char *entry);

// Gives the context's scratch block back if it has grown beyond what is worth keeping.
void _free_large_carray_buf(void);
}

#endif
