// Field splitting.
#pragma once

/// Tokenizer that keeps empty fields. A call with a text copies it into one
/// static work area of 138000 bytes (a longer text is cut at 137999
/// characters and the cut traced at level 0), replaces every delimiter by a
/// string end and returns the first field; a call with nullptr returns the
/// next field, or nullptr once the end has been passed (and before any text
/// was given). "a,,b," with ',' gives "a", "", "b", "" and then nullptr; an
/// empty text gives one empty field. The fields live in the work area until
/// the next call with a text: one area per process, not reentrant.
char* cm_strtok(const char* text, char delimiter);
