// What hubd does on the bus: it listens to the mesh and keeps the last thing it heard.
#ifndef BUS_HANDLERS_H
#define BUS_HANDLERS_H

#include "store_handlers.h"

// The key under which the last event is kept, as text.
#define HUB_LAST_EVENT "mesh.last"

// Joins the bus at `path`, which must stay valid, and listens to "mesh.*". `hub` is used from the bus
// thread from then on. Returns 0; -1 when the bus thread could not be started. Whether the bus is there
// is told by the log alone.
int hub_bus_start(const char* path, hub_store_t* hub);

#endif // BUS_HANDLERS_H
