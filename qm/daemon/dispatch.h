// Splitting a request line into a query and executing it through the one
// table of request handlers, a handler per mode.
#pragma once

#include "protocol/request.h"

/// Longest request accepted for execution (line feed excluded) is one less.
inline constexpr int kMaxQueryLength = 1024;

extern char gszClientPid[32];  ///< field 2 of the request being served, as text

/// Splits one request line (line feed removed) into a query: mode, argument
/// text, peer, queue name, gszClientPid, gszResource and gszAllocate.
void SplitRequest(const char* line, Query* q);

/// Parses and executes one request line; 0 done, 1 refused, 2 shutdown.
int iEXEC_REQUEST(const char* line);

/// Executes a split query (SplitRequest) by its mode through the table of
/// request handlers; 0 done, 1 refused, 2 shutdown. A query whose peer is
/// not valid is executed without any answer.
int DispatchQuery(Query* q);

/// Reads a whole decimal number (nothing may follow it); false for null,
/// empty, malformed or out-of-range text.
bool ParseDecimal(const char* text, long long* value);
