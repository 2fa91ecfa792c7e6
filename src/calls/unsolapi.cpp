#include "calls/unsolapi.h"

#include "runtime/mthr.h"

#include <stdlib.h>

extern "C" {

int _init_unsol(int free_all, wthr_var *block)
{
    unsol_node *node = free_all != 0 ? block->unsol_head : nullptr;
    while (node != nullptr) {
        unsol_node *next = node->next;
        free(node->msg);
        free(node);
        node = next;
    }
    block->unsol_head = nullptr;
    block->unsol_tail = nullptr;
    block->unsol_count = 0;
    block->unsol_spare = 0;
    return 1;
}
}
