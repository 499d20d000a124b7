// Frames as they are sent and received, for the subscribers of "/" "trace".
#include "Ostrel/Publish.h"

void Ostrel_VoroServicePublishFrame(Ostrel_InterfaceObj* /*iface*/, const char* /*role*/,
                                    Ostrel_Direction /*direction*/, std::span<const uint8_t> /*frame*/,
                                    const Ostrel_Verdict& /*verdict*/) {}
