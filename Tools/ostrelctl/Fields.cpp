// Fields of the daemon's JSON objects, as records keep them.
//
// The daemon leaves out what it does not have, or says null, so an absent field is as good as an empty one. The reader
// of addresses is the daemon's own; it is asked for what is there only, since it reports the rest to the log.
#include "Fields.h"

#include "Ostrel/OstrelJsonUtils.h"

using valdo::JValue;

namespace ostrelctl {

std::string TextOf(const JValue& object, const char* key) {
    std::string text;
    (void)object[key].asString(text);
    return text;
}

bool TruthOf(const JValue& object, const char* key) {
    bool truth = false;
    (void)object[key].asBool(truth);
    return truth;
}

Ostrel_IPv4 AddressOf(const JValue& object, const char* key) {
    Ostrel_IPv4 address = kAnyIPv4;
    if (object.hasKey(key)) (void)OstrelJsonUtilsIPv4Get(object, key, &address, true);
    return address;
}

std::vector<Ostrel_IPv4> AddressesOf(const JValue& object, const char* key) {
    size_t count = 0;
    std::vector<Ostrel_IPv4> addresses;
    if (GetJsonArray(object, key, nullptr, &count)) {
        addresses.resize(count, kAnyIPv4);
        (void)OstrelJsonUtilsIPv4ArrayGet(object, key, addresses);
    } else {
        addresses.push_back(AddressOf(object, key));
    }
    std::erase(addresses, kAnyIPv4);
    return addresses;
}

int64_t NumberOf(const JValue& object, const char* key) {
    int32_t number = 0;
    return object[key].asNumber(number) == valdo::CONV_OK ? number : 0;
}

// A lease time may be beyond 2^31 seconds, which the reader of 32-bit numbers does not take.
int64_t SecondsOf(const JValue& object, const char* key) {
    const JValue number = object[key];
    int32_t seconds = 0;
    return number.isNumber() && number.asNumber(seconds) == valdo::CONV_OK ? seconds : kInfiniteLease;
}

}  // namespace ostrelctl
