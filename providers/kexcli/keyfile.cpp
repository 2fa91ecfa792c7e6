// Reading of key files. What isn't wholly as it should be is refused: a key that was half understood would
// turn into an exchange that fails far from its cause, or into one that proves nothing.
#include "keyfile.h"

#include <errno.h>
#include <fcntl.h>
#include <openssl/crypto.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

extern "C" {

// For each kind of key, what its line begins with and the rights that may not be there.
static const struct {
    const char *tag;
    mode_t forbidden;
} KINDS[] = {
    {PUBLIC_KEY_TAG, 0},
    {PRIVATE_KEY_TAG, S_IRWXG | S_IRWXO},
};

static bool may_be_read(int file, mode_t forbidden)
{
    struct stat status;
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && (status.st_mode & forbidden) == 0;
}

// All of the file, as long as it is shorter than the room. -1: it isn't, or it can't be read.
static ssize_t read_whole(int file, char *text, size_t room)
{
    size_t length = 0;
    while (length < room) {
        ssize_t got = read(file, text + length, room - length);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got < 0 ? -1 : static_cast<ssize_t>(length);
        length += static_cast<size_t>(got);
    }
    return -1;
}

static bool parse_digits(const char *digits, uint8_t *key)
{
    for (size_t i = 0; i < RAW_KEY_SIZE; i++) {
        int high = OPENSSL_hexchar2int(static_cast<unsigned char>(digits[2 * i]));
        int low = OPENSSL_hexchar2int(static_cast<unsigned char>(digits[2 * i + 1]));
        if (high < 0 || low < 0)
            return false;
        key[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

static bool parse_line(const char *text, size_t length, const char *tag, uint8_t *key)
{
    size_t tag_length = strlen(tag), line_length = tag_length + 1 + KEY_DIGITS;
    if (length == line_length + 1 && text[line_length] == '\n')
        length = line_length;
    return length == line_length && memcmp(text, tag, tag_length) == 0 && text[tag_length] == ' ' &&
           parse_digits(text + tag_length + 1, key);
}

bool _kex_read_key_file(const char *path, key_kind kind, uint8_t *key)
{
    char text[KEY_LINE_ROOM];
    // Without O_NONBLOCK the name of a pipe would hold up the start of the session until somebody writes.
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (file < 0)
        return false;
    ssize_t length = may_be_read(file, KINDS[kind].forbidden) ? read_whole(file, text, sizeof text) : -1;
    close(file);
    bool read = length >= 0 && parse_line(text, static_cast<size_t>(length), KINDS[kind].tag, key);
    OPENSSL_cleanse(text, sizeof text);
    return read;
}

}  // extern "C"
