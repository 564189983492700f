// The end of registering: the operations that publish and withdraw one service are those of
// base/responder.h.
//
// RegisterOneService adds the registry entry, then sends probe and announcement; a service whose
// packets could not be composed stays registered. UnRegisterOneService sends the goodbye, then
// removes the entry: the goodbye of a service that is not registered goes out all the same. Neither
// is called by a thread that holds the registry mutex.
#pragma once

#include "base/responder.h"

/// Refuses every registration from here on; one that is under way is completed. Any thread.
void CloseRegistration();

/// True while a registration is under way that began before CloseRegistration: its packets may not
/// have been handed over yet. Any thread.
bool IsRegistrationUnderWay();
