// Freeing and copying list elements of every kind: a list knows its element
// kind, and each kind is freed with its own record's destructor.
#pragma once

#include "model/list.h"

/// Frees one element of the given kind with its record's destructor.
void DeleteElement(ListOf type, Node* node);
/// Unlinks and frees every node (the element's own block; lists inside the
/// elements must be released by the caller first).
void RemoveList(List* list);
/// Appends copies of the source's elements (arguments only); the count copied.
int AddList(List* out, const List* in);
/// Frees the items of a Resource list.
void FreeResourceList(List* list);
