// Field splitting.
#pragma once

/// Tokenizer that keeps empty fields. A call with a text copies it into one
/// static work area (cut at 137999 characters) and returns the first field;
/// a call with nullptr returns the next field, or nullptr past the end.
char* cm_strtok(const char* text, char delimiter);
