// A request from the bus: the first byte picks the method, the rest is the payload. "eth0" is a client, "eth1" is free.
//
// The daemon answers with an object whatever it was sent, and the interface that a request made goes away again whole.

#include "FuzzDevice.h"
#include "valdo.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    constexpr std::pair<const char*, const char*> kMethods[] = {
        {"/", "interfaceInitialize"}, {"/client", "leaseInformation"}, {"/server", "leaseInformation"},
        {"/client", "leaseAction"},   {"/", "interfaceFinalize"},      {"/", "setDebugLevel"},
        {"/", "interfaceConfigDump"},
    };
    static sim::FuzzDevice device;
    if (size == 0) return 0;
    device.Run(sim::FuzzConfig(kOstrelModeDHCPClient, kOstrelConfigStatic), [&](Ostrel_InterfaceObj&) {
        const auto& [category, method] = kMethods[data[0] % std::size(kMethods)];
        const std::string payload(data + 1, data + size);
        const std::string reply = device.world.Call(category, method, payload);
        valdo::JDomParser parser;
        const bool isObject = parser.parse(reply, valdo::JSchemaFragment("{}")) && parser.getDom().isObject();
        device.Check(isObject || !device.world.callError.empty(), "no answer: " + reply);
        device.world.RunFor(std::chrono::seconds(10));
        (void)device.world.Call("/", "interfaceConfigDump", "{}");
        device.world.LeaveBus(":1.1");
    });
    return 0;
}
