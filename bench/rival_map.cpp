// Ten properties and a body with protobuf: a map of names to values of several types. The message is used again.
#include "properties.h"

#include <cstring>
#include <memory>
#include <record.pb.h>

using bench_protobuf::Property;
using bench_protobuf::PropertyMap;

static void set_property(PropertyMap *message, const property &one)
{
    const char *from = sample_value(one);
    Property &value = (*message->mutable_properties())[one.name];
    switch (one.type) {
    case FB_INT:
        value.set_i(*(const int32_t *)from);
        break;
    case FB_LONG:
        value.set_l(*(const int64_t *)from);
        break;
    case FB_DOUBLE:
        value.set_d(*(const double *)from);
        break;
    default:
        value.set_s(from, (size_t)one.length - 1);
    }
}

static void set_properties(PropertyMap *message)
{
    for (const property &one : PROPERTY_TABLE)
        set_property(message, one);
    keep(message);
}

static void get_property(const PropertyMap &message, const property &one)
{
    auto found = message.properties().find(one.name);
    if (found == message.properties().end())
        give_up("the map has no %s", one.name);
    const Property &value = found->second;
    char *to = value_read(one);
    switch (value.value_case()) {
    case Property::kI:
        *(int32_t *)to = value.i();
        break;
    case Property::kL:
        *(int64_t *)to = value.l();
        break;
    case Property::kD:
        *(double *)to = value.d();
        break;
    default:
        memcpy(to, value.s().c_str(), value.s().size() + 1);
    }
}

static void get_properties(const PropertyMap &message)
{
    for (const property &one : PROPERTY_TABLE)
        get_property(message, one);
    keep(&values_read);
}

property_trips map_trips()
{
    auto message = std::make_shared<PropertyMap>(), full = std::make_shared<PropertyMap>();
    set_properties(full.get());
    full->set_body(sample_value(BODY), BYTES_SIZE);
    property_trips trips;
    trips[STEP_SET] = repeated([message] {
        message->Clear();
        set_properties(message.get());
    });
    trips[STEP_SET_BODY] = repeated([message] {
        message->Clear();
        message->set_body(sample_value(BODY), BYTES_SIZE);
        set_properties(message.get());
    });
    trips[STEP_READ] = repeated([full] { get_properties(*full); });
    trips[STEP_READ_BODY] = repeated([full] {
        memcpy(value_read(BODY), full->body().data(), full->body().size());
        get_properties(*full);
    });
    trips[STEP_REPLACE] = repeated([full] { set_properties(full.get()); });
    return trips;
}
