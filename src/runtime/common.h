// Paths, directories and small checks that the rest of the library shares.
#ifndef VORN_RUNTIME_COMMON_H
#define VORN_RUNTIME_COMMON_H

extern "C" {

// Both take "/" and "\" as separators. The first gives the path up to its last separator, in a buffer of the
// caller's context that the next call overwrites; null if there is no separator. The second points into
// `path`.
char *_vorn_path_prefix(const char *path);
char *_vorn_path_basename(const char *path);

int _vorn_create_dir(const char *path);  // mkdir with all that is missing above; 0, or -1 (also if it exists)
void _vorn_conv_slash(char *s);          // each "\" becomes "/"
int _slash_check(char *path);            // appends "/" unless it ends in one (then 1); takes one byte
int _vorn_proc_path(char *path);         // takes "//", "/./" and "/x/../" out, in place; 1
void _vorn_detach_console(void);         // the three standard streams on /dev/null
int _vorn_IsHeapPtr(const void *p);      // 1 for what may be a block of malloc: not null, a multiple of 4

// Text for which a format without arguments would be printed: "%%" becomes "%", in place. Every other percent
// sign stands for itself, so that no text makes printf look for arguments that aren't there.
void print_percents(char *text);
}

#endif
