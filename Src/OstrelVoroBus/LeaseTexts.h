// The lease tables of the servers as text. What is made again for the next post is what has changed.
#pragma once

#include <string>

struct Ostrel_ServerObj;
struct Ostrel_SystemObj;

// The array that Ostrel_VoroServiceCreateServerLeaseInformationArray makes, as JSON text, to the letter. A null server
// stands for every interface that runs one. While "/server" has subscribers, the tables are kept for the next call.
// False, with `text` in any state, when memory is out.
[[nodiscard]] bool Ostrel_LeaseTextsWrite(Ostrel_SystemObj* sysObj, const Ostrel_ServerObj* server, std::string* text);

// Drops what is kept of a server (null has nothing), or of every server. A server's is dropped before the server goes.
void Ostrel_LeaseTextsForget(Ostrel_SystemObj* sysObj, const Ostrel_ServerObj* server);
void Ostrel_LeaseTextsForgetAll(Ostrel_SystemObj* sysObj);
