// An order of five lines, 17 fields, out of plain text and into it again, beside protobuf's text format.
#include "records.h"
#include "scenarios.h"

#include <cstdio>
#include <cstdlib>
#include <google/protobuf/text_format.h>
#include <memory>
#include <record.pb.h>
#include <vorn.h>

using bench_protobuf::Order;
using google::protobuf::TextFormat;

static constexpr int LINES = 5;

static std::string order_as_fields()
{
    std::string text = "ORDER_NO\t4711\nCUSTOMER\tAnn Example\n";
    for (int i = 0; i < LINES; i++)
        text += "ITEM\tearl grey tea\nPRICE\t2.5\nQUANTITY\t" + std::to_string(i + 1) + "\n";
    return text;
}

static std::string order_as_protobuf()
{
    std::string text = "order_no: 4711\ncustomer: \"Ann Example\"\n";
    for (int i = 0; i < LINES; i++)
        text += "lines {\n  item: \"earl grey tea\"\n  price: 2.5\n  quantity: " + std::to_string(i + 1) +
                "\n}\n";
    return text;
}

// The steps write into their text, and leave it as it was.
static trip fill_trip(FBUF *order)
{
    auto text = std::make_shared<std::string>(order_as_fields());
    return repeated([order, text] {
        FBUF *filled = order;
        fbinit(filled, 0);
        if (_make_field_from_pbindata(&filled, text->data()) < 0)
            give_up("_make_field_from_pbindata: %s", fbstrerror(fberror));
        keep(filled);
    });
}

static trip rows_trip(FBUF *order)
{
    auto form = std::make_shared<std::string>("ORDER_NO\nCUSTOMER\n\nITEM\nPRICE\nQUANTITY\n\n");
    auto rows = std::make_shared<std::vector<char>>(4096);
    return repeated([order, form, rows] {
        if (_make_pbodata_from_field(form->data(), rows->data(), order) < 0)
            give_up("_make_pbodata_from_field: %s", fbstrerror(fberror));
        keep(rows->data());
    });
}

static trip parse_trip(const std::shared_ptr<Order> &order)
{
    auto text = std::make_shared<std::string>(order_as_protobuf());
    return repeated([order, text] {
        if (!TextFormat::ParseFromString(*text, order.get()))
            give_up("protobuf can't read its text");
        keep(order.get());
    });
}

static trip print_trip(const std::shared_ptr<Order> &order)
{
    auto text = std::make_shared<std::string>();
    return repeated([order, text] {
        text->clear();
        TextFormat::PrintToString(*order, text.get());
        keep(text->data());
    });
}

void texts(const settings &chosen, placement)
{
    place_client(placement::one_core);
    setenv("FDLFILE", ORDER_TABLE, 1);
    FBUF *fields = new_field_buffer(40, 1000);
    auto order = std::make_shared<Order>();
    const std::vector<contender> contenders = {
        {"protobuf, text to message", parse_trip(order)},
        {"text to fields", fill_trip(fields)},
        {"protobuf, message to text", print_trip(order)},
        {"fields to rows", rows_trip(fields)},
    };
    for (const contender &one : contenders)
        one.once();
    auto results = alternate(contenders, trip_schedule(chosen));
    printf("  %-44s %9s   %s\n", "17 fields", "ns", "speed, to protobuf's");
    for (size_t i = 0; i < contenders.size(); i++) {
        printf("  %-44s %9.0f", contenders[i].name.c_str(), 1e9 / median(results[i].rates) / REPEATS);
        if (i % 2 == 1)
            printf("   %.2f", ratio(results[i], results[i - 1]).middle);
        printf("\n");
    }
    tpfree((char *)fields);
}
