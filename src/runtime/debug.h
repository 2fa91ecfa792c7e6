// Hexadecimal dumps. Debugging aids: nothing in the library calls them.
#ifndef VORN_RUNTIME_DEBUG_H
#define VORN_RUNTIME_DEBUG_H

extern "C" {

// To stdout. The first shows only head and tail of more than 0x400 bytes; `base` is added to the offsets
// shown.
void _vorn_dump(const char *data, int length);
void _vorn_dump2(const char *data, int base, int length);
// To the error log, at the lowest debug level.
void dump_data(const char *data, int length);
void dump_data2(const char *data, int base, int length);
int _print_data_value(const char *data, int length);  // 1
}

#endif
