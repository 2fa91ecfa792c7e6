// Making of key files; the reader is keyfile.cpp.
#include "keygen.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "keyfile.h"

extern "C" {

struct key_pair {
    uint8_t public_half[RAW_KEY_SIZE];
    uint8_t private_half[RAW_KEY_SIZE];
};

static bool make_pair(key_pair *pair)
{
    size_t public_size = RAW_KEY_SIZE, private_size = RAW_KEY_SIZE;
    ERR_set_mark();
    EVP_PKEY *key = EVP_PKEY_Q_keygen(nullptr, nullptr, "X25519");
    bool made = key != nullptr && EVP_PKEY_get_raw_public_key(key, pair->public_half, &public_size) == 1 &&
                EVP_PKEY_get_raw_private_key(key, pair->private_half, &private_size) == 1 &&
                public_size == RAW_KEY_SIZE && private_size == RAW_KEY_SIZE;
    EVP_PKEY_free(key);
    ERR_pop_to_mark();
    if (!made)
        errno = EIO;
    return made;
}

static size_t put_line(char *line, const char *tag, const uint8_t *key)
{
    static const char DIGITS[] = "0123456789abcdef";
    size_t length = 0;
    while (*tag != '\0')
        line[length++] = *tag++;
    line[length++] = ' ';
    for (size_t i = 0; i < RAW_KEY_SIZE; i++) {
        line[length++] = DIGITS[key[i] >> 4];
        line[length++] = DIGITS[key[i] & 15];
    }
    line[length++] = '\n';
    return length;
}

// Hands the whole text to the disk.
static bool write_text(int file, const char *text, size_t length)
{
    for (size_t done = 0; done < length;) {
        ssize_t written = write(file, text + done, length - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return false;
        done += static_cast<size_t>(written);
    }
    // EINVAL: something that can't be synchronised, such as a file of a memory file system of an old kind.
    return fsync(file) == 0 || errno == EINVAL;
}

// Leaves no file behind when it fails, except one that was there before.
static bool write_key_file(const char *path, mode_t rights, const char *tag, const uint8_t *key)
{
    char line[KEY_LINE_ROOM];
    int file = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, rights);
    if (file < 0)
        return false;
    bool written = write_text(file, line, put_line(line, tag, key));
    int error = errno;
    OPENSSL_cleanse(line, sizeof line);
    if (close(file) != 0 && written) {
        written = false;
        error = errno;
    }
    if (!written)
        unlink(path);
    errno = error;
    return written;
}

int kexcli_make_key_files(const char *path)
{
    char public_path[PATH_MAX];
    int length = snprintf(public_path, sizeof public_path, "%s" KEXCLI_PUBLIC_SUFFIX, path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof public_path) {
        errno = ENAMETOOLONG;
        return -1;
    }
    key_pair pair;
    bool made =
        make_pair(&pair) && write_key_file(path, S_IRUSR | S_IWUSR, PRIVATE_KEY_TAG, pair.private_half);
    if (made && !write_key_file(public_path, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH, PUBLIC_KEY_TAG,
                                pair.public_half)) {
        int error = errno;
        unlink(path);
        errno = error;
        made = false;
    }
    OPENSSL_cleanse(&pair, sizeof pair);
    return made ? 0 : -1;
}

}  // extern "C"
