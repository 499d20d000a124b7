// When the state of an interface is posted: once for all that one event of the loop changes, but never past a state.
//
// Nothing is armed while nobody subscribes; whoever subscribes is answered with what is.
#include "Ostrel/Publish.h"

#include "eloop.h"

namespace {

// One that is being brought up is not, nor one that comes down: nobody knows it yet, or any more.
bool IsManaged(const Ostrel_InterfaceObj* iface) {
    const Ostrel_InterfaceObj* one = iface->sysObj->interfaceList;
    while (one != nullptr && one != iface) one = one->next;
    return one != nullptr;
}

void Ostrel_PictureTimeout(void* context, void*) {
    auto* iface = static_cast<Ostrel_InterfaceObj*>(context);
    iface->pictureIsStale = false;
    Ostrel_VoroServicePublishInterfaceState(iface->sysObj, iface->ifname.data());
}

}  // namespace

void Ostrel_InterfacePictureChanged(Ostrel_InterfaceObj* iface) {
    if (iface->pictureIsStale || iface->sysObj->audience.states == 0 || !IsManaged(iface)) return;
    iface->pictureIsStale = true;
    if (eloop_register_timeout(0, 0, Ostrel_PictureTimeout, iface, nullptr) != 0) Ostrel_InterfacePictureTurns(iface);
}

void Ostrel_InterfacePictureTurns(Ostrel_InterfaceObj* iface) {
    if (!iface->pictureIsStale) return;
    Ostrel_InterfacePictureForget(iface);
    Ostrel_PictureTimeout(iface, nullptr);
}

void Ostrel_InterfacePictureForget(Ostrel_InterfaceObj* iface) {
    if (iface->pictureIsStale) eloop_cancel_timeout(Ostrel_PictureTimeout, iface, nullptr);
    iface->pictureIsStale = false;
}

void Ostrel_InterfacePicturePutOff(Ostrel_InterfaceObj* iface) {
    if (!iface->pictureIsStale) return;
    Ostrel_InterfacePictureForget(iface);
    Ostrel_InterfacePictureChanged(iface);
}
