// The calls of the shared key store. The two of a pair differ in their name and in SQ_GLOBAL. None of them
// opens a session.
#include "queue/keystore.h"
#include "runtime/thrapi.h"
#include "vorn/errors.h"
#include "vorn/keystore.h"

extern "C" {

static int leave_with(const api_frame *frame, const api_text *text, int result)
{
    return result == -1 ? api_error(frame, text) : api_return(text, result);
}

int vorn_get_sessionid(void)
{
    static constexpr api_text TEXT = API_TEXT("vorn_get_sessionid", "(void)");
    api_frame frame;
    if (!API_ENTER(&frame, TEXT))
        return -1;
    set_tperrno(0);
    return leave_with(&frame, &TEXT, _get_sessionid(0, frame.block));
}

static int put(const api_text *text, char *key, int keylen, char *data, long len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text, key, keylen, data, (int)len, (int)flags))
        return -1;
    return leave_with(&frame, text, _sq_put(key, keylen, data, len, flags, frame.block));
}

int vorn_sq_put(char *key, int keylen, char *data, long len, long flags)
{
    static constexpr api_text TEXT = API_TEXT("vorn_sq_put", "(%#x, %d, %#x, %d, %#x)");
    return put(&TEXT, key, keylen, data, len, flags);
}

int vorn_gq_put(char *key, int keylen, char *data, long len, long flags)
{
    static constexpr api_text TEXT = API_TEXT("vorn_gq_put", "(%#x, %d, %#x, %d, %#x)");
    return put(&TEXT, key, keylen, data, len, flags | SQ_GLOBAL);
}

static int get(const api_text *text, char *key, int keylen, char **data, long *len, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text, key, keylen, data, len, (int)flags))
        return -1;
    return leave_with(&frame, text, _sq_get(key, keylen, data, len, flags, frame.block));
}

int vorn_sq_get(char *key, int keylen, char **data, long *len, long flags)
{
    static constexpr api_text TEXT = API_TEXT("vorn_sq_get", "(%#x, %d, %#x, %#x, %#x)");
    return get(&TEXT, key, keylen, data, len, flags);
}

int vorn_gq_get(char *key, int keylen, char **data, long *len, long flags)
{
    static constexpr api_text TEXT = API_TEXT("vorn_gq_get", "(%#x, %d, %#x, %#x, %#x)");
    return get(&TEXT, key, keylen, data, len, flags | SQ_GLOBAL);
}

static int count_entries_of(const api_text *text, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text))
        return -1;
    return leave_with(&frame, text, _sq_count(flags, frame.block));
}

int vorn_sq_count(void)
{
    static constexpr api_text TEXT = API_TEXT("vorn_sq_count", "(void)");
    return count_entries_of(&TEXT, 0);
}

int vorn_gq_count(void)
{
    static constexpr api_text TEXT = API_TEXT("vorn_gq_count", "(void)");
    return count_entries_of(&TEXT, SQ_GLOBAL);
}

// Purge and keygen, which take a key and nothing else.
typedef int key_operation(char *key, int keylen, long flags, wthr_var *block);

static int operate(const api_text *text, key_operation *operation, char *key, int keylen, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text, key, keylen))
        return -1;
    return leave_with(&frame, text, operation(key, keylen, flags, frame.block));
}

int vorn_sq_purge(char *key, int keylen)
{
    static constexpr api_text TEXT = API_TEXT("vorn_sq_purge", "(%#x, %d)");
    return operate(&TEXT, _sq_purge, key, keylen, 0);
}

int vorn_gq_purge(char *key, int keylen)
{
    static constexpr api_text TEXT = API_TEXT("vorn_gq_purge", "(%#x, %d)");
    return operate(&TEXT, _sq_purge, key, keylen, SQ_GLOBAL);
}

int vorn_sq_keygen(char *key, int keylen)
{
    static constexpr api_text TEXT = API_TEXT("vorn_sq_keygen", "(%#x, %d)");
    return operate(&TEXT, _sq_keygen, key, keylen, 0);
}

int vorn_gq_keygen(char *key, int keylen)
{
    static constexpr api_text TEXT = API_TEXT("vorn_gq_keygen", "(%#x, %d)");
    return operate(&TEXT, _sq_keygen, key, keylen, SQ_GLOBAL);
}

static char *get_list(const api_text *text, char *key, int keylen, long flags)
{
    api_frame frame;
    if (!API_ENTER(&frame, *text, key, keylen))
        return nullptr;
    return (char *)api_give(&frame, text, _sq_getkeylist(key, keylen, flags, frame.block));
}

char *vorn_sq_getkeylist(char *key, int keylen)
{
    static constexpr api_text TEXT = API_POINTER_TEXT("vorn_sq_getkeylist", "(%#x, %d)");
    return get_list(&TEXT, key, keylen, 0);
}

char *vorn_gq_getkeylist(char *key, int keylen)
{
    static constexpr api_text TEXT = API_POINTER_TEXT("vorn_gq_getkeylist", "(%#x, %d)");
    return get_list(&TEXT, key, keylen, SQ_GLOBAL);
}
}
