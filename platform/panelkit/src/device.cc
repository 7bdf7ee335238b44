// Device identity and network state on a host.
#include "host/environment.h"
#include "panelkit/panelkit.h"

extern "C" const char* GetSerialNumber(void) { return vistrel_host::SerialNumber(); }

// A host is always online.
extern "C" int QueryNetwork(void) { return NET_CONNECTED; }

extern "C" int NetConnect(const char* /*name*/) { return 0; }
