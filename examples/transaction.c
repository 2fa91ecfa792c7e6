/* Moves money between two accounts: two calls that happen both or not at all.
 *
 *     VORN_HOST_ADDR=127.0.0.1:7000 transaction
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

static int tx_failed(const char *call, int code)
{
    fprintf(stderr, "%s failed: %s\n", call, txstrerror(code));
    return 1;
}

/* 1, or -1 with the reason in tperrno. */
static int ask(char *service, const char *request, char **buffer)
{
    long length = 0;

    strcpy(*buffer, request);
    return tpcall(service, *buffer, 0, buffer, &length, 0);
}

static int show_balances(char **buffer)
{
    static const char *const NAMES[] = {"ann", "bob"};
    size_t i;

    for (i = 0; i < 2; i++) {
        if (ask("BALANCE", NAMES[i], buffer) == -1)
            return failed("tpcall");
        printf("  %s has %s\n", NAMES[i], *buffer);
    }
    return 0;
}

/* Gives first and takes then, so that there is something to take back when the second call fails. The failure
 * of a service leaves a transaction that can only be rolled back. */
static int move_money(int amount, char **buffer)
{
    char give[ROOM], take[ROOM];
    int result;

    snprintf(give, sizeof give, "bob %d", amount);
    snprintf(take, sizeof take, "ann -%d", amount);
    printf("ann gives bob %d\n", amount);

    result = tx_begin();
    if (result != TX_OK)
        return tx_failed("tx_begin", result);
    if (ask("DEPOSIT", give, buffer) == -1 || ask("DEPOSIT", take, buffer) == -1) {
        printf("  %s: rolling back\n", tpstrerror(gettperrno()));
        result = tx_rollback();
        return result == TX_OK ? 0 : tx_failed("tx_rollback", result);
    }
    result = tx_commit();
    if (result != TX_OK)
        return tx_failed("tx_commit", result);
    printf("  committed\n");
    return 0;
}

static int run(char **buffer)
{
    if (ask("DEPOSIT", "ann 100", buffer) == -1)
        return failed("tpcall");
    if (show_balances(buffer) != 0)
        return 1;
    if (move_money(70, buffer) != 0 || show_balances(buffer) != 0)
        return 1;
    return move_money(50, buffer) || show_balances(buffer);
}

int main(void)
{
    char *buffer;
    int result;

    if (tpstart(NULL) == -1)
        return failed("tpstart");
    buffer = tpalloc("STRING", NULL, ROOM);
    if (buffer == NULL)
        return failed("tpalloc");
    result = run(&buffer);
    tpfree(buffer);
    if (tpend() == -1)
        return failed("tpend");
    return result;
}
