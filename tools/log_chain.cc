// The files of one log in their order.
#include "log_chain.h"

#include <sys/inotify.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ctl {
namespace {

constexpr int kLooksMax = 100; // a rotation in between each time: somebody renames in a loop
constexpr unsigned kLostUnknown = 0;
constexpr int64_t kFileMax = 16 << 20; // many times what a role may have; no size is believed beyond

bool is_file(dev_t device, ino_t inode, const struct stat& status) {
  return status.st_dev == device && status.st_ino == inode;
}

} // namespace

bool LogWatch::start(int folder_fd) {
  constexpr uint32_t kFolder = IN_ONLYDIR;
  constexpr uint32_t kNames = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
  char folder[40]; // by its descriptor: what has the name may be another one by now
  snprintf(folder, sizeof(folder), "/proc/self/fd/%d", folder_fd);
  names_ = Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  writes_ = Fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  return names_.valid() && writes_.valid() &&
         inotify_add_watch(names_.get(), folder, kFolder | kNames) >= 0 &&
         inotify_add_watch(writes_.get(), folder, kFolder | IN_MODIFY) >= 0;
}

void LogWatch::take_writes() {
  alignas(struct inotify_event) char events[4096];
  while (read(writes_.get(), events, sizeof(events)) > 0) {
  }
}

void LogWatch::add(LogChain* chain) {
  if (chain_count_ < kChainsMax) chains_[chain_count_++] = chain;
}

