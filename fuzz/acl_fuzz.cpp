// Access list files: what is read stays a list, and all of it can be looked up, deleted and added again.
#include "runtime/errlog.h"
#include "vorn/acl.h"

#include <stdlib.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

static void use(acl *list)
{
    std::vector<acl_entry> entries;
    for (const acl_entry *entry = list->head; entry != nullptr; entry = entry->next) {
        if (entry->mask < 0 || entry->mask > 32 || (entry->ip & ~__vorn_acl_mask_tab[entry->mask]) != 0)
            __builtin_trap();
        if (_acl_search(list, entry->ip) != (entry->ip != UINT32_MAX))
            __builtin_trap();
        entries.push_back(*entry);
    }
    if ((size_t)list->count != entries.size())
        __builtin_trap();
    for (const acl_entry &entry : entries)
        if (_acl_del(list, entry.ip, entry.mask) != 1 || _acl_del(list, entry.ip, entry.mask) != 0)
            __builtin_trap();
    if (list->head != nullptr || list->tail != nullptr || list->count != 0)
        __builtin_trap();
    for (const acl_entry &entry : entries)
        if (_acl_add(list, entry.ip, entry.mask) != 1 || _acl_add(list, entry.ip, entry.mask) != 0)
            __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    _daemon = 1;
    int fd = memfd_create("addresses", 0);
    if (fd < 0)
        return 0;
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (write(fd, data, size) == (ssize_t)size) {
        acl *list = _acl_create(path.c_str(), 0);
        if (list != nullptr)
            use(list);
        _acl_destroy(list);
    }
    close(fd);
    return 0;
}
