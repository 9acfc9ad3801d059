// What hubctl shows of the machine: its interfaces, and the child of hubd that samples their counters.
//
// Each function prints on standard output. It returns HUB_DONE, or how the request ended that was not
// done; `answer` is that request's then.
#ifndef INSPECT_H
#define INSPECT_H

#include "hub_client.h"

// Prints a heading and a line for each interface.
hub_result_t inspect_interfaces(hub_client_t* client, hub_answer_t* answer);

// Takes a step with the child, HUB_CHILD_*, and prints in one line how it is then.
hub_result_t inspect_child(hub_client_t* client, uint8_t step, hub_answer_t* answer);

#endif // INSPECT_H
