// Wire form of struct and field data. It is not available yet: nothing converts, and the paths report the
// errors of data that can't be converted.
#ifndef VORN_BUFFERS_DENCODE_H
#define VORN_BUFFERS_DENCODE_H

struct msg_header;

extern "C" {
// A new block with the encoded data behind an unset header, owned by the caller; null.
char *_hton_data_fdl(msg_header *message, int *outlen);
char *_hton_data_sdl(msg_header *message, int *outlen);
// `to`, or null.
char *_ntoh_data_fdl(msg_header *message, char *from, char *to);
char *_ntoh_data_sdl(msg_header *message, char *from, char *to, int *outlen);
}

#endif
