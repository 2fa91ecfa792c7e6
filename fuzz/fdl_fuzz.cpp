// Field table files: alone, twice in a list, and loaded again over the mask that an unload leaves. Every name
// and key of the file is looked up, and some that no file has.
#include "fields/fbcommon3.h"
#include "runtime/errlog.h"
#include "vorn/fields.h"

#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

constexpr size_t HEAD = 12, NAME_ROW = 52, MOST_ROWS = 512;

static void look_up(const uint8_t *data, size_t size)
{
    char none[] = "no such name, and a longer one than any of the rows can hold";
    fbget_fldkey(none);
    for (int key : {0, -1, 1, INT32_MIN, 0x3000064})
        fbget_fldname(key);
    for (size_t row = 0; row < MOST_ROWS && HEAD + (row + 1) * NAME_ROW <= size; row++) {
        char name[NAME_ROW + 1] = {};
        int32_t key;
        memcpy(name, data + HEAD + row * NAME_ROW, NAME_ROW);
        memcpy(&key, name + 48, sizeof key);
        fbget_fldkey(name);
        const char *found = fbget_fldname(key);
        if (found != nullptr && strlen(found) > 47)
            abort();
    }
}

static void load(const std::string &list, const uint8_t *data, size_t size)
{
    setenv("FDLFILE", list.c_str(), 1);
    if (_ffile_load() == 1)
        look_up(data, size);
    fbkeynm_unload();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    _daemon = 1;
    int fd = memfd_create("fields", 0);
    if (fd < 0)
        return 0;
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (write(fd, data, size) == (ssize_t)size) {
        load(path, data, size);
        load(path, data, size);
        load(path + "," + path, data, size);
    }
    close(fd);
    // A failed load leaves counts behind, and every load its mask: each input has to begin anew.
    _fname_count = 0;
    _fldkey_count = 0;
    _fname_hash_mask = 0;
    return 0;
}
