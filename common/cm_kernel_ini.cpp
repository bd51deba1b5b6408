// Configuration files: keys of ini files, the main configuration reached
// through the bootstrap files, the ini dictionary, path prefixes and the
// readers of global variables with defaults.
//
// Nothing is cached: every read opens and scans the file anew, so that an
// edited configuration takes effect at the next read. The scan therefore
// runs on plain read(2) through one stack buffer and compares each line in
// place, without lower-casing copies.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "cm_trace.h"

namespace {

constexpr std::size_t kLineMax = 1022;    // characters of a line that count
constexpr std::size_t kSectionMax = 63;   // section name with its brackets
constexpr std::size_t kKeyMax = 254;      // key name
constexpr std::size_t kPathMax = 1024;    // resolved file names, with terminator
// A value may name another key by "%(name)"; a chain deeper than this is
// taken for a loop (such as a=%(a)) and the whole lookup fails.
constexpr int kMaxReferenceDepth = 16;

char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

void lower_in_place(char* text) {
  for (; *text; ++text) *text = ascii_lower(*text);
}

std::string lower_copy(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = ascii_lower(c);
  return out;
}

void set_err(char* err, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
void set_err(char* err, std::size_t size, const char* format, ...) {
  if (err == nullptr || size == 0) return;
  va_list ap;
  va_start(ap, format);
  const int n = std::vsnprintf(err, size, format, ap);
  va_end(ap);
  if (n < 0) err[0] = '\0';
}

void clear_text(char* text, std::size_t size) {
  if (text != nullptr && size > 0) text[0] = '\0';
}

// Reads a file line by line through one buffer on the caller's stack. A
// line that lies whole in the buffer is handed out in place (its line end
// overwritten by the terminator); only a line across two reads is copied.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}

  // The next line without its line end, at most kLineMax characters and
  // always terminated; the rest of an overlong line is skipped, so it can
  // never pass for a line of its own. nullptr at the end or on a read error.
  const char* next(std::size_t& len) {
    for (;;) {
      if (pos_ == end_ && !fill()) {
        if (!carrying_) return nullptr;
        return take_carry(len);
      }
      char* start = buf_ + pos_;
      const std::size_t avail = end_ - pos_;
      char* nl = static_cast<char*>(std::memchr(start, '\n', avail));
      const std::size_t n = nl ? static_cast<std::size_t>(nl - start) : avail;
      if (nl && !carrying_) {
        pos_ += n + 1;
        len = n < kLineMax ? n : kLineMax;
        start[len] = '\0';
        return start;
      }
      const std::size_t room = kLineMax - carry_len_;
      const std::size_t take = n < room ? n : room;
      std::memcpy(carry_ + carry_len_, start, take);
      carry_len_ += take;
      carrying_ = true;
      pos_ += n;
      if (nl) {
        ++pos_;
        return take_carry(len);
      }
    }
  }

  // errno of a failed read, 0 if none.
  int error() const { return err_; }

 private:
  const char* take_carry(std::size_t& len) {
    carry_[carry_len_] = '\0';
    len = carry_len_;
    carry_len_ = 0;
    carrying_ = false;
    return carry_;
  }

  bool fill() {
    if (eof_) return false;
    for (;;) {
      const ssize_t n = ::read(fd_, buf_, sizeof buf_);
      if (n > 0) {
        pos_ = 0;
        end_ = static_cast<std::size_t>(n);
        return true;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) err_ = errno;
      eof_ = true;
      return false;
    }
  }

  int fd_;
  int err_ = 0;
  bool eof_ = false;
  bool carrying_ = false;
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  std::size_t carry_len_ = 0;
  char buf_[16384];
  char carry_[kLineMax + 1];
};

// True if line (of len characters) begins with the lower-case text pat, compared lower-cased.
bool starts_with_lower(const char* line, std::size_t len, const char* pat, std::size_t pat_len) {
  if (len < pat_len) return false;
  for (std::size_t i = 0; i < pat_len; ++i)
    if (ascii_lower(line[i]) != pat[i]) return false;
  return true;
}

// Trailing blanks, then a trailing line end and carriage return, come off a value.
void strip_value(char* value) {
  std::size_t n = std::strlen(value);
  while (n > 0 && (value[n - 1] == ' ' || value[n - 1] == '\t')) --n;
  if (n > 0 && value[n - 1] == '\n') --n;
  if (n > 0 && value[n - 1] == '\r') --n;
  value[n] = '\0';
}

// What a search looks for: the bracketed, lower-cased section (empty:
// anywhere in the file) and the lower-cased key with its "=" (or "#").
struct SearchTerms {
  char section[kSectionMax + 1] = {};
  std::size_t section_len = 0;
  char key[kKeyMax + 2] = {};
  std::size_t key_len = 0;
};

SearchTerms make_terms(const char* section, const char* key, char key_end) {
  SearchTerms t;
  if (section != nullptr && *section != '\0') {
    const std::size_t n = std::strlen(section);
    std::string s;
    if (section[0] != '[') s += '[';
    s += section;
    if (section[n - 1] != ']') s += ']';
    CopyCut(t.section, s);
    lower_in_place(t.section);
    t.section_len = std::strlen(t.section);
  }
  std::string k(key != nullptr ? std::string_view(key).substr(0, kKeyMax) : std::string_view());
  k += key_end;
  CopyCut(t.key, k);
  lower_in_place(t.key);
  t.key_len = std::strlen(t.key);
  return t;
}

enum class ScanEnd {
  kOpenFailed,       // the file could not be opened (errno in error)
  kReadFailed,       // a read failed (errno in error)
  kSectionNotFound,  // end of file before the section
  kSectionEnded,     // the next section header inside the section
  kEndOfFile,        // end of file inside the section (or without section)
  kStopped,          // the line handler asked to stop
};

// Visits every key line of the section (or of the whole file without one)
// with on_line(line, len); on_line returns true to stop.
template <class OnLine>
ScanEnd scan_section(const char* file, const SearchTerms& t, int& error, OnLine on_line) {
  error = 0;
  UniqueFd fd(::open(file, O_RDONLY | O_CLOEXEC));
  if (!fd) {
    error = errno;
    return ScanEnd::kOpenFailed;
  }
  LineReader reader(fd.get());
  std::size_t len = 0;
  bool in_section = t.section_len == 0;
  while (const char* line = reader.next(len)) {
    if (len == 0 || line[0] == '#') continue;
    if (!in_section) {
      in_section = starts_with_lower(line, len, t.section, t.section_len);
      continue;
    }
    if (t.section_len != 0 && line[0] == '[') return ScanEnd::kSectionEnded;
    if (on_line(line, len)) return ScanEnd::kStopped;
  }
  if (reader.error() != 0) {
    error = reader.error();
    return ScanEnd::kReadFailed;
  }
  return in_section ? ScanEnd::kEndOfFile : ScanEnd::kSectionNotFound;
}

// The value of a key line: the text behind its first "=", stripped.
void line_value(const char* line, std::size_t len, char* value, std::size_t size) {
  const char* eq = static_cast<const char*>(std::memchr(line, '=', len));
  CopyCutN(value, size, eq ? std::string_view(eq + 1) : std::string_view());
  strip_value(value);
}

// Finds the key's raw value as written (no reference resolved).
bool find_raw(const char* file, const char* section, const char* key, char (&value)[kLineMax + 1], char* err,
              std::size_t err_size) {
  value[0] = '\0';
  if (file == nullptr || *file == '\0') {
    set_err(err, err_size, "i_GetPrivateProfileString: FILE NOT FOUND OR ACCESS PROBLEM.");
    return false;
  }
  const SearchTerms t = make_terms(section, key, '=');
  bool empty_hit = false;
  int error = 0;
  const ScanEnd end = scan_section(file, t, error, [&](const char* line, std::size_t len) {
    if (!starts_with_lower(line, len, t.key, t.key_len)) return false;
    line_value(line, len, value, sizeof value);
    empty_hit = value[0] == '\0';
    return true;
  });
  const std::string_view bare_key(t.key, t.key_len - 1);
  switch (end) {
    case ScanEnd::kStopped:
      if (!empty_hit) return true;
      set_err(err, err_size, "i_GetPrivateProfileString: KEY VALUE NOT FOUND.");
      return false;
    case ScanEnd::kOpenFailed:
    case ScanEnd::kReadFailed:
      set_err(err, err_size, "i_GetPrivateProfileString: FILE [%s] NOT FOUND OR ACCESS PROBLEM (%d): %s", file, error,
              std::strerror(error));
      return false;
    case ScanEnd::kSectionNotFound:
      set_err(err, err_size, "i_GetPrivateProfileString: SECTION NOT FOUND: %s.", t.section);
      return false;
    case ScanEnd::kSectionEnded:
      set_err(err, err_size, "i_GetPrivateProfileString: KEY NOT FOUND %s: %.*s", t.section,
              static_cast<int>(bare_key.size()), bare_key.data());
      return false;
    case ScanEnd::kEndOfFile:
      break;
  }
  set_err(err, err_size, "i_GetPrivateProfileString: KEY NOT FOUND: %.*s", static_cast<int>(bare_key.size()),
          bare_key.data());
  return false;
}

enum class Lookup { kFound, kNotFound, kTooDeep };

// Reads a key and resolves the first "%(name)" of its value, from the same
// section or else from "[DEFAULT]"; the referenced value is resolved the
// same way when it is read.
Lookup lookup(const char* file, const char* section, const char* key, char* value, std::size_t size, char* err,
              std::size_t err_size, int depth) {
  clear_text(value, size);
  if (depth > kMaxReferenceDepth) {
    set_err(err, err_size, "i_GetPrivateProfileString: REFERENCE LOOP OR NESTED TOO DEEP: %s", key);
    return Lookup::kTooDeep;
  }
  char raw[kLineMax + 1];
  if (!find_raw(file, section, key, raw, err, err_size)) return Lookup::kNotFound;
  const char* ref = std::strstr(raw, "%(");
  const char* close = ref ? std::strchr(ref + 2, ')') : nullptr;
  if (close == nullptr) {
    CopyCutN(value, size, raw);
    return Lookup::kFound;
  }
  char name[kKeyMax + 1];
  CopyCut(name, std::string_view(ref + 2, static_cast<std::size_t>(close - ref - 2)));
  char found[kLineMax + 1];
  Lookup r = lookup(file, section, name, found, sizeof found, err, err_size, depth + 1);
  if (r == Lookup::kNotFound) r = lookup(file, "[DEFAULT]", name, found, sizeof found, err, err_size, depth + 1);
  if (r != Lookup::kFound) return r;
  std::string joined(raw, static_cast<std::size_t>(ref - raw));
  joined += found;
  joined += close + 1;
  CopyCutN(value, size, joined);
  // The joined value loses a line end and carriage return at its end again.
  strip_value(value);
  set_err(err, err_size, "%s", "");
  return Lookup::kFound;
}

const char* or_empty(const char* text) { return text ? text : ""; }

const char* ini_or_default(const char* ini_name) {
  return (ini_name != nullptr && *ini_name != '\0') ? ini_name : "KD_INI";
}

// Loads an ini file into the dictionary. false (with errno in error) if it cannot be read.
bool load_dict(const char* path, IniDict& dict, int& error) {
  error = 0;
  UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd) {
    error = errno;
    return false;
  }
  LineReader reader(fd.get());
  std::size_t len = 0;
  std::string section_text;
  std::string section;
  while (const char* line = reader.next(len)) {
    if (len == 0 || line[0] == '#') continue;
    if (line[0] == '[') {
      const char* close = std::strchr(line, ']');
      section_text.assign(line + 1, close ? static_cast<std::size_t>(close - line - 1) : std::strlen(line + 1));
      section = lower_copy(section_text);
      continue;
    }
    const char* eq = std::strchr(line, '=');
    if (eq == nullptr || eq == line) continue;
    const std::string key_text(line, static_cast<std::size_t>(eq - line));
    const std::string key = lower_copy(key_text);
    if (dict.find(section, key) != nullptr) continue;  // the first line of a key is the one read
    char value[kLineMax + 1];
    CopyCut(value, eq + 1);
    strip_value(value);
    dict.entries.push_back({section, key, value, section_text, key_text});
  }
  if (reader.error() != 0) {
    error = reader.error();
    return false;
  }
  return true;
}

