#include "orders.h"

#include "fields.h"

#include <algorithm>
#include <cstring>

namespace clhsim {

constexpr uint32_t ORDER_NO = field_key(FIELD_LONG, 101);
constexpr uint32_t ITEM = field_key(FIELD_STRING, 103);
constexpr uint32_t PRICE = field_key(FIELD_DOUBLE, 104);
constexpr uint32_t QUANTITY = field_key(FIELD_INT, 105);
constexpr uint32_t LINES = field_key(FIELD_INT, 110);
constexpr uint32_t TOTAL = field_key(FIELD_DOUBLE, 111);
constexpr uint32_t STATUS = field_key(FIELD_STRING, 112);

// The struct "order" on the wire. Its lines stand one behind the other in room for five.
constexpr char ORDER_STRUCT[] = "order";
constexpr size_t ORDER_SIZE = 240;
constexpr size_t LINES_OFFSET = 28;
constexpr size_t FIRST_LINE_OFFSET = 32;
constexpr size_t TOTAL_OFFSET = 192;
constexpr size_t STATUS_OFFSET = 200;
constexpr size_t STATUS_SIZE = 40;
constexpr size_t LINE_SIZE = 32;
constexpr int32_t LINE_ROOM = 5;
constexpr size_t ITEM_SIZE = 16;  // of a line; the price and the quantity follow
constexpr size_t PRICE_OFFSET = 16;
constexpr size_t QUANTITY_OFFSET = 28;

constexpr size_t MOST_LINES = 1000;
constexpr double HIGHEST_PRICE = 1e9;
constexpr int32_t LARGEST_QUANTITY = 1000000;

struct Line {
    std::string_view item;
    double price = -1;
    int32_t quantity = -1;
};

struct Verdict {
    int32_t lines = 0;
    int32_t refused_line = 0;  // counted from 1; 0: taken
    double total = 0;
    std::string status = "accepted";
};

static Verdict refusal(size_t line, const char *reason)
{
    Verdict verdict;
    verdict.refused_line = static_cast<int32_t>(line);
    verdict.status = "line " + std::to_string(line) + ": " + reason;
    return verdict;
}

static Verdict judge(const std::vector<Line> &lines)
{
    if (lines.empty())
        return refusal(1, "missing");
    if (lines.size() > MOST_LINES)
        return refusal(MOST_LINES + 1, "one too many");
    Verdict verdict;
    for (const Line &line : lines) {
        auto number = static_cast<size_t>(&line - lines.data()) + 1;
        if (line.item.empty())
            return refusal(number, "no item");
        if (!(line.price >= 0 && line.price <= HIGHEST_PRICE))
            return refusal(number, "no price");
        if (line.quantity < 1 || line.quantity > LARGEST_QUANTITY)
            return refusal(number, "no quantity");
        verdict.total += line.price * line.quantity;
    }
    verdict.lines = static_cast<int32_t>(lines.size());
    return verdict;
}

static Answer answer_with(const Verdict &verdict, std::string data)
{
    Answer answer;
    if (verdict.refused_line) {
        answer.error = ERR_SVCFAIL;
        answer.rcode = verdict.refused_line;
    }
    answer.data = std::move(data);
    return answer;
}

// The n-th price and the n-th quantity belong to the n-th item, wherever they stand.
static std::vector<Line> lines_of_fields(std::string_view data)
{
    std::vector<Line> lines;
    size_t items = 0, prices = 0, quantities = 0;
    auto line = [&lines](size_t index) -> Line & {
        size_t place = std::min(index, MOST_LINES);  // one more than is taken is enough to be refused
        if (place >= lines.size())
            lines.resize(place + 1);
        return lines[place];
    };
    size_t offset = FIELD_HEAD_SIZE;
    FieldEntry entry;
    while (next_field(data, offset, entry)) {
        if (entry.key == ITEM)
            line(items++).item = entry.value;
        else if (entry.key == PRICE)
            line(prices++).price = double_value(entry.value);
        else if (entry.key == QUANTITY)
            line(quantities++).quantity = int_value(entry.value);
    }
    return lines;
}

static Answer order_of_fields(std::string_view data)
{
    Verdict verdict = judge(lines_of_fields(data));
    std::string reply = new_field_buffer();
    size_t offset = FIELD_HEAD_SIZE;
    FieldEntry entry;
    while (next_field(data, offset, entry)) {
        if (entry.key == ORDER_NO) {
            add_int(reply, ORDER_NO, int_value(entry.value));
            break;
        }
    }
    add_int(reply, LINES, verdict.lines);
    add_double(reply, TOTAL, verdict.total);
    add_string(reply, STATUS, verdict.status);
    return answer_with(verdict, std::move(reply));
}

static std::vector<Line> lines_of_record(const char *record, int32_t count)
{
    std::vector<Line> lines;
    for (int32_t i = 0; i < count; i++) {
        const char *line = record + FIRST_LINE_OFFSET + static_cast<size_t>(i) * LINE_SIZE;
        lines.push_back({{line, strnlen(line, ITEM_SIZE)},
                         get_double(line + PRICE_OFFSET),
                         static_cast<int32_t>(get_word(line + QUANTITY_OFFSET))});
    }
    return lines;
}

static Answer order_of_record(std::string_view data)
{
    Answer refused;
    refused.error = ERR_INVAL;
    if (data.size() != ORDER_SIZE)
        return refused;
    std::string record(data);
    auto count = static_cast<int32_t>(get_word(record.data() + LINES_OFFSET));
    if (count < 0 || count > LINE_ROOM)
        return refused;
    Verdict verdict = judge(lines_of_record(record.data(), count));
    put_double(record.data() + TOTAL_OFFSET, verdict.total);
    record.replace(STATUS_OFFSET, STATUS_SIZE, STATUS_SIZE, '\0');
    record.replace(STATUS_OFFSET, verdict.status.size(), verdict.status);
    return answer_with(verdict, std::move(record));
}

size_t struct_size(const Header &request)
{
    static constexpr size_t NAME_SIZE = sizeof request.subtype;
    return strncmp(request.subtype.data(), ORDER_STRUCT, NAME_SIZE) == 0 ? ORDER_SIZE : 0;
}

Answer order_service(const Options &, const Header &request, std::string_view data)
{
    if (request.buftype == BUF_FIELD)
        return order_of_fields(data);
    if (struct_size(request) != ORDER_SIZE) {
        Answer refused;
        refused.error = ERR_ITYPE;
        return refused;
    }
    return order_of_record(data);
}

}  // namespace clhsim
