#include "buffers/dencode.h"

extern "C" {

char *_hton_data_fdl(msg_header *message, int *outlen)
{
    (void)message, (void)outlen;
    return nullptr;
}

char *_hton_data_sdl(msg_header *message, int *outlen)
{
    (void)message, (void)outlen;
    return nullptr;
}

char *_ntoh_data_fdl(msg_header *message, char *from, char *to)
{
    (void)message, (void)from, (void)to;
    return nullptr;
}

char *_ntoh_data_sdl(msg_header *message, char *from, char *to, int *outlen)
{
    (void)message, (void)from, (void)to, (void)outlen;
    return nullptr;
}
}
