// The record with protobuf. Messages are used again, and keep the memory of their texts.
#include "records.h"

#include <cstring>
#include <memory>
#include <record.pb.h>

using bench_protobuf::Numbers;
using bench_protobuf::Record;
using google::protobuf::FieldDescriptor;

static void set_numbers(Record *record)
{
    const record_values &from = sample_values;
    record->set_i1(from.ints[0]);
    record->set_i2(from.ints[1]);
    record->set_i3(from.ints[2]);
    record->set_i4(from.ints[3]);
    record->set_i5(from.ints[4]);
    record->set_l1(from.longs[0]);
    record->set_l2(from.longs[1]);
    record->set_l3(from.longs[2]);
    record->set_l4(from.longs[3]);
    record->set_l5(from.longs[4]);
    record->set_d1(from.doubles[0]);
    record->set_d2(from.doubles[1]);
    record->set_d3(from.doubles[2]);
}

static void set_texts(Record *record)
{
    const record_values &from = sample_values;
    record->set_s1(from.texts[0], TEXT_SIZE);
    record->set_s2(from.texts[1], TEXT_SIZE);
    record->set_s3(from.texts[2], TEXT_SIZE);
    record->set_s4(from.texts[3], TEXT_SIZE);
    record->set_s5(from.texts[4], TEXT_SIZE);
    record->set_b1(from.bytes[0], BYTES_SIZE);
    record->set_b2(from.bytes[1], BYTES_SIZE);
}

static void set_all(Record *record)
{
    set_numbers(record);
    set_texts(record);
}

static void copy_out(char *to, const std::string &from, bool text)
{
    memcpy(to, from.data(), from.size());
    if (text)
        to[from.size()] = '\0';
}

static void get_all(const Record &record)
{
    record_values &to = values_read;
    to.ints[0] = record.i1();
    to.ints[1] = record.i2();
    to.ints[2] = record.i3();
    to.ints[3] = record.i4();
    to.ints[4] = record.i5();
    to.longs[0] = record.l1();
    to.longs[1] = record.l2();
    to.longs[2] = record.l3();
    to.longs[3] = record.l4();
    to.longs[4] = record.l5();
    to.doubles[0] = record.d1();
    to.doubles[1] = record.d2();
    to.doubles[2] = record.d3();
    copy_out(to.texts[0], record.s1(), true);
    copy_out(to.texts[1], record.s2(), true);
    copy_out(to.texts[2], record.s3(), true);
    copy_out(to.texts[3], record.s4(), true);
    copy_out(to.texts[4], record.s5(), true);
    copy_out(to.bytes[0], record.b1(), false);
    copy_out(to.bytes[1], record.b2(), false);
    keep(&to);
}

// One field, by its descriptor.
static void get_field(const Record &record, const FieldDescriptor *field)
{
    const google::protobuf::Reflection *reflection = Record::GetReflection();
    int number = field->number();
    std::string scratch;
    switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
        values_read.ints[number - 1] = reflection->GetInt32(record, field);
        break;
    case FieldDescriptor::CPPTYPE_INT64:
        values_read.longs[number - 6] = reflection->GetInt64(record, field);
        break;
    case FieldDescriptor::CPPTYPE_DOUBLE:
        values_read.doubles[number - 11] = reflection->GetDouble(record, field);
        break;
    default:
        copy_out(number < 19 ? values_read.texts[number - 14] : values_read.bytes[number - 19],
                 reflection->GetStringReference(record, field, &scratch), number < 19);
    }
}

static void get_by_number(const Record &record)
{
    for (int number = 1; number <= RECORD_FIELDS; number++)
        get_field(record, Record::descriptor()->FindFieldByNumber(number));
    keep(&values_read);
}

static void get_as_they_come(const Record &record, std::vector<const FieldDescriptor *> *fields)
{
    fields->clear();
    Record::GetReflection()->ListFields(record, fields);
    for (const FieldDescriptor *field : *fields)
        get_field(record, field);
    keep(&values_read);
}

// A field that is cleared is set again, so that each one is there when its turn comes.
static void clear_numbers(Record *record)
{
    record->clear_i1(), keep(record);
    record->clear_i2(), keep(record);
    record->clear_i3(), keep(record);
    record->clear_i4(), keep(record);
    record->clear_i5(), keep(record);
    record->clear_l1(), keep(record);
    record->clear_l2(), keep(record);
    record->clear_l3(), keep(record);
    record->clear_l4(), keep(record);
    record->clear_l5(), keep(record);
    record->clear_d1(), keep(record);
    record->clear_d2(), keep(record);
    record->clear_d3(), keep(record);
    set_numbers(record);
}

static void clear_texts(Record *record)
{
    record->clear_s1(), keep(record);
    record->clear_s2(), keep(record);
    record->clear_s3(), keep(record);
    record->clear_s4(), keep(record);
    record->clear_s5(), keep(record);
    record->clear_b1(), keep(record);
    record->clear_b2(), keep(record);
    set_texts(record);
}

static trip put_trip()
{
    auto numbers = std::make_shared<Numbers>();
    return repeated([numbers] {
        numbers->Clear();
        for (int i = 0; i < NUMBERS_PUT; i++) {
            numbers->add_values(sample_values.ints[0]);
            keep(numbers.get());
        }
    });
}

static void make_record()
{
    Record record;
    set_all(&record);
    keep(&record);
}

record_trips protobuf_trips()
{
    auto record = std::make_shared<Record>(), full = std::make_shared<Record>();
    auto fields = std::make_shared<std::vector<const FieldDescriptor *>>();
    set_all(full.get());
    auto wire = std::make_shared<std::string>(full->SerializeAsString());
    auto sent = std::make_shared<std::vector<char>>(4096);
    record_trips trips;
    trips[STEP_PUT] = put_trip();
    trips[STEP_BUILD] = repeated([record] {
        record->Clear();
        set_all(record.get());
        keep(record.get());
    });
    trips[STEP_MAKE] = repeated(make_record);
    trips[STEP_GET] = repeated([full] { get_all(*full); });
    trips[STEP_GET_KEY] = repeated([full] { get_by_number(*full); });
    trips[STEP_NEXT] = repeated([full, fields] { get_as_they_come(*full, fields.get()); });
    trips[STEP_UPDATE] = repeated([full] {
        set_all(full.get());
        keep(full.get());
    });
    trips[STEP_DELETE] = repeated([full] {
        clear_numbers(full.get());
        clear_texts(full.get());
        keep(full.get());
    });
    trips[STEP_ENCODE] = repeated([full, sent] {
        if (!full->SerializeToArray(sent->data(), (int)sent->size()))
            give_up("SerializeToArray");
        keep(sent->data());
    });
    trips[STEP_DECODE] = repeated([record, wire] {
        if (!record->ParseFromArray(wire->data(), (int)wire->size()))
            give_up("ParseFromArray");
        keep(record.get());
    });
    return trips;
}
