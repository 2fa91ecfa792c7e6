#include "envelope.h"

#include "server.h"

#include "kexcli.h"

namespace clhsim {

constexpr size_t ENVELOPE_HEAD_SIZE = 16;
constexpr int32_t ENVELOPE_BUFTYPE = 10;
constexpr int32_t NEGOTIATION_TYPE = 1;  // from a client; a server's is the reply to it
constexpr int32_t SEALED_TYPE = 3;
constexpr const char *NEGOTIATION_NAME = "_negotiate";

struct FaultName {
    const char *name;
    EnvelopeFault fault;
};
static const FaultName FAULT_NAMES[] = {
    {"none", EnvelopeFault::NONE},     {"cut", EnvelopeFault::CUT},     {"change", EnvelopeFault::CHANGE},
    {"replay", EnvelopeFault::REPLAY}, {"clear", EnvelopeFault::CLEAR}, {"step", EnvelopeFault::STEP},
};

bool find_envelope_fault(std::string_view name, EnvelopeFault &fault)
{
    for (const FaultName &row : FAULT_NAMES) {
        if (name == row.name) {
            fault = row.fault;
            return true;
        }
    }
    return false;
}

std::string envelope_fault_names()
{
    std::string names;
    for (const FaultName &row : FAULT_NAMES)
        names += (names.empty() ? "" : ", ") + std::string(row.name);
    return names;
}

bool check_cipher()
{
    void *session = _dh_init_sess(KEXCLI_MODE_SERVER, -1);
    _dh_close_sess(session);
    return session != nullptr;
}

bool begin_cipher(Server &server, Client &client)
{
    client.cipher.fault = server.new_envelope_fault;
    client.cipher.faults_left = server.new_envelope_faults;
    client.cipher.session = _dh_init_sess(KEXCLI_MODE_SERVER, client.fd);
    client.cipher.state = CipherState::NEGOTIATING;
    return client.cipher.session != nullptr;
}

void end_cipher(Client &client)
{
    _dh_close_sess(client.cipher.session);
    client.cipher = {};
}

// --- From the client.

// Why a head can't be that of an envelope of this state; null if it can.
static const char *head_problem(CipherState state, std::string_view head, size_t max_payload)
{
    auto word = [head](size_t offset) { return static_cast<int32_t>(get_word(head.data() + offset)); };
    if (get_word(head.data()) != ENVELOPE_MARK)
        return "message in clear on a connection that is to be enciphered";
    if (get_word(head.data() + 4) > max_payload)
        return "envelope too long";
    if (word(8) != ENVELOPE_BUFTYPE)
        return "envelope of a strange buffer type";
    if (word(12) != (state == CipherState::SEALED ? SEALED_TYPE : NEGOTIATION_TYPE))
        return state == CipherState::SEALED ? "negotiation on a connection that has its keys"
                                            : "sealed message in front of the negotiation";
    return nullptr;
}

static Frame broken_frame(const char *problem)
{
    Frame frame;
    frame.state = FrameState::BROKEN;
    frame.problem = problem;
    return frame;
}

// The message in a sealed payload.
static void open_envelope(void *session, std::string_view payload, size_t max_data, std::string &plain,
                          Frame &frame)
{
    plain.resize(payload.size());
    int length = _dh_decrypt(session, plain.data(), payload.data(), static_cast<int>(payload.size()));
    auto size = static_cast<size_t>(length > 0 ? length : 0);
    if (size == 0) {
        frame = broken_frame("envelope that can't be opened");
        return;
    }
    // A compressed message is never put into an envelope; it would be unpacked over itself.
    if (size < HEADER_SIZE || get_word(plain.data()) != MAGIC) {
        frame = broken_frame("envelope without a message");
        return;
    }
    Frame inner = next_frame(std::string_view(plain).substr(0, size), max_data, plain);
    if (inner.state != FrameState::COMPLETE || inner.size != size) {
        frame = broken_frame("envelope with something else than one message");
        return;
    }
    frame.header = inner.header;
    frame.data = inner.data;
}

Frame next_envelope(Client &client, std::string_view stream, size_t max_data, std::string &plain)
{
    Frame frame;
    // The first word alone tells one who speaks in clear.
    if (stream.size() >= 4 && get_word(stream.data()) != ENVELOPE_MARK)
        return broken_frame("message in clear on a connection that is to be enciphered");
    if (stream.size() < ENVELOPE_HEAD_SIZE)
        return frame;
    bool sealed = client.cipher.state == CipherState::SEALED;
    size_t max_payload = sealed ? HEADER_SIZE + max_data + KEXCLI_MAX_OVERHEAD : KEXCLI_MAX_OUTPUT;
    if (const char *problem = head_problem(client.cipher.state, stream, max_payload))
        return broken_frame(problem);
    size_t length = get_word(stream.data() + 4);
    frame.size = ENVELOPE_HEAD_SIZE + length;
    if (stream.size() < frame.size)
        return frame;
    frame.state = FrameState::COMPLETE;
    frame.data = stream.substr(ENVELOPE_HEAD_SIZE, length);
    if (sealed)
        open_envelope(client.cipher.session, frame.data, max_data, plain, frame);
    return frame;
}

// --- To the client.

static void append_envelope(std::string &out, int32_t msgtype, std::string_view payload)
{
    append_word(out, ENVELOPE_MARK);
    append_word(out, static_cast<uint32_t>(payload.size()));
    append_word(out, static_cast<uint32_t>(ENVELOPE_BUFTYPE));
    append_word(out, static_cast<uint32_t>(msgtype));
    out.append(payload);
}

static EnvelopeFault next_fault(Cipher &cipher)
{
    if (cipher.faults_left <= 0)
        return EnvelopeFault::NONE;
    cipher.faults_left--;
    return cipher.fault;
}

// Those faults that can be done to bytes that are sealed already, or that never will be.
static void append_with_fault(std::string &out, int32_t msgtype, std::string payload, EnvelopeFault fault)
{
    if (fault == EnvelopeFault::CUT && !payload.empty())
        payload.pop_back();
    if (fault == EnvelopeFault::CHANGE && !payload.empty())
        payload[payload.size() / 2] = static_cast<char>(payload[payload.size() / 2] ^ 1);
    append_envelope(out, msgtype, payload);
    if (fault == EnvelopeFault::REPLAY)
        append_envelope(out, msgtype, payload);
}

static std::string sealed_bytes(void *session, const std::string &message)
{
    std::string sealed(message.size() + KEXCLI_MAX_OVERHEAD, '\0');
    int length = _dh_encrypt(session, sealed.data(), message.data(), static_cast<int>(message.size()));
    sealed.resize(static_cast<size_t>(length > 0 ? length : 0));
    return sealed;
}

void append_sealed(Client &client, const Header &header, std::string_view data)
{
    constexpr int64_t NEVER_COMPRESSED = -1;
    EnvelopeFault fault = next_fault(client.cipher);
    if (fault == EnvelopeFault::CLEAR) {
        append_message(client.output, header, data, NEVER_COMPRESSED);
        return;
    }
    std::string message;
    append_message(message, header, data, NEVER_COMPRESSED);
    if (fault == EnvelopeFault::STEP)
        sealed_bytes(client.cipher.session, message);
    append_with_fault(client.output, SEALED_TYPE, sealed_bytes(client.cipher.session, message), fault);
}

// The answer to a step takes the faults of the exchange; one that is dropped leaves the client waiting.
static void answer_step(Server &server, Client &client, std::string bytes)
{
    if (strike(server.faults, NEGOTIATION_NAME, FaultKind::DROP)) {
        server.stats.dropped++;
        return;
    }
    auto milliseconds = strike(server.faults, NEGOTIATION_NAME, FaultKind::DELAY);
    EnvelopeFault fault = next_fault(client.cipher);
    auto send_step = [&server, bytes = std::move(bytes), fault](Client &waiting) {
        std::string step;
        append_with_fault(step, NEGOTIATION_TYPE + REPLY, bytes, fault);
        send_bytes(server, waiting, step);
    };
    if (milliseconds.value_or(0) == 0)
        send_step(client);
    else
        after(server, client, std::chrono::milliseconds(*milliseconds), KEXCLI_MAX_OUTPUT,
              std::move(send_step));
}

const char *negotiate(Server &server, Client &client, std::string_view bytes)
{
    char out[KEXCLI_MAX_OUTPUT];
    int32_t out_length = 0;
    if (strike(server.faults, NEGOTIATION_NAME, FaultKind::REFUSE))
        return "negotiation refused";
    int result =
        _dh_negotiate(client.cipher.session, bytes.data(), static_cast<int>(bytes.size()), out, &out_length);
    bool speaks = result == KEXCLI_EXCHANGE || result == KEXCLI_SEND_LAST;
    if (!speaks && result != KEXCLI_FINISHED && result != KEXCLI_RECEIVE)
        return "negotiation failed";
    if (speaks && (out_length < 0 || out_length > KEXCLI_MAX_OUTPUT))
        return "negotiation of an impossible length";
    if (result == KEXCLI_FINISHED || result == KEXCLI_SEND_LAST) {
        client.cipher.state = CipherState::SEALED;
        server.stats.enciphered++;
    }
    if (speaks)
        answer_step(server, client, {out, static_cast<size_t>(out_length)});
    return nullptr;
}

}  // namespace clhsim