void LogWatch::take_events() {
  alignas(struct inotify_event) char events[4096];
  for (;;) {
    const ssize_t length = read(names_.get(), events, sizeof(events));
    if (length <= 0) return;
    for (ssize_t at = 0; at < length;) {
      const struct inotify_event* const event =
          reinterpret_cast<const struct inotify_event*>(events + at);
      at += static_cast<ssize_t>(sizeof(*event) + event->len);
      if ((event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) gone_ = true;
      for (unsigned i = 0; i < chain_count_; i++) {
        if ((event->mask & IN_Q_OVERFLOW) != 0) chains_[i]->on_overflow();
        if (event->len > 0) chains_[i]->on_event(event->name, (event->mask & IN_MOVED_TO) != 0);
      }
    }
  }
}

void LogChain::on_event(const char* name, bool moved_to) {
  const bool is_backup = strcmp(name, backup_) == 0;
  if (is_backup && moved_to) moves_++;
  if (is_backup || strcmp(name, live_) == 0) changed_ = true;
}

void LogChain::on_overflow() { changed_ = overflowed_ = true; }

bool LogChain::start(int folder, const char* role, const char* format, LogWatch* watch) {
  watch_ = watch;
  folder_ = folder;
  snprintf(live_, sizeof(live_), "%s%s_0.log.txt", role, format);
  snprintf(backup_, sizeof(backup_), "%s%s_1.log.txt", role, format);
  if (watch != nullptr) watch->add(this);
  changed_ = true;
  look();
  return held_count_ > 0;
}

void LogChain::stop() {
  while (held_count_ > 0) pop();
}

// Opens what the two names stand for, at one moment: nothing was renamed before, between or behind the
// opens.
void LogChain::look() {
  for (int tries = 0; changed_ && held_count_ + 2 <= kHeldMax && tries < kLooksMax; tries++) {
    if (watch_ != nullptr) watch_->take_events();
    const int64_t before = moves_;
    struct stat live_status, backup_status;
    Fd live = open_plain(live_, &live_status, folder_);
    Fd backup = open_plain(backup_, &backup_status, folder_);
    if (watch_ != nullptr) watch_->take_events();
    if (moves_ != before) continue;
    if (live.valid() && backup.valid() && same_file(live_status, backup_status)) {
      if (tries + 1 < kLooksMax) continue;
      backup.reset(); // two names of one file
    }
    changed_ = false;
    take(static_cast<Fd&&>(live), live_status, static_cast<Fd&&>(backup), backup_status);
    return;
  }
}

void LogChain::take(Fd live, const struct stat& live_status, Fd backup,
                    const struct stat& backup_status) {
  const Held* const newest = held_count_ > 0 ? &held_[held_count_ - 1] : nullptr;
  if (newest == nullptr) {
    if (backup.valid()) push(static_cast<Fd&&>(backup), backup_status, moves_ - 1);
    if (live.valid()) push(static_cast<Fd&&>(live), live_status, moves_);
    return;
  }
  if (!live.valid()) return; // its making is an event of its own
  const bool same = is_file(newest->device, newest->inode, live_status);
  const bool successor = backup.valid() && is_file(newest->device, newest->inode, backup_status);
  // With events lost the numbers are only as good as what is seen now.
  if (overflowed_)
    held_[held_count_ - 1].number = same ? moves_ : successor ? moves_ - 1 : newest->number;
  const bool unknown = overflowed_ && !same && !successor;
  overflowed_ = false;
  if (same) return;

  const int64_t number = newest->number;
  const int64_t missed = moves_ - number - 1; // files between
  Held* first = nullptr;
  if ((missed > 0 || unknown) && backup.valid() && !successor)
    first = push(static_cast<Fd&&>(backup), backup_status, moves_ - 1);
  const int64_t lost = missed - (first != nullptr ? 1 : 0);
  Held* const last = push(static_cast<Fd&&>(live), live_status, moves_);
  if (first == nullptr) first = last;
  first->is_lost_before = first->is_lost_before || lost > 0 || unknown;
  first->lost_before = unknown ? kLostUnknown : lost > 0 ? static_cast<unsigned>(lost) : 0;
  first->is_anew = missed < 0 && !unknown;
}

LogChain::Held* LogChain::push(Fd file, const struct stat& status, int64_t number) {
  Held& held = held_[held_count_++];
  held = {};
  held.end = watch_ == nullptr ? int64_t{status.st_size} : INT64_MAX;
  held.device = status.st_dev;
  held.inode = status.st_ino;
  held.number = number;
  held.fd = file.release();
  if (status.st_size > kFileMax) {
    held.offset = lseek(held.fd, status.st_size - kFileMax, SEEK_SET);
    held.is_lost_before = true;
  }
  return &held;
}

void LogChain::pop() {
  close(held_[0].fd);
  held_count_--;
  memmove(&held_[0], &held_[1], held_count_ * sizeof(Held));
}

// `all` takes a rest without a line feed, too.
bool LogChain::take_line(bool all, const char** line, size_t* length) {
  *line = buffer_ + begin_;
  const void* const end = length_ > 0 ? memchr(*line, '\n', length_) : nullptr;
  if (end == nullptr && !(length_ > 0 && (all || length_ == kBufferSize))) return false;
  *length = end != nullptr ? static_cast<size_t>(static_cast<const char*>(end) - *line) : length_;
  const size_t taken = *length + (end != nullptr);
  begin_ += taken;
  length_ -= taken;
  return true;
}

ssize_t LogChain::fill() {
  Held& held = held_[0];
  memmove(buffer_, buffer_ + begin_, length_);
  begin_ = 0;
  int64_t room = static_cast<int64_t>(kBufferSize - length_);
  if (room > held.end - held.offset) room = held.end - held.offset;
  const ssize_t got = room > 0 ? read(held.fd, buffer_ + length_, static_cast<size_t>(room)) : 0;
  if (got <= 0) return got;
  held.offset += got;
  length_ += static_cast<size_t>(got);
  return got;
}

LogStep LogChain::next(const char** line, size_t* length) {
  for (;;) {
    if (take_line(false, line, length)) return LogStep::kLine;
    if (watch_ != nullptr) {
      watch_->take_events();
      look();
    }
    if (held_count_ == 0) return LogStep::kNothing;
    Held& held = held_[0];
    if (held.is_lost_before || held.is_anew) {
      const bool anew = held.is_anew;
      lost_ = held.lost_before;
      held.is_lost_before = held.is_anew = false;
      return anew ? LogStep::kEmptied : LogStep::kLost;
    }
    if (fill() > 0) continue;
    struct stat status;
    if (held_count_ == 1 && watch_ != nullptr && fstat(held.fd, &status) == 0 &&
        status.st_size < held.offset) {
      held.offset = lseek(held.fd, 0, SEEK_SET);
      length_ = 0;
      return LogStep::kEmptied;
    }
    const bool is_last = held_count_ == 1;
    if (take_line(!is_last || watch_ == nullptr, line, length)) return LogStep::kLine;
    if (is_last) return LogStep::kNothing;
    pop();
  }
}

} // namespace ctl
