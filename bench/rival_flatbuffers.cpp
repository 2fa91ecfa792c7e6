// The record with flatbuffers. The builder is used again; what is received is verified, as it has to be when
// the other side isn't trusted.
#include "records.h"

#include <cstring>
#include <flatbuffers/minireflect.h>
#include <memory>
#include <record_generated.h>

using namespace bench_flatbuffers;
using flatbuffers::FlatBufferBuilder;

static auto new_text(FlatBufferBuilder *builder, int number)
{
    return builder->CreateString(sample_values.texts[number], TEXT_SIZE);
}

static auto new_bytes(FlatBufferBuilder *builder, int number)
{
    return builder->CreateVector((const uint8_t *)sample_values.bytes[number], BYTES_SIZE);
}

static void build(FlatBufferBuilder *builder)
{
    const record_values &from = sample_values;
    auto s1 = new_text(builder, 0), s2 = new_text(builder, 1), s3 = new_text(builder, 2);
    auto s4 = new_text(builder, 3), s5 = new_text(builder, 4);
    auto b1 = new_bytes(builder, 0), b2 = new_bytes(builder, 1);
    builder->Finish(CreateRecord(*builder, from.ints[0], from.ints[1], from.ints[2], from.ints[3],
                                 from.ints[4], from.longs[0], from.longs[1], from.longs[2], from.longs[3],
                                 from.longs[4], from.doubles[0], from.doubles[1], from.doubles[2], s1, s2, s3,
                                 s4, s5, b1, b2));
}

static void copy_out(char *to, const flatbuffers::String *from)
{
    memcpy(to, from->c_str(), from->size() + 1);
}

static void copy_out(char *to, const flatbuffers::Vector<uint8_t> *from)
{
    memcpy(to, from->data(), from->size());
}

static void get_all(const Record *record)
{
    record_values &to = values_read;
    to.ints[0] = record->i1();
    to.ints[1] = record->i2();
    to.ints[2] = record->i3();
    to.ints[3] = record->i4();
    to.ints[4] = record->i5();
    to.longs[0] = record->l1();
    to.longs[1] = record->l2();
    to.longs[2] = record->l3();
    to.longs[3] = record->l4();
    to.longs[4] = record->l5();
    to.doubles[0] = record->d1();
    to.doubles[1] = record->d2();
    to.doubles[2] = record->d3();
    copy_out(to.texts[0], record->s1());
    copy_out(to.texts[1], record->s2());
    copy_out(to.texts[2], record->s3());
    copy_out(to.texts[3], record->s4());
    copy_out(to.texts[4], record->s5());
    copy_out(to.bytes[0], record->b1());
    copy_out(to.bytes[1], record->b2());
    keep(&to);
}

// Takes what a walk of a table hands over.
struct taker : flatbuffers::IterationVisitor {
    int text = 0, integer = 0, wide = 0, real = 0;
    int vector = -1, element = 0;

    void Field(size_t, size_t, flatbuffers::ElementaryType, bool, const flatbuffers::TypeTable *,
               const char *, const uint8_t *) override
    {}
    void Int(int32_t value, const char *) override { values_read.ints[integer++] = value; }
    void Long(int64_t value) override { values_read.longs[wide++] = value; }
    void Double(double value) override { values_read.doubles[real++] = value; }
    void String(const flatbuffers::String *value) override { copy_out(values_read.texts[text++], value); }
    void StartVector() override
    {
        vector++;
        element = 0;
    }
    void UChar(uint8_t value, const char *) override { values_read.bytes[vector][element++] = (char)value; }

    void UType(uint8_t, const char *) override {}
    void Bool(bool) override {}
    void Char(int8_t, const char *) override {}
    void Short(int16_t, const char *) override {}
    void UShort(uint16_t, const char *) override {}
    void UInt(uint32_t, const char *) override {}
    void ULong(uint64_t) override {}
    void Float(float) override {}
    void Unknown(const uint8_t *) override {}
    void EndVector() override {}
};

static void get_as_they_come(const FlatBufferBuilder &builder)
{
    taker into;
    flatbuffers::IterateFlatBuffer(builder.GetBufferPointer(), RecordTypeTable(), &into);
    keep(&values_read);
}

// Values of the same length can be changed in place.
static void update(Record *record)
{
    const record_values &from = sample_values;
    record->mutate_i1(from.ints[0]);
    record->mutate_i2(from.ints[1]);
    record->mutate_i3(from.ints[2]);
    record->mutate_i4(from.ints[3]);
    record->mutate_i5(from.ints[4]);
    record->mutate_l1(from.longs[0]);
    record->mutate_l2(from.longs[1]);
    record->mutate_l3(from.longs[2]);
    record->mutate_l4(from.longs[3]);
    record->mutate_l5(from.longs[4]);
    record->mutate_d1(from.doubles[0]);
    record->mutate_d2(from.doubles[1]);
    record->mutate_d3(from.doubles[2]);
    flatbuffers::String *texts[] = {record->mutable_s1(), record->mutable_s2(), record->mutable_s3(),
                                    record->mutable_s4(), record->mutable_s5()};
    for (int i = 0; i < 5; i++)
        memcpy(texts[i]->Data(), from.texts[i], TEXT_SIZE);
    memcpy(record->mutable_b1()->Data(), from.bytes[0], BYTES_SIZE);
    memcpy(record->mutable_b2()->Data(), from.bytes[1], BYTES_SIZE);
    keep(record);
}

static void put(FlatBufferBuilder *builder)
{
    builder->Clear();
    builder->StartVector(NUMBERS_PUT, sizeof(int32_t));
    for (int i = 0; i < NUMBERS_PUT; i++) {
        builder->PushElement(sample_values.ints[0]);
        keep(builder);
    }
    builder->Finish(flatbuffers::Offset<void>(builder->EndVector(NUMBERS_PUT)));
}

static void make_record()
{
    FlatBufferBuilder builder;
    build(&builder);
    keep(builder.GetBufferPointer());
}

record_trips flatbuffers_trips()
{
    auto builder = std::make_shared<FlatBufferBuilder>(), full = std::make_shared<FlatBufferBuilder>();
    build(full.get());
    auto sent = std::make_shared<std::vector<uint8_t>>(4096);
    record_trips trips;
    trips[STEP_PUT] = repeated([builder] { put(builder.get()); });
    trips[STEP_BUILD] = repeated([builder] {
        builder->Clear();
        build(builder.get());
        keep(builder->GetBufferPointer());
    });
    trips[STEP_MAKE] = repeated(make_record);
    trips[STEP_GET] = repeated([full] { get_all(GetRecord(full->GetBufferPointer())); });
    trips[STEP_NEXT] = repeated([full] { get_as_they_come(*full); });
    trips[STEP_UPDATE] = repeated([full] { update(GetMutableRecord(full->GetBufferPointer())); });
    trips[STEP_ENCODE] = repeated([full, sent] {
        memcpy(sent->data(), full->GetBufferPointer(), full->GetSize());
        keep(sent->data());
    });
    trips[STEP_DECODE] = repeated([full] {
        flatbuffers::Verifier verifier(full->GetBufferPointer(), full->GetSize());
        if (!VerifyRecordBuffer(verifier))
            give_up("VerifyRecordBuffer");
        keep(GetRecord(full->GetBufferPointer()));
    });
    return trips;
}
