// What several handlers of hubd need to look at a request: who sent it, and the texts in its body.
#ifndef REQUEST_H
#define REQUEST_H

#include <quillcore/service.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

// Whether the one who connected may change more than the store: root, or the user that hubd runs as. The
// user goes to `uid`. The kernel tells who connected; nothing that a client writes can change it.
int request_is_trusted(const qn_msg_req_t* req, uid_t* uid);

// What is left of a request's body.
typedef struct cursor {
  const uint8_t* at;
  uint32_t left;
} cursor_t;

// Takes one text, a byte with its length and the bytes, and terminates the copy. Returns 0, or -1 for one
// that does not fit the rest of the body or `size`, or that holds a NUL.
int request_take_text(cursor_t* cursor, char* out, size_t size);

// Leaves an error body that tells of a malformed request. Returns -1, the handler's result then.
int32_t request_refuse_malformed(const qn_msg_req_t* req, void** rsp_body, uint32_t* rsp_len);

// Leaves an error body that tells of a user who may not, and logs it. Returns -1.
int32_t request_refuse_user(uid_t uid, const char* what, void** rsp_body, uint32_t* rsp_len);

#endif // REQUEST_H
