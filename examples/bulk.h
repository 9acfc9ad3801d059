// Requests by the hundred: load settings files into hubd and compare what comes back.
//
// Each function prints every failure and one line with its result on standard output, and returns an
// exit status.
#ifndef BULK_H
#define BULK_H

#include <stddef.h>

#include "hub_client.h"

// Exit statuses of hubctl.
#define EXIT_HELD 0      // everything was as it should be
#define EXIT_NOT_HELD 1  // refused, or different
#define EXIT_USAGE 2     // wrong arguments, an unreadable file, nobody listens
#define EXIT_NO_ANSWER 3 // a request was not answered

// Puts every line of the settings file at `path`.
int bulk_load(hub_client_t* client, const char* path);

// Gets every key of the file at `path` and compares the values byte for byte. An empty value is stored,
// but a store tells no more of it than that it is there; that counts as held.
int bulk_verify(hub_client_t* client, const char* path);

// A series puts the lines of `path`, then those of `other`, then those of `path` again and so on, `count`
// puts in all, and prints "running" when `tell_after` of them are acknowledged. It ends at the first put
// that is not. The two files have the same keys in the same order, with values of the same lengths.
int bulk_series(hub_client_t* client, size_t count, size_t tell_after, const char* path,
                const char* other);

// Compares the store with what a series of `acked` acknowledged puts leaves behind in a store that held
// `other` before. The put after those, which was under way when hubd ended, may have happened, not
// happened, or have been cut short: then the first bytes of the value are new and the others old.
int bulk_verify_series(hub_client_t* client, size_t acked, const char* path, const char* other);

#endif // BULK_H
