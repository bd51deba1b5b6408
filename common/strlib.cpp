// String helpers: the own time parser and the resettable option parser.
#include "strlib.h"

#include <cstdio>
#include <cstring>

namespace {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

const char* skip_spaces(const char* p) {
  while (is_space(*p)) ++p;
  return p;
}

/// Reads 1 to width digits into value and checks lo <= value <= hi.
/// Returns the position behind the digits, or nullptr.
const char* read_number(const char* p, int width, int lo, int hi, int* value) {
  int v = 0;
  int n = 0;
  while (n < width && is_digit(*p)) {
    v = v * 10 + (*p - '0');
    ++p;
    ++n;
  }
  if (n == 0 || v < lo || v > hi) return nullptr;
  *value = v;
  return p;
}

/// One conversion character; nullptr on mismatch.
const char* convert(const char* p, char conv, struct tm* tm) {
  int v = 0;
  switch (conv) {
    case 'Y':
      if (!(p = read_number(p, 4, 0, 9999, &v))) return nullptr;
      tm->tm_year = v - 1900;
      return p;
    case 'y':
      if (!(p = read_number(p, 2, 0, 99, &v))) return nullptr;
      tm->tm_year = v < 69 ? v + 100 : v;
      return p;
    case 'm':
      if (!(p = read_number(p, 2, 1, 12, &v))) return nullptr;
      tm->tm_mon = v - 1;
      return p;
    case 'e':
      p = skip_spaces(p);
      [[fallthrough]];
    case 'd':
      if (!(p = read_number(p, 2, 1, 31, &v))) return nullptr;
      tm->tm_mday = v;
      return p;
    case 'H':
      if (!(p = read_number(p, 2, 0, 23, &v))) return nullptr;
      tm->tm_hour = v;
      return p;
    case 'M':
      if (!(p = read_number(p, 2, 0, 59, &v))) return nullptr;
      tm->tm_min = v;
      return p;
    case 'S':
      if (!(p = read_number(p, 2, 0, 60, &v))) return nullptr;
      tm->tm_sec = v;
      return p;
    case 'j':
      if (!(p = read_number(p, 3, 1, 366, &v))) return nullptr;
      tm->tm_yday = v - 1;
      return p;
    case 'F':
      if (!(p = convert(p, 'Y', tm)) || *p++ != '-') return nullptr;
      if (!(p = convert(p, 'm', tm)) || *p++ != '-') return nullptr;
      return convert(p, 'd', tm);
    case 'T':
      if (!(p = convert(p, 'H', tm)) || *p++ != ':') return nullptr;
      if (!(p = convert(p, 'M', tm)) || *p++ != ':') return nullptr;
      return convert(p, 'S', tm);
    case 'n':
    case 't':
      return skip_spaces(p);
    case '%':
      return *p == '%' ? p + 1 : nullptr;
    default:
      return nullptr;  // unknown conversion, or a lone '%' at the format's end
  }
}

}  // namespace

const char* kd_strptime(const char* text, const char* format, struct tm* tm) {
  if (text == nullptr || format == nullptr || tm == nullptr) return nullptr;
  // Parse into a copy, so that a mismatch half-way leaves the caller's fields alone.
  struct tm work = *tm;
  const char* p = text;
  for (const char* f = format; *f; ++f) {
    if (*f == '%') {
      ++f;
      if (!(p = convert(p, *f, &work))) return nullptr;  // also a lone '%' at the end
    } else if (is_space(*f)) {
      p = skip_spaces(p);
    } else if (*p == *f) {
      ++p;
    } else {
      return nullptr;
    }
  }
  *tm = work;
  return p;
}

// ---------------------------------------------------------------------------
// Option parser
// ---------------------------------------------------------------------------

char* myoptarg = nullptr;
int myoptind = 1;
int myoptopt = 0;
int myopterr = 0;

namespace {
// Position within the current word group ("-abc"): the word and the index of
// the next letter; 0 = at the start of a new word.
const char* gGroupWord = nullptr;
int gGroupPos = 0;
}  // namespace

void mygetopt_reset() {
  myoptind = 1;
  myoptarg = nullptr;
  gGroupWord = nullptr;
  gGroupPos = 0;
}

int mygetopt(int argc, char* const argv[], const char* optstring) {
  myoptarg = nullptr;
  if (argv == nullptr || optstring == nullptr) return -1;
  if (myoptind < 1) mygetopt_reset();
  const bool colon_mode = optstring[0] == ':';
  const char* opts = colon_mode ? optstring + 1 : optstring;

  // A caller that moved myoptind or changed the vector starts a new word.
  if (gGroupPos > 0 && (myoptind >= argc || argv[myoptind] != gGroupWord)) gGroupPos = 0;

  if (gGroupPos == 0) {
    if (myoptind >= argc) return -1;
    const char* word = argv[myoptind];
    if (word == nullptr || word[0] != '-' || word[1] == '\0') return -1;
    if (word[1] == '-' && word[2] == '\0') {
      ++myoptind;
      return -1;
    }
    gGroupWord = word;
    gGroupPos = 1;
  }

  const char* word = gGroupWord;
  const char c = word[gGroupPos++];
  const bool word_done = word[gGroupPos] == '\0';
  const char* spec = c == ':' ? nullptr : std::strchr(opts, c);

  auto next_word = [&] {
    ++myoptind;
    gGroupPos = 0;
  };

  if (spec == nullptr) {
    myoptopt = static_cast<unsigned char>(c);
    if (myopterr && !colon_mode) std::fprintf(stderr, "%s: invalid option -- '%c'\n", argv[0] ? argv[0] : "", c);
    if (word_done) next_word();
    return '?';
  }
  if (spec[1] != ':') {
    if (word_done) next_word();
    return static_cast<unsigned char>(c);
  }
  if (!word_done) {
    myoptarg = const_cast<char*>(word + gGroupPos);
    next_word();
    return static_cast<unsigned char>(c);
  }
  if (spec[2] == ':') {  // optional value, glued only
    next_word();
    return static_cast<unsigned char>(c);
  }
  if (myoptind + 1 < argc && argv[myoptind + 1] != nullptr) {
    myoptarg = argv[myoptind + 1];
    myoptind += 2;
    gGroupPos = 0;
    return static_cast<unsigned char>(c);
  }
  myoptopt = static_cast<unsigned char>(c);
  next_word();
  if (colon_mode) return ':';
  if (myopterr) std::fprintf(stderr, "%s: option requires an argument -- '%c'\n", argv[0] ? argv[0] : "", c);
  return '?';
}

char* str_to_lower(char* text) {
  if (text == nullptr) return text;
  for (char* p = text; *p; ++p)
    if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p - 'A' + 'a');
  return text;
}

char* str_to_upper(char* text) {
  if (text == nullptr) return text;
  for (char* p = text; *p; ++p)
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 'a' + 'A');
  return text;
}
