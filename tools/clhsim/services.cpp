#include "services.h"

#include "fields.h"
#include "orders.h"

#include <algorithm>
#include <charconv>

namespace clhsim {

Answer failed(int32_t error)
{
    Answer answer;
    answer.error = error;
    return answer;
}

Answer text_answer(const Header &request, std::string_view text)
{
    Answer answer;
    answer.data = text;
    if (request.buftype == BUF_STRING)
        answer.data.push_back('\0');
    return answer;
}

static Answer toupper_service(const Options &, const Header &, std::string_view data)
{
    Answer answer;
    answer.data = data;
    for (char &c : answer.data) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return answer;
}

static Answer echo_service(const Options &, const Header &, std::string_view data)
{
    Answer answer;
    answer.data = data;
    return answer;
}

// A string's text is reversed in front of its NUL; in a byte array every byte counts.
static Answer reverse_service(const Options &, const Header &request, std::string_view data)
{
    Answer answer;
    answer.data = data;
    size_t length = request.buftype == BUF_STRING ? text_of(data).size() : data.size();
    std::reverse(answer.data.begin(), answer.data.begin() + static_cast<std::ptrdiff_t>(length));
    return answer;
}

static Answer sleep_service(const Options &, const Header &, std::string_view data)
{
    constexpr double LONGEST = 1e6;
    std::string_view text = text_of(data);
    double seconds = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || !(seconds >= 0 && seconds <= LONGEST))
        return failed(ERR_INVAL);
    Answer answer;
    answer.data = data;
    answer.delay = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    return answer;
}

static Answer fail_service(const Options &, const Header &, std::string_view data)
{
    Answer answer;
    answer.error = ERR_SVCFAIL;
    answer.data = data;
    std::string_view text = text_of(data);
    answer.rcode = 1;
    std::from_chars(text.data(), text.data() + text.size(), answer.rcode);  // stays 1 without a number
    return answer;
}

static Answer big_service(const Options &options, const Header &request, std::string_view data)
{
    int64_t size = 0;
    if (!parse_number(text_of(data), 0, options.max_data, size))
        return failed(ERR_INVAL);
    Answer answer;
    answer.data.resize(static_cast<size_t>(size));
    for (size_t i = 0; i < answer.data.size(); i++)
        answer.data[i] = static_cast<char>('A' + i % 26);
    if (request.buftype == BUF_STRING && size > 0)
        answer.data.back() = '\0';
    return answer;
}

static Answer whoami_service(Server &server, Client &client, const Header &request, std::string_view)
{
    return text_answer(request, std::to_string(identity_of(server, client)));
}

static Answer ping_service(const Options &, const Header &, std::string_view)
{
    return {};
}

// What was said of a field buffer is said in the buffer itself: how many entries came, and who counted.
constexpr uint32_t FIELD_COUNT = field_key(FIELD_INT, 901);
constexpr uint32_t FIELD_SERVER = field_key(FIELD_STRING, 902);

static Answer add_field_service(const Options &, const Header &, std::string_view data)
{
    int32_t count = 0;
    size_t offset = FIELD_HEAD_SIZE;
    FieldEntry entry;
    while (next_field(data, offset, entry))
        count++;
    Answer answer;
    answer.data = data;
    add_int(answer.data, FIELD_COUNT, count);
    add_string(answer.data, FIELD_SERVER, "clhsim");
    return answer;
}

// Of a struct that it knows only whole records are records; of others nothing is known but the name.
static Answer echo_struct_service(const Options &, const Header &request, std::string_view data)
{
    if (request.subtype[0] == '\0')
        return failed(ERR_ITYPE);
    size_t size = struct_size(request);
    if (size != 0 && (data.empty() || data.size() % size != 0))
        return failed(ERR_INVAL);
    Answer answer;
    answer.data = data;
    return answer;
}

static const Service SERVICES[] = {
    {"TOUPPER", "the text in capitals (a to z)", TAKES_TEXT, toupper_service},
    {"ECHO", "the data as it came, of whatever type", TAKES_ALL, echo_service},
    {"REVERSE", "the text, or the bytes of a CARRAY, from the last to the first", TAKES_TEXT,
     reverse_service},
    {"SLEEP", "the data, after the seconds that it says (\"0.5\")", TAKES_TEXT, sleep_service},
    {"FAIL", "fails with TPESVCFAIL, the data, and the number it begins with (or 1) as user return code",
     TAKES_TEXT, fail_service},
    {"BIG", "letters, as many as the data says; a STRING ends in a NUL that counts", TAKES_TEXT, big_service},
    {"FBECHO", "the field buffer as it came", TAKES_FIELDS, echo_service},
    {"FBADD", "the field buffer with the number of its fields added, and a name", TAKES_FIELDS,
     add_field_service},
    {"STECHO", "the struct records as they came", TAKES_STRUCTS, echo_struct_service},
    {"ORDER", "the sum and the status of an order, in fields or in the struct \"order\"",
     TAKES_FIELDS | TAKES_STRUCTS, order_service},
    {"DEPOSIT", "adds to an account (\"ann 100\", \"ann -30\"), and tells what is in it then", TAKES_TEXT,
     nullptr, deposit_service},
    {"BALANCE", "what is in an account (\"ann\")", TAKES_TEXT, nullptr, balance_service},
    {"COUNT", "keeps the number that the data says, and returns it; see the command \"counts\"", TAKES_TEXT,
     nullptr, count_service},
    {"WHICH", "the group or server that the call was directed to, or none", TAKES_TEXT, which_service},
    {"WHOAMI", "the caller's identity, for those who want to notify it", TAKES_TEXT, nullptr, whoami_service},
    {".CHK_CONN", "nothing: the connection check of a client", TAKES_ALL, ping_service},
};

std::vector<std::string> service_names()
{
    std::vector<std::string> names;
    for (const Service &service : SERVICES)
        names.emplace_back(service.name);
    return names;
}

const Service *find_service(std::string_view name)
{
    for (const Service &service : SERVICES) {
        if (name == service.name)
            return &service;
    }
    return nullptr;
}

static uint32_t kind_of(int32_t buftype)
{
    if (buftype == BUF_FIELD)
        return TAKES_FIELDS;
    return buftype == BUF_STRUCT ? TAKES_STRUCTS : TAKES_TEXT;
}

int32_t type_error(const Service &service, int32_t buftype)
{
    return service.takes & kind_of(buftype) ? 0 : ERR_ITYPE;
}

// A service that takes all data takes it as bytes.
Answer run_service(const Service &service, Server &server, Client &client, const Header &request,
                   std::string_view data)
{
    if (service.takes != TAKES_ALL && request.buftype == BUF_FIELD && !is_field_buffer(data))
        return failed(ERR_INVAL);
    if (service.run_for)
        return service.run_for(server, client, request, data);
    return service.run(server.options, request, data);
}

std::string services_help()
{
    std::string text;
    for (const Service &service : SERVICES) {
        char line[200];
        snprintf(line, sizeof line, "  %-28s %s\n", service.name, service.help);
        text += line;
    }
    return text + conversation_services_help();
}

}  // namespace clhsim
