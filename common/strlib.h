// String helpers: the own time parser and the resettable option parser.
#pragma once

#include <cstddef>
#include <ctime>

/// Parses text by a strptime format into tm (conversions %Y %m %d %H %M %S %F
/// %T %y %e %j %n %t %% and blanks). Fields the format does not carry are left
/// as they are. Returns the position behind the consumed text, or nullptr if
/// the text does not match; the whole text was consumed when *result == '\0'.
const char* kd_strptime(const char* text, const char* format, struct tm* tm);

/// The option parser's state (its own, independent of the C library's getopt).
extern char* myoptarg;  ///< value of the last option that takes one
extern int myoptind;    ///< index of the next word to read
extern int myoptopt;    ///< the last option character that was not recognised
extern int myopterr;    ///< 1 = print errors on standard error (default 0)

/// Resets the parser to the first word after the program name.
void mygetopt_reset();

/// POSIX-style option parser without permutation: options end at the first
/// word that does not begin with "-", at "-" alone, or after "--". Returns the
/// option character, '?' for an unknown option or a missing value (':' when
/// the option string begins with ':'), -1 at the end of the options.
int mygetopt(int argc, char* const argv[], const char* optstring);

/// Lower-cases / upper-cases text in place; returns text.
char* str_to_lower(char* text);
char* str_to_upper(char* text);
