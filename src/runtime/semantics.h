// The switches of VORN_SEMANTICS: "FDL_LEN=TRU,CRYPT_SW=Y".
#ifndef VORN_RUNTIME_SEMANTICS_H
#define VORN_RUNTIME_SEMANTICS_H

#include <stdint.h>

extern "C" {

constexpr int32_t SEM_FDL_LEN = 0, SEM_CRYPT_SW = 1, SEM_END = 2;
constexpr int SEM_ROWS = 3;
constexpr int SEM_TEXT_SIZE = 256;

struct sem_elem {
    int32_t kind;
    char key[SEM_TEXT_SIZE];
    char value[SEM_TEXT_SIZE];  // the last one given; outlives _vorn_init_semantics
};

// Values of _vorn_flen_flag: what happens to a field value longer than the user's area.
constexpr int32_t FLEN_UNSET = 0, FLEN_OLD = 1, FLEN_TRUNCATE = 2, FLEN_ERROR = 3;

extern sem_elem _vorn_sem[SEM_ROWS];
extern int32_t _vorn_semantics_flag;  // 1 once VORN_SEMANTICS has been applied
extern int32_t _vorn_flen_flag;
extern int32_t _vorn_crypt_sw;  // 1: sessions are enciphered

// Any thread. Does nothing once the switches are applied, so callers needn't test the flag. 1, or -1 for a
// value with an unknown key or a bad form; the switches are then as they were.
int _vorn_read_semantics(void);
// _vorn_flen_flag, read first if need be. For calls that ask at each value: while VORN_SEMANTICS isn't there
// they pay for a look at the environment's ends, not for a search through it.
int32_t field_length_mode(void);
void _vorn_init_semantics(void);  // switches off; the values in the rows stay
// Steps of the reading. They write to _vorn_sem; -1 on a bad token.
int _get_sem_value(char *token);
int _get_sem_key(char **cursor);  // row, with the cursor moved behind the key
}

#endif
