// Text helpers shared by the library core and the bus wrapper.
#ifndef UOZ_KT5UTILS_TEXT_H
#define UOZ_KT5UTILS_TEXT_H

// Heap copy of a text with malloc; NULL for NULL or when memory runs out.
char *uoz_strdup(const char *text);

// True when both texts are equal once ASCII letters are folded to one case.
// Only A-Z and a-z fold, whatever the application's locale: under a Turkish
// locale the C library's strcasecmp no longer pairs 'I' with 'i'.
bool ascii_equal_ignoring_case(const char *first, const char *second);

#endif
