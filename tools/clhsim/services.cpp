#include "services.h"

#include <algorithm>
#include <charconv>

namespace clhsim {

// The data of a STRING ends in a NUL that counts in its length; that of a CARRAY need not.
static std::string_view text_of(std::string_view data)
{
    return data.substr(0, std::min(data.find('\0'), data.size()));
}

static Answer failed(int32_t error)
{
    Answer answer;
    answer.error = error;
    return answer;
}

static Answer toupper_service(const Options &, int32_t, std::string_view data)
{
    Answer answer;
    answer.data = data;
    for (char &c : answer.data) {
        if (c >= 'a' && c <= 'z')
            c = static_cast<char>(c - 'a' + 'A');
    }
    return answer;
}

static Answer echo_service(const Options &, int32_t, std::string_view data)
{
    Answer answer;
    answer.data = data;
    return answer;
}

// A string's text is reversed in front of its NUL; in a byte array every byte counts.
static Answer reverse_service(const Options &, int32_t buftype, std::string_view data)
{
    Answer answer;
    answer.data = data;
    size_t length = buftype == BUF_STRING ? text_of(data).size() : data.size();
    std::reverse(answer.data.begin(), answer.data.begin() + static_cast<std::ptrdiff_t>(length));
    return answer;
}

static Answer sleep_service(const Options &, int32_t, std::string_view data)
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

static Answer fail_service(const Options &, int32_t, std::string_view data)
{
    Answer answer;
    answer.error = ERR_SVCFAIL;
    answer.data = data;
    std::string_view text = text_of(data);
    answer.rcode = 1;
    std::from_chars(text.data(), text.data() + text.size(), answer.rcode);  // stays 1 without a number
    return answer;
}

static Answer big_service(const Options &options, int32_t buftype, std::string_view data)
{
    int64_t size = 0;
    if (!parse_number(text_of(data), 0, options.max_data, size))
        return failed(ERR_INVAL);
    Answer answer;
    answer.data.resize(static_cast<size_t>(size));
    for (size_t i = 0; i < answer.data.size(); i++)
        answer.data[i] = static_cast<char>('A' + i % 26);
    if (buftype == BUF_STRING && size > 0)
        answer.data.back() = '\0';
    return answer;
}

static Answer ping_service(const Options &, int32_t, std::string_view)
{
    return {};
}

static const Service SERVICES[] = {
    {"TOUPPER", "the text in capitals (a to z)", true, toupper_service},
    {"ECHO", "the data as it came, of whatever type", false, echo_service},
    {"REVERSE", "the text, or the bytes of a CARRAY, from the last to the first", true, reverse_service},
    {"SLEEP", "the data, after the seconds that it says (\"0.5\")", true, sleep_service},
    {"FAIL", "fails with TPESVCFAIL, the data, and the number it begins with (or 1) as user return code",
     true, fail_service},
    {"BIG", "letters, as many as the data says; a STRING ends in a NUL that counts", true, big_service},
    {".CHK_CONN", "nothing: the connection check of a client", false, ping_service},
};

const Service *find_service(std::string_view name)
{
    for (const Service &service : SERVICES) {
        if (name == service.name)
            return &service;
    }
    return nullptr;
}

std::string services_help()
{
    std::string text;
    for (const Service &service : SERVICES) {
        char line[200];
        snprintf(line, sizeof line, "  %-28s %s\n", service.name, service.help);
        text += line;
    }
    return text;
}

}  // namespace clhsim
