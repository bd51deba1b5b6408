// Field splitting.
#include "cm_split.h"

#include <cstring>

#include "cm_trace.h"

namespace {
constexpr std::size_t kAreaSize = 138000;
char gArea[kAreaSize];
std::size_t gLength = 0;  ///< length of the text in gArea
std::size_t gField = 0;   ///< start of the current field
bool gActive = false;     ///< a text was given and its end not yet passed
}  // namespace

char* cm_strtok(const char* text, char delimiter) {
  if (text != nullptr) {
    std::size_t len = std::strlen(text);
    if (len > kAreaSize - 1) {
      trace("%l0 cm_strok: string shortend to %d chars bcs. of string overflow strlen(%s) %d",
            static_cast<int>(kAreaSize - 1), text, static_cast<int>(len));
      len = kAreaSize - 1;
    }
    std::memcpy(gArea, text, len);
    gArea[len] = '\0';
    if (delimiter != '\0') {
      for (std::size_t i = 0; i < len; ++i)
        if (gArea[i] == delimiter) gArea[i] = '\0';
    }
    gLength = len;
    gField = 0;
    gActive = true;
    return gArea;
  }
  if (!gActive) return nullptr;
  // The caller may have written into a field: search its end within the text only.
  const std::size_t next = gField + strnlen(gArea + gField, gLength - gField) + 1;
  if (next > gLength) {
    gActive = false;
    return nullptr;
  }
  gField = next;
  return gArea + gField;
}
