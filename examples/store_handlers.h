// The handlers of hubd: what each request does to the store.
#ifndef STORE_HANDLERS_H
#define STORE_HANDLERS_H

#include <pthread.h>
#include <quillcore/context.h>
#include <quillcore/store.h>

// What the handlers work on; every row of the table carries its address. It must live as long as the
// process: the service's thread is detached, so there is no moment at which it is known to be gone.
typedef struct hub_store {
  pthread_mutex_t lock; // covers `store`, and makes each read-change-write of a handler one step
  kvstore_t* store;     // null once it is closed
  uint32_t served;      // requests so far
} hub_store_t;

// Gets `hub` ready to serve `store`, which it owns from now on.
void hub_store_init(hub_store_t* hub, kvstore_t* store);

// Closes the store: waits for the handler that runs at this moment, and any later one answers
// HUB_ERR_CLOSING. Returns with all that was acknowledged on disk.
void hub_store_close(hub_store_t* hub);

// Stores a text under a key from any thread. Returns 0; -1 when it does not fit or the store is closed.
int hub_store_put_text(hub_store_t* hub, const char* key, const char* text);

// The handler table over `hub`, made from `pool`, which must outlive the service.
// Returns null when the pool has no memory.
qn_apis_t* hub_store_apis(qn_pool_t* pool, hub_store_t* hub);

#endif // STORE_HANDLERS_H
