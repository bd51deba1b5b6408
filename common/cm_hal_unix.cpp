// Stub: replaced by the ini location and global variable implementation.
#include "cm_hal_unix.h"

int i_GET_ROOT_FOR_INI(const char*, char* result, std::size_t result_size, char* err, std::size_t err_size) {
  if (result_size) result[0] = '\0';
  if (err_size) err[0] = '\0';
  return 0;
}
void cm_set_bootstrap_files_for_tests(const char*, const char*) {}
char* glbv(char, char*, char* buffer) { return buffer; }
void glbv_forget_directory() {}
