// The two kinds of key files: their text, which keygen.cpp writes, and the reader of libkexcli. Internal.
//
// A file is one line: a tag that says which half of a pair it is, a space, the 32 bytes of the key as 64
// hexadecimal digits, and a line end that may be left out. The tag is there so that nobody hands out the
// private half because the two looked alike.
#ifndef VORN_KEXCLI_KEYFILE_H
#define VORN_KEXCLI_KEYFILE_H

#include <stddef.h>
#include <stdint.h>

extern "C" {

constexpr char PUBLIC_KEY_TAG[] = "kexcli-x25519-public";
constexpr char PRIVATE_KEY_TAG[] = "kexcli-x25519-private";
constexpr size_t RAW_KEY_SIZE = 32;                                            // X25519, either half
constexpr size_t KEY_DIGITS = 2 * RAW_KEY_SIZE;                                // hexadecimal
constexpr size_t KEY_LINE_ROOM = sizeof PRIVATE_KEY_TAG + 1 + KEY_DIGITS + 1;  // the longest line and more

enum key_kind : int { PUBLIC_KEY, PRIVATE_KEY };

// Reads the key of a file of that kind into RAW_KEY_SIZE bytes at `key`. False for anything else than a
// regular file with just such a line, and for a private key that others than the owner have rights on.
// Whatever it returns, `key` may have been written to: the caller wipes a private one.
bool _kex_read_key_file(const char *path, key_kind kind, uint8_t *key);

}  // extern "C"

#endif
