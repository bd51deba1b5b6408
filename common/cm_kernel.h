// Kernel services of the common runtime: protocol messages, ini reading and
// the time helpers.
#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "cm_common.h"

// ---------------------------------------------------------------------------
// Protocol messages
// ---------------------------------------------------------------------------

/// An additional protocol file; callers without one pass nullptr.
struct sPROT {
  char szLogFile[1024] = {};  ///< path of the additional protocol file
};

/// Writes one protocol message. The format begins with a 12-character tag
/// ("W003-BASICS "), one blank and the text. Lines go to the file named by
/// the global variable gv_prot (standard output while it is unset), those of
/// kind "E" and the first line of kind "A" also to gv_prot + ".err" (standard
/// error while it is unset), and all to the additional file if one is given.
/// Never fails towards the caller; a bad tag or an overlong text is noted as
/// a W999 or E999 line.
void FPROT(const sPROT* additional, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// One message in the languages the system keeps it in. fr may be null.
struct MsgSet {
  const char* en;
  const char* de;
  const char* by;
  const char* fr = nullptr;
};

/// The text of a message set for a language: German for LANG_DE, dialect
/// for LANG_BY, French for LANG_FR where one exists, else English.
const char* msg_text(const MsgSet& set, LANGUAGES lang);
/// msg_text for the process's language eLang.
inline const char* msg_text(const MsgSet& set) { return msg_text(set, eLang); }

/// "E003-BASICS  %s > %s not yet existing - please restart ORL kelda." (caller, key)
extern const MsgSet MSG_E003_NOT_EXISTING;
/// "W003-BASICS  Command execution produced a warning: %s > %s" (text, detail)
extern const MsgSet MSG_W003_CMD_WARNING;
/// "Fatal software error FILE=%s LINE=%d (%s)" (source, line, reason); no tag
extern const MsgSet MSG_FATAL_SOFTWARE_ERROR;
/// "?? invalid service %c"
extern const MsgSet MSG_GLBV_INVALID_SERVICE;

// ---------------------------------------------------------------------------
// Configuration files
// ---------------------------------------------------------------------------

/// Reads one key of a section of an ini file (section empty or null: anywhere).
/// 1 found / 0 not found (value empty); err always receives a text (empty on
/// success). A "%(name)" chain deeper than 16 references counts as a loop and fails.
[[nodiscard]] int i_GetPrivateProfileString(const char* file, const char* section, const char* key, char* value,
                              std::size_t value_size, char* err, std::size_t err_size);

/// Reads a key of the configuration named by ini_name (empty or null: "KD_INI").
/// 1 / 0; on failure the value is empty.
[[nodiscard]] int i_READ_INI(const char* ini_name, const char* section, const char* key, char* value,
               std::size_t value_size, char* err, std::size_t err_size);

/// Reads every key "key#..." of a section of a file into list (cleared
/// first), in file order; values as written, empty ones left out, "%(name)"
/// not resolved. Returns the number of values.
[[nodiscard]] int i_GetPrivateProfileList(const char* file, const char* section, const char* key,
                            std::vector<std::string>& list, char* err, std::size_t err_size);

/// i_GetPrivateProfileList on the main configuration "KD_INI" (always, whatever name is given).
[[nodiscard]] int i_READ_INI_LIST(const char* ini_name, const char* section, const char* key,
                    std::vector<std::string>& list, char* err, std::size_t err_size);

/// A loaded ini file: entries named "section:key" (lower-cased), in file order.
struct IniDict {
  struct Entry {
    std::string section;  ///< lower-cased, without brackets; "" for keys before any section
    std::string key;      ///< lower-cased
    std::string value;    ///< as written, trailing blanks removed; "%(name)" not resolved
    std::string section_text;  ///< the section as written in its header, for writing back
    std::string key_text;      ///< the key as written, for writing back
  };
  std::vector<Entry> entries;
  /// Pointer to the entry "section:key", or nullptr.
  Entry* find(const std::string& section, const std::string& key);
  /// Sets or adds the entry; false on a bad name.
  bool set(const std::string& section, const std::string& key, const std::string& value);
  /// Writes the whole dictionary to a file (a whole copy renamed into place
  /// where possible); false if it cannot be written.
  bool write(const char* file) const;
};

/// Resolves the ini name (empty: "KD_INI") and loads the whole file, or nullptr.
[[nodiscard]] std::unique_ptr<IniDict> p_PARSE_INI(const char* ini_name, char* err, std::size_t err_size);

/// Sets one key in an ini file; flag 'o' overwrites an existing value. 1 / 0.
/// An ini name holding "/" is the file itself; any other is resolved like
/// i_READ_INI. A file that does not exist yet is created.
[[nodiscard]] int i_change_ini(const char* ini_name, const char* section, const char* key, const char* value,
                 char flag);

/// Expands a "[Pathes]" prefix ("gv_rw_lgc:file") in place. Always 1.
int resolve_path(char* path, std::size_t size);

/// Expands a global-variable prefix ("name:rest") in place. 1 expanded / 0 unchanged.
int resolve_glbv(char* path, std::size_t size);

/// The global variable's value, or the default (at most 255 characters).
/// One static buffer, overwritten by the next call.
const char* read_glbv_default(const char* name, const char* default_value);
/// Tries "prefix_name" (or the name alone if it begins with "gv_"), then the
/// variable named by the prefix, then the default. One static buffer.
const char* read_2_glbv_default(const char* name, const char* prefix, const char* default_value);
/// The variable as a decimal number, or the default.
long i_read_glbv_default_long(const char* name, long default_value);
/// The variable's text ("?"-answer if unset). One static buffer.
const char* read_glbv(const char* name);
/// True if the variable's value begins with "y", "Y" or "1".
bool b_is_glbv_set(const char* name);

// ---------------------------------------------------------------------------
// Time helpers
// ---------------------------------------------------------------------------

/// The time function. The buffer (at least 25 bytes) holds a command on entry
/// and the result on return. Its first character selects: "N" the current
/// time as compact stamp with milliseconds (17 digits), "I" as compact stamp
/// (14 digits), "U" like "N" but local standard time (no daylight saving).
/// Anything else shifts a base time and gives the readable form (19
/// characters): the base is now, or the readable time "%Y-%m-%d %H:%M:%S" and
/// a blank, or the stamp "%Y%m%d_%H%M%S" and a blank, in front of the shift
/// ("D %d" days, "H %d" hours, "M %d" minutes, "S %d" seconds, "T" tomorrow,
/// "Y" yesterday; anything else leaves the base). A result that does not fit
/// the calendar (beyond the year 9999 or before the year 1) becomes the end
/// of the epoch, 2147483647.
char* time_get(char* buffer);

/// Parses a time text in one of the server's notations ("%Y%m%d%H%M%S",
/// "%Y%m%d", "%Y-%m-%d %H:%M:%S", "%Y-%m-%d", tried in this order; with a "_"
/// in the text its 11th character counts as a blank) into tm. Fields the
/// notation does not carry (the time of day of a date) are left as they are.
/// Returns the position in text behind the parsed part, or nullptr.
const char* cm_convert_time(const char* text, struct tm* tm);

/// Converts a time text in place to the compact stamp "%Y%m%d%H%M%S"; the
/// buffer holds at least 20 bytes. Returns the new length, or 0 (buffer
/// unchanged) when the text cannot be converted.
[[nodiscard]] int cm_time_iso2stamp(char* buffer);
/// Converts a time text in place to the readable form "%Y-%m-%d %H:%M:%S";
/// the buffer holds at least 20 bytes. Returns the new length, or 0 (buffer
/// unchanged) for an empty text, "NULL" or a text that cannot be converted.
/// A date alone gives that day at 00:00:00.
[[nodiscard]] int cm_time_stamp2iso(char* buffer);

/// The current local time as "%Y-%m-%d %H:%M:%S" (one static buffer).
const char* psz_now_iso();
