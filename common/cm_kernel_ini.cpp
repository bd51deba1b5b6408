// Stub: replaced by the configuration file implementation.
#include "cm_kernel.h"

int i_GetPrivateProfileString(const char*, const char*, const char*, char* value, std::size_t value_size,
                              char* err, std::size_t err_size) {
  if (value_size) value[0] = '\0';
  if (err_size) err[0] = '\0';
  return 0;
}
int i_READ_INI(const char*, const char*, const char*, char* value, std::size_t value_size, char* err,
               std::size_t err_size) {
  if (value_size) value[0] = '\0';
  if (err_size) err[0] = '\0';
  return 0;
}
int i_GetPrivateProfileList(const char*, const char*, const char*, std::vector<std::string>&, char*,
                            std::size_t) {
  return 0;
}
int i_READ_INI_LIST(const char*, const char*, const char*, std::vector<std::string>&, char*, std::size_t) {
  return 0;
}
IniDict::Entry* IniDict::find(const std::string&, const std::string&) { return nullptr; }
bool IniDict::set(const std::string&, const std::string&, const std::string&) { return false; }
bool IniDict::write(const char*) const { return false; }
std::unique_ptr<IniDict> p_PARSE_INI(const char*, char*, std::size_t) { return nullptr; }
int i_change_ini(const char*, const char*, const char*, const char*, char) { return 0; }
int resolve_path(char*, std::size_t) { return 1; }
int resolve_glbv(char*, std::size_t) { return 0; }
const char* read_glbv_default(const char*, const char* d) { return d; }
const char* read_2_glbv_default(const char*, const char*, const char* d) { return d; }
long i_read_glbv_default_long(const char*, long d) { return d; }
const char* read_glbv(const char*) { return "?? GLBV not existing"; }
bool b_is_glbv_set(const char*) { return false; }
