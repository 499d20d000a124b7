// What "interfaceState" tells of the selector. Private to it.
#pragma once

#include "Ostrel/LinkLocal.h"

constexpr int32_t kAnnouncements = 2;  // RFC 3927 section 9, ANNOUNCE_NUM

// What is shown from now on. The state that is shown already, entered for want of an answer, is only gone on with; who
// is idle stays so.
void Ostrel_LinkLocalShow(Ostrel_LinkLocalObj* linkLocal, Ostrel_LinkLocalState state, Ostrel_Reason reason);

// An announcement has gone out, which may have been the last one.
void Ostrel_LinkLocalShowAnnounced(Ostrel_LinkLocalObj* linkLocal);

// The link is lost: what is held may not be used.
void Ostrel_LinkLocalDoubt(Ostrel_LinkLocalObj* linkLocal);
