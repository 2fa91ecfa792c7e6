#include "services.h"

#include <algorithm>

namespace clhsim {

// Results of a commit or a rollback, as the client's call returns them.
enum Result : int32_t {
    TX_OK = 0,
    TX_ROLLBACK = -2,
    TX_PROTOCOL_ERROR = -5,
};

constexpr size_t MOST_ACCOUNTS = 10 * 1000;
constexpr size_t LONGEST_NAME = 32;
constexpr int64_t LARGEST_AMOUNT = 1000LL * 1000 * 1000 * 1000;

// --- The life of a transaction.

static void end_transaction(Client &client)
{
    client.transaction = {};
}

void abandon_transaction(Server &server, Client &client)
{
    if (!client.transaction.open)
        return;
    server.stats.rolled_back++;
    undo_messages(server, client);
    Work messages = std::move(client.transaction.messages);
    end_transaction(client);
    undo_work(server, std::move(messages));
}

bool join_transaction(Server &server, Client &client, const Header &request)
{
    Transaction &transaction = client.transaction;
    if (request.flags & FLAG_NOTRAN)
        return false;
    if (request.flags & FLAG_TXSTART) {
        if (transaction.open) {
            // The client knows nothing more of the one that it began before.
            server.stats.transaction_faults++;
            end_transaction_conversations(server, client);
            abandon_transaction(server, client);
        }
        transaction.open = true;
        transaction.number = ++server.last_transaction;
        server.stats.begun++;
    }
    transaction.requests += transaction.open;
    return transaction.open;
}

void doom_transaction(Client &client, bool failed_in_it)
{
    if (failed_in_it)
        client.transaction.doomed = true;
}

static int64_t balance_of(const Accounts &accounts, std::string_view name)
{
    auto row = accounts.find(name);
    return row == accounts.end() ? 0 : row->second;
}

// Others may have committed since the changes were made.
static bool can_apply(const Server &server, const Accounts &changes)
{
    return std::all_of(changes.begin(), changes.end(), [&](const auto &change) {
        int64_t balance = balance_of(server.accounts, change.first) + change.second;
        return balance >= 0 && balance <= LARGEST_AMOUNT;
    });
}

static bool has_open_conversation(const Client &client)
{
    return std::any_of(client.conversations.begin(), client.conversations.end(),
                       [](const auto &row) { return row.second.in_transaction; });
}

// What a commit comes to, unless the control socket has set it.
static int32_t verdict(const Server &server, const Client &client)
{
    const Transaction &transaction = client.transaction;
    if (!transaction.open)
        return TX_PROTOCOL_ERROR;
    if (transaction.doomed || has_open_conversation(client) || !can_apply(server, transaction.changes))
        return TX_ROLLBACK;
    return TX_OK;
}

static void send_result(Server &server, Client &client, const Header &request, int32_t result)
{
    send_reply(server, client, {.header = reply_header(request, 0, result)}, service_name(request));
}

static void refuse_end(Server &server, Client &client, const Header &request, int32_t error)
{
    abandon_transaction(server, client);
    send_refusal(server, client, request, error);
}

// What it did in queues and in the message service is written down in one.
static bool commit_store(Server &server, Client &client)
{
    Store &store = server.queues.store;
    if (!begin_changes(store))
        return false;
    bool done = write_work(server, client.transaction.messages) && commit_messages(server, client);
    return end_changes(store, done);
}

// A commit keeps the changes if its result is TX_OK; what has another one is undone, whoever set it.
void handle_commit(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (gives_back(server, client, request, data))
        return;
    int32_t result = verdict(server, client);
    end_transaction_conversations(server, client);
    if (result == TX_PROTOCOL_ERROR) {
        server.stats.transaction_faults++;
        send_result(server, client, request, result);
        return;
    }
    std::string_view name = service_name(request);
    if (auto error = strike(server.faults, name, FaultKind::REFUSE)) {
        refuse_end(server, client, request, static_cast<int32_t>(*error));
        return;
    }
    result = static_cast<int32_t>(strike(server.faults, name, FaultKind::RESULT).value_or(result));
    if (result == TX_OK && can_apply(server, client.transaction.changes) && !commit_store(server, client))
        result = TX_ROLLBACK;
    if (result == TX_OK && can_apply(server, client.transaction.changes)) {
        for (const auto &[account, amount] : client.transaction.changes)
            server.accounts[account] += amount;
        server.stats.committed++;
        Work messages = std::move(client.transaction.messages);
        end_transaction(client);
        show_work(server, std::move(messages));
    }
    abandon_transaction(server, client);
    send_result(server, client, request, result);
}

void handle_rollback(Server &server, Client &client, const Header &request, std::string_view data)
{
    if (gives_back(server, client, request, data))
        return;
    if (!client.transaction.open) {
        server.stats.transaction_faults++;
        send_result(server, client, request, TX_PROTOCOL_ERROR);
        return;
    }
    std::string_view name = service_name(request);
    end_transaction_conversations(server, client);
    if (auto error = strike(server.faults, name, FaultKind::REFUSE)) {
        refuse_end(server, client, request, static_cast<int32_t>(*error));
        return;
    }
    auto result = static_cast<int32_t>(strike(server.faults, name, FaultKind::RESULT).value_or(TX_OK));
    abandon_transaction(server, client);
    send_result(server, client, request, result);
}

// --- The accounts.

// What the client sees: its own changes too.
static int64_t visible_balance(const Server &server, const Client &client, std::string_view name)
{
    return balance_of(server.accounts, name) + balance_of(client.transaction.changes, name);
}

static bool is_account_name(std::string_view name)
{
    return !name.empty() && name.size() <= LONGEST_NAME;
}

static Answer balance_answer(const Header &request, int64_t balance)
{
    return text_answer(request, std::to_string(balance));
}

Answer balance_service(Server &server, Client &client, const Header &request, std::string_view data)
{
    std::vector<std::string_view> words = split_words(text_of(data), SIZE_MAX);
    if (words.size() != 1 || !is_account_name(words[0]))
        return failed(ERR_INVAL);
    bool apart = (request.flags & FLAG_NOTRAN) != 0;
    return balance_answer(request, apart ? balance_of(server.accounts, words[0])
                                         : visible_balance(server, client, words[0]));
}

// Nobody can have less than nothing: the service fails then, and tells what is there.
Answer deposit_service(Server &server, Client &client, const Header &request, std::string_view data)
{
    std::vector<std::string_view> words = split_words(text_of(data), SIZE_MAX);
    int64_t amount = 0;
    if (words.size() != 2 || !is_account_name(words[0]) ||
        !parse_number(words[1], -LARGEST_AMOUNT, LARGEST_AMOUNT, amount))
        return failed(ERR_INVAL);
    bool in_transaction = client.transaction.open && !(request.flags & FLAG_NOTRAN);
    Accounts &accounts = in_transaction ? client.transaction.changes : server.accounts;
    if (accounts.size() >= MOST_ACCOUNTS && !accounts.contains(words[0]))
        return failed(ERR_LIMIT);

    int64_t balance =
        in_transaction ? visible_balance(server, client, words[0]) : balance_of(accounts, words[0]);
    if (balance + amount < 0 || balance + amount > LARGEST_AMOUNT) {
        Answer answer = balance_answer(request, balance);
        answer.error = ERR_SVCFAIL;
        answer.rcode = 1;
        return answer;
    }
    accounts[std::string(words[0])] += amount;
    return balance_answer(request, balance + amount);
}

// --- Commands.

std::string list_transactions(const Server &server)
{
    std::string text;
    for (const auto &[number, client] : server.numbers) {
        const Transaction &transaction = client->transaction;
        if (transaction.open)
            text += "  " + std::to_string(number) + " transaction " + std::to_string(transaction.number) +
                    " requests " + std::to_string(transaction.requests) +
                    (transaction.doomed ? " rollback only\n" : "\n");
    }
    return text;
}

std::string list_accounts(const Server &server)
{
    std::string text;
    for (const auto &[name, balance] : server.accounts)
        text += "  " + printable(name) + " " + std::to_string(balance) + "\n";
    return text;
}

}  // namespace clhsim
