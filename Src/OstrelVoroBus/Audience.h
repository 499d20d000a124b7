// Who is subscribed to what.
#pragma once

#include <cstdint>
#include <string>

#include "VoroBus.h"

struct Ostrel_SystemObj;

// The count of a method's enrolled calls; null: it posts nothing.
[[nodiscard]] uint32_t* Ostrel_VSUtil_AudienceOf(Ostrel_SystemObj* sysObj, const char* method);

// A whole method whose subscriptions are about one interface, which the request's "interface" names, or about all. The
// key is taken strictly: a request that can't be used enrols nobody, and its reply says why.
struct Ostrel_SubscriptionMethod {
    const char* handler;  // function name, for the log
    // Writes the reply's "interfaceList", of the interface or, with an empty name, of all; false: no memory. Null: the
    // reply has none.
    bool (*write)(Ostrel_SystemObj* sysObj, const std::string& ifname, std::string* list);
};
void Ostrel_VSUtil_AnswerSubscriber(const Ostrel_SubscriptionMethod& method, VSHandle* handle, VSMessage* message,
                                    void* context);
