// The error exits of the field calls.
#include "fields/fbapi.h"

extern "C" {

int fb_error(const api_text *text)
{
    int code = getfberror();
    _vorn_trace(text->name, 1, TRACE_ERROR, text->error, code, fbstrerror(code));
    return -1;
}

int fb_fail(const api_text *text, int code)
{
    set_fberror(code);
    return fb_error(text);
}

char *fb_null_error(const api_text *text)
{
    fb_error(text);
    return nullptr;
}

char *fb_null(const api_text *text, int code)
{
    fb_fail(text, code);
    return nullptr;
}
}
