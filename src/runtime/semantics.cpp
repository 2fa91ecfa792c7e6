// The switches of VORN_SEMANTICS.
#include "runtime/semantics.h"

#include "runtime/mthr.h"

#include <ctype.h>
#include <atomic>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern "C" {

sem_elem _vorn_sem[SEM_ROWS] = {
    {SEM_FDL_LEN, "FDL_LEN", ""},
    {SEM_CRYPT_SW, "CRYPT_SW", ""},
    {SEM_END, "", ""},
};
int32_t _vorn_semantics_flag = 0;
int32_t _vorn_flen_flag = FLEN_UNSET;
int32_t _vorn_crypt_sw = 0;

// Guards table and flags while they are written. Readers of the flags have called _vorn_read_semantics
// before.
static pthread_mutex_t semantics_mutex = PTHREAD_MUTEX_INITIALIZER;

// What the values mean. A value that isn't listed leaves its flag as it is, without complaint.
static const struct {
    int32_t kind;
    const char *value;
    int32_t *flag;
    int32_t setting;
} meanings[] = {
    {SEM_FDL_LEN, "OLD", &_vorn_flen_flag, FLEN_OLD},
    {SEM_FDL_LEN, "TRU", &_vorn_flen_flag, FLEN_TRUNCATE},
    {SEM_FDL_LEN, "ERR", &_vorn_flen_flag, FLEN_ERROR},
    {SEM_CRYPT_SW, "Y", &_vorn_crypt_sw, 1},
    {SEM_CRYPT_SW, "y", &_vorn_crypt_sw, 1},
};

void _vorn_init_semantics(void)
{
    _thread_mutex_lock(&semantics_mutex);
    _vorn_semantics_flag = 0;
    _vorn_flen_flag = FLEN_UNSET;
    _vorn_crypt_sw = 0;
    _thread_mutex_unlock(&semantics_mutex);
}

int _get_sem_key(char **cursor)
{
    for (int row = 0; row < SEM_ROWS && _vorn_sem[row].kind != SEM_END; row++) {
        size_t length = strlen(_vorn_sem[row].key);
        if (strncmp(*cursor, _vorn_sem[row].key, length) == 0) {
            *cursor += length;
            return row;
        }
    }
    return -1;
}

int _get_sem_value(char *token)
{
    char *cursor = token;
    int row = _get_sem_key(&cursor);
    if (row < 0 || (*cursor != '=' && *cursor != ':'))
        return -1;
    size_t length = strlen(++cursor);
    if (length >= SEM_TEXT_SIZE)
        return -1;
    memcpy(_vorn_sem[row].value, cursor, length + 1);
    return 1;
}

// Stores the values of a list of tokens. 1, or -1 at the first bad one; one that is too long to be good is
// bad.
static int store_values(const char *list)
{
    constexpr size_t TOKEN_SIZE = 257;
    char token[TOKEN_SIZE] = "";
    size_t length = 0;
    for (; *list != '\0'; list++) {
        if (isspace((unsigned char)*list))
            continue;
        if (*list == ',') {
            token[length] = '\0';
            if (_get_sem_value(token) < 0)
                return -1;
            length = 0;
        } else if (length < TOKEN_SIZE - 1) {
            token[length++] = *list;
        } else {
            return -1;
        }
    }
    token[length] = '\0';
    return length == 0 ? 1 : _get_sem_value(token);
}

// Rows that the list didn't name count with the value that they had before.
static void apply_values(void)
{
    for (int row = 0; row < SEM_ROWS; row++)
        for (const auto &meaning : meanings)
            if (_vorn_sem[row].kind == meaning.kind && strcmp(_vorn_sem[row].value, meaning.value) == 0)
                *meaning.flag = meaning.setting;
    _vorn_semantics_flag = 1;
}

int _vorn_read_semantics(void)
{
    const char *list = getenv("VORN_SEMANTICS");
    int result = 1;
    _thread_mutex_lock(&semantics_mutex);
    if (_vorn_semantics_flag == 0 && list != nullptr) {
        result = store_values(list);
        if (result > 0)
            apply_values();
    }
    _thread_mutex_unlock(&semantics_mutex);
    return result;
}

// The environment in which this thread last found no VORN_SEMANTICS. A variable that has been added since is
// one address more, or another one: the sum of all tells.
struct searched_environment {
    char **first;  // null: none
    uintptr_t sum;
};
static constinit thread_local searched_environment searched
    __attribute__((tls_model("initial-exec"))) = {nullptr, 0};

static searched_environment present_environment(void)
{
    uintptr_t sum = 0;
    for (char **entry = environ; entry != nullptr && *entry != nullptr; entry++)
        sum += (uintptr_t)*entry;
    return {environ, sum};
}

static bool nothing_was_added(void)
{
    if (searched.first == nullptr || searched.first != environ)
        return false;
    return searched.sum == present_environment().sum;
}

static void remember_environment(void)
{
    searched = {nullptr, 0};
    if (getenv("VORN_SEMANTICS") == nullptr)
        searched = present_environment();
}

static int32_t load_flag(int32_t *flag)
{
    return std::atomic_ref<int32_t>(*flag).load(std::memory_order_acquire);
}

int32_t field_length_mode(void)
{
    if (load_flag(&_vorn_semantics_flag) == 0 && !nothing_was_added()) {
        _vorn_read_semantics();
        remember_environment();
    }
    return load_flag(&_vorn_flen_flag);
}
}
