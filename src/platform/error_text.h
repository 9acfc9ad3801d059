// The text of an errno number, safe on many threads at once.
#ifndef QN_PLATFORM_ERROR_TEXT_H
#define QN_PLATFORM_ERROR_TEXT_H

#include <cerrno>
#include <cstring>

namespace qn {

// Lives as long as the record that prints it: qn::ErrorText(number).text(). Making one keeps errno.
class ErrorText {
 public:
  explicit ErrorText(int number) {
    const int kept = errno;
    buffer_[0] = '\0';
    text_ = pick(strerror_r(number, buffer_, sizeof(buffer_)));
    errno = kept;
  }
  const char* text() const { return text_; }

 private:
  // glibc returns the text, which need not lie in the buffer; musl fills the buffer and returns a number.
  const char* pick(const char* text) const { return text; }
  const char* pick(int) const { return buffer_; }

  char buffer_[64];
  const char* text_;
};

} // namespace qn

#endif // QN_PLATFORM_ERROR_TEXT_H
