/* Texts in the key store of the domain, from one client to another:
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 keystore put price.tea 3 price.cup 12
 *     VORN_HOST_ADDR=127.0.0.1:7000 keystore show price.
 *     VORN_HOST_ADDR=127.0.0.1:7000 keystore purge price.tea
 */
#include <vorn.h>

#include <stdio.h>
#include <string.h>

#define ROOM 200

static int failed(const char *call)
{
    fprintf(stderr, "%s failed: %s\n", call, tpstrerror(gettperrno()));
    return 1;
}

/* The last entry gets a key that the server makes: whoever is told the key finds the entry, on whatever node
 * it is. */
static int put(int count, char **words, char **buffer)
{
    char key[VORN_KEY_LENGTH];
    int i;

    for (i = 0; i + 1 < count; i += 2) {
        snprintf(*buffer, ROOM, "%s", words[i + 1]);
        if (vorn_gq_put(words[i], (int)strlen(words[i]), *buffer, 0, 0) == -1)
            return failed("vorn_gq_put");
        printf("%s is stored\n", words[i]);
    }
    snprintf(*buffer, ROOM, "%d entries", count / 2);
    if (vorn_gq_put(key, sizeof key, *buffer, 0, SQ_NEWKEY) == -1)
        return failed("vorn_gq_put");
    printf("%.*s is stored, under a key of the server's\n", VORN_KEY_LENGTH, key);
    return 0;
}

/* Keys have a length and no terminator. The buffer may move. */
static int show_entry(const vorn_key *found, char **buffer)
{
    long length = 0;

    if (vorn_gq_get(found->key, (int)found->keylen, buffer, &length, 0) == -1)
        return failed("vorn_gq_get");
    printf("%.*s = %s\n", (int)found->keylen, found->key, *buffer);
    return 0;
}

/* What the server makes of `selection`: clhsim takes it as the beginning of the keys. */
static int show(char *selection, char **buffer)
{
    vorn_key found;
    char *list;
    int i, count, result = 0;

    list = vorn_gq_getkeylist(selection, selection ? (int)strlen(selection) : 0);
    if (list == NULL)
        return failed("vorn_gq_getkeylist");
    count = vorn_keylist_count(list);
    for (i = 0; i < count && result == 0; i++)
        result = vorn_keylist_getakey(list, i, &found) == -1 ? failed("vorn_keylist_getakey")
                                                             : show_entry(&found, buffer);
    vorn_keylist_free(list);
    if (result == 0)
        printf("%d of %d entries\n", count, vorn_gq_count());
    return result;
}

static int purge(char *key)
{
    int count = vorn_gq_purge(key, key ? (int)strlen(key) : 0);

    if (count == -1)
        return failed("vorn_gq_purge");
    printf("%d removed\n", count);
    return 0;
}

int main(int argc, char **argv)
{
    char *buffer, *word = argc > 2 ? argv[2] : NULL;
    int result = 2;

    if (argc < 2) {
        fprintf(stderr, "usage: keystore put KEY TEXT... | show [BEGINNING] | purge [KEY]\n");
        return 2;
    }
    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    if (strcmp(argv[1], "put") == 0)
        result = put(argc - 2, argv + 2, &buffer);
    else if (strcmp(argv[1], "show") == 0)
        result = show(word, &buffer);
    else if (strcmp(argv[1], "purge") == 0)
        result = purge(word);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