std::string strip_brackets(std::string_view section) {
  while (!section.empty() && section.front() == '[') section.remove_prefix(1);
  while (!section.empty() && section.back() == ']') section.remove_suffix(1);
  return std::string(section);
}

bool write_all(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// Reading keys
// ---------------------------------------------------------------------------

int i_GetPrivateProfileString(const char* file, const char* section, const char* key, char* value,
                              std::size_t value_size, char* err, std::size_t err_size) {
  clear_text(err, err_size);
  if (lookup(file, section, key, value, value_size, err, err_size, 0) == Lookup::kFound) return 1;
  clear_text(value, value_size);
  return 0;
}

int i_READ_INI(const char* ini_name, const char* section, const char* key, char* value, std::size_t value_size,
               char* err, std::size_t err_size) {
  const char* name = ini_or_default(ini_name);
  char path[kPathMax];
  if (i_GET_ROOT_FOR_INI(name, path, sizeof path, err, err_size) &&
      i_GetPrivateProfileString(path, section, key, value, value_size, err, err_size))
    return 1;
  clear_text(value, value_size);
  trace("READ_INI: %s %s %s not found", name, or_empty(section), or_empty(key));
  return 0;
}

int i_GetPrivateProfileList(const char* file, const char* section, const char* key, std::vector<std::string>& list,
                            char* err, std::size_t err_size) {
  clear_text(err, err_size);
  list.clear();
  if (file == nullptr || *file == '\0') {
    set_err(err, err_size, "i_GetPrivateProfileList: FILE NOT FOUND OR ACCESS PROBLEM.");
    return 0;
  }
  const SearchTerms t = make_terms(section, key, '#');
  int error = 0;
  const ScanEnd end = scan_section(file, t, error, [&](const char* line, std::size_t len) {
    if (starts_with_lower(line, len, t.key, t.key_len) && std::memchr(line, '=', len) != nullptr) {
      char value[kLineMax + 1];
      line_value(line, len, value, sizeof value);
      if (value[0] != '\0') list.emplace_back(value);
    }
    return false;
  });
  switch (end) {
    case ScanEnd::kOpenFailed:
    case ScanEnd::kReadFailed:
      set_err(err, err_size, "i_GetPrivateProfileList: FILE [%s] NOT FOUND OR ACCESS PROBLEM (%d): %s", file, error,
              std::strerror(error));
      break;
    case ScanEnd::kSectionNotFound:
      set_err(err, err_size, "i_GetPrivateProfileList: SECTION NOT FOUND: %s.", t.section);
      break;
    default:
      if (list.empty()) set_err(err, err_size, "i_GetPrivateProfileList: KEY NOT FOUND: %s", t.key);
      break;
  }
  return static_cast<int>(list.size());
}

int i_READ_INI_LIST(const char*, const char* section, const char* key, std::vector<std::string>& list, char* err,
                    std::size_t err_size) {
  list.clear();
  clear_text(err, err_size);
  char path[kPathMax];
  char root_err[512];
  if (!i_GET_ROOT_FOR_INI("KD_INI", path, sizeof path, root_err, sizeof root_err)) {
    trace("%l0 i_READ_INI_LIST: i_GET_ROOT_FOR_INI() failed");
    set_err(err, err_size, "i_READ_INI_LIST: i_GET_ROOT_FOR_INI() failed");
    return 0;
  }
  const int n = i_GetPrivateProfileList(path, section, key, list, err, err_size);
  trace("i_READ_INI_LIST: got %d values", n);
  if (n == 0) {
    trace("%l2 i_READ_INI_LIST: No values for [%s#] found in [%s]", or_empty(key), or_empty(section));
    set_err(err, err_size, "i_READ_INI_LIST: No values for [%s#] found in KD_INI", or_empty(key));
  }
  return n;
}

// ---------------------------------------------------------------------------
// The ini dictionary
// ---------------------------------------------------------------------------

IniDict::Entry* IniDict::find(const std::string& section, const std::string& key) {
  const std::string s = lower_copy(strip_brackets(section));
  const std::string k = lower_copy(key);
  for (Entry& e : entries)
    if (e.section == s && e.key == k) return &e;
  return nullptr;
}

bool IniDict::set(const std::string& section, const std::string& key, const std::string& value) {
  const std::string section_text = strip_brackets(section);
  if (key.empty() || key.find_first_of("=\n\r") != std::string::npos || key[0] == '[' || key[0] == '#' ||
      section_text.find_first_of("[]\n\r") != std::string::npos || value.find_first_of("\n\r") != std::string::npos)
    return false;
  if (Entry* e = find(section_text, key)) {
    e->value = value;
    return true;
  }
  Entry e{lower_copy(section_text), lower_copy(key), value, section_text, key};
  // A known section keeps the spelling of its header.
  for (const Entry& other : entries) {
    if (other.section == e.section) {
      e.section_text = other.section_text;
      break;
    }
  }
  entries.push_back(std::move(e));
  return true;
}

bool IniDict::write(const char* file) const {
  if (file == nullptr || *file == '\0') return false;
  std::string text;
  std::vector<std::string> done;
  // Keys before any section first, then each section in the order of its first entry.
  for (const Entry& first : entries) {
    if (std::find(done.begin(), done.end(), first.section) != done.end()) continue;
    done.push_back(first.section);
    if (!text.empty()) text += '\n';
    if (!first.section.empty() || !first.section_text.empty()) text += "[" + first.section_text + "]\n";
    for (const Entry& e : entries)
      if (e.section == first.section) text += e.key_text + "=" + e.value + "\n";
  }
  // Readers scan the file at any moment: write a whole copy, then rename it into place.
  struct stat st {};
  const mode_t mode = ::stat(file, &st) == 0 ? (st.st_mode & 07777) : 0644;
  const std::string tmp = std::string(file) + ".tmp";
  UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (fd) {
    ::fchmod(fd.get(), mode);
    const bool written = write_all(fd.get(), text);
    const bool closed = ::close(fd.release()) == 0;
    if (written && closed && ::rename(tmp.c_str(), file) == 0) return true;
    ::unlink(tmp.c_str());
  }
  // No temporary file possible beside it (a directory we may not write): rewrite in place.
  UniqueFd direct(::open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (!direct) return false;
  return write_all(direct.get(), text) && ::close(direct.release()) == 0;
}

std::unique_ptr<IniDict> p_PARSE_INI(const char* ini_name, char* err, std::size_t err_size) {
  clear_text(err, err_size);
  char path[kPathMax];
  if (!i_GET_ROOT_FOR_INI(ini_or_default(ini_name), path, sizeof path, err, err_size)) return nullptr;
  auto dict = std::make_unique<IniDict>();
  int error = 0;
  if (!load_dict(path, *dict, error)) {
    set_err(err, err_size, "p_PARSE_INI: FILE [%s] NOT FOUND OR ACCESS PROBLEM (%d): %s", path, error,
            std::strerror(error));
    return nullptr;
  }
  return dict;
}

int i_change_ini(const char* ini_name, const char* section, const char* key, const char* value, char flag) {
  trace("Change INI file: %s %s %s %s", or_empty(ini_name), or_empty(section), or_empty(key), or_empty(value));
  const std::string sect = strip_brackets(or_empty(section));
  char path[kPathMax];
  if (ini_name != nullptr && std::strchr(ini_name, '/') != nullptr) {
    CopyCut(path, ini_name);
    trace("change_ini: Use inserted ini file '%s'", path);
  } else {
    char err[512];
    const int found = i_GET_ROOT_FOR_INI(ini_or_default(ini_name), path, sizeof path, err, sizeof err);
    trace("change_ini: GET_ROOT_FOR_INI with %s, returned szKdIniPath=[%s]", ini_or_default(ini_name), path);
    if (!found) {
      trace("%l0 change_ini: GET_ROOT_FOR_INI failed");
      return 0;
    }
  }
  IniDict dict;
  int error = 0;
  // A file that does not exist yet starts empty and is created by the write.
  if (!load_dict(path, dict, error) && error != ENOENT) {
    trace("%l0 change_ini: cannot read %s: %s (%d)", path, std::strerror(error), error);
    return 0;
  }
  const std::string entry = sect + ":" + or_empty(key);
  trace("Search for Section: Key %s with cFlag %c in ini file %s", entry.c_str(), flag, path);
  if (const IniDict::Entry* e = dict.find(sect, or_empty(key))) {
    if (flag != 'o') {
      trace("Key already exists and no overwrite set");
      return 1;
    }
    trace("Key %s Value: %s", entry.c_str(), e->value.c_str());
    if (e->value == or_empty(value)) {
      trace("Key already exists with same value");
      return 1;
    }
  }
  trace("Set %s=%s in %s", entry.c_str(), or_empty(value), path);
  if (!dict.set(sect, or_empty(key), or_empty(value))) {
    trace("%l0 change_ini: cannot set %s", entry.c_str());
    return 0;
  }
  if (!dict.write(path)) {
    trace("%l0 change_ini: cannot write %s: %s (%d)", path, std::strerror(errno), errno);
    return 0;
  }
  trace("Ini file %s written", path);
  return 1;
}

// ---------------------------------------------------------------------------
// Path prefixes
// ---------------------------------------------------------------------------

int resolve_path(char* path, std::size_t size) {
  if (path == nullptr || size == 0) return 1;
  char copy[kPathMax];
  CopyCut(copy, path);
  // From the third character on, so that a drive letter such as C: is no prefix.
  const char* colon = std::strlen(copy) > 2 ? std::strchr(copy + 2, ':') : nullptr;
  if (colon == nullptr) return 1;
  const std::string name(copy, static_cast<std::size_t>(colon - copy));
  if (name.find_first_of("/\\") != std::string::npos) return 1;
  char dir[kPathMax];
  char err[512];
  if (!i_READ_INI("KD_INI", "[Pathes]", name.c_str(), dir, sizeof dir, err, sizeof err)) return 1;
  // The directory values end in a path separator; none is added.
  std::string joined(dir);
  joined += colon + 1;
  CopyCutN(path, size, joined);
  return 1;
}

int resolve_glbv(char* path, std::size_t size) {
  if (path == nullptr || size == 0) return 0;
  trace("%l3 resolve_glbv: [%s]", path);
  const std::size_t len = std::strlen(path);
  const bool quoted = len >= 2 && path[0] == '"' && path[len - 1] == '"';
  const std::string_view inner = quoted ? std::string_view(path + 1, len - 2) : std::string_view(path, len);
  const std::size_t colon = inner.find(':');
  // A colon at the second character or earlier is a drive path of another platform.
  if (colon != std::string_view::npos && colon <= 1) {
    trace("%l3 resolve_glbv: Return given Windows path [%s]", path);
    return 0;
  }
  char name[kPathMax];
  CopyCut(name, inner.substr(0, colon));
  const std::string rest(colon == std::string_view::npos ? std::string_view() : inner.substr(colon + 1));
  char answer[512];
  glbv('r', name, answer);
  trace("%l3 resolve_glbv: [%s] -> [%s]", name, answer);
  if (answer[0] == '?') {
    trace("%l3 resolve_glbv: return [%s]", path);
    return 0;
  }
  std::unique_ptr<char[]> work(new (std::nothrow) char[size]);
  if (!work) {
    trace("%l0 resolve_glbv: malloc(%lu) failed with: (%d) %s", static_cast<unsigned long>(size), ENOMEM,
          std::strerror(ENOMEM));
    return 0;
  }
  if (quoted && colon == std::string_view::npos)
    std::snprintf(work.get(), size, "\"%s\"", answer);
  else if (quoted)
    std::snprintf(work.get(), size, "\"%s%s\"", answer, rest.c_str());
  else
    std::snprintf(work.get(), size, "%s%s", answer, rest.c_str());
  CopyCutN(path, size, work.get());
  trace("%l3 resolve_glbv: return [%s]", path);
  return 1;
}

// ---------------------------------------------------------------------------
// Global variables with defaults
// ---------------------------------------------------------------------------

namespace {

// Reads a variable into answer (512 bytes); true if it is set.
bool read_variable(std::string_view name, char (&answer)[512]) {
  char copy[kPathMax];
  CopyCut(copy, name);
  glbv('r', copy, answer);
  return answer[0] != '?';
}

char gszGlbvDefault[512];
char gszGlbv2Default[512];
char gszGlbvValue[512];

}  // namespace

const char* read_glbv_default(const char* name, const char* default_value) {
  if (!read_variable(or_empty(name), gszGlbvDefault))
    CopyCutN(gszGlbvDefault, 256, or_empty(default_value));
  return gszGlbvDefault;
}

const char* read_2_glbv_default(const char* name, const char* prefix, const char* default_value) {
  const std::string_view n = or_empty(name);
  const std::string first = n.starts_with("gv_") ? std::string(n) : std::string(or_empty(prefix)) + "_" + std::string(n);
  if (!read_variable(first, gszGlbv2Default) && !read_variable(or_empty(prefix), gszGlbv2Default))
    CopyCutN(gszGlbv2Default, 256, or_empty(default_value));
  return gszGlbv2Default;
}

long i_read_glbv_default_long(const char* name, long default_value) {
  char answer[512];
  if (!read_variable(or_empty(name), answer)) {
    trace("%l3 read_glbv_default_long: GLBV [%s] is not set -> use default %ld", or_empty(name), default_value);
    return default_value;
  }
  const long value = std::strtol(answer, nullptr, 10);
  trace("%l3 read_glbv_default_long: GLBV variable [%s] has the value %ld", or_empty(name), value);
  return value;
}

const char* read_glbv(const char* name) {
  read_variable(or_empty(name), gszGlbvValue);
  return gszGlbvValue;
}

bool b_is_glbv_set(const char* name) {
  char answer[512];
  if (!read_variable(or_empty(name), answer)) return false;
  return answer[0] == 'y' || answer[0] == 'Y' || answer[0] == '1';
}
