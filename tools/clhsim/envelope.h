// Enciphered connections: the server's side of the key negotiation, and the envelopes in which every message
// travels from then on. The cipher itself is the provider's, which a site may replace on both ends.
//
// An envelope is 77777777, the payload's length, a buffer type that is always 10, the message type, and the
// payload: bytes of the negotiation, or a whole message, sealed.
#ifndef CLHSIM_ENVELOPE_H
#define CLHSIM_ENVELOPE_H

#include "wire.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace clhsim {

struct Server;
struct Client;

// What is done to a client's envelopes on purpose.
enum class EnvelopeFault : uint8_t {
    NONE,
    CUT,     // a byte is missing at the end, and the length says so
    CHANGE,  // a bit of the payload is another
    REPLAY,  // it is sent twice
    CLEAR,   // the message is sent as it is, without an envelope
    STEP,    // a message was sealed before it and never sent
};

enum class CipherState : uint8_t { NONE, NEGOTIATING, SEALED };

struct Cipher {
    CipherState state = CipherState::NONE;
    void *session = nullptr;
    EnvelopeFault fault = EnvelopeFault::NONE;
    int64_t faults_left = 0;
};

// Whether sessions can be had at all; a server's key file may be of no use.
bool check_cipher();
// The connection is new. False: no session can be had, and the connection is of no use.
bool begin_cipher(Server &server, Client &client);
void end_cipher(Client &client);

// What stands at the front of the stream of an enciphered connection. A frame of the negotiation has no
// header: its bytes are the data. The message of any other one is in `plain`.
Frame next_envelope(Client &client, std::string_view stream, size_t max_data, std::string &plain);
// A step of the negotiation. Null, or what is wrong: the connection can't go on.
const char *negotiate(Server &server, Client &client, std::string_view bytes);
// Appends a message in its envelope to the client's output.
void append_sealed(Client &client, const Header &header, std::string_view data);

// The command. False: no fault of that name.
bool find_envelope_fault(std::string_view name, EnvelopeFault &fault);
std::string envelope_fault_names();

}  // namespace clhsim

#endif
