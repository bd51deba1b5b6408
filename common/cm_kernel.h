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
/// ("W003-BASICS "), one blank and the text. Never fails towards the caller.
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
/// "W003-BASICS  Command execution produced a warning: %s > %s"
extern const MsgSet MSG_W003_CMD_WARNING;
/// "Fatal software error FILE=%s LINE=%d (%s)"
extern const MsgSet MSG_FATAL_SOFTWARE_ERROR;
/// "?? invalid service %c"
extern const MsgSet MSG_GLBV_INVALID_SERVICE;

// ---------------------------------------------------------------------------
// Configuration files
// ---------------------------------------------------------------------------

/// Reads one key of a section of an ini file (section empty or null: anywhere).
/// 1 found / 0 not found; err always receives a text (empty on success).
int i_GetPrivateProfileString(const char* file, const char* section, const char* key, char* value,
                              std::size_t value_size, char* err, std::size_t err_size);

/// Reads a key of the configuration named by ini_name (empty or null: "KD_INI").
/// 1 / 0; on failure the value is empty.
int i_READ_INI(const char* ini_name, const char* section, const char* key, char* value,
               std::size_t value_size, char* err, std::size_t err_size);

/// Reads every key "key#..." of a section of a file into list, in file order;
/// returns the number of values.
int i_GetPrivateProfileList(const char* file, const char* section, const char* key,
                            std::vector<std::string>& list, char* err, std::size_t err_size);

/// i_GetPrivateProfileList on the main configuration "KD_INI" (always, whatever name is given).
int i_READ_INI_LIST(const char* ini_name, const char* section, const char* key,
                    std::vector<std::string>& list, char* err, std::size_t err_size);

/// A loaded ini file: entries named "section:key" (lower-cased), in file order.
struct IniDict {
  struct Entry {
    std::string section;  ///< lower-cased, without brackets; "" for keys before any section
    std::string key;      ///< lower-cased
    std::string value;
  };
  std::vector<Entry> entries;
  /// Pointer to the entry "section:key", or nullptr.
  Entry* find(const std::string& section, const std::string& key);
  /// Sets or adds the entry; false on a bad name.
  bool set(const std::string& section, const std::string& key, const std::string& value);
  /// Writes the whole dictionary to a file; false if it cannot be written.
  bool write(const char* file) const;
};

/// Resolves the ini name (empty: "KD_INI") and loads the whole file, or nullptr.
std::unique_ptr<IniDict> p_PARSE_INI(const char* ini_name, char* err, std::size_t err_size);

/// Sets one key in an ini file; flag 'o' overwrites an existing value. 1 / 0.
int i_change_ini(const char* ini_name, const char* section, const char* key, const char* value,
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
/// ("N", "I", "U", or a shift "D %d", "H %d", "M %d", "S %d", "T", "Y",
/// optionally after a base time) and the result on return.
char* time_get(char* buffer);

/// Parses a time text in one of the server's notations into tm; the position
/// behind the parsed text, or nullptr.
const char* cm_convert_time(const char* text, struct tm* tm);

/// Converts a time text in place to the compact stamp; the new length.
int cm_time_iso2stamp(char* buffer);
/// Converts a time text in place to the readable form; the new length
/// (0 for an empty text or "NULL", which stay as they are).
int cm_time_stamp2iso(char* buffer);

/// The current local time as "%Y-%m-%d %H:%M:%S" (one static buffer).
const char* psz_now_iso();
