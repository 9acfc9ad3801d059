// All public headers of libquillcore.
#ifndef QUILLCORE_QUILLCORE_H
#define QUILLCORE_QUILLCORE_H

#include <quillcore/bus.h>       // IWYU pragma: export
#include <quillcore/container.h> // IWYU pragma: export
#include <quillcore/context.h>   // IWYU pragma: export
#include <quillcore/interface.h> // IWYU pragma: export
#include <quillcore/log.h>       // IWYU pragma: export
#include <quillcore/memory.h>    // IWYU pragma: export
#include <quillcore/process.h>   // IWYU pragma: export
#include <quillcore/service.h>   // IWYU pragma: export
#include <quillcore/socket.h>    // IWYU pragma: export
#include <quillcore/store.h>     // IWYU pragma: export
#include <quillcore/thread.h>    // IWYU pragma: export
#include <quillcore/utility.h>   // IWYU pragma: export

#endif // QUILLCORE_QUILLCORE_H
