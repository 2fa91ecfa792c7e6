// Struct definition files, and what is done with the structs of one: records are converted both ways, and
// filled from and put into a field buffer, all in blocks of exactly their size.
#include "buffers/sdli.h"
#include "runtime/errlog.h"
#include "vorn/fields.h"
#include "vorn/structs.h"

#include <stdlib.h>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

constexpr int MOST_BYTES = 1 << 16;  // of a record; larger ones only take time
constexpr int MOST_STRUCTS = 64;

static void forget_structs(void)
{
    free(_sdl_table);
    free(_sdl_field_table);
    _sdl_table = nullptr;
    _sdl_field_table = nullptr;
    _sdl_table_size = 0;
    _sdl_field_table_size = 0;
    _sdlfile_loadsw = 0;
}

// Fields under the keys of the struct's own members, so that the mapping finds some.
static FBUF *fields_for(int index)
{
    FBUF *fbuf = fballoc(16, 1024);
    char value[16] = "12345678";
    for (int32_t i = _sdl_table[index].first; fbuf != nullptr && i <= _sdl_table[index].last; i++)
        fbput(fbuf, _sdl_field_table[i].key, value, 8);
    return fbuf;
}

static void use_struct(int index)
{
    char name[32];
    int host = 0, wire = 0;
    memcpy(name, _sdl_table[index].name, sizeof name);
    if (_get_host_nw_stsize(name, &host, &wire) != 1 || host > MOST_BYTES || wire > MOST_BYTES)
        return;
    index = find_struct(name);
    std::vector<char> record((size_t)host, 'x'), sent((size_t)wire, 'y');
    record.shrink_to_fit();
    sent.shrink_to_fit();
    _sdl_encode(index, record.data(), sent.data());
    _sdl_decode(index, sent.data(), record.data());
    FBUF *fbuf = fields_for(index);
    if (fbuf == nullptr)
        return;
    for (int mode = 3; mode <= 7; mode++)
        fbstof(fbuf, record.data(), mode, name);
    fbftos(fbuf, record.data(), name);
    fbstinit(record.data(), name);
    for (int32_t i = _sdl_table[index].first; i <= _sdl_table[index].last; i++) {
        fbstelinit(record.data(), _sdl_field_table[i].name, name);
        for (int occurrence : {INT32_MIN, -1, 0, _sdl_field_table[i].count})
            fbsnull(record.data(), _sdl_field_table[i].name, occurrence, name);
    }
    fbfree(fbuf);
}

static void load(const std::string &list)
{
    setenv("SDLFILE", list.c_str(), 1);
    if (_sdlfile_load() == 1) {
        for (int i = 0; i < _sdl_table_size && i < MOST_STRUCTS; i++)
            use_struct(i);
    }
    forget_structs();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    _daemon = 1;
    int fd = memfd_create("structs", 0);
    if (fd < 0)
        return 0;
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (write(fd, data, size) == (ssize_t)size) {
        load(path);
        load(path + "," + path);  // the numbers of the second are moved
    }
    close(fd);
    return 0;
}
