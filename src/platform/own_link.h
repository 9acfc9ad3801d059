// open() in a folder that somebody else may have made first.
//
// Whoever makes /tmp/quillnet before we do can lay links there that lead a daemon of root's to any file.
// So where a file of ours should be, a link is followed only if root or our own user has made it.
#ifndef QN_PLATFORM_OWN_LINK_H
#define QN_PLATFORM_OWN_LINK_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "platform/bounded_string.h"
#include "platform/guards.h"
#include "platform/standard_streams.h"

namespace qn {

constexpr int kOwnLinksMax = 8;
constexpr size_t kLinkPathSize = 1024;

// Puts the path that the link at `path` leads to in its place. What is asked for its owner and what is
// read is one and the same link, whatever stands at the path by then. False, with errno, for a link of
// another user and for what is none.
inline bool follow_own_link(char (&path)[kLinkPathSize]) {
  const UniqueFd link(open_above(path, O_PATH | O_NOFOLLOW));
  struct stat status;
  if (!link.valid() || fstat(link.get(), &status) != 0) return false;
  errno = ELOOP;
  if (status.st_uid != 0 && status.st_uid != geteuid()) return false;

  char text[kLinkPathSize];
  const ssize_t length = readlinkat(link.get(), "", text, sizeof(text));
  if (length < 0) return false;
  errno = ENAMETOOLONG;
  if (length == static_cast<ssize_t>(sizeof(text))) return false; // or longer, and cut
  text[length] = '\0';
  // A text that is no whole path counts from the folder that the link lies in.
  char* const slash = strrchr(path, '/');
  char* const place = text[0] == '/' || slash == nullptr ? path : slash + 1;
  return strcpy_s(place, sizeof(path) - static_cast<size_t>(place - path), text) == 0;
}

// open_above() of a file that is no link or that is reached by links of root's or our own user's alone.
// -1, with ELOOP, where another user's would have to be followed.
inline int open_by_own_links(const char* path, int flags, mode_t mode = 0) {
  char place[kLinkPathSize];
  if (strcpy_s(place, sizeof(place), path) != 0) return errno = ENAMETOOLONG, -1;
  for (int links = 0;; links++) {
    const int fd = open_above(place, flags | O_NOFOLLOW, mode);
    if (fd >= 0 || errno != ELOOP || links == kOwnLinksMax || !follow_own_link(place)) return fd;
  }
}

} // namespace qn

#endif // QN_PLATFORM_OWN_LINK_H
