// Conversations: dialogues in which one side at a time has the right to send. The client opens one; what the
// service says in it, and how it ends, is a row of a table in conversations.cpp.
#ifndef CLHSIM_CONVERSATIONS_H
#define CLHSIM_CONVERSATIONS_H

#include "wire.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

struct Server;
struct Client;
struct ConversationService;

// A client's record of it is found by its descriptor, and gone when the conversation is over.
struct Conversation {
    int32_t cd = 0;
    const ConversationService *service = nullptr;
    bool may_send = false;  // the right to send is on this side
    bool in_transaction = false;
    uint64_t received = 0;  // messages behind the connect
    uint64_t sent = 0;
    uint64_t turns = 0;  // answered so far

    // What the client asked for.
    int64_t count = 0;
    bool hands_over = false;
    int64_t code = 0;
    int64_t event = 0;
};

void handle_connect(Server &server, Client &client, const Header &request, std::string_view data);
void handle_send(Server &server, Client &client, const Header &message, std::string_view data);
void handle_disconnect(Server &server, Client &client, const Header &message, std::string_view data);

// Ends those that belong to the client's transaction, with a disconnect.
void end_transaction_conversations(Server &server, Client &client);

// The commands. `kind` is one of the message kinds told by `conversation_kinds`.
std::string list_conversations(const Server &server);
std::string conversation_kinds();
bool is_conversation_kind(std::string_view kind);
// Says something from outside in conversation `cd`, in all with -1; how many there were.
size_t converse(Server &server, Client &client, int32_t cd, std::string_view kind, std::string_view text);

std::string conversation_services_help();

}  // namespace clhsim

#endif
