// Platform services: locating the configuration, global variables, the
// process lock, the process environment and signalling.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

/// Finds the path of the ini file named by name ("KD_INI") in the bootstrap
/// files ($KD_INI, "/etc/opt/kelda/kelda.ini", "/etc/kelda2000.ini"). A name
/// beginning with "/" is itself the path. 1 found / 0 not found.
[[nodiscard]] int i_GET_ROOT_FOR_INI(const char* name, char* result, std::size_t result_size, char* err,
                       std::size_t err_size);

/// The bootstrap files in the order they are tried. Tests may redirect the
/// two fixed files (nullptr restores the defaults).
void cm_set_bootstrap_files_for_tests(const char* first_fixed, const char* second_fixed);

/// Global variables. service: 'r' read, 'R' read and delete, 'w' write the
/// buffer's text, 'd' delete, 'l' list names, 'L' list names and values.
/// Every "/" and "\" of name is replaced by "_" in place. buffer holds at
/// least 512 bytes and receives the answer; "??" means unset or failed.
/// A write moves a whole file of this process to "<name>.sgv.tmp" and that
/// over "<name>.sgv", so readers see the old or a new value, never a part.
/// The gv_rw_glbv directory is read at the first call and kept.
char* glbv(char service, char* name, char* buffer);

/// Forgets the cached gv_rw_glbv directory, so that the next glbv call reads
/// it from the configuration again (tests with several instances).
void glbv_forget_directory();

/// The file pattern of the glbv services "d", "l" and "L": "?" stands for one
/// character, "*" for any run, "|" separates alternatives.
bool glbv_pattern_match(std::string_view pattern, std::string_view name);

/// Takes the lock file "%ssem/%s.lock" of gv_rw_work: mode '*' shared,
/// '+' exclusive for the life of the process, any other mode a test.
/// 1 / 0, the message in msg.
[[nodiscard]] int i_GET_LOCK_FOR_PROCESS(char mode, const char* name, char* msg, std::size_t msg_size);

/// Takes the exclusive process lock of name, or ends the process with exit code 1.
void AVOID_MULTI_PROCESS(const char* name);

/// Prepares PATH (and PGPORT, LD_LIBRARY_PATH where needed) for the module text. 1 / 0.
[[nodiscard]] int i_setenv_kelda(const char* module);

/// Sends a signal and traces the outcome. 1 sent / 0 failed.
[[nodiscard]] int i_cm_kill(pid_t pid, int sig);
