// Transactions: what a client's requests do between the first that bears the start mark and the end. Their
// only effect is on the accounts, which a few services keep; until the commit nobody else sees it.
#ifndef CLHSIM_TRANSACTIONS_H
#define CLHSIM_TRANSACTIONS_H

#include "kmq.h"
#include "wire.h"

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace clhsim {

struct Server;
struct Client;

using Accounts = std::map<std::string, int64_t, std::less<>>;

struct TouchedQueue {
    bool put = false;
    bool taken = false;
};

// The client's one transaction.
struct Transaction {
    bool open = false;
    bool doomed = false;  // it can only be rolled back
    uint64_t number = 0;
    uint64_t requests = 0;
    Accounts changes;
    std::map<int32_t, TouchedQueue> queues;
    Work messages;  // of the message service
};

// Takes note of a call or a connect: the first one that bears the start mark opens the transaction. Whether
// the request belongs to one.
bool join_transaction(Server &server, Client &client, const Header &request);
// What failed in a transaction leaves nothing to commit.
void doom_transaction(Client &client, bool failed_in_it);
// The client is gone.
void abandon_transaction(Server &server, Client &client);

void handle_commit(Server &server, Client &client, const Header &request, std::string_view data);
void handle_rollback(Server &server, Client &client, const Header &request, std::string_view data);

std::string list_transactions(const Server &server);
std::string list_accounts(const Server &server);

}  // namespace clhsim

#endif
