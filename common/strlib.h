// String helpers: the own time parser and the resettable option parser.
#pragma once

#include <cstddef>
#include <ctime>

/// Parses text by a strptime format into tm.
///
/// Conversions: %Y (1 to 4 digits), %m (01-12), %d and %e (01-31; %e may be
/// blank-padded), %H (00-23), %M (00-59), %S (00-60), %y (00-99: 69-99 are
/// 1969-1999, 00-68 are 2000-2068), %j (001-366), %F = %Y-%m-%d,
/// %T = %H:%M:%S, %n and %t (any run of white space, also none), %% (a
/// percent sign). Numbers are digits only (no sign, no leading blanks but for
/// %e) and take at most their field width, so "%Y%m%d" reads "20260513".
///
/// Blank rule: a white-space character in the format matches any run of
/// white space in the text, including none. So "%F T %T" accepts
/// "2026-05-13 T 08:00:00" and "2026-05-13T08:00:00" but not
/// "2026-05-13 08:00:00" (the literal "T" is missing). Any other format
/// character must match the text exactly (case-sensitive).
///
/// On a match the carried fields are stored (tm_year, tm_mon, tm_mday,
/// tm_hour, tm_min, tm_sec, tm_yday) and every other field is left as it was;
/// on a mismatch or an out-of-range value tm is not touched at all.
/// Returns the position behind the consumed text, or nullptr (also for a
/// null text, format or tm); the whole text was consumed when *result == '\0'.
const char* kd_strptime(const char* text, const char* format, struct tm* tm);

/// The option parser's state (its own, independent of the C library's getopt).
extern char* myoptarg;  ///< value of the last option that takes one; nullptr after a flag
extern int myoptind;    ///< index of the next word to read
extern int myoptopt;    ///< the last option character that was unknown or lacked its value
extern int myopterr;    ///< 1 = print errors on standard error (default 0)

/// Resets the parser to the first word after the program name (myoptind = 1,
/// no position within a word group).
void mygetopt_reset();

/// POSIX-style option parser without permutation: options end at the first
/// word that does not begin with "-", at "-" alone (a non-option, not
/// consumed), or after "--" (consumed). Grouped flags ("-ab"), glued values
/// ("-p5") and separate values ("-p 5") are accepted; a letter followed by
/// "::" in optstring takes an optional value, glued only. Returns the option
/// character, '?' for an unknown option or a missing value (':' for a missing
/// value when optstring begins with ':'), -1 at the end of the options.
/// Never reads argv[argc] or beyond; a null word ends the options.
int mygetopt(int argc, char* const argv[], const char* optstring);

/// Lower-cases / upper-cases text in place (ASCII letters only); returns
/// text. A null text is returned as it is.
char* str_to_lower(char* text);
char* str_to_upper(char* text);
