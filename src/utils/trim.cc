// Trimming in place.
#include <quillcore/utility.h>

#include <cstring>

#include "utils/white_space.h"

using qn::is_white_space;

char* qn_utils_ltrim(char* text) { return text != nullptr ? qn::skip_white_space(text) : nullptr; }

char* qn_utils_rtrim(char* text) {
  if (text == nullptr) return nullptr;
  for (size_t length = strlen(text); length > 0 && is_white_space(text[length - 1]); length--) {
    text[length - 1] = '\0';
  }
  return text;
}

char* qn_utils_trim(char* text) { return qn_utils_rtrim(qn_utils_ltrim(text)); }
